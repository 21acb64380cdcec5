#include <kest/class.hpp>
#include <kest/decimal.hpp>
#include <kest/interfaces.hpp>

#include <gtest/gtest.h>

#include "numeric_hash.hpp"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using kest::Decimal;

/// Parses text that must be valid.
Decimal dec(std::string_view text) {
  auto result = Decimal::fromString(text);
  if (!result.is<Decimal>()) {
    ADD_FAILURE() << "not a decimal: " << text;
    return Decimal();
  }
  return result.as<Decimal>();
}

/// The text of an arithmetic result that must succeed.
std::string text_of(const kest::Result<Decimal> &result) {
  if (!result.is<Decimal>()) {
    ADD_FAILURE() << "arithmetic failed";
    return "<error>";
  }
  return result.as<Decimal>().toUtf8();
}

/// The message of a result that must be an error.
std::string error_message(const kest::Result<Decimal> &result) {
  if (!result.isError()) {
    ADD_FAILURE() << "expected an error";
    return "<no error>";
  }
  return kest::Error::unsafeFrom(result).message().toUtf8();
}

constexpr std::string_view forty_digits = "1234567890123456789012345678901234567890";

TEST(Decimal, TextRoundTripsToCanonicalForm) {
  const std::vector<std::pair<std::string_view, std::string_view>> cases = {
      {"1.10", "1.10"},
      {"-0", "-0"},
      {"0", "0"},
      {"0.000001", "0.000001"},
      {"1e5", "1E+5"},
      {"1E+5", "1E+5"},
      {"0.0000001", "1E-7"},
      {"123.4567890123456789012345678901234567890", "123.4567890123456789012345678901234567890"},
      {"-Infinity", "-Infinity"},
      {"NaN", "NaN"},
      {"sNaN", "sNaN"},
      {"-inf", "-Infinity"},
      {"INFINITY", "Infinity"},
      {"+Inf", "Infinity"},
      {"nan", "NaN"},
      {"-SNAN", "-sNaN"},
      {" 12.5e-3 ", "0.0125"},
      {"\t1.\n", "1"},
      {".5", "0.5"},
      {"+.5e-3", "0.0005"},
      {"1.e5", "1E+5"},
      {"0E-7", "0E-7"},
      {"0.000", "0.000"},
      {"0.0000000", "0E-7"},
      {"1.23E+5", "1.23E+5"},
      {"1e-1", "0.1"},
      {"100", "100"},
      {"1E2", "1E+2"},
      {"-1.5e+10", "-1.5E+10"},
      {"00012.3400", "12.3400"},
      {"12345678901234567890e-30", "1.2345678901234567890E-11"},
      {"1e0000000000000000000000005", "1E+5"},
  };
  for (const auto &[input, expected] : cases) {
    const Decimal d = dec(input);
    EXPECT_EQ(d.toUtf8(), expected) << "input: '" << input << "'";
    EXPECT_EQ(d.toString().toUtf8(), expected) << "input: '" << input << "'";
    // The canonical text reads back as the same value, digit for digit.
    EXPECT_EQ(dec(d.toUtf8()).toUtf8(), expected) << "input: '" << input << "'";
  }
}

TEST(Decimal, FortyDigitCoefficientKeepsEveryDigit) {
  const Decimal whole = dec(forty_digits);
  EXPECT_EQ(whole.coefficientDigits(), forty_digits);
  EXPECT_EQ(whole.exponent(), 0);
  EXPECT_EQ(whole.toUtf8(), forty_digits);

  const Decimal tiny = dec("-0.0000000000000000000000000000000000000001234567890123456789012345678901234567890");
  EXPECT_EQ(tiny.coefficientDigits(), forty_digits);
  EXPECT_EQ(tiny.exponent(), -79);
  EXPECT_TRUE(tiny.isNegative());
  EXPECT_EQ(tiny.toUtf8(), "-1.234567890123456789012345678901234567890E-40");
}

TEST(Decimal, TrailingZerosStayInTheCoefficient) {
  const Decimal d = dec("1.10");
  EXPECT_EQ(d.coefficientDigits(), "110");
  EXPECT_EQ(d.exponent(), -2);
  const Decimal zero = dec("0.000");
  EXPECT_EQ(zero.coefficientDigits(), "0");
  EXPECT_EQ(zero.exponent(), -3);
  const Decimal scaled = dec("1.20E+3");
  EXPECT_EQ(scaled.coefficientDigits(), "120");
  EXPECT_EQ(scaled.exponent(), 1);
  EXPECT_EQ(scaled.toUtf8(), "1.20E+3");
}

TEST(Decimal, InfinitiesAndNaNsReportTheirKind) {
  const Decimal inf = dec("Infinity");
  EXPECT_TRUE(inf.isInfinite());
  EXPECT_FALSE(inf.isFinite());
  EXPECT_FALSE(inf.isNaN());
  EXPECT_FALSE(inf.isNegative());
  EXPECT_EQ(inf.coefficientDigits(), "");

  const Decimal negative_inf = dec("-Infinity");
  EXPECT_TRUE(negative_inf.isInfinite());
  EXPECT_TRUE(negative_inf.isNegative());

  for (std::string_view text : {"NaN", "sNaN", "-NaN"}) {
    const Decimal nan = dec(text);
    EXPECT_TRUE(nan.isNaN()) << text;
    EXPECT_FALSE(nan.isFinite()) << text;
    EXPECT_FALSE(nan.isInfinite()) << text;
    EXPECT_EQ(nan.coefficientDigits(), "") << text;
  }

  const Decimal finite = dec("-2.5");
  EXPECT_TRUE(finite.isFinite());
  EXPECT_FALSE(finite.isNaN());
  EXPECT_FALSE(finite.isInfinite());
  EXPECT_TRUE(finite.isNegative());
  EXPECT_TRUE(dec("-0").isNegative());
  EXPECT_FALSE(dec("0").isNegative());
}

TEST(Decimal, NaNPayloadDigitsAreKeptWithoutLeadingZeros) {
  EXPECT_EQ(dec("NaN0012").toUtf8(), "NaN12");
  EXPECT_EQ(dec("sNaN123").toUtf8(), "sNaN123");
  EXPECT_EQ(dec("-nan000").toUtf8(), "-NaN");
  EXPECT_TRUE(dec("NaN12").isNaN());
}

TEST(Decimal, InvalidTextIsABadArgumentNamingTheText) {
  for (std::string_view text :
       {"", " ", "abc", "1.2.3", "1e", "1e+", "e5", ".", "-", "+-1", "1 2", "1_000", "0x10", "Infin",
        "Infinityx", "NaNx", "NaN1.5", "sNaN-1", "1e5.0", "--1", ".e5", "1,5", "Inf1"}) {
    const auto result = Decimal::fromString(text);
    ASSERT_TRUE(result.isError()) << "'" << text << "'";
    EXPECT_TRUE(kest::BadArgument::isInstance(result)) << "'" << text << "'";
    EXPECT_EQ(error_message(result), "Invalid decimal text: " + std::string(text) + ".");
  }
}

TEST(Decimal, ExponentsBeyondTheSupportedRangeAreInvalidText) {
  EXPECT_TRUE(Decimal::fromString("1e99999999999999999999").isError());
  EXPECT_TRUE(Decimal::fromString("1e-99999999999999999999").isError());
  EXPECT_EQ(dec("1e999999").toUtf8(), "1E+999999");
  EXPECT_EQ(dec("1e-999999").toUtf8(), "1E-999999");
}

TEST(Decimal, ParsesKestStrings) {
  const auto result = Decimal::fromString(kest::String::fromUtf8("-12.50"));
  ASSERT_TRUE(result.is<Decimal>());
  EXPECT_EQ(result.as<Decimal>().toUtf8(), "-12.50");
  EXPECT_TRUE(Decimal::fromString(kest::String::fromUtf8("12,5")).isError());
}

TEST(Decimal, IntegerConstructorIsExact) {
  EXPECT_EQ(Decimal().toUtf8(), "0");
  EXPECT_EQ(Decimal(42).toUtf8(), "42");
  EXPECT_EQ(Decimal(-7).toUtf8(), "-7");
  EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::min()).toUtf8(), "-9223372036854775808");
  EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::max()).toUtf8(), "9223372036854775807");
}

TEST(Decimal, IsAnImmutableInstanceOfItsClass) {
  const Decimal d = dec("1.5");
  EXPECT_TRUE(Decimal::isInstance(d));
  EXPECT_EQ(Decimal::getClass().name().toUtf8(), "Decimal");
  EXPECT_TRUE(Decimal::getClass().derivesFrom(kest::I_Immutable::getClass()));
  EXPECT_FALSE(Decimal::isInstance(kest::String::fromUtf8("1.5")));
}

TEST(Decimal, AdditionIsExact) {
  const Decimal a = dec(forty_digits);
  const Decimal b = dec("0.0000000000000000000000000000000000000001");
  EXPECT_EQ(text_of(a.add(b)),
            "1234567890123456789012345678901234567890.0000000000000000000000000000000000000001");
  EXPECT_EQ(text_of(dec("1.10").add(dec("2.205"))), "3.305");
  EXPECT_EQ(text_of(dec("1E+3").add(dec("1"))), "1001");
  EXPECT_EQ(text_of(dec("1.5").add(dec("-1.50"))), "0.00");
  EXPECT_EQ(text_of(dec("-5").add(dec("3"))), "-2");
  EXPECT_EQ(text_of(dec("0E+1000000000000").add(dec("1.5"))), "1.5");
}

TEST(Decimal, SubtractionIsExact) {
  const Decimal a = dec(forty_digits);
  const Decimal b = dec("0.0000000000000000000000000000000000000001");
  EXPECT_EQ(text_of(a.subtract(b)),
            "1234567890123456789012345678901234567889.9999999999999999999999999999999999999999");
  EXPECT_EQ(text_of(dec("1").subtract(dec("1"))), "0");
  EXPECT_EQ(text_of(dec("1").subtract(dec("2.5"))), "-1.5");
  EXPECT_EQ(text_of(dec("-1").subtract(dec("-1E+2"))), "99");
}

TEST(Decimal, MultiplicationIsExact) {
  const Decimal a = dec(forty_digits);
  EXPECT_EQ(text_of(a.multiply(dec("9876543210987654321098765432109876543210"))),
            "12193263113702179522618503273386678859448712086533622923332237463801111263526900");
  EXPECT_EQ(text_of(a.multiply(dec("0.0000000000000000000000000000000000000001"))),
            "0.1234567890123456789012345678901234567890");
  EXPECT_EQ(text_of(dec("1.10").multiply(dec("3"))), "3.30");
  EXPECT_EQ(text_of(dec("-2E+3").multiply(dec("5E+2"))), "-1.0E+6");
  EXPECT_EQ(text_of(dec("-1.5").multiply(dec("-2"))), "3.0");
}

TEST(Decimal, ExactZeroResultsFollowTheSignRules) {
  EXPECT_EQ(text_of(dec("-0").add(dec("0"))), "0");
  EXPECT_EQ(text_of(dec("-0").add(dec("-0"))), "-0");
  EXPECT_EQ(text_of(dec("0").subtract(dec("0"))), "0");
  EXPECT_EQ(text_of(dec("-0").subtract(dec("0"))), "-0");
  EXPECT_EQ(text_of(dec("-1").multiply(dec("0"))), "-0");
  EXPECT_EQ(text_of(dec("-0").multiply(dec("-0"))), "0");
}

TEST(Decimal, InfinityArithmetic) {
  const Decimal inf = dec("Infinity");
  const Decimal negative_inf = dec("-Infinity");
  EXPECT_EQ(text_of(inf.add(inf)), "Infinity");
  EXPECT_EQ(text_of(negative_inf.add(negative_inf)), "-Infinity");
  EXPECT_EQ(text_of(inf.add(dec("-1E+100"))), "Infinity");
  EXPECT_EQ(text_of(dec("5").subtract(inf)), "-Infinity");
  EXPECT_EQ(text_of(inf.subtract(negative_inf)), "Infinity");
  EXPECT_EQ(text_of(inf.multiply(dec("-2"))), "-Infinity");
  EXPECT_EQ(text_of(negative_inf.multiply(negative_inf)), "Infinity");

  EXPECT_EQ(error_message(inf.subtract(inf)), "Invalid decimal operation.");
  EXPECT_EQ(error_message(inf.add(negative_inf)), "Invalid decimal operation.");
  EXPECT_EQ(error_message(inf.multiply(dec("0"))), "Invalid decimal operation.");
  EXPECT_EQ(error_message(dec("-0.00").multiply(negative_inf)), "Invalid decimal operation.");
}

TEST(Decimal, NaNOperandsAreInvalidOperations) {
  for (std::string_view text : {"NaN", "sNaN", "-NaN5"}) {
    const Decimal nan = dec(text);
    const Decimal one = dec("1");
    EXPECT_EQ(error_message(nan.add(one)), "Invalid decimal operation.") << text;
    EXPECT_EQ(error_message(one.add(nan)), "Invalid decimal operation.") << text;
    EXPECT_EQ(error_message(nan.subtract(one)), "Invalid decimal operation.") << text;
    EXPECT_EQ(error_message(one.multiply(nan)), "Invalid decimal operation.") << text;
    EXPECT_EQ(error_message(nan.multiply(dec("Infinity"))), "Invalid decimal operation.") << text;
  }
}

TEST(Decimal, CompareIsNumeric) {
  EXPECT_EQ(dec("1.10").compare(dec("1.1")), 0);
  EXPECT_EQ(dec("1E+2").compare(dec("100.000")), 0);
  EXPECT_EQ(dec("0").compare(dec("-0.000")), 0);
  EXPECT_EQ(dec("2").compare(dec("10")), -1);
  EXPECT_EQ(dec("10").compare(dec("2")), 1);
  EXPECT_EQ(dec("-2").compare(dec("-10")), 1);
  EXPECT_EQ(dec("-1").compare(dec("0")), -1);
  EXPECT_EQ(dec("0.1").compare(dec("0.09999999999999999999999999999999999999")), 1);
  EXPECT_EQ(dec("1.0000000000000000000000000000000000000001").compare(dec("1.0")), 1);
  EXPECT_EQ(dec("1E+1000000000000").compare(dec("1")), 1);
  EXPECT_EQ(dec("-1E+1000000000000").compare(dec("1E-1000000000000")), -1);
  EXPECT_EQ(dec(forty_digits).compare(dec("1.234567890123456789012345678901234567890E+39")), 0);
  EXPECT_EQ(dec(forty_digits).compare(dec("1.234567890123456789012345678901234567891E+39")), -1);
}

TEST(Decimal, CompareOrdersInfinitiesAndReportsNaNAsUnordered) {
  const Decimal inf = dec("Infinity");
  const Decimal negative_inf = dec("-Infinity");
  EXPECT_EQ(inf.compare(dec("1E+999999")), 1);
  EXPECT_EQ(negative_inf.compare(dec("-1E+999999")), -1);
  EXPECT_EQ(inf.compare(inf), 0);
  EXPECT_EQ(negative_inf.compare(inf), -1);
  EXPECT_EQ(dec("0").compare(negative_inf), 1);

  EXPECT_EQ(dec("NaN").compare(dec("1")), 2);
  EXPECT_EQ(dec("1").compare(dec("NaN")), 2);
  EXPECT_EQ(dec("NaN").compare(dec("NaN")), 2);
  EXPECT_EQ(dec("sNaN").compare(inf), 2);
  EXPECT_EQ(dec("NaN").compare(std::int64_t{1}), 2);
  EXPECT_EQ(dec("NaN").compare(1.0), 2);
}

TEST(Decimal, CompareWithIntegers) {
  EXPECT_EQ(dec("42.000").compare(std::int64_t{42}), 0);
  EXPECT_EQ(dec("41.999").compare(std::int64_t{42}), -1);
  EXPECT_EQ(dec("-0").compare(std::int64_t{0}), 0);
  EXPECT_EQ(dec("-3").compare(std::int64_t{-4}), 1);
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(dec("-9223372036854775808").compare(min), 0);
  EXPECT_EQ(dec("-9223372036854775808.5").compare(min), -1);
  // Unsigned: all 64 bits set is 2^64 - 1, not -1.
  EXPECT_EQ(dec("18446744073709551615").compare(std::int64_t{-1}, false), 0);
  EXPECT_EQ(dec("-1").compare(std::int64_t{-1}, false), -1);
  EXPECT_EQ(dec("-1").compare(std::int64_t{-1}, true), 0);
  EXPECT_EQ(dec("Infinity").compare(std::numeric_limits<std::int64_t>::max()), 1);
  EXPECT_EQ(dec("-Infinity").compare(min), -1);
}

TEST(Decimal, CompareWithDoublesIsExact) {
  // The double nearest to 0.1 is slightly above it.
  EXPECT_EQ(dec("0.1").compare(0.1), -1);
  EXPECT_EQ(dec("0.1000000000000000055511151231257827021181583404541015625").compare(0.1), 0);
  EXPECT_EQ(dec("0.1000000000000000055511151231257827021181583404541015626").compare(0.1), 1);
  EXPECT_EQ(dec("0.500").compare(0.5), 0);
  EXPECT_EQ(dec("-2.5").compare(-2.5), 0);
  EXPECT_EQ(dec("-0").compare(0.0), 0);
  EXPECT_EQ(dec("0").compare(-0.0), 0);
  EXPECT_EQ(dec("1E+22").compare(1e22), 0); // 10^22 is a double exactly
  EXPECT_EQ(dec("1180591620717411303424").compare(std::ldexp(1.0, 70)), 0);
  EXPECT_EQ(dec("9.5367431640625E-7").compare(std::ldexp(1.0, -20)), 0);
  // The double nearest to 10^300 is above it.
  EXPECT_EQ(dec("1E+300").compare(1e300), -1);
  const double smallest = std::numeric_limits<double>::denorm_min();
  EXPECT_EQ(dec("4.9406564584124655E-324").compare(smallest), 1);
  EXPECT_EQ(dec("4.9406564584124654E-324").compare(-smallest), 1);
  EXPECT_EQ(dec("4.9406564584124654E-324").compare(smallest), -1);
  EXPECT_EQ(dec("0").compare(smallest), -1);
  constexpr double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(dec("1E+400").compare(inf), -1);
  EXPECT_EQ(dec("1E+400").compare(-inf), 1);
  EXPECT_EQ(dec("Infinity").compare(inf), 0);
  EXPECT_EQ(dec("-Infinity").compare(-inf), 0);
  EXPECT_EQ(dec("1").compare(std::numeric_limits<double>::quiet_NaN()), 2);
}

TEST(Decimal, ToInt64AcceptsWholeNumbersThatFit) {
  struct whole_case {
    std::string_view text;
    std::int64_t value;
  };
  for (const auto &[text, value] : std::vector<whole_case>{
           {"123", 123},
           {"1.20E+2", 120},
           {"1000.000", 1000},
           {"-0", 0},
           {"0E+100", 0},
           {"0E-100", 0},
           {"-42", -42},
           {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
           {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
           {"9.223372036854775807E+18", std::numeric_limits<std::int64_t>::max()},
       }) {
    std::int64_t out = -12345;
    EXPECT_TRUE(dec(text).toInt64(out)) << text;
    EXPECT_EQ(out, value) << text;
  }
  for (std::string_view text : {"1.5", "5E-1", "0.1", "9223372036854775808", "-9223372036854775809",
                                "1E+19", "1E+1000", "Infinity", "NaN",
                                "100.00000000000000000000000000000000000001"}) {
    std::int64_t out = 0;
    EXPECT_FALSE(dec(text).toInt64(out)) << text;
  }
}

TEST(Decimal, ToDoubleRoundsCorrectly) {
  EXPECT_EQ(dec("0.1").toDouble(), 0.1);
  EXPECT_EQ(dec("1.10").toDouble(), 1.1);
  EXPECT_EQ(dec("-2.5E+3").toDouble(), -2500.0);
  EXPECT_EQ(dec(forty_digits).toDouble(), 1.2345678901234568e39);
  EXPECT_EQ(dec("1E-310").toDouble(), 1e-310);
  EXPECT_EQ(dec("1E+400").toDouble(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(dec("-1E+400").toDouble(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(dec("1E-400").toDouble(), 0.0);
  EXPECT_EQ(dec("1E+1000000000000").toDouble(), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::signbit(dec("-0").toDouble()));
  EXPECT_TRUE(std::signbit(dec("-1E-400").toDouble()));
  EXPECT_EQ(dec("-Infinity").toDouble(), -std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(dec("NaN").toDouble()));
  EXPECT_TRUE(std::isnan(dec("sNaN").toDouble()));
}

TEST(Decimal, HashIgnoresTheRepresentation) {
  EXPECT_EQ(dec("1.1").numericHash(), dec("1.10").numericHash());
  EXPECT_EQ(dec("1.1").numericHash(), dec("1.100000000000000000000000000000000").numericHash());
  EXPECT_EQ(dec("100").numericHash(), dec("1E+2").numericHash());
  EXPECT_EQ(dec("0").numericHash(), dec("-0.000").numericHash());
  EXPECT_NE(dec("1.1").numericHash(), dec("1.01").numericHash());
  EXPECT_EQ(dec("-1.1").numericHash(), -dec("1.1").numericHash());
}

TEST(Decimal, HashAgreesWithIntegerAndDoubleHashes) {
  using kest::internal::numeric_hash_double;
  using kest::internal::numeric_hash_int;
  using kest::internal::numeric_hash_uint;

  EXPECT_EQ(dec("2.00").numericHash(), numeric_hash_int(2));
  EXPECT_EQ(numeric_hash_double(2.0), numeric_hash_int(2));
  EXPECT_EQ(dec("0.5").numericHash(), numeric_hash_double(0.5));
  EXPECT_EQ(dec("-2.5").numericHash(), numeric_hash_double(-2.5));
  EXPECT_EQ(dec("0.375").numericHash(), numeric_hash_double(0.375));
  EXPECT_EQ(dec("1E+22").numericHash(), numeric_hash_double(1e22));
  EXPECT_EQ(dec("1180591620717411303424").numericHash(), numeric_hash_double(std::ldexp(1.0, 70)));
  EXPECT_EQ(dec("9.5367431640625E-7").numericHash(), numeric_hash_double(std::ldexp(1.0, -20)));
  EXPECT_EQ(dec("-9223372036854775808").numericHash(),
            numeric_hash_int(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(dec("18446744073709551615").numericHash(),
            numeric_hash_uint(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(dec("123456789.000").numericHash(), numeric_hash_int(123456789));
  EXPECT_EQ(dec("123456789.000").numericHash(), numeric_hash_double(123456789.0));
  // -1 is reserved: the hash of -1 is -2 in every kind.
  EXPECT_EQ(dec("-1").numericHash(), -2);
  EXPECT_EQ(numeric_hash_int(-1), -2);
  EXPECT_EQ(numeric_hash_double(-1.0), -2);

  EXPECT_EQ(dec("Infinity").numericHash(), numeric_hash_double(std::numeric_limits<double>::infinity()));
  EXPECT_EQ(dec("-Infinity").numericHash(), numeric_hash_double(-std::numeric_limits<double>::infinity()));
  EXPECT_EQ(dec("NaN").numericHash(), numeric_hash_double(std::numeric_limits<double>::quiet_NaN()));
}

TEST(Decimal, HashMatchesPythonValues) {
  using kest::internal::numeric_hash_double;
  using kest::internal::numeric_hash_int;
  using kest::internal::numeric_hash_uint;
  constexpr std::int64_t modulus = (std::int64_t{1} << 61) - 1;
  // 1/2 modulo 2^61 - 1 is 2^60.
  EXPECT_EQ(numeric_hash_double(0.5), std::int64_t{1} << 60);
  EXPECT_EQ(dec("0.5").numericHash(), std::int64_t{1} << 60);
  // Integers wrap at the modulus; 2^63 = 4 (mod 2^61 - 1).
  EXPECT_EQ(numeric_hash_int(modulus), 0);
  EXPECT_EQ(numeric_hash_int(modulus + 1), 1);
  EXPECT_EQ(numeric_hash_int(std::numeric_limits<std::int64_t>::min()), -4);
  EXPECT_EQ(numeric_hash_uint(std::numeric_limits<std::uint64_t>::max()), 7);
  // Values Python 3 gives for hash(Decimal(...)) and hash(float).
  EXPECT_EQ(dec("-1.10").numericHash(), -2075258708292324557);
  EXPECT_EQ(dec("1E+30").numericHash(), 465258685558744706);
  EXPECT_EQ(dec("1e-30").numericHash(), 1318993825257351686);
  EXPECT_EQ(numeric_hash_double(1e300), 1224995262755759164);
  EXPECT_EQ(numeric_hash_double(1e-300), 482449582752280463);
  EXPECT_EQ(numeric_hash_double(-1.5), -1152921504606846977);
  EXPECT_EQ(numeric_hash_double(1e22), 1864712049423028464);
  EXPECT_EQ(dec("Infinity").numericHash(), 314159);
  EXPECT_EQ(dec("-Infinity").numericHash(), -314159);
}

} // namespace
