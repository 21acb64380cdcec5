// The watcher behind --timeout.

#include "run_timeout.hpp"

#include "cpython_functions.hpp"

#include <kest/kest.hpp>

#include <chrono>
#include <csignal>
#include <optional>

namespace sarvode {

namespace {
/// True when a handler of the process's own (Python's, in a script run) takes
/// SIGINT, so that sending it interrupts a wait instead of ending the process.
bool sigint_is_handled() {
  struct sigaction current {};
  if (sigaction(SIGINT, nullptr, &current) != 0)
    return false;
  if (current.sa_flags & SA_SIGINFO)
    return true;
  return current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN;
}
} // namespace

run_timeout::run_timeout(double seconds) {
  if (seconds <= 0)
    return;
  auto current = cpython_function(u"current_thread");
  if (!current)
    return;
  auto thread = kest::internal::result_unwrap_lazy(current->callWith({}));
  if (!kest::Integer::isInstance(thread))
    return;
  m_running_thread = pthread_self();
  m_watcher = std::thread(&run_timeout::watch, this, seconds, kest::Integer::unsafeFrom(thread).value());
}

run_timeout::~run_timeout() { stop(); }

void run_timeout::stop() {
  {
    std::lock_guard guard(m_lock);
    m_stopped = true;
  }
  m_changed.notify_all();
  if (m_watcher.joinable())
    m_watcher.join();
}

void run_timeout::watch(double seconds, std::int64_t thread) {
  auto interrupt = cpython_function(u"interrupt");
  if (!interrupt)
    return;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  std::unique_lock guard(m_lock);
  if (m_changed.wait_until(guard, deadline, [this] { return m_stopped; }))
    return;
  // Where Python handles SIGINT (a script run), the time limit acts as Ctrl-C
  // does: the signal also ends a wait for a lock, an event or a join, which
  // runs no bytecode where an interrupt could be raised.
  if (sigint_is_handled()) {
    m_fired = true;
    (void)pthread_kill(m_running_thread, SIGINT);
    return;
  }
  // Between two evaluations nothing runs to interrupt: ask again until one takes it.
  while (!m_stopped) {
    guard.unlock();
    const auto taken = kest::internal::result_unwrap_lazy(interrupt->callWith({kest::Integer(thread)}));
    guard.lock();
    if (kest::Boolean::isInstance(taken) && kest::Boolean::unsafeFrom(taken).value()) {
      m_fired = true;
      return;
    }
    m_changed.wait_for(guard, std::chrono::milliseconds(10), [this] { return m_stopped; });
  }
}

} // namespace sarvode
