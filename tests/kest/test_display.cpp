// Display text of every kind of value, and Python source text from PythonLanguage::toCode.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

using namespace kest;

namespace {

std::string show(const Any &v) { return display(v).toUtf8(); }

std::string code(const Any &v) {
  auto r = PythonLanguage::toCode(v);
  EXPECT_FALSE(r.isError()) << (r.isError() ? r.as<Error>().message().toUtf8() : "");
  return r.is<String>() ? r.as<String>().toUtf8() : std::string();
}

std::string code_error(const Any &v) {
  auto r = PythonLanguage::toCode(v);
  EXPECT_TRUE(r.isError()) << (r.is<String>() ? r.as<String>().toUtf8() : "");
  return r.isError() ? r.as<Error>().message().toUtf8() : std::string();
}

Decimal dec(const char *text) {
  auto r = Decimal::fromString(text);
  EXPECT_TRUE(r.is<Decimal>()) << text;
  return r.as<Decimal>();
}

HashMap map_of(std::initializer_list<std::pair<Any, Any>> pairs) {
  HashMap m;
  for (auto &[k, v] : pairs)
    EXPECT_FALSE(m.setChecked(k, v).isError());
  return m;
}

HashSet set_of(std::initializer_list<Any> items) {
  HashSet s;
  for (auto &item : items)
    EXPECT_FALSE(s.insert(item).isError());
  return s;
}

const double k_nan = std::numeric_limits<double>::quiet_NaN();
const double k_inf = std::numeric_limits<double>::infinity();

/// A class declared at run time without a display of its own.
Class_Generic plain_class() {
  static const Class_Generic *cls = [] {
    auto r = internal::defclass_impl({internal::class_builder_base::name_entry(String(u"PlainShown"))});
    EXPECT_FALSE(r.isError());
    return new Class_Generic(r.as<Class_Generic>());
  }();
  return *cls;
}

/// A class whose "$__display__" gives its own text.
Class_Generic shown_class() {
  using B = internal::class_builder_base;
  static const Class_Generic *cls = [] {
    auto r = internal::defclass_impl({
        B::name_entry(String(u"SelfShown")),
        B::method_entry(meta_method_untyped("$__display__"), make_method([](Any) { return String(u"<shown>"); })),
    });
    EXPECT_FALSE(r.isError());
    return new Class_Generic(r.as<Class_Generic>());
  }();
  return *cls;
}

Any instance_of(const Class_Generic &cls) { return internal::result_unwrap_lazy(cls.allocateInstance()); }

} // namespace

// --- display: scalars --------------------------------------------------------------------------

TEST(Display, NoneUndefinedAndBooleans) {
  EXPECT_EQ(show(None()), "None");
  EXPECT_EQ(show(Any()), "None");
  EXPECT_EQ(show(Undefined()), "Undefined");
  EXPECT_EQ(show(Boolean(true)), "true");
  EXPECT_EQ(show(Boolean(false)), "false");
}

TEST(Display, Integers) {
  EXPECT_EQ(show(Integer(0)), "0");
  EXPECT_EQ(show(Integer(42)), "42");
  EXPECT_EQ(show(Integer(-7)), "-7");
  EXPECT_EQ(show(Integer(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
  EXPECT_EQ(show(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
  EXPECT_EQ(show(Integer(-1)), "-1");
}

TEST(Display, FloatsAlwaysLookLikeFloats) {
  EXPECT_EQ(show(Float(2.0)), "2.0");
  EXPECT_EQ(show(Float(0.0)), "0.0");
  EXPECT_EQ(show(Float(-0.0)), "-0.0");
  EXPECT_EQ(show(Float(0.1)), "0.1");
  EXPECT_EQ(show(Float(-1.5)), "-1.5");
  EXPECT_EQ(show(Float(100.0)), "100.0");
  EXPECT_EQ(show(Float(1e100)), "1e+100");
  EXPECT_EQ(show(Float(1.7976931348623157e308)), "1.7976931348623157e+308");
  EXPECT_EQ(show(Float(5e-324)), "5e-324");
  EXPECT_EQ(show(Float(k_nan)), "nan");
  EXPECT_EQ(show(Float(k_inf)), "inf");
  EXPECT_EQ(show(Float(-k_inf)), "-inf");
}

TEST(Display, FloatsSwitchToExponentsWherePythonDoes) {
  // Fixed notation from 1e-4 up to below 1e16, exponent notation outside.
  EXPECT_EQ(show(Float(1e5)), "100000.0");
  EXPECT_EQ(show(Float(-1e5)), "-100000.0");
  EXPECT_EQ(show(Float(1e15)), "1000000000000000.0");
  EXPECT_EQ(show(Float(1e16)), "1e+16");
  EXPECT_EQ(show(Float(1.5e16)), "1.5e+16");
  EXPECT_EQ(show(Float(123456789012345678.0)), "1.2345678901234568e+17");
  EXPECT_EQ(show(Float(12345.678)), "12345.678");
  EXPECT_EQ(show(Float(0.0001)), "0.0001");
  EXPECT_EQ(show(Float(0.00012)), "0.00012");
  EXPECT_EQ(show(Float(0.00001)), "1e-05");
  EXPECT_EQ(show(Float(1.5e-7)), "1.5e-07");
  EXPECT_EQ(show(Float(0.5)), "0.5");
  EXPECT_EQ(code(Float(1e5)), "100000.0");
  EXPECT_EQ(code(Float(0.0001)), "0.0001");
}

TEST(Display, FloatTextReadsBackAsTheSameDouble) {
  std::mt19937_64 rng(7);
  int checked = 0;
  while (checked < 1000) {
    const double d = std::bit_cast<double>(rng());
    if (!std::isfinite(d))
      continue;
    ++checked;
    const auto text = show(Float(d));
    double back = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), back);
    ASSERT_EQ(ec, std::errc()) << text;
    ASSERT_EQ(end, text.data() + text.size()) << text;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(back), std::bit_cast<std::uint64_t>(d)) << text;
    ASSERT_NE(text.find_first_of(".e"), std::string::npos) << text; // never mistaken for an integer
  }
}

TEST(Display, TopLevelStringsAreNotQuoted) {
  EXPECT_EQ(show(String(u"plain text")), "plain text");
  EXPECT_EQ(show(String(u"it's \"quoted\"\n")), "it's \"quoted\"\n");
  EXPECT_EQ(show(String()), "");
  EXPECT_EQ(show(String::fromUtf8("caf\xC3\xA9 \xF0\x9F\x98\x80")), "caf\xC3\xA9 \xF0\x9F\x98\x80");
}

TEST(Display, ByteArraysAreWrittenAsByteLiterals) {
  EXPECT_EQ(show(ByteArray()), "b''");
  EXPECT_EQ(show(ByteArray::fromChars("abc")), "b'abc'");
  const std::uint8_t raw[] = {0x00, 0xFF, '\n', 0x7F, ' ', '~'};
  EXPECT_EQ(show(ByteArray(raw, sizeof raw)), "b'\\x00\\xff\\x0a\\x7f ~'");
  EXPECT_EQ(show(ByteArray::fromChars("a\\b'c")), "b'a\\\\b\\'c'");
}

TEST(Display, Decimals) {
  EXPECT_EQ(show(dec("1.10")), "1.10");
  EXPECT_EQ(show(dec("-0.000")), "-0.000");
  EXPECT_EQ(show(dec("1E+5")), "1E+5");
  EXPECT_EQ(show(Decimal(12)), "12");
  EXPECT_EQ(show(dec("NaN")), "NaN");
}

// --- display: containers --------------------------------------------------------------------

TEST(Display, StringsInsideContainersAreQuotedAndEscaped) {
  EXPECT_EQ(show(List{String(u"a"), String(u"b")}), "['a', 'b']");
  EXPECT_EQ(show(List{String(u"it's")}), "['it\\'s']");
  EXPECT_EQ(show(List{String(u"back\\slash")}), "['back\\\\slash']");
  EXPECT_EQ(show(List{String(u"line\nbreak\ttab\rreturn")}), "['line\\nbreak\\ttab\\rreturn']");
  EXPECT_EQ(show(List{String(u"\x01\x7F")}), "['\\x01\\x7f']");
  EXPECT_EQ(show(List{String(u"double \" quote")}), "['double \" quote']");
  EXPECT_EQ(show(List{String(u"caf\u00E9 \U0001F600")}), "['caf\xC3\xA9 \xF0\x9F\x98\x80']");
  EXPECT_EQ(show(List{String(std::u16string(1, char16_t(0xD800)))}), "['\\ud800']");
  EXPECT_EQ(show(List{String()}), "['']");
}

TEST(Display, Lists) {
  EXPECT_EQ(show(List()), "[]");
  EXPECT_EQ(show(List{Integer(1), String(u"a"), None(), Float(2.0), Boolean(true)}), "[1, 'a', None, 2.0, true]");
  EXPECT_EQ(show(List{List{Integer(1)}, List{}}), "[[1], []]");
}

TEST(Display, TuplesShowTheOneElementComma) {
  EXPECT_EQ(show(Tuple{}), "()");
  EXPECT_EQ(show(Tuple{Integer(1)}), "(1,)");
  EXPECT_EQ(show(Tuple{Integer(1), Integer(2)}), "(1, 2)");
  EXPECT_EQ(show(Tuple{Tuple{Integer(1)}, String(u"a")}), "((1,), 'a')");
}

TEST(Display, MapsInInsertionOrder) {
  EXPECT_EQ(show(HashMap()), "{}");
  EXPECT_EQ(show(map_of({{String(u"b"), Integer(1)}, {Integer(2), List{Integer(3)}}, {String(u"a"), None()}})),
            "{'b': 1, 2: [3], 'a': None}");
}

TEST(Display, Sets) {
  EXPECT_EQ(show(set_of({Integer(3), Integer(1), String(u"x")})), "{3, 1, 'x'}");
  EXPECT_EQ(show(set_of({Float(0.5)})), "{0.5}");
  EXPECT_EQ(show(HashSet()), "{}");
}

TEST(Display, NestingIsCutOffInsteadOfRecursingForever) {
  const List self;
  ASSERT_FALSE(self.append(self).isError());
  const auto text = show(self);
  EXPECT_NE(text.find("..."), std::string::npos);
  EXPECT_EQ(text.rfind("[[[", 0), 0u);
  self.clear(); // break the cycle
}

// --- display: dates and times ----------------------------------------------------------------

TEST(Display, Dates) {
  EXPECT_EQ(show(Date(2024, 2, 29)), "2024-02-29");
  EXPECT_EQ(show(Date(1, 1, 1)), "0001-01-01");
  EXPECT_EQ(show(Date(9999, 12, 31)), "9999-12-31");
}

TEST(Display, TimesWithFractionsOfASecond) {
  EXPECT_EQ(show(Time(8, 5, 3)), "08:05:03");
  EXPECT_EQ(show(Time(23, 59, 59, 999999)), "23:59:59.999999");
  EXPECT_EQ(show(Time(10, 0, 0, 500000)), "10:00:00.500000");
  EXPECT_EQ(show(Time::fromNanoseconds(10, 0, 0, 123456789)), "10:00:00.123456789");
  EXPECT_EQ(show(Time::fromNanoseconds(10, 0, 0, 1)), "10:00:00.000000001");
  EXPECT_EQ(show(Time::fromNanoseconds(10, 0, 0, 5000)), "10:00:00.000005");
}

TEST(Display, TimesWithOffsets) {
  EXPECT_EQ(show(Time(10, 0, 0, 0, 3600, String(u"CET"))), "10:00:00+01:00");
  EXPECT_EQ(show(Time(10, 0, 0, 0, 0, String(u"UTC"))), "10:00:00+00:00");
  EXPECT_EQ(show(Time(10, 0, 0, 0, -(5 * 3600 + 30 * 60), String())), "10:00:00-05:30");
  EXPECT_EQ(show(Time(10, 0, 0, 0, 3661, String())), "10:00:00+01:01:01");
  EXPECT_EQ(show(Time::fromNanoseconds(10, 0, 0, 1500, -3600)), "10:00:00.000001500-01:00");
}

TEST(Display, DateTimes) {
  EXPECT_EQ(show(DateTime(Date(2024, 2, 29), Time(10, 0, 0))), "2024-02-29 10:00:00");
  EXPECT_EQ(show(DateTime(Date(2024, 2, 29), Time(10, 0, 0, 1, 3600, String()))),
            "2024-02-29 10:00:00.000001+01:00");
}

// --- display: classes, errors, modules, instances -------------------------------------------

TEST(Display, Classes) {
  EXPECT_EQ(show(String::getClass()), "<class kest.String>");
  EXPECT_EQ(show(Integer::getClass()), "<class kest.Integer>");
  EXPECT_EQ(show(List::genericInstance(Integer::getType())), "<class kest.List<kest.Integer>>");
  EXPECT_EQ(show(plain_class()), "<class PlainShown>");
  EXPECT_EQ(show(Class_Generic::getClass()), "<class kest.Class>");
}

TEST(Display, ErrorsShowTheirMessage) {
  EXPECT_EQ(show(Error("something failed")), "something failed");
  EXPECT_EQ(show(BadArgument("wrong argument")), "wrong argument");
  EXPECT_EQ(show(StopIteration()), "Stop iteration.");
  EXPECT_EQ(show(List{Error("inner")}), "[inner]");
}

TEST(Display, Modules) {
  auto kest = find_module(String(u"kest"));
  ASSERT_TRUE(kest.is<Module>());
  EXPECT_EQ(show(kest), "<module kest>");
}

TEST(Display, PlainInstancesShowTheirClass) {
  EXPECT_EQ(show(instance_of(plain_class())), "<PlainShown object>");
}

TEST(Display, DeclaredDisplayIsUsed) {
  EXPECT_EQ(show(instance_of(shown_class())), "<shown>");
  EXPECT_EQ(show(List{instance_of(shown_class())}), "[<shown>]");
}

TEST(Display, Functions) {
  auto f = make_function([](std::int64_t x) { return x + 1; });
  EXPECT_EQ(show(f), "<function <anonymous>(arg0: Integer) -> Integer>");
}

TEST(Display, WrappedValuesShowWhatTheyHold) {
  EXPECT_EQ(show(Computed<Integer>::create([] { return Integer(5); })), "5");
  EXPECT_EQ(show(External::fromValue(String(u"held"))), "held");
  EXPECT_EQ(show(List{External::fromValue(String(u"held"))}), "['held']");
  auto target = Float(1.5);
  WeakReference weak(target);
  EXPECT_EQ(show(weak), "1.5");
  target.reset();
  EXPECT_EQ(show(weak), "None");
}

// --- Python source text ---------------------------------------------------------------------

TEST(PythonCode, ScalarLiterals) {
  EXPECT_EQ(code(None()), "None");
  EXPECT_EQ(code(Any()), "None");
  EXPECT_EQ(code(Boolean(true)), "True");
  EXPECT_EQ(code(Boolean(false)), "False");
  EXPECT_EQ(code(Integer(0)), "0");
  EXPECT_EQ(code(Integer(-42)), "-42");
  EXPECT_EQ(code(Integer(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
  EXPECT_EQ(code(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
}

TEST(PythonCode, FloatLiterals) {
  EXPECT_EQ(code(Float(2.0)), "2.0");
  EXPECT_EQ(code(Float(0.1)), "0.1");
  EXPECT_EQ(code(Float(-0.0)), "-0.0");
  EXPECT_EQ(code(Float(1e100)), "1e+100");
  EXPECT_EQ(code(Float(k_nan)), "float('nan')");
  EXPECT_EQ(code(Float(k_inf)), "float('inf')");
  EXPECT_EQ(code(Float(-k_inf)), "float('-inf')");
}

TEST(PythonCode, StringLiteralsEscapeWhatTheyMust) {
  EXPECT_EQ(code(String(u"plain")), "'plain'");
  EXPECT_EQ(code(String()), "''");
  EXPECT_EQ(code(String(u"it's")), "'it\\'s'");
  EXPECT_EQ(code(String(u"say \"hi\"")), "'say \"hi\"'");
  EXPECT_EQ(code(String(u"a\\b")), "'a\\\\b'");
  EXPECT_EQ(code(String(u"one\ntwo\r\tend")), "'one\\ntwo\\r\\tend'");
  EXPECT_EQ(code(String(std::u16string(u"nul\0!", 5))), "'nul\\x00!'");
  EXPECT_EQ(code(String(u"\x1b[0m")), "'\\x1b[0m'");
  EXPECT_EQ(code(String(u"caf\u00E9")), "'caf\xC3\xA9'");
  EXPECT_EQ(code(String(u"\U0001F600")), "'\xF0\x9F\x98\x80'");
  EXPECT_EQ(code(String(std::u16string{u'a', char16_t(0xDC00)})), "'a\\udc00'");
}

TEST(PythonCode, ByteLiterals) {
  EXPECT_EQ(code(ByteArray()), "b''");
  const std::uint8_t raw[] = {'a', 0x00, 0xFF, '\''};
  EXPECT_EQ(code(ByteArray(raw, sizeof raw)), "b'a\\x00\\xff\\''");
}

TEST(PythonCode, ContainerLiterals) {
  EXPECT_EQ(code(List()), "[]");
  EXPECT_EQ(code(List{Integer(1), String(u"a"), None(), Boolean(false)}), "[1, 'a', None, False]");
  EXPECT_EQ(code(Tuple{}), "()");
  EXPECT_EQ(code(Tuple{Integer(1)}), "(1,)");
  EXPECT_EQ(code(Tuple{Integer(1), Float(2.5)}), "(1, 2.5)");
  EXPECT_EQ(code(Tuple{Tuple{}, Tuple{String(u"x")}}), "((), ('x',))");
  EXPECT_EQ(code(HashSet()), "set()");
  EXPECT_EQ(code(set_of({Integer(1), Integer(2)})), "{1, 2}");
  EXPECT_EQ(code(HashMap()), "{}");
  EXPECT_EQ(code(map_of({{String(u"a"), Integer(1)}, {Integer(2), List{Boolean(true)}}})), "{'a': 1, 2: [True]}");
}

TEST(PythonCode, DecimalDateAndNaiveTime) {
  EXPECT_EQ(code(dec("1.10")), "Decimal('1.10')");
  EXPECT_EQ(code(dec("-Infinity")), "Decimal('-Infinity')");
  EXPECT_EQ(code(Date(2024, 2, 29)), "datetime.date(2024, 2, 29)");
  EXPECT_EQ(code(Time(10, 5, 3, 250000)), "datetime.time(10, 5, 3, 250000)");
  EXPECT_EQ(code(List{dec("2"), Date(1, 1, 1)}), "[Decimal('2'), datetime.date(1, 1, 1)]");
}

TEST(PythonCode, DatesPythonCannotMakeAreErrors) {
  EXPECT_EQ(code(Date(9999, 12, 31)), "datetime.date(9999, 12, 31)");
  EXPECT_EQ(code(Date(1, 1, 1)), "datetime.date(1, 1, 1)");
  EXPECT_NE(code_error(Date(0, 12, 31)).find("0000-12-31"), std::string::npos);
  EXPECT_NE(code_error(Date(-44, 3, 15)).find("kest.Date"), std::string::npos);
  EXPECT_NE(code_error(Date(10000, 1, 1)).find("10000-01-01"), std::string::npos);
  EXPECT_NE(code_error(Date(2023, 2, 29)).find("2023-02-29"), std::string::npos);
  EXPECT_NE(code_error(List{Date(2023, 13, 1)}).find("2023-13-01"), std::string::npos);
}

TEST(PythonCode, WrappedValuesAreWrittenAsWhatTheyHold) {
  EXPECT_EQ(code(Computed<Integer>::create([] { return Integer(3); })), "3");
  EXPECT_EQ(code(External::fromValue(String(u"x"))), "'x'");
}

TEST(PythonCode, OtherValuesAreErrors) {
  EXPECT_EQ(code_error(instance_of(plain_class())), "Unable to write a value of class 'PlainShown' as Python code.");
  EXPECT_EQ(code_error(List{Integer(1), instance_of(plain_class())}),
            "Unable to write a value of class 'PlainShown' as Python code.");
  EXPECT_EQ(code_error(map_of({{String(u"k"), Integer::getClass()}})),
            "Unable to write a value of class 'kest.Class' as Python code.");
  EXPECT_NE(code_error(Time(10, 0, 0, 0, 3600, String())).find("kest.Time"), std::string::npos);
  EXPECT_NE(code_error(Error("e")).find("kest.Error"), std::string::npos);
}

TEST(PythonCode, DeepNestingIsAnError) {
  List outer;
  for (int i = 0; i < 100; ++i)
    outer = List(Type(), std::vector<Any>{outer});
  EXPECT_EQ(code_error(outer), "The value is nested too deeply to write as Python code.");
  List shallow;
  for (int i = 0; i < 10; ++i)
    shallow = List(Type(), std::vector<Any>{shallow});
  EXPECT_EQ(code(shallow), "[[[[[[[[[[[]]]]]]]]]]]");
}

TEST(PythonCode, TheLanguageObjectWritesTheSameText) {
  auto language = instance_of(PythonLanguage::getClass());
  ASSERT_TRUE(I_Language::isInstance(language));
  auto r = I_Language::unsafeFrom(language).toCode(Tuple{Integer(1), String(u"a")});
  auto v = internal::result_unwrap_lazy(r);
  ASSERT_TRUE(String::isInstance(v)) << show(v);
  EXPECT_EQ(String::unsafeFrom(v).toUtf8(), "(1, 'a')");
  EXPECT_FALSE(I_Language::unsafeFrom(language).canEvaluate());
}

TEST(Display, DisplayAndCodeDoNotLeak) {
  auto work = [] {
    const auto m = map_of({{String(u"a"), List{Integer(1), Float(2.0), dec("3.30")}}, {Integer(2), Tuple{}}});
    (void)display(m);
    (void)display(Tuple{Date(2024, 1, 1), Time::fromNanoseconds(1, 2, 3, 4, 3600), String(u"s")});
    (void)display(List{instance_of(plain_class()), instance_of(shown_class()), Error("e")});
    (void)PythonLanguage::toCode(m);
    (void)PythonLanguage::toCode(List{instance_of(plain_class())});
    (void)PythonLanguage::toCode(set_of({String(u"x"), ByteArray::fromChars("y")}));
  };
  work();
  const auto before = internal::object_value::live_count();
  work();
  EXPECT_EQ(internal::object_value::live_count(), before);
}
