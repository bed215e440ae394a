// The transaction scope shared by every store.
#include "zenthar_kodrune/workers/wiki/store.hpp"

#include <exception>

namespace zenthar_kodrune::workers::wiki {

Transaction::Transaction(Database& db) : db_(db), uncaught_at_entry_(std::uncaught_exceptions()) {
  db_.begin_transaction();
}

// The scope learns how it is left by comparing the count of exceptions in
// flight with the count at entry: more means it is being unwound.
Transaction::~Transaction() noexcept(false) {
  const bool error = std::uncaught_exceptions() > uncaught_at_entry_;
  if (error) {
    try {
      db_.end_transaction(true);
    } catch (...) {
      // Already unwinding: the first error is the one the caller must see.
    }
    return;
  }
  db_.end_transaction(false);
}

}  // namespace zenthar_kodrune::workers::wiki
