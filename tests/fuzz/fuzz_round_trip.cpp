// Host values into Python and back. Every generated value either comes back
// as the conversion rules say (convert/to_python.cpp, convert/from_python.cpp),
// or, where Python has no such value (an invalid date, a time beyond 23:59:59,
// a decimal beyond Python's exponent range) or the value is an error, is
// refused with a Python exception that becomes a host error. Nothing is left
// pending, and nothing crashes.

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "fuzz_support.hpp"
#include "language/python_error.hpp"

#include <kest/kest.hpp>

#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

using namespace sarvode;
using fuzz::describe;
using fuzz::fail;
using fuzz::make_decimal_text;
using fuzz::make_double;
using fuzz::make_int64;

namespace {

constexpr int max_depth = 3;

// --- generating host values -----------------------------------------------------------

/// Any sequence of UTF-16 code units, lone surrogates and U+0000 included.
kest::String make_text(FuzzedDataProvider& in) {
  static const char16_t specials[] = {0,      0x7F,   0x80,   0x7FF,  0x800,  0xD7FF,
                                      0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000, 0xFEFF,
                                      0xFFFD, 0xFFFE, 0xFFFF, u'\n'};
  std::u16string units;
  const auto n = in.ConsumeIntegralInRange<std::size_t>(0, 48);
  for (std::size_t i = 0; i < n && in.remaining_bytes() > 0; ++i) {
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
      units.push_back(specials[in.ConsumeIntegralInRange<std::size_t>(0, std::size(specials) - 1)]);
      break;
    case 1: { // an astral character as a proper pair
      const auto c = in.ConsumeIntegralInRange<char32_t>(0x10000, 0x10FFFF) - 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
      break;
    }
    case 2:
      units.push_back(static_cast<char16_t>(in.ConsumeIntegralInRange(0x20, 0x7E)));
      break;
    default:
      units.push_back(in.ConsumeIntegral<char16_t>());
    }
  }
  return kest::String(std::move(units));
}

kest::Date make_date(FuzzedDataProvider& in) {
  static const std::int32_t years[] = {1,
                                       9999,
                                       0,
                                       -1,
                                       10000,
                                       1970,
                                       2000,
                                       1900,
                                       2024,
                                       1600,
                                       -400,
                                       std::numeric_limits<std::int32_t>::min(),
                                       std::numeric_limits<std::int32_t>::max()};
  const auto year = in.ConsumeBool()
                        ? years[in.ConsumeIntegralInRange<std::size_t>(0, std::size(years) - 1)]
                        : in.ConsumeIntegral<std::int32_t>();
  const bool plausible = in.ConsumeIntegralInRange(0, 3) != 0;
  const auto month = plausible ? in.ConsumeIntegralInRange<std::uint8_t>(1, 12)
                               : in.ConsumeIntegral<std::uint8_t>();
  const auto day = plausible ? in.ConsumeIntegralInRange<std::uint8_t>(1, 31)
                             : in.ConsumeIntegral<std::uint8_t>();
  return kest::Date(year, month, day);
}

kest::Time make_time(FuzzedDataProvider& in) {
  const bool plausible = in.ConsumeIntegralInRange(0, 3) != 0;
  auto field = [&](int high) {
    return plausible ? in.ConsumeIntegralInRange(0, high) : in.ConsumeIntegral<int>();
  };
  const int hour = field(23), minute = field(59), second = field(59);
  const auto nanoseconds = plausible ? in.ConsumeIntegralInRange<std::uint32_t>(0, 999'999'999)
                                     : in.ConsumeIntegral<std::uint32_t>();
  std::optional<std::int32_t> offset;
  kest::String zone;
  if (in.ConsumeBool()) {
    offset = in.ConsumeBool() ? in.ConsumeIntegralInRange(-86399, 86399)
                              : in.ConsumeIntegral<std::int32_t>();
    zone = make_text(in);
  }
  return kest::Time::fromNanoseconds(hour, minute, second, nanoseconds, offset, zone,
                                     in.ConsumeBool());
}

kest::Any make_value(FuzzedDataProvider& in, int depth) {
  switch (in.ConsumeIntegralInRange(0, 17)) {
  case 0:
    return kest::Integer(make_int64(in));
  case 1:
    return kest::Integer::fromUnsigned(in.ConsumeBool()
                                           ? std::numeric_limits<std::uint64_t>::max() -
                                                 in.ConsumeIntegral<std::uint8_t>()
                                           : in.ConsumeIntegral<std::uint64_t>());
  case 2:
    return kest::Float(make_double(in));
  case 3:
    return make_text(in);
  case 4:
    return kest::String::fromUtf8(in.ConsumeRandomLengthString(64)); // invalid UTF-8 too
  case 5: {
    const auto bytes = in.ConsumeRandomLengthString(64);
    return kest::ByteArray(bytes.data(), bytes.size());
  }
  case 6:
    // A text that is no decimal gives the parse error itself, which must be refused cleanly.
    return kest::internal::result_unwrap_lazy(
        kest::Decimal::fromString(std::string_view(make_decimal_text(in))));
  case 7:
    return make_date(in);
  case 8:
    return make_time(in);
  case 9:
    return kest::DateTime(make_date(in), make_time(in));
  case 10:
    return kest::Boolean(in.ConsumeBool());
  case 11:
    return in.ConsumeBool() ? kest::Any() : kest::Any(kest::None());
  case 12:
    return kest::Undefined();
  case 13:
  case 14: {
    std::vector<kest::Any> items;
    const auto n = depth < max_depth ? in.ConsumeIntegralInRange(0, 4) : 0;
    for (int i = 0; i < n; ++i)
      items.push_back(make_value(in, depth + 1));
    if (in.ConsumeBool())
      return kest::Tuple(items);
    kest::List list{kest::Type()};
    for (auto& item : items)
      (void)list.append(item);
    return list;
  }
  case 15: {
    kest::HashMap map{kest::Type(), kest::Type()};
    if (depth < max_depth)
      (void)map.setChecked(make_text(in), make_value(in, depth + 1));
    return map;
  }
  case 16:
    switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0:
      return kest::Error(make_text(in));
    case 1:
      return kest::BadArgument(make_text(in));
    default:
      return kest::EvaluationError(make_text(in), kest::Integer(in.ConsumeIntegral<std::int32_t>()),
                                   kest::None());
    }
  default:
    return kest::Integer::getClass();
  }
}

// --- what must come back ------------------------------------------------------------------

bool time_fits_python(const kest::Time& t) {
  return t.hour() >= 0 && t.hour() <= 23 && t.minute() >= 0 && t.minute() <= 59 &&
         t.second() >= 0 && t.second() <= 59 && t.nanoSeconds() / 1000 <= 999'999;
}

/// What converting `value` to Python may do: it must give an object, it must be
/// refused with an exception, or either is fine (decimals, whose exponent
/// range in Python is narrower than the host's).
enum class outcome { converts, refused, either };

outcome expected_outcome(const kest::Any& value) {
  if (kest::Error::isInstance(value))
    return outcome::refused;
  if (kest::Date::isInstance(value))
    return kest::Date::unsafeFrom(value).isValid() ? outcome::converts : outcome::refused;
  if (kest::Time::isInstance(value))
    return time_fits_python(kest::Time::unsafeFrom(value)) ? outcome::converts : outcome::refused;
  if (kest::DateTime::isInstance(value)) {
    auto dt = kest::DateTime::unsafeFrom(value);
    return dt.date().isValid() && time_fits_python(dt.time()) ? outcome::converts
                                                              : outcome::refused;
  }
  if (kest::Decimal::isInstance(value))
    return outcome::either;
  if (kest::Tuple::isInstance(value)) {
    // A tuple fails exactly when one of its items fails.
    bool may_fail = false;
    for (const auto& item : kest::Tuple::unsafeFrom(value).items()) {
      const auto o = expected_outcome(item);
      if (o == outcome::refused)
        return outcome::refused;
      may_fail = may_fail || o == outcome::either;
    }
    return may_fail ? outcome::either : outcome::converts;
  }
  return outcome::converts;
}

/// A float comes back as an integer when it has no fractional part (truncated
/// without a range check, so infinities and values beyond 64 bits give the
/// smallest 64-bit integer), and as the same float otherwise.
void check_float(double d, const kest::Any& back) {
  double whole = 0;
  if (!std::isnan(d) && std::modf(d, &whole) == 0.0) {
    constexpr double limit = 9223372036854775808.0;
    const auto expected = d >= -limit && d < limit ? static_cast<std::int64_t>(d)
                                                   : std::numeric_limits<std::int64_t>::min();
    if (!kest::Integer::isInstance(back) || kest::Integer::unsafeFrom(back).value() != expected)
      fail("a whole float did not come back as the integer",
           std::to_string(d) + " -> " + describe(back));
    return;
  }
  if (!kest::Float::isInstance(back))
    fail("a float came back as something else", describe(back));
  const double b = kest::Float::unsafeFrom(back).value();
  if (std::isnan(d) ? !std::isnan(b)
                    : std::bit_cast<std::uint64_t>(b) != std::bit_cast<std::uint64_t>(d))
    fail("a float changed", std::to_string(d) + " -> " + std::to_string(b));
}

void check_time(const kest::Time& t, const kest::Any& back) {
  // Python receives the naive time with microseconds.
  if (!kest::Time::isInstance(back))
    fail("a time came back as something else", describe(back));
  auto b = kest::Time::unsafeFrom(back);
  if (b.hour() != t.hour() || b.minute() != t.minute() || b.second() != t.second() ||
      b.nanoSeconds() != t.nanoSeconds() / 1000 * 1000 || b.fold() != t.fold() ||
      b.offsetSeconds().has_value())
    fail("a time changed", kest::display(t).toUtf8() + " -> " + kest::display(b).toUtf8());
}

void check_date(const kest::Date& d, const kest::Any& back) {
  if (!kest::Date::isInstance(back))
    fail("a date came back as something else", describe(back));
  auto b = kest::Date::unsafeFrom(back);
  if (b.year() != d.year() || b.month() != d.month() || b.day() != d.day())
    fail("a date changed", kest::display(d).toUtf8() + " -> " + kest::display(b).toUtf8());
}

void check_round_trip(const kest::Any& value, PyObject* object);

/// Compares what came back from Python with the value that went in.
void check_back(const kest::Any& value, PyObject* object, const kest::Any& back) {
  using kind = kest::internal::ObjectType;
  if (value.empty() || value.kind() == kind::None) {
    if (!back.empty())
      fail("None came back as something", describe(back));
    return;
  }
  switch (value.kind()) {
  case kind::Boolean:
    if (!kest::Boolean::isInstance(back) ||
        kest::Boolean::unsafeFrom(back).value() != kest::Boolean::unsafeFrom(value).value())
      fail("a boolean changed", describe(back));
    return;
  case kind::NotImplemented:
    if (back.empty() || back.kind() != kind::NotImplemented)
      fail("NotImplemented changed", describe(back));
    return;
  case kind::Integer: {
    const auto i = kest::Integer::unsafeFrom(value);
    if (!i.isSigned() &&
        i.unsignedValue() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      // Python integers beyond 64 signed bits have no host form.
      if (!kest::Error::isInstance(back))
        fail("an unsigned integer above the signed range did not give an overflow error",
             describe(back));
      return;
    }
    if (!kest::Integer::isInstance(back) || kest::Integer::unsafeFrom(back).value() != i.value())
      fail("an integer changed", std::to_string(i.value()) + " -> " + describe(back));
    return;
  }
  case kind::Float:
    return check_float(kest::Float::unsafeFrom(value).value(), back);
  case kind::String: {
    // A lone surrogate has no UTF-8 form: it travels as U+FFFD.
    const auto expected =
        kest::utf8_to_utf16(kest::utf16_to_utf8(kest::String::unsafeFrom(value).view()));
    if (!kest::String::isInstance(back) || kest::String::unsafeFrom(back).view() != expected)
      fail("a string changed", describe(back));
    return;
  }
  case kind::ByteArray:
    if (!kest::ByteArray::isInstance(back) ||
        kest::ByteArray::unsafeFrom(back).asChars() != kest::ByteArray::unsafeFrom(value).asChars())
      fail("bytes changed", describe(back));
    return;
  case kind::Tuple: {
    // A Python tuple reaches the host as a live sequence over the very tuple.
    auto again = py::object::steal(toPythonLocked(back));
    fuzz::expect_no_pending_error("toPython of a tuple proxy");
    if (again.get() != object)
      fail("a tuple proxy did not give back its tuple", describe(back));
    const auto items = kest::Tuple::unsafeFrom(value).items();
    if (PyTuple_Size(object) != static_cast<Py_ssize_t>(items.size()))
      fail("a tuple changed its length");
    for (std::size_t i = 0; i < items.size(); ++i)
      check_round_trip(items[i], PyTuple_GetItem(object, static_cast<Py_ssize_t>(i)));
    return;
  }
  default:
    break;
  }
  if (kest::Decimal::isInstance(value)) {
    if (!kest::Decimal::isInstance(back) ||
        kest::Decimal::unsafeFrom(back).toUtf8() != kest::Decimal::unsafeFrom(value).toUtf8())
      fail("a decimal changed",
           kest::Decimal::unsafeFrom(value).toUtf8() + " -> " + describe(back));
    return;
  }
  if (kest::Date::isInstance(value))
    return check_date(kest::Date::unsafeFrom(value), back);
  if (kest::Time::isInstance(value))
    return check_time(kest::Time::unsafeFrom(value), back);
  if (kest::DateTime::isInstance(value)) {
    if (!kest::DateTime::isInstance(back))
      fail("a datetime came back as something else", describe(back));
    check_date(kest::DateTime::unsafeFrom(value).date(), kest::DateTime::unsafeFrom(back).date());
    check_time(kest::DateTime::unsafeFrom(value).time(), kest::DateTime::unsafeFrom(back).time());
    return;
  }
  // Lists, maps, classes: Python holds a wrapper, which gives back the value itself.
  if (!back.isSame(value))
    fail("a wrapped host value did not come back as itself",
         describe(value) + " -> " + describe(back));
}

/// Python → host for `object` (borrowed), which came from `value`.
void check_round_trip(const kest::Any& value, PyObject* object) {
  const auto back = fromPython(object);
  fuzz::expect_no_pending_error("fromPython");
  check_back(value, object, back);
}

/// Host → Python → host for one value. The caller holds the interpreter lock.
void round_trip(const kest::Any& value) {
  const auto expected = expected_outcome(value);
  auto object = py::object::steal(toPythonLocked(value));
  if (!object) {
    if (!PyErr_Occurred())
      fail("toPython gave null without an exception", describe(value));
    if (expected == outcome::converts)
      fuzz::expect_no_pending_error(std::string("toPython refused ") + describe(value));
    auto error = currentPythonError();
    fuzz::expect_no_pending_error("taking the refusal as a host error");
    if (!error.is<kest::Error>())
      fail("a refused conversion gave no host error", describe(value));
    // A host error travels as an exception and comes back as itself; a plain
    // Error as a RuntimeError with its message (lone surrogates as U+FFFD).
    if (kest::Error::isInstance(value) && !error.isSame(value) &&
        kest::Error::unsafeFrom(error).message().view() !=
            kest::utf8_to_utf16(kest::Error::unsafeFrom(value).message().utf8View()))
      fail("a host error did not come back from its exception",
           describe(value) + " -> " + describe(error));
    return;
  }
  fuzz::expect_no_pending_error("toPython");
  if (expected == outcome::refused)
    fail("a value without a Python form was converted", describe(value));
  check_round_trip(value, object.get());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  py::gil lock;
  while (in.remaining_bytes() > 0)
    round_trip(make_value(in, 0));
  fuzz::expect_no_pending_error("the input");
  return 0;
}
