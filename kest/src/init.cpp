// Start-up handlers.

#include <kest/builders.hpp>
#include <kest/init.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <mutex>

namespace kest::internal {

namespace {
std::mutex &handlers_mutex() {
  static std::mutex m;
  return m;
}
} // namespace

std::vector<init_entry> &init_handlers_unsafe() {
  static std::vector<init_entry> handlers;
  return handlers;
}

void add_init_handler(InitLevel level, init_handler handler) {
  std::lock_guard guard(handlers_mutex());
  init_handlers_unsafe().push_back({level, std::move(handler), false});
}

std::size_t run_init_handlers() {
  std::size_t ran = 0;
  for (;;) {
    // Take the lowest pending level (earliest registration first) and run it
    // outside the lock, so that a handler may register further handlers.
    init_handler next;
    InitLevel level = 0;
    {
      std::lock_guard guard(handlers_mutex());
      auto &handlers = init_handlers_unsafe();
      auto best = handlers.end();
      for (auto it = handlers.begin(); it != handlers.end(); ++it)
        if (!it->done && (best == handlers.end() || it->level < best->level))
          best = it;
      if (best == handlers.end())
        return ran;
      best->done = true;
      next = best->handler;
      level = best->level;
    }
    ++ran;
    try {
      next();
    } catch (const std::exception &e) {
      log_assert_error(String::fromUtf8(fmt::format("Start-up handler at level {} failed: {}", level, e.what())));
    } catch (...) {
      log_assert_error(String::fromUtf8(fmt::format("Start-up handler at level {} failed.", level)));
    }
  }
}

} // namespace kest::internal
