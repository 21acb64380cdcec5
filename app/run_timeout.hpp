#pragma once
// `sarvode --timeout SECONDS`: a watcher thread that interrupts the run on the
// thread that made it once the time is up: by SIGINT where Python handles
// it (as Ctrl-C would), else through kest.cpython.interrupt.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace sarvode {

/// Exit status of a run that its time limit ended, as the timeout(1) command gives it.
inline constexpr int exit_timed_out = 124;

class run_timeout {
public:
  /// Starts watching the calling thread's evaluations; nothing for `seconds` <= 0.
  explicit run_timeout(double seconds);
  ~run_timeout();
  run_timeout(const run_timeout &) = delete;
  run_timeout &operator=(const run_timeout &) = delete;

  /// Stops watching (the run ended); waits for the watcher.
  void stop();
  /// True once the time was up and the interrupt was delivered.
  [[nodiscard]] bool fired() const noexcept { return m_fired.load(); }

private:
  void watch(double seconds, std::int64_t thread);

  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_stopped = false;
  std::atomic<bool> m_fired{false};
  pthread_t m_running_thread{};
  std::thread m_watcher;
};

} // namespace sarvode
