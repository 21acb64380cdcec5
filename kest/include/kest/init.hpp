#pragma once
/// Start-up handlers: registered from static constructors, run by the host once,
/// by ascending level and, within a level, in registration order.

#include <kest/config.hpp>

#include <functional>
#include <vector>

namespace kest::internal {

using InitLevel = int;
using init_handler = std::function<void()>;

struct init_entry {
  InitLevel level;
  init_handler handler;
  bool done = false;
};

/// Records a handler; safe to call from static constructors of any library.
KEST_API void add_init_handler(InitLevel level, init_handler handler);
/// The recorded handlers (no lock: for inspection while nothing registers).
KEST_API std::vector<init_entry> &init_handlers_unsafe();
/// Runs every handler that has not run yet, by level then registration order.
/// A handler that throws is reported through the log; the others still run.
/// Returns the number of handlers run.
KEST_API std::size_t run_init_handlers();

} // namespace kest::internal
