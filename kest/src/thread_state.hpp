#pragma once
// What the library keeps per thread: the pool of freed small blocks, the
// count of live objects made or dropped on the thread, and the cache of
// recent member lookups.

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kest::internal {

struct lookup_cache;

/// One thread's state. Trivially destructible, so that it stays usable while
/// other thread-local objects are destroyed at thread exit; once `closed` is
/// set, callers go to the shared paths instead. The initial-exec model keeps
/// every access a plain offset from the thread pointer; the block is small
/// enough for the space the loader keeps for libraries opened later.
struct thread_state {
  static constexpr std::size_t pooled_classes = 4; // blocks of 16, 32, 48 and 64 bytes

  struct free_block {
    free_block *next;
  };
  free_block *heads[pooled_classes];
  std::uint32_t counts[pooled_classes];
  std::atomic<std::int64_t> live; // written by its own thread only, read by live_count
  lookup_cache *lookups;          // made on first use
  bool registered;
  bool closed;
};

extern thread_local thread_state t_thread_state __attribute__((tls_model("initial-exec")));

/// Registers the thread's state (once) so that it is counted and given back at thread exit.
void register_thread_state(thread_state &t);

/// The calling thread's state; null once the thread is ending.
inline thread_state *this_thread_state() noexcept {
  auto &t = t_thread_state;
  if (t.closed) [[unlikely]]
    return nullptr;
  if (!t.registered) [[unlikely]]
    register_thread_state(t);
  return &t;
}

/// Frees the thread's lookup cache (at thread exit).
void free_lookup_cache(lookup_cache *cache) noexcept;

} // namespace kest::internal
