// `kest::String`: text of 16-bit code units with a lazily kept UTF-8 form.

#include "builtin.hpp"
#include "pool.hpp"

#include <kest/bytearray.hpp>
#include <kest/interfaces.hpp>
#include <kest/list.hpp>

#include <algorithm>
#include <cstring>
#include <memory>

namespace kest {

namespace internal {
class object_value_string final : public object_value {
public:
  explicit object_value_string(std::u16string t) : object_value(ObjectType::String), text(std::move(t)) {}
  struct from_utf8_tag {};
  /// Decodes straight into the object's own text.
  object_value_string(from_utf8_tag, std::string_view encoded)
      : object_value(ObjectType::String), text(utf8_to_utf16(encoded)) {}
  KEST_POOLED_ALLOCATION
  ~object_value_string() override { delete utf8.load(std::memory_order_acquire); }
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::String; }
  [[nodiscard]] object_value_class *class_value() const noexcept override {
    return String::getClass().value();
  }
  const std::u16string text;
  mutable std::atomic<std::string *> utf8{nullptr};
  /// The text's hash once computed (0 until then): map keys are hashed on
  /// every lookup, and the text never changes.
  mutable std::atomic<std::uint64_t> hash{0};
};
} // namespace internal

using internal::object_value_string;

KEST_DEFINE_HANDLE(String, a.kind() == internal::ObjectType::String,
                   internal::make_builtin_class("String", 0, {&I_Immutable::getClass}))

namespace {
/// The string object, or null for an empty handle or one made over another class
/// (which read as the empty string).
const object_value_string *str(const Any &a) noexcept {
  return internal::native_if<const object_value_string>(a, internal::ObjectType::String);
}

Any empty_string() {
  static object_value_string *e = [] {
    auto *p = new object_value_string(std::u16string());
    p->make_immortal();
    return p;
  }();
  return Any(e);
}

std::int64_t clamp_index(std::int64_t i, std::int64_t n) { return std::clamp<std::int64_t>(i, 0, n); }

/// The string itself when unchanged; a handle over another class gives the empty string.
String unchanged(const String &s) { return str(s) ? s : String(); }
} // namespace

String::String() : Any(internal::unchecked, empty_string()) {}

String::String(std::u16string text)
    : Any(internal::unchecked, text.empty() ? empty_string()
                                            : Any::adopt(new object_value_string(std::move(text)))) {}

String String::fromUtf8(std::string_view utf8) {
  if (utf8.empty())
    return String();
  return String(internal::unchecked,
                Any::adopt(new object_value_string(object_value_string::from_utf8_tag{}, utf8)));
}

String String::fromUtf8(const ByteArray &bytes) { return fromUtf8(bytes.asChars()); }

String String::fromRawDataUnsafe(const char16_t *data, std::size_t length) {
  return String(std::u16string(data, length));
}

std::u16string_view String::view() const noexcept {
  auto *s = str(*this);
  return s ? std::u16string_view(s->text) : std::u16string_view();
}

const char16_t *String::c_str() const noexcept {
  auto *s = str(*this);
  return s ? s->text.c_str() : u"";
}

std::string_view String::utf8View() const { return internal::string_utf8_of(*this); }

std::string_view internal::string_utf8_of(const Any &value) {
  auto *s = str(value);
  if (!s)
    return {};
  auto *cached = s->utf8.load(std::memory_order_acquire);
  if (!cached) {
    auto fresh = std::make_unique<std::string>(utf16_to_utf8(s->text));
    if (s->utf8.compare_exchange_strong(cached, fresh.get(), std::memory_order_acq_rel))
      cached = fresh.release();
  }
  return *cached;
}

std::int64_t String::length() const noexcept { return static_cast<std::int64_t>(view().size()); }

char16_t String::at(std::int64_t index) const noexcept {
  auto v = view();
  return index >= 0 && index < static_cast<std::int64_t>(v.size()) ? v[static_cast<std::size_t>(index)] : 0;
}

std::int64_t String::find(std::u16string_view what, std::int64_t from) const noexcept {
  auto v = view();
  if (from < 0 || from > static_cast<std::int64_t>(v.size()))
    return -1;
  auto p = v.find(what, static_cast<std::size_t>(from));
  return p == std::u16string_view::npos ? -1 : static_cast<std::int64_t>(p);
}

std::int64_t String::find(char16_t what, std::int64_t from) const noexcept {
  return find(std::u16string_view(&what, 1), from);
}

std::int64_t String::rfind(std::u16string_view what, std::int64_t from) const noexcept {
  auto v = view();
  auto start = from < 0 ? std::u16string_view::npos : static_cast<std::size_t>(from);
  auto p = v.rfind(what, start);
  return p == std::u16string_view::npos ? -1 : static_cast<std::int64_t>(p);
}

std::int64_t String::rfind(char16_t what, std::int64_t from) const noexcept {
  return rfind(std::u16string_view(&what, 1), from);
}

bool String::startsWith(std::u16string_view prefix) const noexcept { return view().starts_with(prefix); }
bool String::endsWith(std::u16string_view suffix) const noexcept { return view().ends_with(suffix); }
bool String::contains(std::u16string_view what) const noexcept {
  return view().find(what) != std::u16string_view::npos;
}
bool String::contains(char16_t what) const noexcept {
  return view().find(what) != std::u16string_view::npos;
}

String String::substr(std::int64_t start, std::int64_t length) const {
  auto v = view();
  const auto n = static_cast<std::int64_t>(v.size());
  start = clamp_index(start, n);
  const auto count = length < 0 ? n - start : std::min(length, n - start);
  if (start == 0 && count == n)
    return unchanged(*this);
  return String(v.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(count)));
}

String String::sliced(std::int64_t start) const { return sliced(start, -1); }

String String::sliced(std::int64_t start, std::int64_t length) const {
  if (start < 0)
    start += this->length();
  return substr(start, length);
}

std::vector<String> String::splitToVector(std::u16string_view separator) const {
  std::vector<String> parts;
  auto v = view();
  if (separator.empty()) {
    parts.emplace_back(unchanged(*this));
    return parts;
  }
  std::size_t begin = 0;
  for (;;) {
    auto p = v.find(separator, begin);
    if (p == std::u16string_view::npos) {
      parts.emplace_back(v.substr(begin));
      return parts;
    }
    parts.emplace_back(v.substr(begin, p - begin));
    begin = p + separator.size();
  }
}

List String::split(std::u16string_view separator) const {
  List list(String::getType());
  for (auto &part : splitToVector(separator))
    list.append(part);
  return list;
}

List String::split(char16_t separator) const { return split(std::u16string_view(&separator, 1)); }

String String::replaced(std::u16string_view from, std::u16string_view to) const {
  if (from.empty())
    return unchanged(*this);
  auto v = view();
  std::u16string out;
  std::size_t begin = 0;
  for (;;) {
    auto p = v.find(from, begin);
    if (p == std::u16string_view::npos)
      break;
    out.append(v.substr(begin, p - begin)).append(to);
    begin = p + from.size();
  }
  if (begin == 0)
    return unchanged(*this);
  out.append(v.substr(begin));
  return String(std::move(out));
}

String String::trimmed() const {
  auto v = view();
  auto space = [](char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f' || c == u'\v' ||
           c == 0xA0 || c == 0x2028 || c == 0x2029 || c == 0x3000 || c == 0xFEFF;
  };
  std::size_t b = 0, e = v.size();
  while (b < e && space(v[b]))
    ++b;
  while (e > b && space(v[e - 1]))
    --e;
  if (b == 0 && e == v.size())
    return unchanged(*this);
  return String(v.substr(b, e - b));
}

// Exported here: the friend declaration in the header carries no export macro.
KEST_API String operator+(const String &a, const String &b) {
  std::u16string s;
  s.reserve(a.view().size() + b.view().size());
  s.append(a.view()).append(b.view());
  return String(std::move(s));
}

string_builder &string_builder::append(std::string_view utf8) {
  m_text.append(utf8_to_utf16(utf8));
  return *this;
}

string_builder &string_builder::append(std::int64_t number) {
  auto text = std::to_string(number);
  m_text.append(text.begin(), text.end());
  return *this;
}

namespace internal {
namespace {
std::u16string_view text_view(const object_value_string *s) noexcept {
  return s ? std::u16string_view(s->text) : std::u16string_view();
}
} // namespace

std::uint64_t text_hash_of(const Any &a) noexcept {
  auto *s = str(a);
  if (!s)
    return std::hash<std::u16string_view>()(std::u16string_view());
  auto h = s->hash.load(std::memory_order_relaxed);
  if (h == 0) { // racing threads compute the same value
    h = std::hash<std::u16string_view>()(s->text);
    s->hash.store(h, std::memory_order_relaxed);
  }
  return h;
}

bool same_text(const Any &a, const Any &b) noexcept {
  auto *x = str(a);
  auto *y = str(b);
  if (x == y)
    return true;
  const auto tx = text_view(x);
  const auto ty = text_view(y);
  // memcmp: char16_t's traits compare one unit at a time.
  return tx.size() == ty.size() && std::memcmp(tx.data(), ty.data(), tx.size() * sizeof(char16_t)) == 0;
}
} // namespace internal

} // namespace kest
