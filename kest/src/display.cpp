// Display text of host values.

#include "builtin.hpp"
#include "hooks.hpp"

#include <kest/boolean.hpp>
#include <kest/bytearray.hpp>
#include <kest/date_time.hpp>
#include <kest/decimal.hpp>
#include <kest/float.hpp>
#include <kest/hash_map.hpp>
#include <kest/hash_set.hpp>
#include <kest/list.hpp>
#include <kest/module.hpp>
#include <kest/reflection.hpp>
#include <kest/tuple.hpp>

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <string>

namespace kest {

using namespace internal;

namespace internal {

/// Shortest text that reads back as the same double, laid out as Python's repr:
/// fixed notation for exponents from -4 to 15, exponent notation outside
/// ("2.0", "0.1", "100000.0", "1e+16", "1e-05", "inf", "nan").
std::string float_text(double v) {
  if (std::isnan(v))
    return "nan";
  if (std::isinf(v))
    return v < 0 ? "-inf" : "inf";
  char buffer[64];
  // The shortest round-trip digits, as "-d.ddde+XX".
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, v, std::chars_format::scientific);
  const std::string scientific(buffer, end);
  const auto e = scientific.find('e');
  const int exponent = std::stoi(scientific.substr(e + 1));
  if (exponent < -4 || exponent >= 16)
    return scientific;
  const bool negative = scientific[0] == '-';
  std::string digits;
  for (std::size_t i = negative ? 1 : 0; i < e; ++i)
    if (scientific[i] != '.')
      digits += scientific[i];
  std::string text = negative ? "-" : "";
  if (exponent < 0) {
    text += "0.";
    text.append(static_cast<std::size_t>(-exponent - 1), '0');
    text += digits;
  } else if (digits.size() <= static_cast<std::size_t>(exponent) + 1) {
    text += digits;
    text.append(static_cast<std::size_t>(exponent) + 1 - digits.size(), '0');
    text += ".0";
  } else {
    text += digits.substr(0, static_cast<std::size_t>(exponent) + 1);
    text += '.';
    text += digits.substr(static_cast<std::size_t>(exponent) + 1);
  }
  return text;
}

/// Python-style quoted text of a string, escaping what a literal must escape.
std::string quoted_text(std::u16string_view text) {
  std::string out = "'";
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    switch (c) {
    case u'\\':
      out += "\\\\";
      break;
    case u'\'':
      out += "\\'";
      break;
    case u'\n':
      out += "\\n";
      break;
    case u'\r':
      out += "\\r";
      break;
    case u'\t':
      out += "\\t";
      break;
    default:
      if (c < 0x20 || c == 0x7F) {
        out += fmt::format("\\x{:02x}", static_cast<unsigned>(c));
      } else if (c >= 0xD800 && c <= 0xDFFF &&
                 !(c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) &&
                 !(c >= 0xDC00 && i > 0 && text[i - 1] >= 0xD800 && text[i - 1] <= 0xDBFF)) {
        out += fmt::format("\\u{:04x}", static_cast<unsigned>(c)); // a lone surrogate
      } else {
        out += utf16_to_utf8(text.substr(i, 1 + (c >= 0xD800 && c <= 0xDBFF ? 1 : 0)));
        if (c >= 0xD800 && c <= 0xDBFF)
          ++i;
      }
    }
  }
  return out + "'";
}

std::string time_text(const Time &t) {
  auto text = fmt::format("{:02}:{:02}:{:02}", t.hour(), t.minute(), t.second());
  if (auto ns = t.nanoSeconds(); ns % 1000 != 0)
    text += fmt::format(".{:09}", ns);
  else if (ns != 0)
    text += fmt::format(".{:06}", ns / 1000);
  if (auto offset = t.offsetSeconds()) {
    const auto sign = *offset < 0 ? '-' : '+';
    const auto abs = std::abs(*offset);
    text += fmt::format("{}{:02}:{:02}", sign, abs / 3600, (abs / 60) % 60);
    if (abs % 60)
      text += fmt::format(":{:02}", abs % 60);
  }
  return text;
}

std::string date_text(const Date &d) { return fmt::format("{:04}-{:02}-{:02}", d.year(), d.month(), d.day()); }

} // namespace internal

namespace {
std::string display_utf8(const Any &value, int depth, bool quote);

std::string element_text(const Any &v, int depth) { return display_utf8(v, depth + 1, true); }

std::string display_utf8(const Any &value, int depth, bool quote) {
  if (depth > 32)
    return "...";
  switch (value.kind()) {
  case ObjectType::None:
    return "None";
  case ObjectType::NotImplemented:
    return "Undefined";
  case ObjectType::Boolean:
    return Boolean::unsafeFrom(value).value() ? "true" : "false";
  case ObjectType::Integer: {
    auto i = Integer::unsafeFrom(value);
    return i.isSigned() ? std::to_string(i.value()) : std::to_string(i.unsignedValue());
  }
  case ObjectType::Float:
    return float_text(Float::unsafeFrom(value).value());
  case ObjectType::String:
    return quote ? quoted_text(String::unsafeFrom(value).view()) : String::unsafeFrom(value).toUtf8();
  case ObjectType::ByteArray: {
    std::string out = "b'";
    for (auto b : ByteArray::unsafeFrom(value).bytes()) {
      if (b == '\\' || b == '\'')
        out += fmt::format("\\{}", static_cast<char>(b));
      else if (b >= 0x20 && b < 0x7F)
        out += static_cast<char>(b);
      else
        out += fmt::format("\\x{:02x}", b);
    }
    return out + "'";
  }
  case ObjectType::Tuple: {
    auto items = Tuple::unsafeFrom(value).items();
    std::string out = "(";
    for (std::size_t i = 0; i < items.size(); ++i)
      out += (i ? ", " : "") + element_text(items[i], depth);
    return out + (items.size() == 1 ? ",)" : ")");
  }
  case ObjectType::List: {
    std::string out = "[";
    bool first = true;
    for (auto &item : List::unsafeFrom(value).copyItems()) {
      out += (first ? "" : ", ") + element_text(item, depth);
      first = false;
    }
    return out + "]";
  }
  case ObjectType::HashMap: {
    std::string out = "{";
    bool first = true;
    for (auto &[k, v] : HashMap::unsafeFrom(value).copyPairs()) {
      out += (first ? "" : ", ") + element_text(k, depth) + ": " + element_text(v, depth);
      first = false;
    }
    return out + "}";
  }
  case ObjectType::HashSet: {
    auto items = HashSet::unsafeFrom(value).copyItems();
    if (items.empty())
      return "{}";
    std::string out = "{";
    for (std::size_t i = 0; i < items.size(); ++i)
      out += (i ? ", " : "") + element_text(items[i], depth);
    return out + "}";
  }
  case ObjectType::Class:
    return fmt::format("<class {}>", qualname(Class_Generic::unsafeFrom(value)).utf8View());
  case ObjectType::Callable: {
    auto c = I_Callable_Generic::unsafeFrom(value);
    auto name = qualname(c);
    return fmt::format("<function {}{}>", name.empty() ? "<anonymous>" : name.toUtf8(),
                       c.signature().toString().utf8View());
  }
  case ObjectType::Computed:
  case ObjectType::External:
  case ObjectType::WeakReference: {
    auto inner = unwrap(value);
    return inner.kind() == value.kind() ? "<unresolved>" : display_utf8(inner, depth + 1, quote);
  }
  default:
    break;
  }
  // Instances.
  auto *cls = value.get()->class_value();
  if (auto found = overriding_hook(cls, object_hook::display); found.is<I_Callable_Generic>()) {
    auto method = found.unsafeAs<I_Callable_Generic>();
    auto r = result_unwrap_lazy(method.isIndependent() ? method.callWith({}) : method.callWith({value}));
    if (String::isInstance(r))
      return String::unsafeFrom(r).toUtf8();
  }
  if (Error::isInstance(value)) {
    // The type that raised it before the message, as Python's traceback ends;
    // a syntax error's message is Python's whole rendering, which names it already.
    const auto error = Error::unsafeFrom(value);
    const auto headline = error.headline();
    return (headline.length() < error.message().length() ? error.message() : headline).toUtf8();
  }
  if (Decimal::isInstance(value))
    return Decimal::unsafeFrom(value).toUtf8();
  if (Date::isInstance(value))
    return date_text(Date::unsafeFrom(value));
  if (Time::isInstance(value))
    return time_text(Time::unsafeFrom(value));
  if (DateTime::isInstance(value)) {
    auto dt = DateTime::unsafeFrom(value);
    return date_text(dt.date()) + " " + time_text(dt.time());
  }
  if (Module::isInstance(value))
    return fmt::format("<module {}>", Module::unsafeFrom(value).name().utf8View());
  return fmt::format("<{} object>", qualname(Class_Generic(unchecked, Any(cls))).utf8View());
}
} // namespace

String display(const Any &value) { return String::fromUtf8(display_utf8(value, 0, false)); }

} // namespace kest
