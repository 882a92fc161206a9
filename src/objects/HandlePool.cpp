#include "objects/HandlePool_p.h"

#include "objects/REFLECT_object.h"

#include <new>
#include <pthread.h>

namespace {

/** The link stands behind the handle: what a handle holds is left as it was, which helps to see misuse. */
struct Cell {
    alignas(TreflectObject) unsigned char handle[sizeof(TreflectObject)];
    Cell *next;
};
static_assert(sizeof(void *) != 4 || sizeof(Cell) == 12, "three words where words have 32 bits");

// Threads that do not have the run permission destroy handles, too. Static objects may be the first to ask.
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
Cell *freeCells = nullptr;
unsigned blockCount = 0;

bool addBlock() noexcept {
    auto *const block = new (std::nothrow) Cell[HandlePool::kCellsOfBlock];
    if (block == nullptr) {
        return false;
    }
    for (unsigned i = 0; i < HandlePool::kCellsOfBlock; ++i) {
        block[i].next = i + 1 < HandlePool::kCellsOfBlock ? &block[i + 1] : nullptr;
    }
    freeCells = block;
    ++blockCount;
    return true;
}

} // namespace

void *HandlePool::take() noexcept {
    pthread_mutex_lock(&lock);
    Cell *const cell = freeCells != nullptr || addBlock() ? freeCells : nullptr;
    if (cell != nullptr) {
        freeCells = cell->next;
    }
    pthread_mutex_unlock(&lock);
    return cell;
}

void HandlePool::giveBack(void *pointer) noexcept {
    auto *const cell = static_cast<Cell *>(pointer);
    pthread_mutex_lock(&lock);
    cell->next = freeCells;
    freeCells = cell;
    pthread_mutex_unlock(&lock);
}

unsigned HandlePool::blocks() noexcept {
    pthread_mutex_lock(&lock);
    const unsigned count = blockCount;
    pthread_mutex_unlock(&lock);
    return count;
}
