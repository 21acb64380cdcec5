// Reference counting, allocation and weak-reference blocks of host objects.

#include "pool.hpp"

#include <kest/object_value.hpp>

#include <algorithm>
#include <utility>
#include <mutex>
#include <new>
#include <vector>

namespace kest::internal {


void weak_control::release() noexcept {
  if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    delete this;
}

object_value::~object_value() {
  if (auto *w = m_weak.load(std::memory_order_acquire)) {
    {
      std::lock_guard guard(w->lock);
      w->target = nullptr;
    }
    w->release();
  }
}

bool object_value::try_add_ref() const noexcept {
  auto n = m_refs.load(std::memory_order_relaxed);
  if (n >= pinned_count)
    return true;
  while (n != 0) {
    if (m_refs.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel, std::memory_order_relaxed))
      return true;
  }
  return false;
}

weak_control *object_value::weak_block() const {
  auto *w = m_weak.load(std::memory_order_acquire);
  if (!w) {
    auto *fresh = new weak_control;
    fresh->target = const_cast<object_value *>(this);
    if (m_weak.compare_exchange_strong(w, fresh, std::memory_order_acq_rel))
      w = fresh;
    else
      delete fresh; // another thread won; `w` holds its block
  }
  w->add_ref();
  return w;
}

// --- allocation --------------------------------------------------------------
//
// Host scalars are made and dropped at a high rate (every integer that crosses
// from Python is one), so small objects come from a per-thread pool of freed
// blocks: a block freed on any thread goes to that thread's pool, up to a
// limit, and the rest to the global heap. The count of live objects is kept
// per thread too, so that neither path writes memory shared between threads.

thread_local thread_state t_thread_state __attribute__((tls_model("initial-exec"))){};

namespace {
constexpr std::size_t pooled_classes = thread_state::pooled_classes;

struct live_registry {
  std::mutex lock;
  std::vector<std::atomic<std::int64_t> *> threads;
  std::atomic<std::int64_t> finished{0}; // counts of threads that ended, and of frees after a thread's end
};
live_registry &registry() {
  static auto *r = new live_registry; // never destroyed: threads may end after static destruction
  return *r;
}

/// Gives the thread's blocks and lookup cache back and folds its count into
/// the finished ones at thread exit.
struct thread_closer {
  ~thread_closer() {
    auto &t = t_thread_state;
    free_lookup_cache(std::exchange(t.lookups, nullptr));
    for (std::size_t c = 0; c < pooled_classes; ++c) {
      while (auto *block = t.heads[c]) {
        set_poisoned(block, (c + 1) * pool_granule, false);
        t.heads[c] = block->next;
        ::operator delete(block);
      }
      t.counts[c] = 0;
    }
    auto &r = registry();
    std::lock_guard guard(r.lock);
    r.finished.fetch_add(t.live.load(std::memory_order_relaxed), std::memory_order_relaxed);
    t.live.store(0, std::memory_order_relaxed);
    std::erase(r.threads, &t.live);
    t.closed = true;
  }
};

} // namespace

void register_thread_state(thread_state &t) {
  t.registered = true;
  static thread_local thread_closer closer; // runs at thread exit
  (void)closer;
  auto &r = registry();
  std::lock_guard guard(r.lock);
  r.threads.push_back(&t.live);
}

void count_live_shared(std::int64_t delta) noexcept { registry().finished.fetch_add(delta, std::memory_order_relaxed); }

void *object_value::operator new(std::size_t size) { return pool_allocate(size); }

void object_value::operator delete(void *p, std::size_t size) noexcept { pool_free(p, size); }

std::int64_t object_value::live_count() noexcept {
  auto &r = registry();
  std::lock_guard guard(r.lock);
  std::int64_t total = r.finished.load(std::memory_order_relaxed);
  for (auto *live : r.threads)
    total += live->load(std::memory_order_relaxed);
  return total;
}

} // namespace kest::internal
