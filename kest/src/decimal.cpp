// `kest::Decimal`: sign, a non-negative arbitrary-precision coefficient and a
// decimal exponent (value = (-1)^sign * coefficient * 10^exponent), or an
// infinity or a NaN. Values never change after construction, so they are
// shared between threads without locking.
//
// Arithmetic is exact: no context precision and no rounding. The exponent is
// kept within +-10^18 so that exponent arithmetic cannot overflow.

#include <kest/decimal.hpp>
#include <kest/interfaces.hpp>

#include "builtin.hpp"
#include "numeric_hash.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <gmp.h>

namespace kest {

namespace {

/// The largest exponent magnitude a decimal may have.
constexpr std::int64_t max_exponent = 1'000'000'000'000'000'000;
/// The largest power of ten that aligning two operands may multiply by; beyond
/// it an exact sum would need an unreasonable number of digits.
constexpr std::uint64_t max_alignment_digits = 100'000'000;

enum class decimal_kind : std::uint8_t { finite, infinity, quiet_nan, signalling_nan };

void mpz_set_u64(mpz_ptr target, std::uint64_t value) {
  // Through mpz_import, as `unsigned long` is narrower than 64 bits on some platforms.
  mpz_import(target, 1, -1, sizeof value, 0, 0, &value);
}

/// The value of `source` (which must be below 2^64).
std::uint64_t mpz_get_u64(mpz_srcptr source) {
  std::uint64_t value = 0;
  if (mpz_sgn(source) != 0)
    mpz_export(&value, nullptr, -1, sizeof value, 0, 0, source);
  return value;
}

/// Owns an `mpz_t`.
class big_integer {
public:
  big_integer() { mpz_init(m_value); }
  explicit big_integer(std::uint64_t value) : big_integer() { mpz_set_u64(m_value, value); }
  big_integer(const big_integer &) = delete;
  big_integer &operator=(const big_integer &) = delete;
  ~big_integer() { mpz_clear(m_value); }
  [[nodiscard]] mpz_ptr get() noexcept { return m_value; }
  [[nodiscard]] mpz_srcptr get() const noexcept { return m_value; }

private:
  mpz_t m_value;
};

/// 10^n.
void set_power_of_ten(mpz_ptr target, std::uint64_t n) {
  // The exponent is an `unsigned long`; callers keep n below the digit count
  // of a coefficient or `max_alignment_digits`, far below 2^32.
  mpz_ui_pow_ui(target, 10, static_cast<unsigned long>(n));
}

/// The exact number of decimal digits of a non-negative integer (1 for zero).
std::uint64_t digit_count(mpz_srcptr value) {
  if (mpz_sgn(value) == 0)
    return 1;
  // mpz_sizeinbase may overstate base-10 sizes by one.
  std::uint64_t digits = mpz_sizeinbase(value, 10);
  if (digits > 1) {
    big_integer bound;
    set_power_of_ten(bound.get(), digits - 1);
    if (mpz_cmp(value, bound.get()) < 0)
      --digits;
  }
  return digits;
}

std::string digit_text(mpz_srcptr value) {
  std::string text(mpz_sizeinbase(value, 10) + 2, '\0');
  mpz_get_str(text.data(), 10, value);
  text.resize(std::strlen(text.c_str()));
  return text;
}

/// The number behind a decimal value; also used for temporaries while
/// comparing with integers and doubles.
struct decimal_number {
  decimal_kind kind = decimal_kind::finite;
  bool negative = false;
  mpz_t coefficient; // non-negative; the payload of a NaN
  std::int64_t exponent = 0;

  decimal_number() { mpz_init(coefficient); }
  decimal_number(const decimal_number &o) : kind(o.kind), negative(o.negative), exponent(o.exponent) {
    mpz_init_set(coefficient, o.coefficient);
  }
  decimal_number(decimal_number &&o) noexcept
      : kind(o.kind), negative(o.negative), exponent(o.exponent) {
    mpz_init(coefficient);
    mpz_swap(coefficient, o.coefficient);
  }
  decimal_number &operator=(const decimal_number &) = delete;
  decimal_number &operator=(decimal_number &&) = delete;
  ~decimal_number() { mpz_clear(coefficient); }

  [[nodiscard]] bool is_nan() const noexcept {
    return kind == decimal_kind::quiet_nan || kind == decimal_kind::signalling_nan;
  }
  [[nodiscard]] bool is_zero() const noexcept {
    return kind == decimal_kind::finite && mpz_sgn(coefficient) == 0;
  }

  static decimal_number from_magnitude(std::uint64_t magnitude, bool negative) {
    decimal_number n;
    n.negative = negative;
    mpz_set_u64(n.coefficient, magnitude);
    return n;
  }
  static decimal_number from_int64(std::int64_t value) {
    const bool negative = value < 0;
    const std::uint64_t magnitude = negative ? std::uint64_t{0} - static_cast<std::uint64_t>(value)
                                             : static_cast<std::uint64_t>(value);
    return from_magnitude(magnitude, negative);
  }
  /// The exact value of a double: every finite double is m * 2^e with an
  /// integer m, and m * 2^-k = (m * 5^k) * 10^-k.
  static decimal_number from_double(double value) {
    decimal_number n;
    n.negative = std::signbit(value);
    if (std::isnan(value)) {
      n.kind = decimal_kind::quiet_nan;
      return n;
    }
    if (std::isinf(value)) {
      n.kind = decimal_kind::infinity;
      return n;
    }
    int binary_exponent = 0;
    const double fraction = std::frexp(std::fabs(value), &binary_exponent);
    constexpr int mantissa_bits = std::numeric_limits<double>::digits;
    auto mantissa = static_cast<std::uint64_t>(std::ldexp(fraction, mantissa_bits));
    binary_exponent -= mantissa_bits;
    if (mantissa == 0)
      return n;
    while ((mantissa & 1u) == 0) {
      mantissa >>= 1;
      ++binary_exponent;
    }
    mpz_set_u64(n.coefficient, mantissa);
    if (binary_exponent >= 0) {
      mpz_mul_2exp(n.coefficient, n.coefficient, static_cast<mp_bitcnt_t>(binary_exponent));
    } else {
      big_integer five_power;
      mpz_ui_pow_ui(five_power.get(), 5, static_cast<unsigned long>(-binary_exponent));
      mpz_mul(n.coefficient, n.coefficient, five_power.get());
      n.exponent = binary_exponent;
    }
    return n;
  }
};

/// The heap object behind a `Decimal` handle.
struct object_value_decimal final : internal::native_instance<&Decimal::getClass> {
  explicit object_value_decimal(decimal_number &&n) : number(std::move(n)) {}
  const decimal_number number;
};

Decimal make_decimal(decimal_number &&n) {
  return Decimal::unsafeFrom(Any(new object_value_decimal(std::move(n))));
}

/// The number behind a handle; a handle made over a value of another class reads
/// as a quiet NaN (unordered, not finite, no integer value).
const decimal_number &number_of(const Decimal &d) noexcept {
  static const decimal_number neutral = [] {
    decimal_number n;
    n.kind = decimal_kind::quiet_nan;
    return n;
  }();
  auto *value = internal::native_if<const object_value_decimal>(d);
  return value ? value->number : neutral;
}

/// The error for an operand that is no decimal, or None when both are decimals.
std::optional<Error> not_decimals(const Decimal &a, const Decimal &b) {
  for (const Decimal *operand : {&a, &b})
    if (!internal::native_if<const object_value_decimal>(*operand))
      return internal::wrong_class("Decimal", *operand);
  return std::nullopt;
}

Error invalid_operation() { return Error("Invalid decimal operation."); }

// Text ---------------------------------------------------------------------

bool is_space(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
char to_lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equals_ignoring_case(std::string_view text, std::string_view lower) noexcept {
  return text.size() == lower.size() &&
         std::equal(text.begin(), text.end(), lower.begin(),
                    [](char a, char b) { return to_lower(a) == b; });
}
bool starts_with_ignoring_case(std::string_view text, std::string_view lower) noexcept {
  return text.size() >= lower.size() && equals_ignoring_case(text.substr(0, lower.size()), lower);
}
bool all_digits(std::string_view text) noexcept { return std::all_of(text.begin(), text.end(), is_digit); }

/// Reads the text forms Python's `decimal.Decimal(str)` reads: an optional
/// sign, then digits with an optional point and exponent, "Inf", "Infinity",
/// "NaN" or "sNaN" (letters in any case; NaNs with optional payload digits),
/// with white space around.
std::optional<decimal_number> parse(std::string_view text) {
  while (!text.empty() && is_space(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && is_space(text.back()))
    text.remove_suffix(1);

  decimal_number n;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    n.negative = text.front() == '-';
    text.remove_prefix(1);
  }

  if (equals_ignoring_case(text, "inf") || equals_ignoring_case(text, "infinity")) {
    n.kind = decimal_kind::infinity;
    return n;
  }
  std::string_view payload;
  if (starts_with_ignoring_case(text, "nan")) {
    n.kind = decimal_kind::quiet_nan;
    payload = text.substr(3);
  } else if (starts_with_ignoring_case(text, "snan")) {
    n.kind = decimal_kind::signalling_nan;
    payload = text.substr(4);
  }
  if (n.kind != decimal_kind::finite) {
    if (!all_digits(payload))
      return std::nullopt;
    if (!payload.empty())
      mpz_set_str(n.coefficient, std::string(payload).c_str(), 10);
    return n;
  }

  std::size_t pos = 0;
  auto take_digits = [&] {
    const std::size_t start = pos;
    while (pos < text.size() && is_digit(text[pos]))
      ++pos;
    return text.substr(start, pos - start);
  };
  const std::string_view whole = take_digits();
  std::string_view fraction;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    fraction = take_digits();
  }
  if (whole.empty() && fraction.empty())
    return std::nullopt;

  std::int64_t written_exponent = 0;
  if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
    ++pos;
    bool exponent_negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
      exponent_negative = text[pos] == '-';
      ++pos;
    }
    const std::string_view exponent_digits = take_digits();
    if (exponent_digits.empty())
      return std::nullopt;
    for (char c : exponent_digits) {
      // Stops before the accumulation could overflow; such exponents are out of range anyway.
      if (written_exponent > 2 * max_exponent / 10)
        return std::nullopt;
      written_exponent = written_exponent * 10 + (c - '0');
    }
    if (exponent_negative)
      written_exponent = -written_exponent;
  }
  if (pos != text.size())
    return std::nullopt;
  if (fraction.size() > static_cast<std::uint64_t>(max_exponent))
    return std::nullopt;

  n.exponent = written_exponent - static_cast<std::int64_t>(fraction.size());
  if (n.exponent > max_exponent || n.exponent < -max_exponent)
    return std::nullopt;
  std::string digits;
  digits.reserve(whole.size() + fraction.size());
  digits.append(whole).append(fraction);
  mpz_set_str(n.coefficient, digits.c_str(), 10);
  return n;
}

/// Python's `str(Decimal)`: plain notation when the exponent is not positive
/// and the adjusted exponent is at least -6, otherwise one digit before the
/// point and an exponent.
std::string to_text(const decimal_number &n) {
  std::string out;
  if (n.negative)
    out += '-';
  switch (n.kind) {
  case decimal_kind::infinity:
    out += "Infinity";
    return out;
  case decimal_kind::quiet_nan:
  case decimal_kind::signalling_nan:
    out += n.kind == decimal_kind::quiet_nan ? "NaN" : "sNaN";
    if (mpz_sgn(n.coefficient) != 0)
      out += digit_text(n.coefficient);
    return out;
  case decimal_kind::finite:
    break;
  }

  const std::string digits = digit_text(n.coefficient);
  const auto length = static_cast<std::int64_t>(digits.size());
  // Digits before the point if the number were written without exponent.
  const std::int64_t left_digits = n.exponent + length;
  const std::int64_t dot_place = (n.exponent <= 0 && left_digits > -6) ? left_digits : 1;

  if (dot_place <= 0) {
    out += "0.";
    out.append(static_cast<std::size_t>(-dot_place), '0');
    out += digits;
  } else if (dot_place >= length) {
    out += digits;
    out.append(static_cast<std::size_t>(dot_place - length), '0');
  } else {
    out.append(digits, 0, static_cast<std::size_t>(dot_place));
    out += '.';
    out.append(digits, static_cast<std::size_t>(dot_place));
  }
  if (left_digits != dot_place) {
    const std::int64_t shown = left_digits - dot_place;
    out += shown < 0 ? "E-" : "E+";
    out += std::to_string(shown < 0 ? -shown : shown);
  }
  return out;
}

// Comparison ---------------------------------------------------------------

/// -1, 0 or 1 comparing |a| and |b| of two finite, non-zero numbers.
int compare_magnitude(const decimal_number &a, const decimal_number &b) {
  // The adjusted exponent (that of the leading digit) decides unless equal.
  const std::uint64_t digits_a = digit_count(a.coefficient);
  const std::uint64_t digits_b = digit_count(b.coefficient);
  const std::int64_t adjusted_a = a.exponent + static_cast<std::int64_t>(digits_a) - 1;
  const std::int64_t adjusted_b = b.exponent + static_cast<std::int64_t>(digits_b) - 1;
  if (adjusted_a != adjusted_b)
    return adjusted_a < adjusted_b ? -1 : 1;
  // With equal adjusted exponents the exponents differ by less than the digit
  // counts do, so aligning them stays small.
  if (a.exponent == b.exponent)
    return std::clamp(mpz_cmp(a.coefficient, b.coefficient), -1, 1);
  const bool a_higher = a.exponent > b.exponent;
  const decimal_number &higher = a_higher ? a : b;
  const decimal_number &lower = a_higher ? b : a;
  big_integer scaled;
  set_power_of_ten(scaled.get(), static_cast<std::uint64_t>(higher.exponent - lower.exponent));
  mpz_mul(scaled.get(), scaled.get(), higher.coefficient);
  const int c = std::clamp(mpz_cmp(scaled.get(), lower.coefficient), -1, 1);
  return a_higher ? c : -c;
}

int compare_numbers(const decimal_number &a, const decimal_number &b) {
  if (a.is_nan() || b.is_nan())
    return 2;
  // Orders by class first: -Infinity, negative, zero, positive, Infinity.
  auto rank = [](const decimal_number &n) {
    if (n.kind == decimal_kind::infinity)
      return n.negative ? -2 : 2;
    if (n.is_zero())
      return 0;
    return n.negative ? -1 : 1;
  };
  const int rank_a = rank(a);
  const int rank_b = rank(b);
  if (rank_a != rank_b)
    return rank_a < rank_b ? -1 : 1;
  if (rank_a != 1 && rank_a != -1)
    return 0;
  const int c = compare_magnitude(a, b);
  return rank_a > 0 ? c : -c;
}

// Arithmetic ---------------------------------------------------------------

/// a + b, with b's sign flipped when `negate_b` (subtraction).
Result<Decimal> add_numbers(const decimal_number &a, const decimal_number &b, bool negate_b) {
  if (a.is_nan() || b.is_nan())
    return invalid_operation();
  const bool b_negative = b.negative != negate_b;

  if (a.kind == decimal_kind::infinity || b.kind == decimal_kind::infinity) {
    if (a.kind == decimal_kind::infinity && b.kind == decimal_kind::infinity &&
        a.negative != b_negative)
      return invalid_operation(); // Infinity - Infinity
    decimal_number result;
    result.kind = decimal_kind::infinity;
    result.negative = a.kind == decimal_kind::infinity ? a.negative : b_negative;
    return make_decimal(std::move(result));
  }

  // Align both coefficients to the smaller exponent.
  const bool a_higher = a.exponent > b.exponent;
  const std::uint64_t shift = a_higher ? static_cast<std::uint64_t>(a.exponent - b.exponent)
                                       : static_cast<std::uint64_t>(b.exponent - a.exponent);
  const decimal_number &higher = a_higher ? a : b;
  if (shift > max_alignment_digits && mpz_sgn(higher.coefficient) != 0)
    return Error("Decimal result too large.");

  big_integer term_a;
  big_integer term_b;
  mpz_set(term_a.get(), a.coefficient);
  mpz_set(term_b.get(), b.coefficient);
  if (shift != 0 && mpz_sgn(higher.coefficient) != 0) {
    big_integer factor;
    set_power_of_ten(factor.get(), shift);
    mpz_ptr target = a_higher ? term_a.get() : term_b.get();
    mpz_mul(target, target, factor.get());
  }
  if (a.negative)
    mpz_neg(term_a.get(), term_a.get());
  if (b_negative)
    mpz_neg(term_b.get(), term_b.get());

  decimal_number result;
  mpz_add(result.coefficient, term_a.get(), term_b.get());
  result.exponent = std::min(a.exponent, b.exponent);
  const int sign = mpz_sgn(result.coefficient);
  // An exact zero sum is negative only when both terms are negative zeros or
  // negative numbers, as in Python's default rounding.
  result.negative = sign < 0 || (sign == 0 && a.negative && b_negative);
  mpz_abs(result.coefficient, result.coefficient);
  return make_decimal(std::move(result));
}

Result<Decimal> multiply_numbers(const decimal_number &a, const decimal_number &b) {
  if (a.is_nan() || b.is_nan())
    return invalid_operation();
  decimal_number result;
  result.negative = a.negative != b.negative;
  if (a.kind == decimal_kind::infinity || b.kind == decimal_kind::infinity) {
    if (a.is_zero() || b.is_zero())
      return invalid_operation(); // Infinity * 0
    result.kind = decimal_kind::infinity;
    return make_decimal(std::move(result));
  }
  result.exponent = a.exponent + b.exponent; // both within +-10^18: cannot overflow
  if (result.exponent > max_exponent || result.exponent < -max_exponent)
    return Error("Decimal exponent out of range.");
  mpz_mul(result.coefficient, a.coefficient, b.coefficient);
  return make_decimal(std::move(result));
}

} // namespace

KEST_DEFINE_HANDLE(Decimal, ::kest::internal::instance_derives(a, &Decimal::getClass),
                   ::kest::internal::make_builtin_class("Decimal", ::kest::class_flags::final,
                                                        {&::kest::I_Immutable::getClass}))

Decimal::Decimal() : Any(new object_value_decimal(decimal_number())) {}

Decimal::Decimal(std::int64_t value)
    : Any(new object_value_decimal(decimal_number::from_int64(value))) {}

Result<Decimal> Decimal::fromString(const String &text) { return fromString(text.utf8View()); }

Result<Decimal> Decimal::fromString(std::string_view text) {
  auto parsed = parse(text);
  if (!parsed) {
    std::string message = "Invalid decimal text: ";
    message.append(text);
    message += '.';
    return BadArgument(String::fromUtf8(message));
  }
  return make_decimal(std::move(*parsed));
}

String Decimal::toString() const { return String::fromUtf8(toUtf8()); }

std::string Decimal::toUtf8() const { return to_text(number_of(*this)); }

bool Decimal::isNegative() const { return number_of(*this).negative; }

bool Decimal::isFinite() const { return number_of(*this).kind == decimal_kind::finite; }

bool Decimal::isNaN() const { return number_of(*this).is_nan(); }

bool Decimal::isInfinite() const { return number_of(*this).kind == decimal_kind::infinity; }

std::string Decimal::coefficientDigits() const {
  const auto &n = number_of(*this);
  return n.kind == decimal_kind::finite ? digit_text(n.coefficient) : std::string();
}

std::int64_t Decimal::exponent() const {
  const auto &n = number_of(*this);
  return n.kind == decimal_kind::finite ? n.exponent : 0;
}

Result<Decimal> Decimal::add(const Decimal &other) const {
  if (auto error = not_decimals(*this, other))
    return *error;
  return add_numbers(number_of(*this), number_of(other), false);
}

Result<Decimal> Decimal::subtract(const Decimal &other) const {
  if (auto error = not_decimals(*this, other))
    return *error;
  return add_numbers(number_of(*this), number_of(other), true);
}

Result<Decimal> Decimal::multiply(const Decimal &other) const {
  if (auto error = not_decimals(*this, other))
    return *error;
  return multiply_numbers(number_of(*this), number_of(other));
}

int Decimal::compare(const Decimal &other) const {
  return compare_numbers(number_of(*this), number_of(other));
}

int Decimal::compare(std::int64_t other, bool isSigned) const {
  const decimal_number value = isSigned ? decimal_number::from_int64(other)
                                        : decimal_number::from_magnitude(
                                              static_cast<std::uint64_t>(other), false);
  return compare_numbers(number_of(*this), value);
}

int Decimal::compare(double other) const {
  return compare_numbers(number_of(*this), decimal_number::from_double(other));
}

bool Decimal::toInt64(std::int64_t &out) const {
  const auto &n = number_of(*this);
  if (n.kind != decimal_kind::finite)
    return false;
  if (mpz_sgn(n.coefficient) == 0) {
    out = 0;
    return true;
  }
  big_integer whole;
  if (n.exponent >= 0) {
    // A 64-bit integer has at most 19 digits.
    if (n.exponent > 19)
      return false;
    set_power_of_ten(whole.get(), static_cast<std::uint64_t>(n.exponent));
    mpz_mul(whole.get(), whole.get(), n.coefficient);
  } else {
    const auto places = static_cast<std::uint64_t>(-n.exponent);
    // A non-zero coefficient with fewer digits than places has a fraction.
    if (places >= digit_count(n.coefficient))
      return false;
    big_integer divisor;
    set_power_of_ten(divisor.get(), places);
    if (!mpz_divisible_p(n.coefficient, divisor.get()))
      return false;
    mpz_divexact(whole.get(), n.coefficient, divisor.get());
  }
  // Magnitude limits: 2^63 - 1 for positive numbers, 2^63 for negative ones.
  const std::size_t bits = mpz_sizeinbase(whole.get(), 2);
  if (bits > 64)
    return false;
  const std::uint64_t magnitude = mpz_get_u64(whole.get());
  constexpr std::uint64_t limit = std::uint64_t{1} << 63;
  if (n.negative) {
    if (magnitude > limit)
      return false;
    out = static_cast<std::int64_t>(std::uint64_t{0} - magnitude);
  } else {
    if (magnitude >= limit)
      return false;
    out = static_cast<std::int64_t>(magnitude);
  }
  return true;
}

double Decimal::toDouble() const {
  const auto &n = number_of(*this);
  const double sign = n.negative ? -1.0 : 1.0;
  switch (n.kind) {
  case decimal_kind::infinity:
    return sign * std::numeric_limits<double>::infinity();
  case decimal_kind::quiet_nan:
  case decimal_kind::signalling_nan:
    return std::copysign(std::numeric_limits<double>::quiet_NaN(), sign);
  case decimal_kind::finite:
    break;
  }
  if (mpz_sgn(n.coefficient) == 0)
    return sign * 0.0;
  const std::string digits = digit_text(n.coefficient);
  const std::int64_t adjusted = n.exponent + static_cast<std::int64_t>(digits.size()) - 1;
  // Far outside the double range the result is known without parsing (and
  // the exponent in the text stays small).
  if (adjusted > 400)
    return sign * std::numeric_limits<double>::infinity();
  if (adjusted < -400)
    return sign * 0.0;
  // from_chars rounds correctly and does not depend on the locale.
  const std::string text = digits + 'e' + std::to_string(n.exponent);
  double magnitude = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  (void)end;
  if (error == std::errc::result_out_of_range)
    magnitude = adjusted > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  return sign * magnitude;
}

std::int64_t Decimal::numericHash() const {
  const auto &n = number_of(*this);
  switch (n.kind) {
  case decimal_kind::infinity:
    return n.negative ? -internal::numeric_hash_infinity : internal::numeric_hash_infinity;
  case decimal_kind::quiet_nan:
  case decimal_kind::signalling_nan:
    return internal::numeric_hash_nan;
  case decimal_kind::finite:
    break;
  }
  // coefficient * 10^exponent modulo P, with 10^-k taken as the k-th power
  // of the inverse of 10.
  big_integer modulus(internal::numeric_hash_modulus);
  big_integer base(10);
  if (n.exponent < 0)
    mpz_invert(base.get(), base.get(), modulus.get());
  big_integer power(static_cast<std::uint64_t>(n.exponent < 0 ? -n.exponent : n.exponent));
  mpz_powm(power.get(), base.get(), power.get(), modulus.get());
  big_integer reduced;
  mpz_mul(reduced.get(), n.coefficient, power.get());
  mpz_mod(reduced.get(), reduced.get(), modulus.get());
  return internal::numeric_hash_finish(mpz_get_u64(reduced.get()), n.negative);
}

} // namespace kest
