// Three-way comparison and hashing of host values.

#include "builtin.hpp"
#include "hooks.hpp"
#include "numeric_hash.hpp"

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

#include <cmath>
#include <cstring>
#include <functional>

namespace kest {

using namespace internal;

KEST_DEFINE_HANDLE(Ordering,
                   Integer::isInstance(a) && Integer::unsafeFrom(a).value() >= -1 &&
                       Integer::unsafeFrom(a).value() <= 2,
                   Integer::getClass())

Ordering Ordering::less() { return Ordering(unchecked, Integer(-1)); }
Ordering Ordering::equal() { return Ordering(unchecked, Integer(0)); }
Ordering Ordering::greater() { return Ordering(unchecked, Integer(1)); }
Ordering Ordering::unordered() { return Ordering(unchecked, Integer(2)); }
Ordering Ordering::fromSign(std::int64_t sign) { return sign < 0 ? less() : sign > 0 ? greater() : equal(); }
// A handle made over anything but an ordering number reads as unordered.
int Ordering::value() const noexcept {
  return isInstance(*this) ? static_cast<int>(Integer(unchecked, *this).value()) : 2;
}

namespace {
__extension__ typedef __int128 int128; // exact sums of days and nanoseconds

constexpr int unordered = 2;

template <class T> int sign_of(const T &a, const T &b) { return a < b ? -1 : (b < a ? 1 : 0); }

int compare_int_int(const Integer &a, const Integer &b) {
  if (a.isSigned() == b.isSigned())
    return a.isSigned() ? sign_of(a.value(), b.value()) : sign_of(a.unsignedValue(), b.unsignedValue());
  // One signed, one unsigned: a negative signed value is below every unsigned one.
  if (a.isSigned())
    return a.value() < 0 ? -1 : sign_of(static_cast<std::uint64_t>(a.value()), b.unsignedValue());
  return b.value() < 0 ? 1 : sign_of(a.unsignedValue(), static_cast<std::uint64_t>(b.value()));
}

/// Exact comparison of a 64-bit integer with a double.
int compare_int_double(const Integer &a, double d) {
  if (std::isnan(d))
    return unordered;
  constexpr double two63 = 9223372036854775808.0;
  constexpr double two64 = 18446744073709551616.0;
  if (a.isSigned()) {
    if (d >= two63)
      return -1;
    if (d < -two63)
      return 1;
    const double t = std::trunc(d);
    const auto ti = static_cast<std::int64_t>(t);
    if (a.value() != ti)
      return sign_of(a.value(), ti);
  } else {
    if (d >= two64)
      return -1;
    if (d < 0)
      return 1;
    const double t = std::trunc(d);
    const auto tu = static_cast<std::uint64_t>(t);
    if (a.unsignedValue() != tu)
      return sign_of(a.unsignedValue(), tu);
  }
  const double fraction = d - std::trunc(d);
  return fraction > 0 ? -1 : fraction < 0 ? 1 : 0;
}

bool is_number(const Any &v) {
  return v.kind() == ObjectType::Integer || v.kind() == ObjectType::Float || Decimal::isInstance(v);
}

int compare_numbers(const Any &a, const Any &b) {
  if (Decimal::isInstance(a)) {
    auto d = Decimal::unsafeFrom(a);
    if (Decimal::isInstance(b))
      return d.compare(Decimal::unsafeFrom(b));
    if (b.kind() == ObjectType::Float)
      return d.compare(Float::unsafeFrom(b).value());
    auto i = Integer::unsafeFrom(b);
    return i.isSigned() ? d.compare(i.value(), true) : d.compare(static_cast<std::int64_t>(i.unsignedValue()), false);
  }
  if (Decimal::isInstance(b)) {
    const int r = compare_numbers(b, a);
    return r == unordered ? r : -r;
  }
  if (a.kind() == ObjectType::Integer && b.kind() == ObjectType::Integer)
    return compare_int_int(Integer::unsafeFrom(a), Integer::unsafeFrom(b));
  if (a.kind() == ObjectType::Integer)
    return compare_int_double(Integer::unsafeFrom(a), Float::unsafeFrom(b).value());
  if (b.kind() == ObjectType::Integer) {
    const int r = compare_int_double(Integer::unsafeFrom(b), Float::unsafeFrom(a).value());
    return r == unordered ? r : -r;
  }
  const double x = Float::unsafeFrom(a).value(), y = Float::unsafeFrom(b).value();
  if (std::isnan(x) || std::isnan(y))
    return unordered;
  return sign_of(x, y);
}

/// Nanoseconds of a time, in UTC for an aware time.
int128 time_key(const Time &t) {
  int128 ns = t.totalNanoseconds();
  if (auto offset = t.offsetSeconds())
    ns -= static_cast<int128>(*offset) * 1'000'000'000;
  return ns;
}

int compare_times(const Time &a, const Time &b, int128 days_a = 0, int128 days_b = 0) {
  if (a.offsetSeconds().has_value() != b.offsetSeconds().has_value())
    return unordered; // naive and aware times have no order
  constexpr int128 day = static_cast<int128>(86400) * 1'000'000'000;
  return sign_of(days_a * day + time_key(a), days_b * day + time_key(b));
}

int compare_sequences(const std::vector<Any> &a, const std::vector<Any> &b, Result<Ordering> &error) {
  const auto n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    auto r = compare_objects_value(a[i], b[i]);
    if (r.isError()) {
      error = r;
      return unordered;
    }
    const int v = r.unsafeAs<Ordering>().value();
    if (v != 0)
      return v;
  }
  return sign_of(a.size(), b.size());
}

int compare_maps(const HashMap &a, const HashMap &b) {
  if (a.length() != b.length())
    return unordered;
  for (auto &[k, v] : a.copyPairs()) {
    if (!b.contains(k) || compare_objects(v, b.find(k)).value() != 0)
      return unordered;
  }
  return 0;
}

int compare_sets(const HashSet &a, const HashSet &b) {
  if (a.length() != b.length())
    return unordered;
  for (auto &item : a.copyItems())
    if (!b.contains(item))
      return unordered;
  return 0;
}
} // namespace

Result<Ordering> internal::compare_objects_value(const Any &left, const Any &right) {
  const Any a = unwrap(left), b = unwrap(right);
  if (a.isSame(b) || (is_none(a) && is_none(b)))
    return Ordering::equal();
  // The left operand's "$__compare__" decides; without one, the right
  // operand's is asked the other way round, so that the order stays antisymmetric.
  const bool left_hook = a.get() && overrides(a.get()->class_value(), object_hook::compare);
  const bool right_hook = !left_hook && b.get() && overrides(b.get()->class_value(), object_hook::compare);
  if (left_hook || right_hook) {
    const Any &self = left_hook ? a : b;
    const Any &other = left_hook ? b : a;
    auto found = hook_method(self.get()->class_value(), object_hook::compare);
    if (!found.is<I_Callable_Generic>())
      return helpers::error_method_not_found(hook_name(object_hook::compare).string(), self);
    auto method = found.unsafeAs<I_Callable_Generic>();
    auto r = result_unwrap_lazy(method.isIndependent() ? method.callWith({other}) : method.callWith({self, other}));
    if (Error::isInstance(r))
      return Error::unsafeFrom(r);
    if (Integer::isInstance(r)) {
      const auto n = Integer::unsafeFrom(r).value();
      return n == 2 ? Ordering::unordered() : Ordering::fromSign(left_hook ? n : -n);
    }
    return result_error_cast_source(String(u"Ordering"), r);
  }
  int result = unordered;
  Result<Ordering> error;
  if (is_number(a) && is_number(b)) {
    result = compare_numbers(a, b);
  } else if (a.kind() != b.kind()) {
    result = unordered;
  } else {
    switch (a.kind()) {
    case ObjectType::Boolean:
      result = sign_of(Boolean::unsafeFrom(a).value(), Boolean::unsafeFrom(b).value());
      break;
    case ObjectType::String:
      result = sign_of(String::unsafeFrom(a).view(), String::unsafeFrom(b).view());
      break;
    case ObjectType::ByteArray:
      result = sign_of(ByteArray::unsafeFrom(a).asChars(), ByteArray::unsafeFrom(b).asChars());
      break;
    case ObjectType::Tuple: {
      auto x = Tuple::unsafeFrom(a).items(), y = Tuple::unsafeFrom(b).items();
      result = compare_sequences({x.begin(), x.end()}, {y.begin(), y.end()}, error);
      break;
    }
    case ObjectType::List:
      result = compare_sequences(List::unsafeFrom(a).copyItems(), List::unsafeFrom(b).copyItems(), error);
      break;
    case ObjectType::HashMap:
      result = compare_maps(HashMap::unsafeFrom(a), HashMap::unsafeFrom(b));
      break;
    case ObjectType::HashSet:
      result = compare_sets(HashSet::unsafeFrom(a), HashSet::unsafeFrom(b));
      break;
    case ObjectType::Instance:
      if (Date::isInstance(a) && Date::isInstance(b))
        result = sign_of(Date::unsafeFrom(a).ordinal(), Date::unsafeFrom(b).ordinal());
      else if (Time::isInstance(a) && Time::isInstance(b))
        result = compare_times(Time::unsafeFrom(a), Time::unsafeFrom(b));
      else if (DateTime::isInstance(a) && DateTime::isInstance(b)) {
        auto x = DateTime::unsafeFrom(a), y = DateTime::unsafeFrom(b);
        result = compare_times(x.time(), y.time(), x.date().ordinal(), y.date().ordinal());
      }
      break;
    default:
      break; // classes, callables, other instances: equal only to themselves
    }
  }
  if (error.isError())
    return error;
  return result == unordered ? Ordering::unordered() : Ordering::fromSign(result);
}

Ordering compare_objects(const Any &a, const Any &b) {
  auto r = compare_objects_value(a, b);
  return r.is<Ordering>() ? r.unsafeAs<Ordering>() : Ordering::unordered();
}

bool operator==(const Any &a, const Any &b) { return compare_objects(a, b).value() == 0; }

std::partial_ordering operator<=>(const Any &a, const Any &b) {
  switch (compare_objects(a, b).value()) {
  case -1:
    return std::partial_ordering::less;
  case 0:
    return std::partial_ordering::equivalent;
  case 1:
    return std::partial_ordering::greater;
  default:
    return std::partial_ordering::unordered;
  }
}

// --- hashing ------------------------------------------------------------------

namespace {
std::int64_t combine(std::int64_t seed, std::int64_t h) {
  auto s = static_cast<std::uint64_t>(seed);
  s ^= static_cast<std::uint64_t>(h) + 0x9e3779b97f4a7c15ull + (s << 6) + (s >> 2);
  return static_cast<std::int64_t>(s);
}
} // namespace

std::int64_t hash_of(const Any &value) {
  if (value.kind() == ObjectType::String) // the common key, without a handle copy
    return static_cast<std::int64_t>(internal::text_hash_of(value));
  const Any v = unwrap(value);
  switch (v.kind()) {
  case ObjectType::None:
    return 0x5eed;
  case ObjectType::NotImplemented:
    return 0x7e57;
  case ObjectType::Boolean:
    return Boolean::unsafeFrom(v).value() ? 1 : 0;
  case ObjectType::Integer: {
    auto i = Integer::unsafeFrom(v);
    return i.isSigned() ? numeric_hash_int(i.value()) : numeric_hash_uint(i.unsignedValue());
  }
  case ObjectType::Float:
    return numeric_hash_double(Float::unsafeFrom(v).value());
  case ObjectType::String:
    return static_cast<std::int64_t>(internal::text_hash_of(v));
  case ObjectType::ByteArray:
    return static_cast<std::int64_t>(std::hash<std::string_view>()(ByteArray::unsafeFrom(v).asChars()));
  case ObjectType::Tuple: {
    std::int64_t h = 0x7091e;
    for (auto &item : Tuple::unsafeFrom(v).items())
      h = combine(h, hash_of(item));
    return h;
  }
  case ObjectType::Instance: {
    auto *cls = v.get()->class_value();
    if (auto found = overriding_hook(cls, object_hook::hash); found.is<I_Callable_Generic>()) {
      auto method = found.unsafeAs<I_Callable_Generic>();
      auto r = result_unwrap_lazy(method.isIndependent() ? method.callWith({}) : method.callWith({v}));
      if (Integer::isInstance(r))
        return Integer::unsafeFrom(r).value();
    }
    if (Decimal::isInstance(v))
      return Decimal::unsafeFrom(v).numericHash();
    if (Date::isInstance(v))
      return combine(0xda7e, Date::unsafeFrom(v).ordinal());
    if (Time::isInstance(v))
      return combine(0x7133, static_cast<std::int64_t>(time_key(Time::unsafeFrom(v))));
    if (DateTime::isInstance(v)) {
      auto dt = DateTime::unsafeFrom(v);
      const int128 key = static_cast<int128>(dt.date().ordinal()) * 86400 * 1'000'000'000 + time_key(dt.time());
      return combine(combine(0xd7, static_cast<std::int64_t>(key >> 64)), static_cast<std::int64_t>(key));
    }
    return object_id(v);
  }
  default:
    return object_id(v);
  }
}

std::int64_t object_id(const Any &value) noexcept { return static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(value.get())); }

} // namespace kest

std::size_t std::hash<kest::Any>::operator()(const kest::Any &a) const {
  return static_cast<std::size_t>(kest::hash_of(a));
}
