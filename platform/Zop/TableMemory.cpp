#include "Zop/TableMemory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

#ifdef __linux__
#include <sys/mman.h>
#endif

namespace Zop {

namespace {

size_t mappedBytes = 0;

#ifdef __linux__
constexpr size_t kPage = 4096;
// Below this a table is left to calloc.
constexpr size_t kMapFrom = size_t(1) << 20;
#endif

}  // namespace

size_t tableMappedBytes() {
   return mappedBytes;
}

namespace detail {

TableMemory tableMemoryAllocate(size_t bytes) {
#ifdef __linux__
   if (bytes >= kMapFrom) {
      const size_t len = (bytes + kPage - 1) & ~(kPage - 1);
      void* p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (p == MAP_FAILED) {
         throw std::bad_alloc();
      }
      mappedBytes += len;
      return {p, len};
   }
#endif
   void* p = std::calloc(1, bytes);
   if (!p) {
      throw std::bad_alloc();
   }
   return {p, 0};
}

void tableMemoryFree(const TableMemory& m) {
   if (!m.at) {
      return;
   }
#ifdef __linux__
   if (m.mapped != 0) {
      munmap(m.at, m.mapped);
      mappedBytes -= m.mapped;
      return;
   }
#endif
   std::free(m.at);
}

void tableMemoryRelease(const TableMemory& m, size_t from, size_t to) {
#ifdef __linux__
   if (m.mapped == 0) {
      return;
   }
   from = (from + kPage - 1) & ~(kPage - 1);
   to = to & ~(kPage - 1);
   if (to > from) {
      madvise(static_cast<char*>(m.at) + from, to - from, MADV_DONTNEED);
   }
#else
   (void)m;
   (void)from;
   (void)to;
#endif
}

}  // namespace detail

}  // namespace Zop
