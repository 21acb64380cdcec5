#pragma once
/// `kest::internal::fast_once`: one-time initialisation whose every later
/// call costs a single acquire load.

#include <kest/config.hpp>

#include <atomic>
#include <mutex>
#include <utility>

namespace kest::internal {

/// Runs a function once, as `std::call_once` does (a call that throws lets a
/// later call try again), but decides the common "already done" case without
/// it: libstdc++'s `call_once` writes thread-local state and enters
/// `pthread_once` on every call, which hot lookups cannot afford.
class fast_once {
public:
  template <class F> void call(F &&f) {
    if (m_done.load(std::memory_order_acquire)) [[likely]]
      return;
    std::call_once(m_flag, [&] {
      std::forward<F>(f)();
      m_done.store(true, std::memory_order_release);
    });
  }
  /// True once the function has run to its end.
  [[nodiscard]] bool done() const noexcept { return m_done.load(std::memory_order_acquire); }

private:
  std::atomic<bool> m_done{false};
  std::once_flag m_flag;
};

} // namespace kest::internal
