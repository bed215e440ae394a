// Transparent huge pages. On this project's virtual machines a page fault
// costs tens of microseconds, and a large request or document touches
// megabytes of fresh memory: the kernel backs a whole, aligned 2 MiB range
// of an advised mapping with one page where 512 small ones would each fault.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zenthar_kodrune::workers::wiki::util {

inline constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;

// Asks for huge pages over every 2 MiB page that [start, start + size)
// touches, the one it starts in included (made huge now if it was already
// faulted small). Advice only: where the kernel declines, nothing changes.
void advise_huge_pages(const void* start, std::size_t size);

}  // namespace zenthar_kodrune::workers::wiki::util
