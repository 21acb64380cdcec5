#pragma once
/// The heap base of every host value: an atomic reference count and a kind.

#include <kest/config.hpp>
#include <kest/spinlock.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kest::internal {

/// Kind codes of host values. The numbers are part of the binary interface
/// that extensions rely on; never renumber them.
enum class ObjectType : std::uint8_t {
  Boolean = 0,
  ByteArray = 1,
  Callable = 2,
  Class = 3,
  Float = 4,
  List = 5,
  HashMap = 6,
  Instance = 7,
  Integer = 8,
  HashSet = 9,
  String = 10,
  Tuple = 11,
  Multimethod = 12,
  Computed = 13,
  External = 14,
  WeakReference = 15,
  None = 16,
  NotImplemented = 17,
};

class object_value_class;

/// Shared block behind weak references: it outlives the object and is
/// cleared, under its lock, when the object's last strong reference goes.
struct KEST_API weak_control {
  std::atomic<std::uint32_t> refs{1};
  spinlock lock;
  class object_value *target = nullptr; // guarded by lock

  void add_ref() noexcept { refs.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept;
};

/// Base of all host objects. Reference counts start at zero; the first
/// `Any` that takes the object raises it to one.
class KEST_API object_value {
public:
  object_value() noexcept = default;
  object_value(const object_value &) = delete;
  object_value &operator=(const object_value &) = delete;
  virtual ~object_value();

  /// The kind code of this value.
  [[nodiscard]] virtual ObjectType kind() const noexcept = 0;
  /// The same, asked of the object once and then read from it (a value never
  /// changes its kind); not for use while the object is made or destroyed.
  [[nodiscard]] ObjectType known_kind() const noexcept {
    const auto k = m_kind.load(std::memory_order_relaxed);
    if (k != unknown_kind) [[likely]]
      return static_cast<ObjectType>(k);
    const auto asked = kind();
    m_kind.store(static_cast<std::uint8_t>(asked), std::memory_order_relaxed);
    return asked;
  }
  /// The class of this value (borrowed; classes outlive their values).
  [[nodiscard]] virtual object_value_class *class_value() const noexcept = 0;

  void add_ref() const noexcept {
    // A pinned object's count is never written: threads that share it (a
    // class, an interned name) then keep its cache line without bouncing it.
    if (m_refs.load(std::memory_order_relaxed) >= pinned_count) [[unlikely]]
      return;
    m_refs.fetch_add(1, std::memory_order_relaxed);
  }
  void release() const noexcept {
    const auto refs = m_refs.load(std::memory_order_acquire);
    if (refs >= pinned_count) [[unlikely]]
      return;
    // The only reference, and no weak reference that could revive it meanwhile
    // (making one needs a reference): nobody else can see the count, so it is
    // not written.
    if (refs == 1 && !m_weak.load(std::memory_order_acquire)) {
      destroy();
      return;
    }
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
      destroy();
  }
  /// The first reference to an object just made, that no other thread can see
  /// yet: written without an atomic add.
  void add_first_ref() const noexcept { m_refs.store(1, std::memory_order_relaxed); }
  /// Adds a reference unless the count already reached zero (weak upgrade).
  bool try_add_ref() const noexcept;
  [[nodiscard]] std::uint32_t ref_count() const noexcept {
    return m_refs.load(std::memory_order_relaxed);
  }
  /// True when the caller's reference is the only one and no weak reference
  /// exists: nobody else can see the object.
  [[nodiscard]] bool only_reference() const noexcept {
    return m_refs.load(std::memory_order_acquire) == 1 && !m_weak.load(std::memory_order_acquire);
  }
  /// Keeps the object alive for the rest of the process (shared singletons),
  /// and stops counting its references.
  void make_immortal() noexcept { m_refs.store(pinned_count, std::memory_order_relaxed); }

  /// The weak-reference block, created on first request (a new reference).
  weak_control *weak_block() const;

  /// Small objects come from a per-thread pool of freed blocks.
  static void *operator new(std::size_t size);
  static void operator delete(void *p, std::size_t size) noexcept;

  /// Live object count of the library, for leak checks in tests.
  static std::int64_t live_count() noexcept;

protected:
  static constexpr std::uint32_t immortal_count = 1u << 30;
  /// Counts from here on are not changed any more (see add_ref). Statically
  /// allocated singletons stay below it, so their counts still move.
  static constexpr std::uint32_t pinned_count = 3u << 30;
  struct immortal_tag {};
  /// For statically allocated singletons: a count that never reaches zero.
  constexpr explicit object_value(immortal_tag) noexcept : m_refs(immortal_count) {}
  /// For a value whose kind is fixed by its class: known without asking.
  explicit object_value(ObjectType known) noexcept : m_kind(static_cast<std::uint8_t>(known)) {}

private:
  void destroy() const noexcept {
    // A weak reference may be upgrading right now: it only succeeds through
    // try_add_ref, which cannot revive a count that reached zero, so clearing
    // the target in the destructor is enough. The deleting destructor frees
    // through the class's own operator delete.
    delete this;
  }

  static constexpr std::uint8_t unknown_kind = 0xFF;

  mutable std::atomic<std::uint32_t> m_refs{0};
  mutable std::atomic<std::uint8_t> m_kind{unknown_kind}; // fills the padding after the count
  mutable std::atomic<weak_control *> m_weak{nullptr};
};

} // namespace kest::internal
