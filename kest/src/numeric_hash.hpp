#pragma once
// Hashes of numbers that agree across numeric kinds: an integer, a double and
// a decimal that are equal hash equal. The values are those of Python's
// `hash()` for int, float and Decimal, so keys behave the same on both sides.
//
// The hash of a rational number x is x modulo the prime P = 2^61 - 1 (the
// denominator taken as its modular inverse), negated for negative numbers;
// -1 is reserved and becomes -2.

#include <kest/config.hpp>

#include <cstdint>

namespace kest::internal {

inline constexpr int numeric_hash_bits = 61;
inline constexpr std::uint64_t numeric_hash_modulus = (std::uint64_t{1} << numeric_hash_bits) - 1;
/// The hash of positive infinity (negative infinity hashes to its negation).
inline constexpr std::int64_t numeric_hash_infinity = 314159;
/// The hash of a NaN.
inline constexpr std::int64_t numeric_hash_nan = 0;

/// Applies the sign to a reduced magnitude and keeps the hash away from -1.
[[nodiscard]] constexpr std::int64_t numeric_hash_finish(std::uint64_t reduced,
                                                         bool negative) noexcept {
  auto h = static_cast<std::int64_t>(reduced);
  if (negative)
    h = -h;
  return h == -1 ? -2 : h;
}

KEST_API std::int64_t numeric_hash_int(std::int64_t value) noexcept;
KEST_API std::int64_t numeric_hash_uint(std::uint64_t value) noexcept;
KEST_API std::int64_t numeric_hash_double(double value) noexcept;

} // namespace kest::internal
