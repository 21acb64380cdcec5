// Checked conversions: every typed handle's checkedCast, the reflection
// functions of the module "kest", coercion, and the members of handles made
// over a value of another class. A value of the wrong class gives an error that
// names both classes (or a neutral answer where no error can be returned),
// never a read of the value as the wrong type.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cmath>

#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace kest;
using namespace kest_test;

namespace {

/// One value of each built-in kind, with the qualified name of its class.
struct sample {
  std::string kind;
  Any value;
  std::string class_name;
};

Class_Generic sample_class() {
  static const Class_Generic cls = declare({S("CheckedSample")});
  return cls;
}

HashMap map_with_key() {
  HashMap map;
  if (map.setChecked(S("k"), Integer(1)).isError())
    throw std::runtime_error("the sample map refused a key");
  return map;
}

/// Fresh samples on every call, so that a test that changes one affects no other.
std::vector<sample> samples() {
  auto instance = sample_class().allocateInstance();
  if (instance.isError())
    throw std::runtime_error("the sample class has no instances");
  return {
      {"None", None(), "kest.None"},
      {"Boolean", Boolean(true), "kest.Boolean"},
      {"Integer", Integer(7), "kest.Integer"},
      {"Float", Float(1.5), "kest.Float"},
      {"String", S("text"), "kest.String"},
      {"ByteArray", ByteArray::fromChars("ab"), "kest.ByteArray"},
      {"Decimal", Decimal(), "kest.Decimal"},
      {"Date", Date(2024, 2, 29), "kest.Date"},
      {"Time", Time(12, 30, 0), "kest.Time"},
      {"DateTime", DateTime(Date(2024, 2, 29), Time(12, 30, 0)), "kest.DateTime"},
      {"List", List{Integer(1), Integer(2)}, "kest.List<kest.Untyped>"},
      {"HashMap", map_with_key(), "kest.HashMap<kest.Untyped, kest.Untyped>"},
      {"HashSet", HashSet(), "kest.HashSet<kest.Untyped>"},
      {"Tuple", Tuple{Integer(1)}, "kest.Tuple"},
      {"Class", Integer::getClass(), "kest.Class"},
      {"Instance", unwrapped(instance), "CheckedSample"},
      {"Callable", make_function([](std::int64_t x) { return x; }), "kest.Function"},
      {"Error", Error("boom"), "kest.Error"},
      {"Empty", Any(), "kest.None"},
  };
}

std::string cast_message(const sample &s, const std::string &expected) {
  return "Unable to cast a value of class '" + s.class_name + "' to '" + expected + "'.";
}

/// True when an error message names the class of the sample and the expected class.
bool names_both(const std::string &message, const sample &s, const std::string &expected) {
  return message.find(s.class_name) != std::string::npos && message.find(expected) != std::string::npos;
}

/// A typed handle's checks, and the samples that must convert to it.
struct conversion {
  std::string handle;
  std::function<bool(const Any &)> is_instance;
  std::function<Any(const Any &)> checked_cast;
  std::set<std::string> accepts;
  std::function<Any(const Any &)> checked_as;
  std::string class_name;
};

template <class X> conversion conversion_to(std::string handle, std::set<std::string> accepts) {
  return {std::move(handle), [](const Any &a) { return X::isInstance(a); },
          [](const Any &a) -> Any { return X::checkedCast(a); }, std::move(accepts),
          [](const Any &a) -> Any { return a.as<X>(); }, qualname(X::getClass()).toUtf8()};
}

const std::set<std::string> containers{"List", "HashMap", "HashSet", "Tuple"};

std::vector<conversion> conversions() {
  return {
      conversion_to<None>("None", {"None", "Empty"}),
      conversion_to<Boolean>("Boolean", {"Boolean"}),
      conversion_to<Integer>("Integer", {"Integer"}),
      conversion_to<Float>("Float", {"Float"}),
      conversion_to<String>("String", {"String"}),
      conversion_to<ByteArray>("ByteArray", {"ByteArray"}),
      conversion_to<Decimal>("Decimal", {"Decimal"}),
      conversion_to<Date>("Date", {"Date"}),
      conversion_to<Time>("Time", {"Time"}),
      conversion_to<DateTime>("DateTime", {"DateTime"}),
      conversion_to<List>("List", {"List"}),
      conversion_to<HashMap>("HashMap", {"HashMap"}),
      conversion_to<HashSet>("HashSet", {"HashSet"}),
      conversion_to<Tuple>("Tuple", {"Tuple"}),
      conversion_to<Class_Generic>("Class_Generic", {"Class"}),
      conversion_to<Type>("Type", {"Class"}),
      conversion_to<Error>("Error", {"Error"}),
      conversion_to<BadArgument>("BadArgument", {}),
      conversion_to<EvaluationError>("EvaluationError", {}),
      conversion_to<StopIteration>("StopIteration", {}),
      conversion_to<Property>("Property", {}),
      conversion_to<Field>("Field", {}),
      conversion_to<Module>("Module", {}),
      conversion_to<LogRecord>("LogRecord", {}),
      conversion_to<Logger>("Logger", {}),
      conversion_to<EvaluationScope>("EvaluationScope", {}),
      conversion_to<I_Language>("I_Language", {}),
      conversion_to<PythonLanguage>("PythonLanguage", {}),
      conversion_to<Computed_Generic>("Computed_Generic", {}),
      conversion_to<External>("External", {}),
      conversion_to<WeakReference>("WeakReference", {}),
      conversion_to<Undefined>("Undefined", {}),
      conversion_to<I_Callable_Generic>("I_Callable_Generic", {"Callable"}),
      conversion_to<I_Iterable>("I_Iterable", containers),
      conversion_to<I_Iterator>("I_Iterator", {}),
      conversion_to<I_Sequence>("I_Sequence", {"List", "Tuple"}),
      conversion_to<I_MutableSequence>("I_MutableSequence", {"List"}),
      conversion_to<I_Map>("I_Map", {"HashMap"}),
      conversion_to<I_MutableMap>("I_MutableMap", {"HashMap"}),
      conversion_to<I_Set>("I_Set", {"HashSet"}),
      conversion_to<I_MutableSet>("I_MutableSet", {"HashSet"}),
      conversion_to<I_Tuple>("I_Tuple", {"Tuple"}),
      conversion_to<I_Immutable>("I_Immutable", {"None", "Boolean", "Integer", "Float", "String", "ByteArray",
                                                 "Decimal", "Date", "Time", "DateTime", "Tuple"}),
      conversion_to<I_Cloneable>("I_Cloneable", {}),
      conversion_to<I_HasName>("I_HasName", {}),
      conversion_to<I_HasDoc>("I_HasDoc", {}),
      conversion_to<I_HasCode>("I_HasCode", {}),
  };
}

TEST(CheckedConversions, CheckedCastConvertsTheRightClassAndNamesBothClassesOtherwise) {
  for (const auto &c : conversions()) {
    for (const auto &s : samples()) {
      SCOPED_TRACE(c.handle + " from " + s.kind);
      const bool accepted = c.accepts.count(s.kind) != 0;
      EXPECT_EQ(c.is_instance(s.value), accepted);
      auto result = c.checked_cast(s.value);
      if (accepted) { // the value itself (an error converts to Error as itself)
        EXPECT_TRUE(result.isSame(s.value) || (s.value.empty() && is_none(result)));
      } else {
        EXPECT_EQ(error_text(result), cast_message(s, c.handle));
      }
    }
  }
}

TEST(CheckedAccess, AsReadsOnlyItsOwnClassAndThrowsNamingBothClassesOtherwise) {
  for (const auto &c : conversions()) {
    for (const auto &s : samples()) {
      SCOPED_TRACE(c.handle + " from " + s.kind);
      const bool accepted = c.accepts.count(s.kind) != 0;
      if (accepted) {
        EXPECT_TRUE(c.checked_as(s.value).isSame(s.value) || (s.value.empty() && is_none(c.checked_as(s.value))));
        continue;
      }
      try {
        (void)c.checked_as(s.value);
        ADD_FAILURE() << "read as the wrong class";
      } catch (const bad_access &e) {
        const std::string message = e.what();
        EXPECT_NE(message.find(c.class_name), std::string::npos) << message;
        if (s.kind == "Error")
          EXPECT_NE(message.find("from an error: boom"), std::string::npos) << message;
        else
          EXPECT_NE(message.find(s.class_name), std::string::npos) << message;
      }
    }
  }
}

TEST(CheckedAccess, AResultIsReadThroughItsComputedValue) {
  const Result<Any> lazy(internal::unchecked, Computed<Float>::create([] { return Result<Float>(Float(2.5)); }));
  EXPECT_FALSE(lazy.is<Float>()); // asks about the value as it stands
  EXPECT_TRUE(lazy.is<Computed_Generic>());
  EXPECT_EQ(lazy.as<Float>().value(), 2.5);
  EXPECT_EQ(to<double>(lazy), 2.5);
  EXPECT_EQ(lazy.get<Float>()->value(), 2.5);
  EXPECT_FALSE(lazy.get<String>().has_value());
  EXPECT_THROW((void)lazy.as<Integer>(), bad_access);
  EXPECT_EQ(lazy.as<Any>().kind(), internal::ObjectType::Float);
  EXPECT_EQ(lazy.get<Any>()->kind(), internal::ObjectType::Float); // computed, as with every other class
  const Result<Any> failing(internal::unchecked, Computed<Float>::create([] { return Result<Float>(Error("late")); }));
  EXPECT_FALSE(failing.isError()); // not computed yet
  EXPECT_TRUE(failing.get<Error>().has_value());
  EXPECT_THROW((void)failing.as<Float>(), bad_access);
}

TEST(CheckedAccess, AValueNotNeededAfterwardsIsMovedIntoTheResultOnlyWhenItIsRead) {
  const String text(u"moved");
  Any held = text;
  const String read = std::move(held).as<String>();
  EXPECT_TRUE(read.isSame(text));
  EXPECT_TRUE(held.empty()); // NOLINT(bugprone-use-after-move): the move is what is tested
  Any number = Integer(7);
  EXPECT_THROW((void)std::move(number).as<String>(), bad_access);
  ASSERT_FALSE(number.empty()); // NOLINT(bugprone-use-after-move): a refused read takes nothing
  EXPECT_EQ(Integer::unsafeFrom(number).value(), 7);
  Any lazy = Computed<Float>::create([] { return Result<Float>(Float(1.5)); });
  EXPECT_EQ(std::move(lazy).as<Float>().value(), 1.5);
  EXPECT_FALSE(lazy.empty()); // NOLINT(bugprone-use-after-move): the computed value stays, its result is a copy
  Any whole = Float(0.25);
  const Any same = std::move(whole).as<Any>();
  EXPECT_EQ(Float::unsafeFrom(same).value(), 0.25);
  EXPECT_TRUE(whole.empty()); // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(Result<Any>(internal::unchecked, String(u"field")).as<String>().toUtf8(), "field");
}

TEST(CheckedAccess, NumbersReadFromEitherHostNumberClassWithRangeChecks) {
  EXPECT_EQ(to<double>(Integer(4)), 4.0);
  EXPECT_EQ(to<double>(Integer(-9007199254740993)), -9007199254740992.0); // rounded as C++ rounds, sign kept
  EXPECT_EQ(to<double>(Float(-0.0)), 0.0);
  EXPECT_TRUE(std::signbit(to<double>(Float(-0.0))));
  EXPECT_EQ(to<float>(Integer::fromUnsigned(1u << 24)), 16777216.0f);
  EXPECT_THROW((void)to<double>(String(u"4")), bad_access);
  EXPECT_THROW((void)to<double>(Any()), bad_access);
  EXPECT_EQ(to<double>(Integer::fromUnsigned(UINT64_MAX)), 18446744073709551615.0);
  const auto halve = make_function([](double x) { return x / 2; });
  EXPECT_EQ(to<double>(halve(Integer::fromUnsigned(UINT64_MAX))), 9223372036854775808.0); // 2^63, not -0.5
  EXPECT_EQ(to<float>(Float(0.5)), 0.5f);
  EXPECT_EQ(to<int>(Float(2.0)), 2);
  EXPECT_EQ(to<std::int64_t>(Integer(-7)), -7);
  EXPECT_EQ(to<std::uint64_t>(Integer::fromUnsigned(UINT64_MAX)), UINT64_MAX);
  EXPECT_EQ(to<std::int64_t>(Float(-9223372036854775808.0)), INT64_MIN);
  EXPECT_EQ(to<std::int8_t>(Integer(-128)), -128);
  EXPECT_EQ(to<std::uint8_t>(Float(255.0)), 255);
  EXPECT_THROW((void)to<int>(Float(2.5)), bad_access);
  EXPECT_THROW((void)to<int>(Float(std::numeric_limits<double>::quiet_NaN())), bad_access);
  EXPECT_THROW((void)to<int>(Float(std::numeric_limits<double>::infinity())), bad_access);
  EXPECT_THROW((void)to<std::int8_t>(Integer(128)), bad_access);
  EXPECT_THROW((void)to<std::int8_t>(Integer(-129)), bad_access);
  EXPECT_THROW((void)to<std::uint8_t>(Integer(-1)), bad_access);
  EXPECT_THROW((void)to<std::uint8_t>(Float(256.0)), bad_access);
  EXPECT_THROW((void)to<std::int64_t>(Integer::fromUnsigned(UINT64_MAX)), bad_access);
  EXPECT_THROW((void)to<std::int64_t>(Float(9223372036854775808.0)), bad_access);
  EXPECT_THROW((void)to<std::uint64_t>(Float(18446744073709551616.0)), bad_access);
  EXPECT_THROW((void)to<std::uint32_t>(Float(-1.0)), bad_access);
  try {
    (void)to<std::int16_t>(Integer(70000));
    ADD_FAILURE() << "70000 was read as a 16-bit integer";
  } catch (const bad_access &e) {
    EXPECT_STREQ(e.what(), "The number 70000 does not fit in a 16-bit signed integer.");
  }
  EXPECT_EQ(to<bool>(Boolean(true)), true);
  EXPECT_EQ(to<std::string>(String(u"gr\u00fc\u00df")), "gr\xc3\xbc\xc3\x9f");
  EXPECT_EQ(to<std::u16string>(S("x")), u"x");
}

TEST(CheckedAccess, EveryKindReadAsEachCppTypeIsReadOrRefused) {
  const std::set<std::string> numbers{"Integer", "Float"};
  for (const auto &s : samples()) {
    SCOPED_TRACE(s.kind);
    auto expect = [&](bool accepted, const std::function<void()> &read) {
      if (accepted)
        EXPECT_NO_THROW(read());
      else
        EXPECT_THROW(read(), bad_access);
    };
    const bool whole = s.kind == "Integer"; // the Float sample is 1.5
    expect(numbers.count(s.kind) != 0, [&] { (void)to<double>(s.value); });
    expect(whole, [&] { (void)to<std::int64_t>(s.value); });
    expect(whole, [&] { (void)to<std::uint16_t>(s.value); });
    expect(s.kind == "Boolean", [&] { (void)to<bool>(s.value); });
    expect(s.kind == "String", [&] { (void)to<std::string>(s.value); });
    expect(s.kind == "String", [&] { (void)to<std::u16string>(s.value); });
  }
}

TEST(CheckedAccess, CallsTakeCppValuesDirectly) {
  auto describe = make_function([](double d, std::int64_t i, String s, bool b, const Any &any) {
    return String::fromUtf8(std::to_string(d) + "|" + std::to_string(i) + "|" + s.toUtf8() + "|" + (b ? "yes" : "no") +
                            "|" + display(any).toUtf8());
  });
  EXPECT_EQ(to<std::string>(describe(2.5, 3, "x", true, Integer(9))), "2.500000|3|x|yes|9");
  const std::string text = "std";
  const std::string_view view = "view";
  EXPECT_EQ(to<std::string>(describe(1.0f, 7u, text, false, view)), "1.000000|7|std|no|view");
  EXPECT_EQ(to<std::string>(describe(0, std::int8_t{-2}, u"wide", true, std::uint64_t{UINT64_MAX})),
            "0.000000|-2|wide|yes|18446744073709551615");
  EXPECT_EQ(to<double>(host_value(3)), 3.0);
  EXPECT_TRUE(host_value(std::uint64_t{5}).is<Integer>());
  EXPECT_TRUE(Integer(5) == host_value(5u));
}

/// A function of the module "kest" called with `args`.
Any call_kest(const char *name, std::initializer_list<Any> args) {
  auto m = find_module(S("kest"));
  if (!m.is<Module>())
    throw std::runtime_error("the module kest is missing");
  auto f = m.as<Module>().callables().find(S(name));
  if (!I_Callable_Generic::isInstance(f))
    throw std::runtime_error(std::string("kest has no callable ") + name);
  return unwrapped(I_Callable_Generic::unsafeFrom(f).callWith(args));
}

/// A reflection function given each sample as the value it inspects.
struct reflection_case {
  std::string function;
  std::string expected;
  std::set<std::string> accepts;
  std::function<Any(const Any &)> call;
};

std::vector<reflection_case> reflection_cases() {
  const std::set<std::string> sized{"String", "ByteArray", "List", "HashMap", "HashSet", "Tuple"};
  return {
      {"length", "I_Sequence | I_Map | I_Set", sized, [](const Any &v) { return call_kest("length", {v}); }},
      {"items", "I_Iterable", containers, [](const Any &v) { return call_kest("items", {v}); }},
      {"at", "I_Sequence", {"List", "Tuple"}, [](const Any &v) { return call_kest("at", {v, Integer(0)}); }},
      {"get", "I_Map", {"HashMap"}, [](const Any &v) { return call_kest("get", {v, S("k")}); }},
      {"put", "I_MutableMap", {"HashMap"}, [](const Any &v) { return call_kest("put", {v, S("k"), Integer(1)}); }},
      // A typed parameter: the call itself reports the argument of the wrong class.
      {"signature", "kest.I_Callable", {"Callable"}, [](const Any &v) { return call_kest("signature", {v}); }},
      {"call", "I_Callable", {"Callable"}, [](const Any &v) { return call_kest("call", {v, Integer(3)}); }},
  };
}

TEST(CheckedConversions, ReflectionFunctionsNameBothClassesForAValueOfTheWrongClass) {
  for (const auto &c : reflection_cases()) {
    for (const auto &s : samples()) {
      SCOPED_TRACE(c.function + " of " + s.kind);
      auto result = c.call(s.value);
      if (c.accepts.count(s.kind))
        EXPECT_FALSE(Error::isInstance(result)) << error_text(result);
      else
        EXPECT_TRUE(names_both(error_text(result), s, c.expected)) << error_text(result);
    }
  }
}

TEST(CheckedConversions, ReflectionFunctionsUseTheCastErrorMessage) {
  EXPECT_EQ(error_text(call_kest("length", {Integer(1)})),
            "Unable to cast a value of class 'kest.Integer' to 'I_Sequence | I_Map | I_Set'.");
  EXPECT_EQ(error_text(call_kest("at", {S("ab"), Integer(0)})),
            "Unable to cast a value of class 'kest.String' to 'I_Sequence'.");
  EXPECT_EQ(error_text(call_kest("put", {Tuple{}, S("k"), Integer(1)})),
            "Unable to cast a value of class 'kest.Tuple' to 'I_MutableMap'.");
}

TEST(CheckedConversions, GetOnAMapStillReportsAMissingKey) {
  HashMap map;
  ASSERT_FALSE(map.setChecked(S("k"), Integer(1)).isError());
  EXPECT_EQ(int_of(call_kest("get", {map, S("k")})), 1);
  EXPECT_EQ(error_text(call_kest("get", {map, S("other")})), "Key not found: other.");
}

TEST(CheckedConversions, DisplayClassNameAndCompareAcceptEveryValue) {
  for (const auto &s : samples()) {
    SCOPED_TRACE(s.kind);
    EXPECT_TRUE(String::isInstance(call_kest("display", {s.value})));
    EXPECT_EQ(text_of(call_kest("class_name", {s.value})), s.class_name);
    EXPECT_EQ(int_of(call_kest("compare", {s.value, s.value})), 0);
  }
}

TEST(CheckedConversions, CoerceToATypeThatIsNoClassNamesBothClasses) {
  for (const auto &s : samples()) {
    if (s.kind == "Class")
      continue;
    SCOPED_TRACE(s.kind);
    const Type wrong(internal::unchecked, s.value);
    EXPECT_EQ(error_text(coerce(Integer(1), wrong)), cast_message(s, "Type"));
    EXPECT_FALSE(wrong.matches(Integer(1)));
    EXPECT_FALSE(wrong.conformsTo(Type()));
    EXPECT_FALSE(wrong.isUntyped());
    EXPECT_TRUE(wrong.name().empty());
  }
  EXPECT_EQ(int_of(coerce(S("12"), Integer::getType())), 12);
}

/// A member called on a handle made over each sample; `accepts` are the samples
/// for which the member works.
struct member_case {
  std::string member;
  std::string expected;
  std::set<std::string> accepts;
  std::function<Any(const Any &)> call;
};

template <class X> X over(const Any &v) { return X(internal::unchecked, v); }

std::vector<member_case> member_cases() {
  const std::set<std::string> sequences{"List", "Tuple"};
  return {
      {"List::at", "List", {"List"}, [](const Any &v) { return over<List>(v).at(0); }},
      {"List::append", "List", {"List"}, [](const Any &v) { return over<List>(v).append(Integer(1)); }},
      {"List::insert", "List", {"List"}, [](const Any &v) { return over<List>(v).insert(0, Integer(1)); }},
      {"List::set", "List", {"List"}, [](const Any &v) { return over<List>(v).set(0, Integer(1)); }},
      {"List::removeAt", "List", {"List"}, [](const Any &v) { return over<List>(v).removeAt(0); }},
      {"HashMap::setChecked", "HashMap", {"HashMap"},
       [](const Any &v) { return over<HashMap>(v).setChecked(S("k"), Integer(1)); }},
      {"HashSet::insert", "HashSet", {"HashSet"}, [](const Any &v) { return over<HashSet>(v).insert(Integer(1)); }},
      {"Property::get", "Property", {}, [](const Any &v) { return over<Property>(v).get(Integer(1)); }},
      {"Property::set", "Property", {}, [](const Any &v) { return over<Property>(v).set(Integer(1), Integer(2)); }},
      {"Class::allocateInstance", "Class", {"Class"},
       [](const Any &v) { return over<Class_Generic>(v).allocateInstance(); }},
      {"Class::coerce", "Class", {"Class"}, [](const Any &v) { return over<Class_Generic>(v).coerce(Integer(1)); }},
      {"Decimal::add", "Decimal", {"Decimal"}, [](const Any &v) { return over<Decimal>(v).add(Decimal()); }},
      {"Decimal::subtract (operand)", "Decimal", {"Decimal"},
       [](const Any &v) { return Decimal().subtract(over<Decimal>(v)); }},
      {"Decimal::multiply", "Decimal", {"Decimal"}, [](const Any &v) { return over<Decimal>(v).multiply(Decimal()); }},
      {"I_Iterable::iter", "I_Iterable", containers, [](const Any &v) { return over<I_Iterable>(v).iter(); }},
      {"I_Iterable::contains", "I_Iterable", containers,
       [](const Any &v) { return over<I_Iterable>(v).contains(Integer(1)); }},
      {"I_Iterable::collectImpl", "I_Iterable", containers,
       [](const Any &v) { return over<I_Iterable>(v).collectImpl(); }},
      {"I_Iterator::next", "I_Iterator", {}, [](const Any &v) { return over<I_Iterator>(v).next(); }},
      {"I_Sequence::length", "I_Sequence", {"List", "Tuple", "HashMap", "HashSet", "String", "ByteArray"},
       [](const Any &v) { return over<I_Sequence>(v).length(); }},
      {"I_Sequence::at", "I_Sequence", sequences, [](const Any &v) { return over<I_Sequence>(v).at(0); }},
      {"I_Sequence::sliced", "I_Sequence", sequences, [](const Any &v) { return over<I_Sequence>(v).sliced(0); }},
      {"I_Sequence::indexOf", "I_Sequence", sequences,
       [](const Any &v) { return over<I_Sequence>(v).indexOf(Integer(1)); }},
      {"I_MutableSequence::append", "I_MutableSequence", {"List"},
       [](const Any &v) { return over<I_MutableSequence>(v).append(Integer(1)); }},
      {"I_MutableSequence::extend", "I_MutableSequence", {"List"},
       [](const Any &v) { return over<I_MutableSequence>(v).extend(List{}); }},
      {"I_MutableSequence::pop", "I_MutableSequence", {"List"},
       [](const Any &v) { return over<I_MutableSequence>(v).pop(); }},
      {"I_MutableSequence::clear", "I_MutableSequence", {"List"},
       [](const Any &v) { return over<I_MutableSequence>(v).clear(); }},
      {"I_Map::contains", "I_Map", {"HashMap"}, [](const Any &v) { return over<I_Map>(v).contains(Integer(1)); }},
      {"I_Map::keys", "I_Map", {"HashMap"}, [](const Any &v) { return over<I_Map>(v).keys(); }},
      {"I_Map::values", "I_Map", {"HashMap"}, [](const Any &v) { return over<I_Map>(v).values(); }},
      {"I_MutableMap::remove", "I_MutableMap", {"HashMap"},
       [](const Any &v) { return over<I_MutableMap>(v).remove(Integer(1)); }},
      {"I_Set::contains", "I_Set", {"HashSet"}, [](const Any &v) { return over<I_Set>(v).contains(Integer(1)); }},
      {"I_MutableSet::insert", "I_MutableSet", {"HashSet"},
       [](const Any &v) { return over<I_MutableSet>(v).insert(Integer(1)); }},
      {"I_MutableSet::extend", "I_MutableSet", {"HashSet"},
       [](const Any &v) { return over<I_MutableSet>(v).extend(List{}); }},
      {"I_Cloneable::clone", "I_Cloneable", {}, [](const Any &v) { return over<I_Cloneable>(v).clone(); }},
      {"I_HasName::name", "I_HasName", {}, [](const Any &v) { return over<I_HasName>(v).name(); }},
      {"I_Language::evaluate", "I_Language", {},
       [](const Any &v) { return over<I_Language>(v).evaluate(S("1"), Any()); }},
  };
}

TEST(CheckedConversions, MembersOfAHandleMadeOverAnotherClassReturnTheCastError) {
  for (const auto &c : member_cases()) {
    for (const auto &s : samples()) {
      SCOPED_TRACE(c.member + " over " + s.kind);
      auto result = unwrapped(c.call(s.value));
      if (c.accepts.count(s.kind))
        EXPECT_FALSE(Error::isInstance(result)) << error_text(result);
      else
        EXPECT_EQ(error_text(result), cast_message(s, c.expected));
    }
  }
}

TEST(CheckedConversions, IteratingAValueThatIsNotIterableEndsWithTheCastError) {
  for (const auto &s : samples()) {
    if (containers.count(s.kind))
      continue;
    SCOPED_TRACE(s.kind);
    internal::iterator_iterable it(s.value), end;
    EXPECT_TRUE(it == end);
    EXPECT_EQ(error_text(it.error()), cast_message(s, "I_Iterable"));
    auto extended = I_MutableSequence::unsafeFrom(List()).extend(s.value);
    EXPECT_EQ(error_text(extended), cast_message(s, "I_Iterable"));
  }
}

TEST(CheckedConversions, PlainMembersOfAHandleMadeOverAnotherClassGiveNeutralAnswers) {
  for (const auto &s : samples()) {
    SCOPED_TRACE(s.kind);
    const Any &v = s.value;
    if (s.kind != "String") {
      EXPECT_TRUE(over<String>(v).view().empty());
      EXPECT_EQ(over<String>(v).toUtf8(), "");
      EXPECT_TRUE(String::isInstance(over<String>(v).trimmed()));
    }
    if (s.kind != "Integer") {
      EXPECT_EQ(over<Integer>(v).value(), 0);
      EXPECT_EQ(over<Integer>(v).unsignedValue(), 0u);
    }
    if (s.kind != "Float") {
      EXPECT_EQ(over<Float>(v).value(), 0.0);
    }
    if (s.kind != "ByteArray") {
      EXPECT_EQ(over<ByteArray>(v).length(), 0);
    }
    if (s.kind != "Tuple") {
      EXPECT_EQ(over<Tuple>(v).length(), 0);
      EXPECT_TRUE(over<Tuple>(v).at(0).empty());
    }
    if (s.kind != "List") {
      EXPECT_EQ(over<List>(v).length(), 0);
      EXPECT_TRUE(over<List>(v).copyItems().empty());
      over<List>(v).clear();
    }
    if (s.kind != "HashMap") {
      EXPECT_EQ(over<HashMap>(v).length(), 0);
      EXPECT_FALSE(over<HashMap>(v).contains(Integer(1)));
      EXPECT_FALSE(over<HashMap>(v).remove(Integer(1)));
      EXPECT_TRUE(over<HashMap>(v).copyPairs().empty());
    }
    if (s.kind != "HashSet") {
      EXPECT_EQ(over<HashSet>(v).length(), 0);
      EXPECT_FALSE(over<HashSet>(v).contains(Integer(1)));
      EXPECT_TRUE(over<HashSet>(v).copyItems().empty());
    }
    if (s.kind != "Class") {
      const auto cls = over<Class_Generic>(v);
      EXPECT_TRUE(cls.name().empty());
      EXPECT_EQ(cls.flags(), 0u);
      EXPECT_TRUE(cls.bases().empty());
      EXPECT_FALSE(cls.derivesFrom(Integer::getClass()));
      EXPECT_FALSE(Integer::getClass().derivesFrom(cls));
      EXPECT_TRUE(cls.definedMethods().empty());
      cls.setDoc(S("ignored"));
      EXPECT_TRUE(cls.doc().empty());
      EXPECT_TRUE(qualname(cls).empty());
    }
    if (s.kind != "Error") {
      const auto error = over<Error>(v);
      EXPECT_TRUE(error.message().empty());
      error.setValue(Integer(1));
      EXPECT_TRUE(error.value().empty());
    }
    if (s.kind != "Decimal") {
      EXPECT_TRUE(over<Decimal>(v).isNaN());
      EXPECT_EQ(over<Decimal>(v).compare(Decimal()), 2);
    }
    if (s.kind != "Date") {
      EXPECT_FALSE(over<Date>(v).isValid());
    }
    if (s.kind != "Time") {
      EXPECT_EQ(over<Time>(v).hour(), 0);
    }
    if (s.kind != "DateTime") {
      EXPECT_FALSE(over<DateTime>(v).date().isValid());
      EXPECT_EQ(over<DateTime>(v).time().minute(), 0);
    }
    if (s.kind != "Integer") {
      EXPECT_TRUE(over<Ordering>(v).isUnordered());
    }
    EXPECT_TRUE(over<Module>(v).name().empty());
    EXPECT_EQ(over<Field>(v).name().toUtf8(), "");
    EXPECT_TRUE(over<Property>(v).name().empty());
    EXPECT_EQ(over<LogRecord>(v).level(), 0);
    EXPECT_TRUE(over<EvaluationScope>(v).self().empty());
    over<External>(v).store(Integer(1)); // ignored: there is no cell
  }
}

TEST(CheckedConversions, AModuleHandleOverAnotherValueAddsNoMembersToItsClass) {
  Integer value(5);
  auto module = over<Module>(value);
  module.addProperty(S("leak"), Property::fromValue(S("leak"), Integer(1)));
  module.addCallable(S("leakFn"), make_function([] { return 1; }));
  EXPECT_FALSE(property_of(value, meta_property_untyped("leak")).is<Property>());
  EXPECT_TRUE(module.moduleClass().empty());
}

TEST(CheckedConversions, ClassDeclarationRejectsAMemberOfTheWrongClass) {
  using builder = internal::class_builder_base;
  auto r = internal::defclass_impl({S("BadMembers"), builder::property_entry(meta_property_untyped("p"),
                                                                            over<Property>(Integer(1)))});
  EXPECT_EQ(error_text(r), "Unable to cast a value of class 'kest.Integer' to 'Property'.");
  auto m = internal::defclass_impl(
      {S("BadMembers"), builder::method_entry(meta_method_untyped("m"), over<I_Callable_Generic>(S("x")))});
  EXPECT_EQ(error_text(m), "Unable to cast a value of class 'kest.String' to 'I_Callable'.");
}

} // namespace
