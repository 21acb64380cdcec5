#pragma once
/// `kest::Decimal`: an exact decimal number: sign, arbitrary-length coefficient and
/// exponent, plus infinities and NaNs. Text round-trips exactly: "1.10" stays "1.10".

#include <kest/error.hpp>

#include <cstdint>
#include <string>

namespace kest {

class KEST_API Decimal : public Any {
  KEST_HANDLE_MEMBERS(Decimal, Any)
  /// Zero.
  Decimal();
  explicit Decimal(std::int64_t value);
  /// Parses decimal text ("-1.10", "1E+5", "Infinity", "NaN", "sNaN"); an error
  /// for anything else.
  static Result<Decimal> fromString(const String &text);
  static Result<Decimal> fromString(std::string_view text);

  /// The canonical scientific text, as Python's `str(Decimal)` writes it.
  [[nodiscard]] String toString() const;
  [[nodiscard]] std::string toUtf8() const;

  [[nodiscard]] bool isNegative() const;
  [[nodiscard]] bool isFinite() const;
  [[nodiscard]] bool isNaN() const;
  [[nodiscard]] bool isInfinite() const;
  /// The coefficient digits ("0" for zero; empty for infinities and NaNs).
  [[nodiscard]] std::string coefficientDigits() const;
  [[nodiscard]] std::int64_t exponent() const;

  /// Exact arithmetic; an error for NaN operands.
  [[nodiscard]] Result<Decimal> add(const Decimal &other) const;
  [[nodiscard]] Result<Decimal> subtract(const Decimal &other) const;
  [[nodiscard]] Result<Decimal> multiply(const Decimal &other) const;
  /// -1, 0 or 1; 2 when either side is a NaN.
  [[nodiscard]] int compare(const Decimal &other) const;
  /// Numeric comparison with a 64-bit integer (2 for a NaN).
  [[nodiscard]] int compare(std::int64_t other, bool isSigned = true) const;
  /// Numeric comparison with a double, exact (2 for NaNs).
  [[nodiscard]] int compare(double other) const;
  /// The integer value when the number is whole and fits 64 bits.
  [[nodiscard]] bool toInt64(std::int64_t &out) const;
  [[nodiscard]] double toDouble() const;
  /// The number's hash modulo 2^61-1, equal for equal numbers of any kind.
  [[nodiscard]] std::int64_t numericHash() const;
};

} // namespace kest
