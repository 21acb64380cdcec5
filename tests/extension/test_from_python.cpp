// Python objects into host values: fromPython, and host -> Python -> host round trips.

#include "conversion_test_support.hpp"
#include "fresh_interpreter.hpp"

#include "convert/to_python.hpp"
#include "convert/type_mapping.hpp"
#include "proxies/cpython_object.hpp"
#include "pyobject/kest_object.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// Evaluates `expression` and converts the result.
kest::Any convert_expression(const std::string &expression) {
  auto object = eval_py(expression);
  if (!object)
    return {};
  return from_python_checked(object.get());
}

std::int64_t integer_of(const kest::Any &value) {
  if (!kest::Integer::isInstance(value)) {
    ADD_FAILURE() << "not an Integer: " << kest::display(value).toUtf8();
    return 0;
  }
  return kest::Integer::unsafeFrom(value).value();
}

/// host -> Python -> host, checking both steps for stray errors.
kest::Any round_trip(const kest::Any &value) {
  auto object = py::object::steal(toPython(value));
  if (!object) {
    ADD_FAILURE() << "toPython failed for " << kest::display(value).toUtf8();
    PyErr_Clear();
    return {};
  }
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  return from_python_checked(object.get());
}

/// Expects the round trip to give an equal value of the same class.
void expect_round_trip(const kest::Any &value) {
  SCOPED_TRACE(kest::display(value).toUtf8());
  auto back = round_trip(value);
  EXPECT_EQ(kest::compare_objects(value, back).value(), 0) << "came back as " << kest::display(back).toUtf8();
  if (!value.empty() && value.kind() != kest::internal::ObjectType::None) {
    EXPECT_TRUE(kest::raw_class_of(back).isSame(kest::raw_class_of(value)));
  }
}

/// Expects a Python-backed wrapper that holds exactly `object`.
void expect_wrapped(PyObject *object) {
  auto value = from_python_checked(object);
  EXPECT_TRUE(isPythonBacked(value));
  EXPECT_EQ(pythonObjectOf(value), object);
}

void append_code_point(std::u16string &out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}
} // namespace

// --- Booleans and integers -----------------------------------------------------

TEST(FromPython, TrueGivesBooleanTrueNotOne) {
  ensurePythonReady();
  py::gil lock;
  auto value = from_python_checked(Py_True);
  ASSERT_TRUE(kest::Boolean::isInstance(value));
  EXPECT_FALSE(kest::Integer::isInstance(value));
  EXPECT_TRUE(kest::Boolean::unsafeFrom(value).value());
  auto no = from_python_checked(Py_False);
  ASSERT_TRUE(kest::Boolean::isInstance(no));
  EXPECT_FALSE(kest::Boolean::unsafeFrom(no).value());
}

TEST(FromPython, OneGivesTheIntegerOne) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("1");
  ASSERT_TRUE(kest::Integer::isInstance(value));
  EXPECT_FALSE(kest::Boolean::isInstance(value));
  EXPECT_EQ(integer_of(value), 1);
}

TEST(FromPython, TheSixtyFourBitLimitsConvert) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_EQ(integer_of(convert_expression("2**63 - 1")), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integer_of(convert_expression("-2**63")), std::numeric_limits<std::int64_t>::min());
}

TEST(FromPython, AnIntBeyondSixtyFourBitsGivesPythonsOverflowError) {
  ensurePythonReady();
  py::gil lock;
  auto big = eval_py("2**63");
  ASSERT_TRUE(big);
  // What Python itself says about this number.
  ASSERT_EQ(PyLong_AsLongLong(big.get()), -1);
  ASSERT_TRUE(PyErr_ExceptionMatches(PyExc_OverflowError));
  auto expected = take_exception();
  auto expected_text = py::object::steal(PyObject_Str(expected.get()));
  ASSERT_FALSE(utf8_of(expected_text.get()).empty());

  auto value = from_python_checked(big.get());
  ASSERT_TRUE(kest::Error::isInstance(value));
  EXPECT_TRUE(kest::raw_class_of(value).isSame(kest::Error::getClass()));
  EXPECT_EQ(message_of(value), utf8_of(expected_text.get()));
  auto below = from_python_checked(eval_py("-2**63 - 1").get());
  EXPECT_TRUE(kest::Error::isInstance(below));
}

// --- Floats --------------------------------------------------------------------

TEST(FromPython, AWholeFloatGivesAnInteger) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("3.0");
  ASSERT_TRUE(kest::Integer::isInstance(value));
  EXPECT_EQ(integer_of(value), 3);
  EXPECT_EQ(integer_of(convert_expression("-0.0")), 0);
}

TEST(FromPython, AFractionalFloatStaysAFloat) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("3.5");
  ASSERT_TRUE(kest::Float::isInstance(value));
  EXPECT_EQ(kest::Float::unsafeFrom(value).value(), 3.5);
}

TEST(FromPython, NanGivesANanFloat) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("float('nan')");
  ASSERT_TRUE(kest::Float::isInstance(value));
  EXPECT_TRUE(std::isnan(kest::Float::unsafeFrom(value).value()));
}

TEST(FromPython, InfinitiesAndHugeFloatsTruncateToTheSmallestInteger) {
  ensurePythonReady();
  py::gil lock;
  constexpr auto smallest = std::numeric_limits<std::int64_t>::min();
  for (const char *expression : {"float('inf')", "float('-inf')", "1e300", "-1e300", "2.0**63"}) {
    SCOPED_TRACE(expression);
    auto value = convert_expression(expression);
    ASSERT_TRUE(kest::Integer::isInstance(value));
    EXPECT_EQ(integer_of(value), smallest);
  }
  // The largest double below 2^63 is in range.
  EXPECT_EQ(integer_of(convert_expression("float(2**63 - 1024)")), std::int64_t{0x7FFFFFFFFFFFFC00});
  EXPECT_EQ(integer_of(convert_expression("-2.0**62")), -(std::int64_t{1} << 62));
}

// --- Decimals ------------------------------------------------------------------

TEST(FromPython, ADecimalKeepsItsText) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('decimal').Decimal('1.10')");
  ASSERT_TRUE(kest::Decimal::isInstance(value));
  EXPECT_EQ(kest::Decimal::unsafeFrom(value).toString().toUtf8(), "1.10");
}

TEST(FromPython, ValuesOfTheCAcceleratorsAloneAreDecimalsAndDates) {
  // Only _decimal and _datetime imported (their classes are decimal's and
  // datetime's): the conversion knows them without the Python modules.
  SARVODE_REQUIRE_OWN_START_UP();
  py::gil lock;
  auto value = convert_expression("__import__('_decimal').Decimal('2.50')");
  ASSERT_TRUE(kest::Decimal::isInstance(value));
  EXPECT_EQ(kest::Decimal::unsafeFrom(value).toString().toUtf8(), "2.50");
  auto date = convert_expression("__import__('_datetime').date(2001, 2, 3)");
  ASSERT_TRUE(kest::Date::isInstance(date));
  EXPECT_EQ(kest::Date::unsafeFrom(date).day(), 3);
}

TEST(FromPython, ADecimalNanStaysANan) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('decimal').Decimal('NaN')");
  ASSERT_TRUE(kest::Decimal::isInstance(value));
  EXPECT_TRUE(kest::Decimal::unsafeFrom(value).isNaN());
}

TEST(FromPython, AFortyDigitDecimalKeepsEveryDigit) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('decimal').Decimal('-1234567890123456789012345678901234567.891')");
  ASSERT_TRUE(kest::Decimal::isInstance(value));
  auto d = kest::Decimal::unsafeFrom(value);
  EXPECT_EQ(d.coefficientDigits(), "1234567890123456789012345678901234567891");
  EXPECT_EQ(d.exponent(), -3);
  EXPECT_TRUE(d.isNegative());
}

// --- Dates and times -----------------------------------------------------------

TEST(FromPython, ANaiveDatetimeGivesADateTimeWithoutOffset) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('datetime').datetime(2020, 1, 2, 3, 4, 5, 6)");
  ASSERT_TRUE(kest::DateTime::isInstance(value));
  auto dt = kest::DateTime::unsafeFrom(value);
  EXPECT_EQ(dt.date().year(), 2020);
  EXPECT_EQ(dt.date().month(), 1);
  EXPECT_EQ(dt.date().day(), 2);
  EXPECT_EQ(dt.time().hour(), 3);
  EXPECT_EQ(dt.time().minute(), 4);
  EXPECT_EQ(dt.time().second(), 5);
  EXPECT_EQ(dt.time().nanoSeconds(), 6000u);
  EXPECT_FALSE(dt.time().offsetSeconds().has_value());
}

TEST(FromPython, AnAwareDatetimeCarriesItsOffsetAndZoneName) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('datetime').datetime(2020, 1, 2, 3, 4, 5, 6, "
                                   "tzinfo=__import__('datetime').timezone(__import__('datetime').timedelta("
                                   "hours=5, minutes=30), 'IST'))");
  ASSERT_TRUE(kest::DateTime::isInstance(value));
  auto time = kest::DateTime::unsafeFrom(value).time();
  ASSERT_TRUE(time.offsetSeconds().has_value());
  EXPECT_EQ(*time.offsetSeconds(), 19800);
  EXPECT_EQ(time.zoneName().toUtf8(), "IST");
  EXPECT_EQ(time.hour(), 3);
}

TEST(FromPython, ANegativeFractionalOffsetKeepsItsWholeSeconds) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('datetime').time(1, 2, 3, "
                                  "tzinfo=__import__('datetime').timezone(-__import__('datetime').timedelta("
                                  "hours=3, seconds=1, microseconds=500000)))");
  ASSERT_TRUE(kest::Time::isInstance(value));
  auto time = kest::Time::unsafeFrom(value);
  ASSERT_TRUE(time.offsetSeconds().has_value());
  EXPECT_EQ(*time.offsetSeconds(), -10801);
}

TEST(FromPython, ATimeGivesATime) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('datetime').time(13, 14, 15, 161718, fold=1)");
  ASSERT_TRUE(kest::Time::isInstance(value));
  auto time = kest::Time::unsafeFrom(value);
  EXPECT_EQ(time.hour(), 13);
  EXPECT_EQ(time.minute(), 14);
  EXPECT_EQ(time.second(), 15);
  EXPECT_EQ(time.nanoSeconds(), 161718000u);
  EXPECT_TRUE(time.fold());
  EXPECT_FALSE(time.offsetSeconds().has_value());
}

TEST(FromPython, ADateGivesADate) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("__import__('datetime').date(1969, 7, 20)");
  ASSERT_TRUE(kest::Date::isInstance(value));
  EXPECT_FALSE(kest::DateTime::isInstance(value));
  auto date = kest::Date::unsafeFrom(value);
  EXPECT_EQ(date.year(), 1969);
  EXPECT_EQ(date.month(), 7);
  EXPECT_EQ(date.day(), 20);
}

TEST(FromPython, ADatetimeSubclassInstanceIsADateTimeNotADate) {
  ensurePythonReady();
  py::gil lock;
  auto object = exec_get("import datetime\n"
                         "class Stamp(datetime.datetime):\n    pass\n"
                         "value = Stamp(2001, 2, 3, 4, 5, 6)\n",
                         "value");
  ASSERT_TRUE(object);
  auto value = from_python_checked(object.get());
  ASSERT_TRUE(kest::DateTime::isInstance(value));
  EXPECT_FALSE(kest::Date::isInstance(value));
  EXPECT_EQ(kest::DateTime::unsafeFrom(value).time().second(), 6);
}

// --- Bytes and text ------------------------------------------------------------

TEST(FromPython, BytesAndBytearrayGiveEqualByteArrays) {
  ensurePythonReady();
  py::gil lock;
  auto from_bytes = convert_expression("b'abc'");
  auto from_bytearray = convert_expression("bytearray(b'abc')");
  ASSERT_TRUE(kest::ByteArray::isInstance(from_bytes));
  ASSERT_TRUE(kest::ByteArray::isInstance(from_bytearray));
  EXPECT_EQ(kest::ByteArray::unsafeFrom(from_bytes).asChars(), "abc");
  EXPECT_EQ(kest::compare_objects(from_bytes, from_bytearray).value(), 0);
}

TEST(FromPython, BytesKeepEmbeddedZeros) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("b'a\\x00b'");
  ASSERT_TRUE(kest::ByteArray::isInstance(value));
  EXPECT_EQ(kest::ByteArray::unsafeFrom(value).asChars(), std::string_view("a\0b", 3));
}

TEST(FromPython, AStrGivesAString) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("'h\\u00e9llo'");
  ASSERT_TRUE(kest::String::isInstance(value));
  EXPECT_EQ(kest::String::unsafeFrom(value).view(), std::u16string_view(u"h\u00e9llo"));
}

TEST(FromPython, AstralCharactersBecomeSurrogatePairs) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("'x\\U0001F600\\U0010FFFF'");
  ASSERT_TRUE(kest::String::isInstance(value));
  EXPECT_EQ(kest::String::unsafeFrom(value).view(), std::u16string_view(u"x\U0001F600\U0010FFFF"));
  EXPECT_EQ(kest::String::unsafeFrom(value).length(), 5);
}

TEST(FromPython, AnEmbeddedNulIsKept) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("'a\\x00b'");
  ASSERT_TRUE(kest::String::isInstance(value));
  EXPECT_EQ(kest::String::unsafeFrom(value).view(), std::u16string_view(u"a\0b", 3));
}

TEST(FromPython, ALoneSurrogateGivesAnEmptyStringWithoutAPendingError) {
  ensurePythonReady();
  py::gil lock;
  auto object = eval_py("'ab\\ud800cd'");
  ASSERT_TRUE(object);
  auto value = fromPython(object.get());
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  ASSERT_TRUE(kest::String::isInstance(value));
  EXPECT_TRUE(kest::String::unsafeFrom(value).empty());
}

// --- Host values, None and NotImplemented ---------------------------------------

TEST(FromPython, AKestObjectGivesBackTheIdenticalHostValue) {
  ensurePythonReady();
  py::gil lock;
  kest::List list{kest::String(u"held")};
  auto wrapped = py::object::steal(wrapKestObject(list));
  ASSERT_TRUE(wrapped);
  auto value = from_python_checked(wrapped.get());
  EXPECT_TRUE(value.isSame(list));
}

TEST(FromPython, AKestObjectHoldingAScalarGivesBackTheSameObject) {
  ensurePythonReady();
  py::gil lock;
  kest::Integer number(7);
  auto wrapped = py::object::steal(wrapKestObject(number));
  auto value = from_python_checked(wrapped.get());
  EXPECT_TRUE(value.isSame(number));
}

TEST(FromPython, NoneAndNullGiveTheEmptyValue) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_TRUE(from_python_checked(Py_None).empty());
  EXPECT_TRUE(from_python_checked(nullptr).empty());
}

TEST(FromPython, NotImplementedGivesUndefined) {
  ensurePythonReady();
  py::gil lock;
  auto value = from_python_checked(Py_NotImplemented);
  EXPECT_TRUE(value.isSame(kest::Undefined()));
}

// --- Exceptions, types and wrapped objects -------------------------------------

TEST(FromPython, AnExceptionObjectGivesAHostError) {
  ensurePythonReady();
  py::gil lock;
  auto value = convert_expression("ValueError('bad value')");
  ASSERT_TRUE(kest::Error::isInstance(value));
  EXPECT_EQ(message_of(value), "bad value");
}

TEST(FromPython, ATypeObjectGivesAClass) {
  ensurePythonReady();
  py::gil lock;
  auto builtin = convert_expression("int");
  ASSERT_TRUE(kest::Class_Generic::isInstance(builtin));
  EXPECT_TRUE(builtin.isSame(kest::Integer::getClass()));
  auto type = exec_get("class Plain:\n    pass\n", "Plain");
  auto made = from_python_checked(type.get());
  ASSERT_TRUE(kest::Class_Generic::isInstance(made));
  EXPECT_TRUE(made.isSame(typeFromPython(type.get())));
}

TEST(FromPython, FunctionsAndContainersStayInPythonBehindAWrapper) {
  ensurePythonReady();
  py::gil lock;
  for (const char *expression : {"lambda: 1", "len", "{'a': 1}", "[1, 2]", "{1, 2}", "frozenset({3})",
                                 "__import__('math')"}) {
    SCOPED_TRACE(expression);
    auto object = eval_py(expression);
    ASSERT_TRUE(object);
    expect_wrapped(object.get());
  }
}

TEST(FromPython, APlainInstanceStaysInPythonBehindAWrapper) {
  ensurePythonReady();
  py::gil lock;
  auto object = exec_get("class Thing:\n    pass\nvalue = Thing()\n", "value");
  ASSERT_TRUE(object);
  expect_wrapped(object.get());
}

TEST(FromPython, AWrapperKeepsItsObjectAlive) {
  ensurePythonReady();
  py::gil lock;
  auto object = eval_py("[4, 5]");
  const Py_ssize_t before = Py_REFCNT(object.get());
  {
    auto value = from_python_checked(object.get());
    EXPECT_EQ(Py_REFCNT(object.get()), before + 1);
  }
  EXPECT_EQ(Py_REFCNT(object.get()), before);
}

// --- Round trips ---------------------------------------------------------------

TEST(FromPython, ScalarsRoundTripToEqualHostValues) {
  ensurePythonReady();
  py::gil lock;
  expect_round_trip(kest::Boolean(true));
  expect_round_trip(kest::Boolean(false));
  expect_round_trip(kest::Integer(0));
  expect_round_trip(kest::Integer(-42));
  expect_round_trip(kest::Integer(std::numeric_limits<std::int64_t>::min()));
  expect_round_trip(kest::Integer(std::numeric_limits<std::int64_t>::max()));
  expect_round_trip(kest::Float(-2.5));
  expect_round_trip(kest::Float(1e-300));
  expect_round_trip(kest::String(u"round \U0001F30D trip"));
  expect_round_trip(kest::String());
  expect_round_trip(kest::ByteArray::fromChars(std::string_view("\x00\x01\xfe", 3)));
  expect_round_trip(kest::Decimal::fromString(std::string_view("-0.00120")));
  expect_round_trip(kest::Date(2024, 2, 29));
  expect_round_trip(kest::Time(12, 34, 56, 789012));
  expect_round_trip(kest::DateTime(kest::Date(1970, 1, 1), kest::Time(0, 0, 0, 1)));
}

TEST(FromPython, NoneRoundTripsToNone) {
  ensurePythonReady();
  py::gil lock;
  auto back = round_trip(kest::None());
  EXPECT_TRUE(kest::is_none(back));
  EXPECT_EQ(kest::compare_objects(kest::None(), back).value(), 0);
}

TEST(FromPython, ADecimalRoundTripKeepsItsExponent) {
  ensurePythonReady();
  py::gil lock;
  auto back = round_trip(kest::Decimal::fromString(std::string_view("1.10")));
  ASSERT_TRUE(kest::Decimal::isInstance(back));
  EXPECT_EQ(kest::Decimal::unsafeFrom(back).toString().toUtf8(), "1.10");
}

TEST(FromPython, DecimalNansInfinitiesAndExponentsRoundTripTheirText) {
  ensurePythonReady();
  py::gil lock;
  for (const char *text : {"NaN", "-Infinity", "sNaN", "-0", "1E+5", "0.000001", "1E-7", "-NaN123"}) {
    SCOPED_TRACE(text);
    auto value = kest::Decimal::fromString(std::string_view(text));
    ASSERT_TRUE(kest::Decimal::isInstance(value));
    auto object = py::object::steal(toPython(value));
    ASSERT_TRUE(object);
    EXPECT_TRUE(python_equals_expression(
        py::object::steal(PyObject_Str(object.get())).get(), std::string("'") + text + "'"));
    auto back = from_python_checked(object.get());
    ASSERT_TRUE(kest::Decimal::isInstance(back));
    EXPECT_EQ(kest::Decimal::unsafeFrom(back).toUtf8(), text);
  }
}

TEST(FromPython, AnIntegralFloatComesBackAsAnInteger) {
  ensurePythonReady();
  py::gil lock;
  auto back = round_trip(kest::Float(3.0));
  ASSERT_TRUE(kest::Integer::isInstance(back));
  EXPECT_EQ(kest::Integer::unsafeFrom(back).value(), 3);
  auto nan = round_trip(kest::Float(std::numeric_limits<double>::quiet_NaN()));
  ASSERT_TRUE(kest::Float::isInstance(nan));
  EXPECT_TRUE(std::isnan(kest::Float::unsafeFrom(nan).value()));
}

TEST(FromPython, AnAwareTimeRoundTripsAsItsWallClock) {
  ensurePythonReady();
  py::gil lock;
  // The Python form carries no time zone, so the offset does not come back.
  auto back = round_trip(kest::Time(8, 9, 10, 11, 3600, kest::String(u"CET")));
  ASSERT_TRUE(kest::Time::isInstance(back));
  auto time = kest::Time::unsafeFrom(back);
  EXPECT_EQ(time.hour(), 8);
  EXPECT_EQ(time.nanoSeconds(), 11000u);
  EXPECT_FALSE(time.offsetSeconds().has_value());
}

TEST(FromPython, AnUnsignedIntegerInTheSignedRangeComesBackSigned) {
  ensurePythonReady();
  py::gil lock;
  auto back = round_trip(kest::Integer::fromUnsigned(5));
  ASSERT_TRUE(kest::Integer::isInstance(back));
  EXPECT_EQ(kest::Integer::unsafeFrom(back).value(), 5);
  EXPECT_EQ(kest::compare_objects(kest::Integer::fromUnsigned(5), back).value(), 0);
}

TEST(FromPython, AnUnsignedIntegerAboveTheSignedRangeComesBackAsAnOverflowError) {
  ensurePythonReady();
  py::gil lock;
  auto back = round_trip(kest::Integer::fromUnsigned(std::uint64_t{1} << 63));
  EXPECT_TRUE(kest::Error::isInstance(back));
  EXPECT_FALSE(kest::Integer::isInstance(back));
}

TEST(FromPython, ThousandRandomStringsRoundTripExactly) {
  ensurePythonReady();
  py::gil lock;
  std::mt19937 random(20240229u);
  std::uniform_int_distribution<int> length_of(0, 24);
  std::uniform_int_distribution<int> plane_of(0, 16);
  std::uniform_int_distribution<std::uint32_t> offset_of(0, 0xFFFF);
  for (int round = 0; round < 1000; ++round) {
    std::u16string text;
    Py_ssize_t code_points = length_of(random);
    for (Py_ssize_t i = 0; i < code_points; ++i) {
      // Planes 0 and 1 get most characters; every plane appears.
      const int plane = (i % 3 == 0) ? plane_of(random) : static_cast<int>(i % 2);
      char32_t cp = (static_cast<char32_t>(plane) << 16) | offset_of(random);
      if (cp >= 0xD800 && cp <= 0xDFFF)
        cp -= 0x800; // no lone surrogates
      append_code_point(text, cp);
    }
    const kest::String original(text);
    auto object = py::object::steal(toPython(original));
    ASSERT_TRUE(object) << "round " << round;
    ASSERT_EQ(PyUnicode_GetLength(object.get()), code_points) << "round " << round;
    auto back = from_python_checked(object.get());
    ASSERT_TRUE(kest::String::isInstance(back)) << "round " << round;
    ASSERT_EQ(kest::String::unsafeFrom(back).view(), original.view()) << "round " << round;
  }
}

// --- Subclasses of int and str -------------------------------------------------

TEST(FromPython, AnIntSubclassGivesAnInteger) {
  ensurePythonReady();
  py::gil lock;
  auto object = exec_get("class Count(int):\n    pass\nvalue = Count(12)\n", "value");
  ASSERT_TRUE(object);
  auto value = from_python_checked(object.get());
  ASSERT_TRUE(kest::Integer::isInstance(value));
  EXPECT_EQ(integer_of(value), 12);
  auto big = exec_get("class Count(int):\n    pass\nvalue = Count(2**64)\n", "value");
  EXPECT_TRUE(kest::Error::isInstance(from_python_checked(big.get())));
}

TEST(FromPython, AStrSubclassGivesAString) {
  ensurePythonReady();
  py::gil lock;
  auto object = exec_get("class Name(str):\n    pass\nvalue = Name('n\\U0001F600')\n", "value");
  ASSERT_TRUE(object);
  auto value = from_python_checked(object.get());
  ASSERT_TRUE(kest::String::isInstance(value));
  EXPECT_EQ(kest::String::unsafeFrom(value).view(), std::u16string_view(u"n\U0001F600"));
  auto lone = exec_get("class Name(str):\n    pass\nvalue = Name('\\udc00')\n", "value");
  auto empty = from_python_checked(lone.get());
  ASSERT_TRUE(kest::String::isInstance(empty));
  EXPECT_TRUE(kest::String::unsafeFrom(empty).empty());
}
