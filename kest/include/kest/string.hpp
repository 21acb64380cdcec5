#pragma once
/// `kest::String`: immutable text of 16-bit code units, with exact UTF-8 conversion.
///
/// UTF-8 to UTF-16 joins astral characters into surrogate pairs; invalid UTF-8
/// gives one U+FFFD per maximal invalid subsequence. UTF-16 to UTF-8 writes a
/// lone surrogate as U+FFFD.

#include <kest/union.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kest {

class ByteArray;
class List;

/// Converts UTF-8 to UTF-16 (invalid input as U+FFFD per maximal subpart).
KEST_API std::u16string utf8_to_utf16(std::string_view utf8);
/// Converts UTF-16 to UTF-8 (a lone surrogate as U+FFFD).
KEST_API std::string utf16_to_utf8(std::u16string_view utf16);

class String;
namespace internal {
/// An empty `String` handle reads as the empty string.
template <> inline constexpr bool empty_handle_allowed<String> = true;
} // namespace internal

/// Text. A handle made over a value of another class reads as the empty string.
class KEST_API String : public Any {
  KEST_HANDLE_MEMBERS(String, Any)
  /// The empty string.
  String();
  String(std::u16string text);
  String(std::u16string_view text) : String(std::u16string(text)) {}
  String(const char16_t *text) : String(std::u16string(text)) {}

  static String fromUtf8(std::string_view utf8);
  static String fromUtf8(const char *utf8) { return fromUtf8(std::string_view(utf8)); }
  static String fromUtf8(const std::string &utf8) { return fromUtf8(std::string_view(utf8)); }
  static String fromUtf8(const ByteArray &bytes);
  /// Makes a string from `length` code units at `data` (copied).
  static String fromRawDataUnsafe(const char16_t *data, std::size_t length);

  /// The code units.
  [[nodiscard]] std::u16string_view view() const noexcept;
  /// Null-terminated code units.
  [[nodiscard]] const char16_t *c_str() const noexcept;
  /// The UTF-8 form, computed once and kept with the string.
  [[nodiscard]] std::string_view utf8View() const;
  [[nodiscard]] std::string toUtf8() const { return std::string(utf8View()); }
  operator std::u16string_view() const noexcept { return view(); }

  [[nodiscard]] std::int64_t length() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return length() == 0; }
  /// The code unit at `index`; 0 when out of range.
  [[nodiscard]] char16_t at(std::int64_t index) const noexcept;

  /// Index of the first occurrence at or after `from`, or -1.
  [[nodiscard]] std::int64_t find(std::u16string_view what, std::int64_t from = 0) const noexcept;
  [[nodiscard]] std::int64_t find(char16_t what, std::int64_t from = 0) const noexcept;
  /// Index of the last occurrence starting at or before `from` (-1: from the end), or -1.
  [[nodiscard]] std::int64_t rfind(std::u16string_view what, std::int64_t from = -1) const noexcept;
  [[nodiscard]] std::int64_t rfind(char16_t what, std::int64_t from = -1) const noexcept;
  [[nodiscard]] bool startsWith(std::u16string_view prefix) const noexcept;
  [[nodiscard]] bool endsWith(std::u16string_view suffix) const noexcept;
  [[nodiscard]] bool contains(std::u16string_view what) const noexcept;
  [[nodiscard]] bool contains(char16_t what) const noexcept;

  /// `length` code units from `start` (clamped to the string).
  [[nodiscard]] String substr(std::int64_t start, std::int64_t length = -1) const;
  /// From `start` to the end; negative indices count from the end.
  [[nodiscard]] String sliced(std::int64_t start) const;
  /// `length` code units from `start`; negative `start` counts from the end.
  [[nodiscard]] String sliced(std::int64_t start, std::int64_t length) const;
  /// The pieces between the separators, empty pieces included.
  [[nodiscard]] List split(char16_t separator) const;
  [[nodiscard]] List split(std::u16string_view separator) const;
  [[nodiscard]] std::vector<String> splitToVector(std::u16string_view separator) const;
  /// Every occurrence of `from` replaced with `to`.
  [[nodiscard]] String replaced(std::u16string_view from, std::u16string_view to) const;
  /// Without leading and trailing white space.
  [[nodiscard]] String trimmed() const;

  friend KEST_API String operator+(const String &a, const String &b);
};

/// Builds a string from parts without intermediate strings.
class KEST_API string_builder {
public:
  string_builder &append(std::u16string_view text) {
    m_text.append(text);
    return *this;
  }
  string_builder &append(const String &text) { return append(text.view()); }
  string_builder &append(const char16_t *text) { return append(std::u16string_view(text)); }
  string_builder &append(char16_t c) {
    m_text.push_back(c);
    return *this;
  }
  /// Appends UTF-8 text.
  string_builder &append(std::string_view utf8);
  string_builder &append(const char *utf8) { return append(std::string_view(utf8)); }
  string_builder &append(std::int64_t number);
  string_builder &append(int number) { return append(static_cast<std::int64_t>(number)); }
  [[nodiscard]] std::size_t size() const noexcept { return m_text.size(); }
  void reserve(std::size_t n) { m_text.reserve(n); }
  [[nodiscard]] String build() const { return String(m_text); }
  [[nodiscard]] String take() { return String(std::move(m_text)); }

private:
  std::u16string m_text;
};

namespace literals {
inline String operator""_s(const char16_t *text, std::size_t n) {
  return String(std::u16string_view(text, n));
}
inline String operator""_s(const char *text, std::size_t n) {
  return String::fromUtf8(std::string_view(text, n));
}
} // namespace literals

namespace internal {
/// `String::utf8View` of a value, without making a handle (empty for any other value).
KEST_API std::string_view string_utf8_of(const Any &value);
} // namespace internal

} // namespace kest

template <> struct std::hash<kest::String> {
  std::size_t operator()(const kest::String &s) const noexcept {
    return std::hash<std::u16string_view>()(s.view());
  }
};

template <> struct std::equal_to<kest::String> {
  bool operator()(const kest::String &a, const kest::String &b) const noexcept {
    return a.view() == b.view();
  }
};
