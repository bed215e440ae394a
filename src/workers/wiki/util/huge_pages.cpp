#include "workers/wiki/util/huge_pages.hpp"

#include <sys/mman.h>

namespace zenthar_kodrune::workers::wiki::util {

void advise_huge_pages(const void* start, std::size_t size) {
  if (start == nullptr || size < kHugePage) return;
  // A large buffer starts just past its allocator's header, and its first
  // megabytes are the ones written most, so the page it starts in counts
  // too: the advice only makes memory around the buffer eligible for huge
  // pages, which the allocator asks for its own memory anyway.
  const std::uintptr_t from = reinterpret_cast<std::uintptr_t>(start) & ~(kHugePage - 1);
  const std::uintptr_t to = reinterpret_cast<std::uintptr_t>(start) + size;
  ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);
  // The allocator wrote its header into the first page already, and the
  // kernel faults no huge page in over a page it mapped small: that page is
  // made huge now. MADV_COLLAPSE came with Linux 6.1 and has no name in
  // glibc 2.36; an older kernel refuses it, and the page stays as it was.
  constexpr int kCollapse = 25;
  ::madvise(reinterpret_cast<void*>(from), kHugePage, kCollapse);
}

}  // namespace zenthar_kodrune::workers::wiki::util
