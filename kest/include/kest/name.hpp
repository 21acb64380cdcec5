#pragma once
/// Interned member names and the meta-name handles made from them.
///
/// A member name is interned once for the process, so that lookups compare and
/// hash a pointer. A leading "$" in the text marks a hidden or meta member and
/// is not part of the registered name; "$$" marks a meta-property.

#include <kest/config.hpp>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace kest {

class String;

namespace internal {
/// One interned name; lives for the whole process.
struct name_info {
  std::u16string text;
  std::string utf8;
  std::size_t hash;
};

/// Interns `text` (without any "$" prefix).
KEST_API const name_info *intern_name(std::u16string_view text);
/// Interns a name given as UTF-8 (without any "$" prefix); no conversion when it is known.
KEST_API const name_info *intern_name_utf8(std::string_view utf8);
/// The interned name for `text`, or null when no such name was ever interned.
KEST_API const name_info *find_interned_name(std::u16string_view text) noexcept;
} // namespace internal

/// Base of the three meta-name kinds: an interned name and whether it is hidden.
class KEST_API meta_name {
public:
  /// Parses `text`: strips one "$" (or "$$" for properties) and interns the rest.
  explicit meta_name(std::u16string_view text);
  explicit meta_name(const String &text);
  explicit meta_name(const char16_t *text) : meta_name(std::u16string_view(text)) {}
  /// From UTF-8 text.
  explicit meta_name(std::string_view utf8);
  explicit meta_name(const char *utf8) : meta_name(std::string_view(utf8)) {}
  meta_name(const internal::name_info *info, bool hidden) noexcept
      : m_info(info), m_hidden(hidden) {}

  [[nodiscard]] const internal::name_info *info() const noexcept { return m_info; }
  [[nodiscard]] const std::u16string &text() const noexcept { return m_info->text; }
  [[nodiscard]] const std::string &utf8() const noexcept { return m_info->utf8; }
  [[nodiscard]] String string() const;
  /// True when the name was written with a "$" prefix.
  [[nodiscard]] bool hidden() const noexcept { return m_hidden; }

  friend bool operator==(const meta_name &a, const meta_name &b) noexcept {
    return a.m_info == b.m_info;
  }

private:
  const internal::name_info *m_info;
  bool m_hidden;
};

class KEST_API meta_property_untyped : public meta_name {
public:
  using meta_name::meta_name;
};
class KEST_API meta_method_untyped : public meta_name {
public:
  using meta_name::meta_name;
};
class KEST_API meta_field_untyped : public meta_name {
public:
  using meta_name::meta_name;
};

/// A property name whose value is expected to be a `T`.
template <class T> class meta_property : public meta_property_untyped {
public:
  using meta_property_untyped::meta_property_untyped;
  using value_type = T;
};
/// A method name whose result is expected to be a `T`.
template <class T> class meta_method : public meta_method_untyped {
public:
  using meta_method_untyped::meta_method_untyped;
  using result_type = T;
};
/// A field name whose value is expected to be a `T`.
template <class T> class meta_field : public meta_field_untyped {
public:
  using meta_field_untyped::meta_field_untyped;
  using value_type = T;
};

namespace internal {
/// The text of a name written in the source, as a template argument.
template <std::size_t N> struct name_literal {
  char text[N]{};
  constexpr name_literal(const char (&s)[N]) { std::copy_n(s, N, text); }
  [[nodiscard]] constexpr std::string_view view() const { return {text, N - 1}; }
};
} // namespace internal

/// Names written in the source, each interned once for the program:
/// `self.fieldValue("$_kind"_field)` costs no string work after its first use.
namespace literals {
template <internal::name_literal L> const meta_field_untyped &operator""_field() {
  static const meta_field_untyped name(L.view());
  return name;
}
template <internal::name_literal L> const meta_property_untyped &operator""_property() {
  static const meta_property_untyped name(L.view());
  return name;
}
template <internal::name_literal L> const meta_method_untyped &operator""_method() {
  static const meta_method_untyped name(L.view());
  return name;
}
} // namespace literals

} // namespace kest
