#pragma once
/// C++ values from host values (`kest::to<T>`) and host values from C++ ones
/// (`kest::host_value`), so that reading a result and passing an argument take
/// plain C++ types.
///
/// Reading is checked: a value of another class, an error, or a number that
/// the C++ type cannot hold throws `kest::bad_access`. Numbers read from
/// either host number class, because a whole-number float from a language
/// arrives as an Integer: `to<double>` reads an Integer, and `to<int>` reads a
/// Float that is a whole number in range.

#include <kest/any.hpp>
#include <kest/float.hpp>
#include <kest/integer.hpp>

#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace kest {

namespace internal {
KEST_API double read_double(const Any &value);
/// Reads an integer in [min, max]; `bits` and `is_signed` name the C++ type in messages.
KEST_API std::int64_t read_signed(const Any &value, std::int64_t min, std::int64_t max, int bits);
KEST_API std::uint64_t read_unsigned(const Any &value, std::uint64_t max, int bits);
KEST_API bool read_bool(const Any &value);
KEST_API std::string read_utf8(const Any &value);
KEST_API std::u16string read_utf16(const Any &value);

KEST_API Any make_integer(std::int64_t value);
KEST_API Any make_unsigned(std::uint64_t value);
KEST_API Any make_float(double value);
KEST_API Any make_boolean(bool value);
KEST_API Any make_string(std::string_view utf8);
KEST_API Any make_string(std::u16string_view text);

template <class T>
inline constexpr bool is_character_v =
    std::is_same_v<T, char> || std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> ||
    std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;
template <class T> inline constexpr bool is_text_v = std::is_convertible_v<T, std::string_view>;
template <class T> inline constexpr bool is_text16_v = std::is_convertible_v<T, std::u16string_view>;
} // namespace internal

/// The value as the C++ type `T`: a number type, `bool`, `std::string`
/// (UTF-8) or `std::u16string`; a host handle type reads as `as<T>()` does.
template <class T> [[nodiscard]] T to(const Any &value) {
  if constexpr (std::is_base_of_v<Any, T>) {
    return value.as<T>();
  } else if constexpr (std::is_same_v<T, bool>) {
    return internal::read_bool(value);
  } else if constexpr (internal::is_character_v<T>) {
    static_assert(!internal::is_character_v<T>, "read text as std::string or std::u16string");
  } else if constexpr (std::is_floating_point_v<T>) {
    // A Float or an Integer is read inline; anything else (a computed value,
    // a wrong class) goes to the library, which resolves or refuses it.
    if (Float::isInstance(value))
      return static_cast<T>(internal::float_value_of(value));
    if (Integer::isInstance(value)) {
      const auto i = internal::integer_parts_of(value);
      return i.is_signed ? static_cast<T>(static_cast<std::int64_t>(i.bits)) : static_cast<T>(i.bits);
    }
    return static_cast<T>(internal::read_double(value));
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    return static_cast<T>(internal::read_signed(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(),
                                                std::numeric_limits<T>::digits + 1));
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(internal::read_unsigned(value, std::numeric_limits<T>::max(), std::numeric_limits<T>::digits));
  } else if constexpr (std::is_same_v<T, std::string>) {
    return internal::read_utf8(value);
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    return internal::read_utf16(value);
  } else {
    static_assert(std::is_same_v<T, void>, "kest::to reads numbers, bool, std::string, std::u16string and host handles");
  }
}

/// The host value of a C++ value: a handle stays itself; integers become
/// Integer, floating-point numbers Float, `bool` Boolean, and UTF-8 or UTF-16
/// text String.
/// A single character is refused: it is text in some languages and a number in
/// others; pass a string or a number.
template <class T> [[nodiscard]] Any host_value(T &&value) {
  using V = std::remove_cvref_t<T>;
  if constexpr (std::is_base_of_v<Any, V> || std::is_convertible_v<T, Any>)
    return Any(std::forward<T>(value));
  else if constexpr (std::is_same_v<V, bool>)
    return internal::make_boolean(value);
  else if constexpr (internal::is_character_v<V>)
    static_assert(!internal::is_character_v<V>, "pass text as a string, not a single character");
  else if constexpr (std::is_integral_v<V> && std::is_signed_v<V>)
    return internal::make_integer(static_cast<std::int64_t>(value));
  else if constexpr (std::is_integral_v<V>)
    return internal::make_unsigned(static_cast<std::uint64_t>(value));
  else if constexpr (std::is_floating_point_v<V>)
    return internal::make_float(static_cast<double>(value));
  else if constexpr (internal::is_text_v<T>)
    return internal::make_string(std::string_view(value));
  else if constexpr (internal::is_text16_v<T>)
    return internal::make_string(std::u16string_view(value));
  else
    static_assert(std::is_same_v<V, void>,
                  "a call argument is a host handle, a number, bool, or UTF-8 or UTF-16 text");
}

} // namespace kest
