#pragma once
/// `kest::Integer`: a 64-bit integer that knows whether it is signed or unsigned.

#include <kest/union.hpp>

#include <cstddef>
#include <cstdint>

namespace kest {

class KEST_API Integer : public Any {
  KEST_HANDLE_MEMBERS(Integer, Any)
  /// A signed integer.
  Integer(std::int64_t v);
  Integer(int v) : Integer(static_cast<std::int64_t>(v)) {}
  /// An unsigned integer (keeps values above the signed range).
  static Integer fromUnsigned(std::uint64_t v);

  [[nodiscard]] bool isSigned() const noexcept;
  /// The signed value (an unsigned value above the signed range wraps).
  [[nodiscard]] std::int64_t value() const noexcept;
  /// The unsigned value (a negative signed value wraps).
  [[nodiscard]] std::uint64_t unsignedValue() const noexcept;
};

namespace internal {
/// The object behind an Integer. Its layout is public so that reading a value
/// is inline; its blocks come from the library's per-thread pool.
class KEST_API object_value_integer final : public object_value {
public:
  object_value_integer(std::uint64_t b, bool s) noexcept : object_value(ObjectType::Integer), bits(b), is_signed(s) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Integer; }
  [[nodiscard]] object_value_class *class_value() const noexcept override;
  static void *operator new(std::size_t size);
  static void operator delete(void *p, std::size_t size) noexcept;

  // Never changed while anybody else can see the object (see assign_integer).
  std::uint64_t bits;
  bool is_signed;
};

/// Makes `slot` hold the signed Integer `value`. When `slot` holds the only
/// reference to an Integer and no weak reference to it exists, nobody else can
/// see that object, and it takes the new value as if it had been freed and
/// made again; otherwise a new Integer is made. For callers that refill the
/// same argument slots call after call.
inline void assign_integer(Any &slot, std::int64_t value) {
  if (slot.kind() == ObjectType::Integer && slot.get()->only_reference()) {
    auto *kept = static_cast<object_value_integer *>(slot.get());
    kept->bits = static_cast<std::uint64_t>(value);
    kept->is_signed = true;
    return;
  }
  slot = Integer(value);
}

/// The parts of an Integer, read without making a handle; zero and signed for
/// any other value.
struct integer_parts {
  std::uint64_t bits;
  bool is_signed;
};
inline integer_parts integer_parts_of(const Any &value) noexcept {
  if (value.kind() != ObjectType::Integer)
    return {0, true};
  const auto *i = static_cast<const object_value_integer *>(value.get());
  return {i->bits, i->is_signed};
}
} // namespace internal

// The handle's reads are inline: host loops read an Integer per element.
inline bool Integer::isInstance(const Any &a) noexcept { return a.kind() == internal::ObjectType::Integer; }
inline bool Integer::isSigned() const noexcept { return internal::integer_parts_of(*this).is_signed; }
inline std::int64_t Integer::value() const noexcept {
  return static_cast<std::int64_t>(internal::integer_parts_of(*this).bits);
}
inline std::uint64_t Integer::unsignedValue() const noexcept { return internal::integer_parts_of(*this).bits; }

} // namespace kest
