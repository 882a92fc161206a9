#include "objects/HandlePool_p.h"

#include "objects/REFLECT_object.h"
#include "platform/Immortal_p.h"
#include "platform/Lock.h"
#include "platform/Mutex.h"
#include "platform/ThreadAnnotations.h"

#include <functional>
#include <new>

namespace {

/** The link stands behind the handle: what a handle holds is left as it was, which helps to see misuse. */
struct Cell {
    alignas(TreflectObject) unsigned char handle[sizeof(TreflectObject)];
    Cell *next;
};
static_assert(sizeof(void *) != 4 || sizeof(Cell) == 12, "three words where words have 32 bits");

// Threads that do not have the run permission destroy handles, too. Static objects may be the first to ask.
Immortal<OSWrap::Mutex> immortal;
OSWrap::Mutex &lock = immortal.object;
using Locked = OSWrap::Lock<OSWrap::Mutex>;

struct Block {
    Cell cells[HandlePool::kCellsOfBlock];
    Block *next;
};

Cell *freeCells RB_GUARDED_BY(lock) = nullptr;
Block *blockList RB_GUARDED_BY(lock) = nullptr;
unsigned blockCount RB_GUARDED_BY(lock) = 0;

bool addBlock() noexcept RB_REQUIRES(lock) {
    auto *const block = new (std::nothrow) Block;
    if (block == nullptr) {
        return false;
    }
    Cell *const cells = block->cells;
    for (unsigned i = 0; i < HandlePool::kCellsOfBlock; ++i) {
        cells[i].next = i + 1 < HandlePool::kCellsOfBlock ? &cells[i + 1] : nullptr;
    }
    freeCells = cells;
    block->next = blockList;
    blockList = block;
    ++blockCount;
    return true;
}

} // namespace

void *HandlePool::take() noexcept {
    Locked locked(lock);
    Cell *const cell = freeCells != nullptr || addBlock() ? freeCells : nullptr;
    if (cell != nullptr) {
        freeCells = cell->next;
    }
    return cell;
}

void HandlePool::giveBack(void *pointer) noexcept {
    auto *const cell = static_cast<Cell *>(pointer);
    Locked locked(lock);
    cell->next = freeCells;
    freeCells = cell;
}

bool HandlePool::owns(const void *pointer) noexcept {
    const std::less<const void *> before; // which orders all pointers
    Locked locked(lock);
    const Block *block = blockList;
    while (block != nullptr && (before(pointer, block->cells) || !before(pointer, block->cells + kCellsOfBlock))) {
        block = block->next;
    }
    return block != nullptr;
}

unsigned HandlePool::blocks() noexcept {
    Locked locked(lock);
    return blockCount;
}
