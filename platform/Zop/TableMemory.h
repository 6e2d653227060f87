#pragma once
// Zeroed memory for the open tables of GrowingSet and GrowingMap.
//
// A small table comes from calloc. A large one (a review list of a million
// members is 96 MB) is mapped on its own, so that it is always fresh zeroed
// pages the kernel backs as they are first touched: from calloc, a table of
// a few MB to 32 MB came out of the heap once an earlier large table had
// been freed (glibc then raises its mapping threshold), and was cleared in
// one go inside the insertion that grew the list (10-12 ms at 24 MB). Its
// pages can also be given back piecemeal while it is emptied (killBelow).

#include <cstddef>

namespace Zop {

// The bytes mapped for large tables now: memory the allocator's statistics
// do not show, for anyone who counts the heap.
__attribute__((visibility("default"))) size_t tableMappedBytes();

namespace detail {

struct TableMemory {
   void* at = nullptr;
   size_t mapped = 0;  // 0: from calloc
};
__attribute__((visibility("default"))) TableMemory tableMemoryAllocate(size_t bytes);
__attribute__((visibility("default"))) void tableMemoryFree(const TableMemory& m);
// Gives the whole pages of [from, to) back to the kernel; they read as zeros
// if touched again. Only for mapped memory; a no-op elsewhere.
__attribute__((visibility("default"))) void tableMemoryRelease(const TableMemory& m, size_t from,
                                                               size_t to);

}  // namespace detail

}  // namespace Zop
