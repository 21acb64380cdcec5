// Modules made on first use: the makers by name prefix.

#include <kest/deferred_modules.hpp>
#include <kest/spinlock.hpp>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace kest {

namespace {
struct deferred {
  String prefix;
  std::function<bool()> make;
  std::atomic<bool> done{false};
};

struct deferred_table {
  spinlock lock;
  std::vector<std::shared_ptr<deferred>> entries;
  std::atomic<bool> any{false}; // lets lookups skip the table while nothing is deferred
};

deferred_table &table() {
  static auto *t = new deferred_table; // lives for the process: lookups may run at exit
  return *t;
}

bool covers(const String &prefix, const String &name) {
  if (!name.startsWith(prefix.view()))
    return false;
  return name.length() == prefix.length() || name.at(prefix.length()) == u'.';
}

/// The makers not completed yet; copied so that none runs under the lock.
std::vector<std::shared_ptr<deferred>> pending() {
  auto &t = table();
  std::vector<std::shared_ptr<deferred>> out;
  std::lock_guard guard(t.lock);
  for (auto &entry : t.entries)
    if (!entry->done.load(std::memory_order_acquire))
      out.push_back(entry);
  return out;
}

/// The makers that this thread is running: their own lookups do not start them again.
thread_local std::vector<const deferred *> t_running;

void run(deferred &entry) {
  if (std::find(t_running.begin(), t_running.end(), &entry) != t_running.end())
    return;
  t_running.push_back(&entry);
  struct pop {
    ~pop() { t_running.pop_back(); }
  } popped;
  if (entry.make())
    entry.done.store(true, std::memory_order_release);
}
} // namespace

void defer_modules(const String &prefix, std::function<bool()> make) {
  auto entry = std::make_shared<deferred>();
  entry->prefix = prefix;
  entry->make = std::move(make);
  auto &t = table();
  std::lock_guard guard(t.lock);
  t.entries.push_back(std::move(entry));
  t.any.store(true, std::memory_order_release);
}

void load_deferred_modules() {
  if (!table().any.load(std::memory_order_acquire))
    return;
  for (auto &entry : pending())
    run(*entry);
}

namespace internal {
void load_deferred_module(const String &name) {
  if (!table().any.load(std::memory_order_acquire))
    return;
  for (auto &entry : pending())
    if (covers(entry->prefix, name))
      run(*entry);
}
} // namespace internal

} // namespace kest
