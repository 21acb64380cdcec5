// Checked reading of host values into C++ types, and host values made from
// C++ ones.

#include "builtin.hpp"

#include <kest/boolean.hpp>
#include <kest/computed.hpp>
#include <kest/convert.hpp>
#include <kest/error.hpp>
#include <kest/float.hpp>
#include <kest/integer.hpp>
#include <kest/reflection.hpp>
#include <kest/string.hpp>

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace kest::internal {

namespace {
std::string class_name_of(const Any &value) { return std::string(qualname(raw_class_of(value)).utf8View()); }

[[noreturn]] void refuse(const Any &value, std::string_view wanted) {
  if (is_error_value(value))
    throw bad_access(fmt::format("Unable to read {} from an error: {}", wanted,
                                 Error::unsafeFrom(value).headline().utf8View()));
  throw bad_access(fmt::format("Unable to read {} from a value of class '{}'.", wanted, class_name_of(value)));
}

std::string integer_type(int bits, bool is_signed) {
  return fmt::format("a {}-bit {} integer", bits, is_signed ? "signed" : "unsigned");
}

[[noreturn]] void out_of_range(std::string_view number, int bits, bool is_signed) {
  throw bad_access(fmt::format("The number {} does not fit in {}.", number, integer_type(bits, is_signed)));
}

/// A float that is a whole number, as the integer it equals; refused otherwise.
double whole_number(double d, int bits, bool is_signed) {
  if (!std::isfinite(d) || d != std::trunc(d))
    throw bad_access(fmt::format("The number {} is not a whole number, so it cannot be read as {}.", d,
                                 integer_type(bits, is_signed)));
  return d;
}
} // namespace

void throw_bad_access(const Class_Generic &(*expected)(), const Any &found) {
  const auto wanted = qualname(expected());
  if (is_error_value(found))
    refuse(found, fmt::format("a value of class '{}'", wanted.utf8View()));
  // The same text as a checked cast's error.
  throw bad_access(fmt::format("Unable to cast a value of class '{}' to '{}'.", class_name_of(found), wanted.utf8View()));
}

double read_double(const Any &raw) {
  const Any value = raw.as<Any>(); // what a computed value yields
  if (value.kind() == ObjectType::Float)
    return Float::unsafeFrom(value).value();
  if (value.kind() == ObjectType::Integer) {
    const auto i = Integer::unsafeFrom(value);
    return i.isSigned() ? static_cast<double>(i.value()) : static_cast<double>(i.unsignedValue());
  }
  refuse(value, "a number");
}

std::int64_t read_signed(const Any &raw, std::int64_t min, std::int64_t max, int bits) {
  const Any value = raw.as<Any>(); // what a computed value yields
  if (value.kind() == ObjectType::Integer) {
    const auto i = Integer::unsafeFrom(value);
    if (!i.isSigned() && i.unsignedValue() > static_cast<std::uint64_t>(max))
      out_of_range(std::to_string(i.unsignedValue()), bits, true);
    if (i.isSigned() && (i.value() < min || i.value() > max))
      out_of_range(std::to_string(i.value()), bits, true);
    return i.value();
  }
  if (value.kind() == ObjectType::Float) {
    const double d = whole_number(Float::unsafeFrom(value).value(), bits, true);
    // [min, -min) holds exactly the doubles that convert without overflow
    // (min is a power of two, exact as a double; max + 1 == -min).
    if (d < static_cast<double>(min) || d >= -static_cast<double>(min))
      out_of_range(fmt::format("{}", d), bits, true);
    return static_cast<std::int64_t>(d);
  }
  refuse(value, integer_type(bits, true));
}

std::uint64_t read_unsigned(const Any &raw, std::uint64_t max, int bits) {
  const Any value = raw.as<Any>(); // what a computed value yields
  if (value.kind() == ObjectType::Integer) {
    const auto i = Integer::unsafeFrom(value);
    if (i.isSigned() && i.value() < 0)
      out_of_range(std::to_string(i.value()), bits, false);
    if (i.unsignedValue() > max)
      out_of_range(std::to_string(i.unsignedValue()), bits, false);
    return i.unsignedValue();
  }
  if (value.kind() == ObjectType::Float) {
    const double d = whole_number(Float::unsafeFrom(value).value(), bits, false);
    // max + 1 is a power of two, exact as a double.
    if (d < 0 || d >= 2.0 * static_cast<double>(max / 2 + 1))
      out_of_range(fmt::format("{}", d), bits, false);
    return static_cast<std::uint64_t>(d);
  }
  refuse(value, integer_type(bits, false));
}

bool read_bool(const Any &raw) {
  const Any value = raw.as<Any>(); // what a computed value yields
  if (value.kind() != ObjectType::Boolean)
    refuse(value, "a bool");
  return Boolean::unsafeFrom(value).value();
}

std::string read_utf8(const Any &raw) {
  const Any value = raw.as<Any>(); // what a computed value yields
  if (value.kind() != ObjectType::String)
    refuse(value, "text");
  return String::unsafeFrom(value).toUtf8();
}

std::u16string read_utf16(const Any &raw) {
  const Any value = raw.as<Any>(); // what a computed value yields
  if (value.kind() != ObjectType::String)
    refuse(value, "text");
  return std::u16string(String::unsafeFrom(value).view());
}

Any make_integer(std::int64_t value) { return Integer(value); }
Any make_unsigned(std::uint64_t value) {
  // An unsigned number in the signed range is an ordinary Integer.
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    return Integer(static_cast<std::int64_t>(value));
  return Integer::fromUnsigned(value);
}
Any make_float(double value) { return Float(value); }
Any make_boolean(bool value) { return Boolean(value); }
Any make_string(std::string_view utf8) { return String::fromUtf8(utf8); }
Any make_string(std::u16string_view text) { return String(text); }

} // namespace kest::internal
