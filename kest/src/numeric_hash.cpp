#include "numeric_hash.hpp"

#include <cmath>

namespace kest::internal {

std::int64_t numeric_hash_uint(std::uint64_t value) noexcept {
  return numeric_hash_finish(value % numeric_hash_modulus, false);
}

std::int64_t numeric_hash_int(std::int64_t value) noexcept {
  // The magnitude as unsigned, so that the most negative value has one too.
  const bool negative = value < 0;
  const std::uint64_t magnitude =
      negative ? std::uint64_t{0} - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  return numeric_hash_finish(magnitude % numeric_hash_modulus, negative);
}

namespace {
/// x * 2^shift modulo 2^61 - 1 for x < 2^61 and shift in [0, 61): since
/// 2^61 = 1 (mod P), multiplying by a power of two rotates the 61 bits.
constexpr std::uint64_t rotate61(std::uint64_t x, int shift) noexcept {
  if (shift == 0)
    return x;
  return ((x << shift) & numeric_hash_modulus) | (x >> (numeric_hash_bits - shift));
}
} // namespace

std::int64_t numeric_hash_double(double value) noexcept {
  if (std::isnan(value))
    return numeric_hash_nan;
  if (std::isinf(value))
    return value > 0 ? numeric_hash_infinity : -numeric_hash_infinity;

  int exponent = 0;
  double mantissa = std::frexp(value, &exponent); // value = mantissa * 2^exponent
  const bool negative = mantissa < 0;
  if (negative)
    mantissa = -mantissa;

  // Take the mantissa's bits 28 at a time, accumulating them modulo P; each
  // chunk moves the binary point, which the exponent keeps track of.
  constexpr int chunk_bits = 28;
  constexpr double chunk_scale = 268435456.0; // 2^28
  std::uint64_t reduced = 0;
  while (mantissa != 0) {
    reduced = rotate61(reduced, chunk_bits);
    mantissa *= chunk_scale;
    exponent -= chunk_bits;
    const auto whole = static_cast<std::uint64_t>(mantissa);
    mantissa -= static_cast<double>(whole);
    reduced += whole;
    if (reduced >= numeric_hash_modulus)
      reduced -= numeric_hash_modulus;
  }

  // 2^61 = 1 (mod P), so the exponent only matters modulo 61; a negative
  // exponent is a multiplication by the inverse, i.e. a rotation the other way.
  const int shift = exponent >= 0 ? exponent % numeric_hash_bits
                                  : numeric_hash_bits - 1 - ((-1 - exponent) % numeric_hash_bits);
  reduced = rotate61(reduced, shift);
  return numeric_hash_finish(reduced, negative);
}

} // namespace kest::internal
