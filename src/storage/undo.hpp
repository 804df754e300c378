// Undoing a step that failed half-way.
#pragma once

#include "marsk_quorvi/errors.hpp"

namespace marsk_quorvi::storage::detail {

// Runs `body` and returns what it returns. When it throws, runs `undo` and
// rethrows the body's exception: that failure is the one to report, so a
// SQLite failure of `undo` itself is swallowed.
template <class Body, class Undo>
decltype(auto) undo_on_failure(Body&& body, Undo&& undo) {
  try {
    return body();
  } catch (...) {
    try {
      undo();
    } catch (const Error&) {
      // The caller learns the state from the body's failure.
    }
    throw;
  }
}

}  // namespace marsk_quorvi::storage::detail
