// Linked into every program built here that runs on mimalloc.
//
// mimalloc gives freed memory back to the system 25 ms after it is freed.
// A command reads a branch's rows and the files under them in a few hundred
// milliseconds, freeing and allocating as it goes, so each pass after the
// first faulted its pages in again: on a virtual machine a page fault costs
// tens of microseconds, and `changes` on a page of 10,000 citations spent
// more time in faults than in its own work. A second keeps a command's
// memory for the whole command, and still lets a long-running server give
// its memory back when it falls idle. An explicit MIMALLOC_DECOMMIT_DELAY
// in the environment still wins.
#include <mimalloc.h>

namespace {

const bool kDecommitDelaySet = [] {
  mi_option_set_default(mi_option_decommit_delay, 1000);
  return true;
}();

}  // namespace
