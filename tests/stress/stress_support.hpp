#pragma once
// What the stress and memory tests share: how many operations to run, a
// watchdog that turns a deadlock into a failure with every thread's stack, and
// readings of the process's memory.

#include "runtime/python.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace sarvode::test_support {

/// True in a build with AddressSanitizer or ThreadSanitizer, which make every
/// operation many times slower; the tests then run fewer of them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool slow_build = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool slow_build = true;
#else
inline constexpr bool slow_build = false;
#endif
#else
inline constexpr bool slow_build = false;
#endif

/// `full` in a plain build, `reduced` under the sanitizers; the environment
/// variable SARVODE_STRESS_SCALE (a percentage) scales either.
std::int64_t stress_count(std::int64_t full, std::int64_t reduced);

/// Fails the process if it is still alive `limit` after construction: prints
/// what it was doing, the stack of every native thread (through gdb, when the
/// machine has it) and of every Python thread, then exits with status 3.
class watchdog {
public:
  watchdog(std::string what, std::chrono::seconds limit);
  ~watchdog();
  watchdog(const watchdog &) = delete;
  watchdog &operator=(const watchdog &) = delete;

private:
  void watch(std::chrono::seconds limit);

  std::string m_what;
  std::mutex m_mutex;
  std::condition_variable m_done_changed;
  bool m_done = false;
  std::thread m_thread;
};

/// The process's resident memory in bytes (0 when the system cannot tell).
std::int64_t resident_bytes();

/// Python's `sys.getallocatedblocks()` (takes the lock).
std::int64_t python_allocated_blocks();

} // namespace sarvode::test_support
