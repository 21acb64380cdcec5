// Reference counting, allocation and weak-reference blocks of host objects.

#include <kest/object_value.hpp>

#include <mutex>
#include <new>

namespace kest::internal {

namespace {
std::atomic<std::int64_t> g_live_objects{0};
} // namespace

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

void object_value::destroy() const noexcept {
  // A weak reference may be upgrading right now: it only succeeds through
  // try_add_ref, which cannot revive a count that reached zero, so clearing
  // the target in the destructor is enough.
  delete this;
}

void *object_value::operator new(std::size_t size) {
  g_live_objects.fetch_add(1, std::memory_order_relaxed);
  return ::operator new(size);
}

void object_value::operator delete(void *p) noexcept {
  g_live_objects.fetch_sub(1, std::memory_order_relaxed);
  ::operator delete(p);
}

std::int64_t object_value::live_count() noexcept {
  return g_live_objects.load(std::memory_order_relaxed);
}

} // namespace kest::internal
