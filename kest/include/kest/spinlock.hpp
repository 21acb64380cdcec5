#pragma once
/// A small test-and-test-and-set spin lock for short critical sections.
///
/// Held only to copy or swap a value: never while running user code, taking
/// another lock or calling into a scripting language.

#include <atomic>
#include <thread>

namespace kest {

class spinlock {
public:
  constexpr spinlock() noexcept = default;
  spinlock(const spinlock &) = delete;
  spinlock &operator=(const spinlock &) = delete;

  void lock() noexcept {
    for (unsigned spins = 0;; ++spins) {
      if (!m_locked.exchange(true, std::memory_order_acquire))
        return;
      while (m_locked.load(std::memory_order_relaxed)) {
        if (++spins > 64)
          std::this_thread::yield();
      }
    }
  }
  bool try_lock() noexcept {
    return !m_locked.load(std::memory_order_relaxed) &&
           !m_locked.exchange(true, std::memory_order_acquire);
  }
  void unlock() noexcept { m_locked.store(false, std::memory_order_release); }

private:
  std::atomic<bool> m_locked{false};
};

} // namespace kest
