#pragma once
/// `kest::Integer`: a 64-bit integer that knows whether it is signed or unsigned.

#include <kest/union.hpp>

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
/// The parts of an Integer, read without making a handle; zero and signed for
/// any other value.
struct integer_parts {
  std::uint64_t bits;
  bool is_signed;
};
KEST_API integer_parts integer_parts_of(const Any &value) noexcept;
} // namespace internal

} // namespace kest
