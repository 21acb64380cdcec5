// Coercion between host types, and the truth value of any value.

#include "builtin.hpp"

#include <kest/boolean.hpp>
#include <kest/bytearray.hpp>
#include <kest/date_time.hpp>
#include <kest/decimal.hpp>
#include <kest/float.hpp>
#include <kest/hash_map.hpp>
#include <kest/hash_set.hpp>
#include <kest/list.hpp>
#include <kest/reflection.hpp>
#include <kest/tuple.hpp>

#include <fmt/format.h>

#include <charconv>
#include <cmath>

namespace kest {

using namespace internal;

namespace internal {
std::string float_text(double v);
}

Boolean Boolean::from(const Any &value) {
  const Any v = unwrap(value);
  switch (v.kind()) {
  case ObjectType::None:
  case ObjectType::NotImplemented:
    return false;
  case ObjectType::Boolean:
    return Boolean::unsafeFrom(v);
  case ObjectType::Integer:
    return Integer::unsafeFrom(v).unsignedValue() != 0;
  case ObjectType::Float:
    return Float::unsafeFrom(v).value() != 0.0;
  case ObjectType::String:
    return !String::unsafeFrom(v).empty();
  case ObjectType::ByteArray:
    return ByteArray::unsafeFrom(v).length() != 0;
  case ObjectType::Tuple:
    return Tuple::unsafeFrom(v).length() != 0;
  case ObjectType::List:
    return List::unsafeFrom(v).length() != 0;
  case ObjectType::HashMap:
    return HashMap::unsafeFrom(v).length() != 0;
  case ObjectType::HashSet:
    return HashSet::unsafeFrom(v).length() != 0;
  default:
    if (Decimal::isInstance(v)) {
      auto d = Decimal::unsafeFrom(v);
      return !(d.isFinite() && d.compare(std::int64_t{0}) == 0);
    }
    return true;
  }
}

namespace {
Error cannot_coerce(const Any &value, const Type &type) {
  return BadArgument(String::fromUtf8(fmt::format("Unable to coerce a value of class '{}' to '{}'.",
                                                  qualname(raw_class_of(value)).utf8View(), type.name().utf8View())));
}

Result<Any> to_integer(const Any &v) {
  switch (v.kind()) {
  case ObjectType::Integer: // to_decimal converts integers through here
    return Integer::unsafeFrom(v);
  case ObjectType::Boolean:
    return Integer(Boolean::unsafeFrom(v).value() ? 1 : 0);
  case ObjectType::Float: {
    const double d = Float::unsafeFrom(v).value();
    if (std::isfinite(d) && std::trunc(d) == d && d >= -9223372036854775808.0 && d < 9223372036854775808.0)
      return Integer(static_cast<std::int64_t>(d));
    return {};
  }
  case ObjectType::String: {
    auto text = String::unsafeFrom(v).trimmed().toUtf8();
    std::int64_t n = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
    if (ec == std::errc() && end == text.data() + text.size() && !text.empty())
      return Integer(n);
    return {};
  }
  default:
    if (Decimal::isInstance(v)) {
      std::int64_t n = 0;
      if (Decimal::unsafeFrom(v).toInt64(n))
        return Integer(n);
    }
    return {};
  }
}

Result<Any> to_float(const Any &v) {
  switch (v.kind()) {
  case ObjectType::Integer: {
    auto i = Integer::unsafeFrom(v);
    return Float(i.isSigned() ? static_cast<double>(i.value()) : static_cast<double>(i.unsignedValue()));
  }
  case ObjectType::Boolean:
    return Float(Boolean::unsafeFrom(v).value() ? 1.0 : 0.0);
  case ObjectType::String: {
    auto text = String::unsafeFrom(v).trimmed().toUtf8();
    double d = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), d);
    if (ec == std::errc() && end == text.data() + text.size() && !text.empty())
      return Float(d);
    return {};
  }
  default:
    if (Decimal::isInstance(v))
      return Float(Decimal::unsafeFrom(v).toDouble());
    return {};
  }
}

Result<Any> to_string(const Any &v) {
  switch (v.kind()) {
  case ObjectType::Boolean:
  case ObjectType::Integer:
  case ObjectType::Float:
    return display(v);
  default:
    if (Decimal::isInstance(v) || Date::isInstance(v) || Time::isInstance(v) || DateTime::isInstance(v))
      return display(v);
    return {};
  }
}

Result<Any> to_decimal(const Any &v) {
  switch (v.kind()) {
  case ObjectType::Integer:
  case ObjectType::Boolean:
    if (auto i = to_integer(v); i.is<Integer>()) {
      auto n = i.unsafeAs<Integer>();
      return Decimal::fromString(n.isSigned() ? std::to_string(n.value()) : std::to_string(n.unsignedValue()));
    }
    return {};
  case ObjectType::Float:
    return Decimal::fromString(float_text(Float::unsafeFrom(v).value()));
  case ObjectType::String:
    return Decimal::fromString(String::unsafeFrom(v));
  default:
    return {};
  }
}

Result<Any> coerce_to_class(const Any &v, const Class_Generic &cls) {
  if (cls.isSame(Integer::getClass()))
    return to_integer(v);
  if (cls.isSame(Float::getClass()))
    return to_float(v);
  if (cls.isSame(String::getClass()))
    return to_string(v);
  if (cls.isSame(Boolean::getClass())) {
    if (v.kind() == ObjectType::Integer || v.kind() == ObjectType::Float || Decimal::isInstance(v))
      return Boolean::from(v);
    return {};
  }
  if (cls.isSame(Decimal::getClass()))
    return to_decimal(v);
  if (cls.derivesFrom(List::getClass()) && I_Iterable::isInstance(v)) {
    auto items = I_Iterable::unsafeFrom(v).collectImpl();
    if (items.isError())
      return Error::unsafeFrom(items);
    auto args = cls.genericArguments();
    List out(args.empty() ? Type() : args.front());
    for (auto &item : items.unsafeAs<List>().copyItems()) {
      auto r = out.append(item);
      if (r.isError())
        return Error::unsafeFrom(r);
    }
    return out;
  }
  return {};
}
} // namespace

Result<Any> coerce(const Any &value, const Type &type) {
  if (!Class_Generic::isInstance(type)) // a type handle made over a value that is no class
    return wrong_class("Type", type);
  const Any v = unwrap(value);
  if (type.matches(v))
    return Result<Any>(unchecked, v);
  auto cls = Class_Generic::unsafeFrom(type);
  if (cls.hasFlag(class_flags::union_type)) {
    for (auto &alt : cls.bases()) {
      auto r = coerce(v, Type(alt));
      if (!r.isError())
        return r;
    }
    return cannot_coerce(v, type);
  }
  auto r = coerce_to_class(v, cls);
  if (r.empty())
    return cannot_coerce(v, type);
  return r;
}

Result<Any> internal::cast_object(const Any &value, const Type &type) { return coerce(value, type); }

} // namespace kest
