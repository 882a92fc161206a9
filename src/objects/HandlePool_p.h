#pragma once

#include <cstddef>

/** Memory for the handles of objects, which are made and dropped in large numbers: cells of one size, cut from blocks
 *  that are never given back. The last cell that was freed is the next to be used. Locked. */
namespace HandlePool {

constexpr unsigned kCellsOfBlock = 256;

/** Room for one TreflectObject; null without memory. */
void *take() noexcept;
void giveBack(void *cell) noexcept;
/** Whether it is a cell; looks through the blocks. */
bool owns(const void *pointer) noexcept;
/** Blocks so far. */
unsigned blocks() noexcept;

} // namespace HandlePool
