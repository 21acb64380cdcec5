// Host functions whose parameters are declared with a type: every declared type
// given a value of every other kind is a BadArgument naming the parameter, and
// never a call with a converted default. Methods refuse an instance of another
// class, called unbound or bound.

#include "kest_test_support.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>

using namespace kest;
using namespace kest_test;

namespace {
struct sample {
  std::string kind;
  Any value;
};

/// One value of each built-in kind.
std::vector<sample> samples() {
  return {
      {"None", None()},
      {"Boolean", Boolean(true)},
      {"Integer", Integer(7)},
      {"Float", Float(2.5)},
      {"String", S("text")},
      {"ByteArray", ByteArray::fromChars("raw")},
      {"Decimal", Decimal::fromString(S("1.25")).as<Decimal>()},
      {"Date", Date(2024, 2, 29)},
      {"List", List(Type(), {Integer(1)})},
      {"HashMap", HashMap(Type(), Type())},
      {"Tuple", Tuple{Integer(1), S("a")}},
      {"Class", List::getClass()},
      {"Callable", make_function([] { return 1; })},
      {"Error", Error(S("failure"))},
      {"Empty", Any()},
  };
}

/// A declared function of one parameter named "value", and the kinds it takes.
struct declared {
  std::string type;
  I_Callable_Generic function;
  std::vector<std::string> accepts;
};

template <class T> I_Callable_Generic echo() {
  return internal::declared_function(S("echo"), make_function([](T v) { return v; }), S("value"), S("Echoes."), {});
}

std::vector<declared> declared_types() {
  return {
      {"String", echo<String>(), {"String"}},
      {"Integer", echo<Integer>(), {"Integer"}},
      {"Float", echo<Float>(), {"Float"}},
      {"Boolean", echo<Boolean>(), {"Boolean"}},
      {"ByteArray", echo<ByteArray>(), {"ByteArray"}},
      {"Decimal", echo<Decimal>(), {"Decimal"}},
      {"Date", echo<Date>(), {"Date"}},
      {"List", echo<List>(), {"List"}},
      {"HashMap", echo<HashMap>(), {"HashMap"}},
      {"std::int64_t", echo<std::int64_t>(), {"Integer"}},
      {"int", echo<int>(), {"Integer"}},
      {"std::uint8_t", echo<std::uint8_t>(), {"Integer"}},
      {"bool", echo<bool>(), {"Boolean"}},
      {"double", echo<double>(), {"Float", "Integer"}},
      {"std::string", echo<std::string>(), {"String"}},
      {"Union<String, Integer>", echo<Union<String, Integer>>(), {"String", "Integer"}},
  };
}

bool contains(const std::vector<std::string> &kinds, const std::string &kind) {
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}
} // namespace

TEST(DeclaredParameters, EveryTypeRefusesEveryOtherKindNamingTheParameter) {
  int refused = 0;
  for (const auto &d : declared_types()) {
    for (const auto &s : samples()) {
      SCOPED_TRACE(d.type + " given " + s.kind);
      auto result = unwrapped(d.function.callWith({s.value}));
      if (contains(d.accepts, s.kind)) {
        EXPECT_FALSE(Error::isInstance(result)) << error_text(result);
        continue;
      }
      ASSERT_TRUE(BadArgument::isInstance(result)) << display(result).toUtf8();
      const auto message = error_text(result);
      EXPECT_EQ(message.rfind("Argument 1 (value) must be ", 0), 0u) << message;
      EXPECT_NE(message.find(qualname(raw_class_of(s.value)).toUtf8()), std::string::npos) << message;
      ++refused;
    }
  }
  EXPECT_GT(refused, 200);
}

TEST(DeclaredParameters, IntegersOutsideTheRangeOfTheParameterAreRefused) {
  auto byte = echo<std::uint8_t>();
  EXPECT_EQ(int_of(byte.callWith({Integer(255)})), 255);
  EXPECT_EQ(error_text(byte.callWith({Integer(256)})),
            "Argument 1 (value) must be kest.Integer from 0 to 255, not kest.Integer 256.");
  EXPECT_EQ(error_text(byte.callWith({Integer(-1)})),
            "Argument 1 (value) must be kest.Integer from 0 to 255, not kest.Integer -1.");

  auto small = echo<int>();
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(small.callWith({Integer(std::int64_t{1} << 40)}))));
  EXPECT_EQ(int_of(small.callWith({Integer(-5)})), -5);

  auto wide = echo<std::int64_t>();
  EXPECT_TRUE(BadArgument::isInstance(
      unwrapped(wide.callWith({Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())}))));

  auto unsigned_wide = echo<std::uint64_t>();
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(unsigned_wide.callWith({Integer(-1)}))));
  auto top = unwrapped(unsigned_wide.callWith({Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())}));
  ASSERT_TRUE(Integer::isInstance(top));
  EXPECT_EQ(Integer::unsafeFrom(top).unsignedValue(), std::numeric_limits<std::uint64_t>::max());
}

TEST(DeclaredParameters, AGeneratedParameterNameIsLeftOut) {
  auto plain = make_function([](std::int64_t v) { return v; });
  EXPECT_EQ(error_text(plain(S("x"))), "Argument 1 must be kest.Integer, not kest.String.");
}

TEST(DeclaredParameters, NoFunctionBodyRunsWhenAnArgumentIsRefused) {
  auto calls = std::make_shared<int>(0);
  auto f = make_function([calls](double, std::string) {
    ++*calls;
    return 0;
  });
  for (const auto &s : samples()) {
    (void)f.callWith({s.value, s.value});
  }
  EXPECT_EQ(*calls, 0);
}

// --- methods and their instances -------------------------------------------

namespace {
Class_Generic declare_counter(const char *name, std::vector<Class_Generic> bases = {}) {
  std::vector<Any> entries{B::name_entry(S(name))};
  for (auto &base : bases)
    entries.push_back(B::base_entry(base));
  entries.push_back(B::field_entry(S("count"), 0, &Integer::getType));
  entries.push_back(B::method_entry(
      meta_method_untyped("bump"),
      internal::declared_function(S("bump"), make_method([](Any self, std::int64_t by) {
                                    auto now = int_of(self.fieldValue(meta_field_untyped("count")));
                                    (void)self.setFieldValue(meta_field_untyped("count"), Integer(now + by));
                                    return now + by;
                                  }),
                                  S("self, by"), S("Adds to the count."), {})));
  entries.push_back(B::method_entry(meta_method_untyped("make"),
                                    internal::declared_function(S("make"), make_function([] { return 1; }), S(""),
                                                                S("Independent."), {})));
  return declare(entries);
}

Any counter_of(const Class_Generic &cls) {
  auto instance = unwrapped(cls.allocateInstance());
  (void)instance.setFieldValue(meta_field_untyped("count"), Integer(0));
  return instance;
}
} // namespace

TEST(MethodInstances, AnUnboundCallWithAnotherClassIsRefusedNamingBoth) {
  auto counter = declare_counter("CheckedCounter");
  auto bump = counter.definedMethod(meta_method_untyped("bump")).as<I_Callable_Generic>();
  for (const auto &s : samples()) {
    SCOPED_TRACE(s.kind);
    auto result = unwrapped(bump.callWith({s.value, Integer(1)}));
    ASSERT_TRUE(BadArgument::isInstance(result));
    EXPECT_EQ(error_text(result), "The method 'bump' of 'CheckedCounter' applies to 'CheckedCounter' values, not to '" +
                                      qualname(raw_class_of(s.value)).toUtf8() + "'.");
  }
  // The class itself is not one of its instances.
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(bump.callWith({counter, Integer(1)}))));
  EXPECT_EQ(int_of(bump.callWith({counter_of(counter), Integer(2)})), 2);
}

TEST(MethodInstances, ABoundMethodOnAnotherClassReportsItWhenCalled) {
  auto counter = declare_counter("BoundCheckedCounter");
  auto bump = counter.definedMethod(meta_method_untyped("bump")).as<I_Callable_Generic>();
  auto wrong = bump.bindInstance(S("not a counter"));
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(wrong.callWith({Integer(1)}))));
  auto named = HashMap(String::getType(), Type());
  (void)named.setChecked(S("by"), Integer(1));
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(wrong.callWithNamed({}, named))));
  auto right = bump.bindInstance(counter_of(counter));
  EXPECT_EQ(int_of(right.callWith({Integer(3)})), 3);
}

TEST(MethodInstances, AnInstanceOfADerivedClassIsAccepted) {
  auto base = declare_counter("BaseCounter");
  auto derived = declare({B::name_entry(S("DerivedCounter")), B::base_entry(base)});
  auto bump = base.definedMethod(meta_method_untyped("bump")).as<I_Callable_Generic>();
  auto instance = counter_of(derived);
  EXPECT_EQ(int_of(bump.callWith({instance, Integer(4)})), 4);
  auto bound = I_Callable_Generic::unsafeFrom(instance.boundMethod(meta_method_untyped("bump")));
  EXPECT_EQ(int_of(bound.callWith({Integer(1)})), 5);
}

TEST(MethodInstances, IndependentFunctionsTakeNoInstance) {
  auto counter = declare_counter("IndependentCounter");
  auto make = counter.definedMethod(meta_method_untyped("make")).as<I_Callable_Generic>();
  EXPECT_EQ(int_of(make.callWith({})), 1);
}

TEST(MethodInstances, AClassClaimsOnlyTheMembersItDeclares) {
  // A built-in class's members are not claimed by the first class derived from it.
  auto first = declare({B::name_entry(S("FirstError")), B::base_entry(Error::getClass())});
  auto second = declare({B::name_entry(S("SecondError")), B::base_entry(Error::getClass())});
  (void)first;
  auto error = Error::create(second, S("boom"));
  auto message = error.propertyValue(meta_property_untyped("message"));
  EXPECT_EQ(text_of(message), "boom");
  EXPECT_EQ(text_of(Error(S("plain")).propertyValue(meta_property_untyped("message"))), "plain");
}

TEST(MethodInstances, PropertyAccessorsCheckTheirInstance) {
  auto getter = make_method([](Any self) { return self.fieldValue(meta_field_untyped("count")); });
  kest::internal::property_builder_base p{S("current")};
  p.assign_getter(getter);
  auto cls = declare({B::name_entry(S("PropertyCounter")), B::field_entry(S("count"), 0, &Integer::getType),
                      B::property_entry(p)});
  auto property = cls.definedProperty(meta_property_untyped("current")).as<Property>();
  auto instance = unwrapped(cls.allocateInstance());
  (void)instance.setFieldValue(meta_field_untyped("count"), Integer(9));
  EXPECT_EQ(int_of(property.get(instance)), 9);
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(property.get(S("other")))));
  EXPECT_TRUE(BadArgument::isInstance(unwrapped(property.get(cls))));
}
