// The watcher behind --timeout.

#include "run_timeout.hpp"

#include <kest/kest.hpp>

#include <chrono>
#include <optional>

namespace sarvode {

namespace {
/// The host function `name` of "kest.cpython", if the Python extension gave it.
std::optional<kest::I_Callable_Generic> cpython_function(const char16_t *name) {
  auto module = kest::find_module(kest::String(u"kest.cpython"));
  if (!module.is<kest::Module>())
    return std::nullopt;
  auto found = module.as<kest::Module>().callables().find(kest::String(name));
  if (!kest::I_Callable_Generic::isInstance(found))
    return std::nullopt;
  return kest::I_Callable_Generic::unsafeFrom(found);
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
