#pragma once
// The per-thread pool of small object blocks, inline so that the classes made
// at the highest rate (integers, floats, strings) allocate and free without a
// call: their own operator new and delete (`KEST_POOLED_ALLOCATION` inside a
// class of the library's sources) use the pool directly, as object_value's do.

#include "thread_state.hpp"

#include <cstddef>
#include <cstdint>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define KEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEST_ASAN 1
#endif
#endif
#if defined(KEST_ASAN)
#include <sanitizer/asan_interface.h>
#endif

namespace kest::internal {

inline constexpr std::size_t pool_granule = 16;
inline constexpr std::uint32_t pool_depth = 512; // blocks kept per class and thread

/// Adds `delta` to the live count: the thread's own, or the shared one of
/// finished threads when the thread is ending.
void count_live_shared(std::int64_t delta) noexcept;
inline void count_live(thread_state *t, std::int64_t delta) noexcept {
  if (t) [[likely]]
    t->live.store(t->live.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
  else
    count_live_shared(delta);
}

/// Marks a pooled block unusable (or usable again) for AddressSanitizer, so that
/// a use after free is still reported while the block waits in a pool.
inline void set_poisoned(void *p, std::size_t bytes, bool poisoned) noexcept {
#if defined(KEST_ASAN)
  if (poisoned)
    __asan_poison_memory_region(p, bytes);
  else
    __asan_unpoison_memory_region(p, bytes);
#else
  (void)p, (void)bytes, (void)poisoned;
#endif
}

inline void *pool_allocate(std::size_t size) {
  auto *t = this_thread_state();
  count_live(t, 1);
  const std::size_t c = (size + pool_granule - 1) / pool_granule - 1;
  if (c >= thread_state::pooled_classes)
    return ::operator new(size);
  if (t) [[likely]] {
    if (auto *block = t->heads[c]) {
      set_poisoned(block, (c + 1) * pool_granule, false);
      t->heads[c] = block->next;
      --t->counts[c];
      return block;
    }
  }
  // A whole block of the class, even on a thread that is ending: any thread's
  // pool may take it back, and then give it to any size in the class.
  return ::operator new((c + 1) * pool_granule);
}

inline void pool_free(void *p, std::size_t size) noexcept {
  auto *t = this_thread_state();
  count_live(t, -1);
  const std::size_t c = (size + pool_granule - 1) / pool_granule - 1;
  if (t && c < thread_state::pooled_classes && t->counts[c] < pool_depth) [[likely]] {
    auto *block = static_cast<thread_state::free_block *>(p);
    block->next = t->heads[c];
    t->heads[c] = block;
    ++t->counts[c];
    set_poisoned(block, (c + 1) * pool_granule, true); // a use after free still reports under AddressSanitizer
    return;
  }
  ::operator delete(p);
}

} // namespace kest::internal

/// Inside a class derived from object_value: allocation from the pool, inline.
#define KEST_POOLED_ALLOCATION                                                                     \
  static void *operator new(std::size_t size) { return ::kest::internal::pool_allocate(size); }   \
  static void operator delete(void *p, std::size_t size) noexcept { ::kest::internal::pool_free(p, size); }
