// The typed declaration of modules, classes and functions: every kind of
// member, names, defaults, keyword calls, documentation, field type checks and
// errors, used from C++ as any host class is.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using namespace kest;
using namespace kest::literals;
using namespace kest_test;

namespace {

const char *const module_name = "kest.declaretest";

Class_Generic account_class() {
  static const Class_Generic cls = [] {
    module_ m(module_name, "Accounts, for the declaration tests.");
    return class_(m, "Account", "A bank account.")
        .field<std::string>("owner", field_flags::read_only)
        .field<double>("balance")
        .field<Any>("note")
        .init(
            [](const Any &self, std::string owner, double opening) -> Result<None> {
              if (opening < 0)
                return BadArgument(S("An account cannot open below zero."));
              (void)self.setFieldValue("owner"_field, host_value(owner));
              return self.setFieldValue("balance"_field, host_value(opening));
            },
            "owner"_a, "opening"_a = 0.0, "Opens an account.")
        .def(
            "deposit",
            [](const Any &self, double amount) {
              const double now = to<double>(self.fieldValue("balance"_field)) + amount;
              (void)self.setFieldValue("balance"_field, host_value(now));
              return now;
            },
            "amount"_a, "Adds to the balance and returns it.")
        .def("describe", [](const Any &self, std::string prefix, std::string suffix) {
              return prefix + to<std::string>(self.fieldValue("owner"_field)) + suffix;
            },
            "prefix"_a = "", "suffix"_a = "!")
        .def_static("rate", [] { return 0.02; }, "The interest rate.")
        .property("owner", [](const Any &self) { return self.fieldValue("owner"_field); }, "Who owns it.")
        .property(
            "cents", [](const Any &self) { return std::llround(to<double>(self.fieldValue("balance"_field)) * 100); },
            [](const Any &self, std::int64_t cents) {
              (void)self.setFieldValue("balance"_field, host_value(static_cast<double>(cents) / 100));
            },
            "The balance in cents.")
        .def("$__display__", [](const Any &self) { return "<Account " + to<std::string>(self.fieldValue("owner"_field)) + ">"; })
        .def("$__add__", [](const Any &self, double amount) {
          return to<double>(self.fieldValue("balance"_field)) + amount;
        })
        .declare();
  }();
  return cls;
}

I_Callable_Generic method_of(const Class_Generic &cls, const char *name) {
  return cls.definedMethod(meta_method_untyped(String::fromUtf8(name))).as<I_Callable_Generic>();
}

Any open_account(const char *owner, double opening) {
  return unwrapped(method_of(account_class(), "$__init__")(owner, opening));
}

Any call(const Any &self, const char *name, std::initializer_list<Any> args = {}) {
  auto bound = self.boundMethod(meta_method_untyped(String::fromUtf8(name)));
  return unwrapped(I_Callable_Generic::unsafeFrom(bound).callWith(args));
}

} // namespace

TEST(Declare, AClassIsDeclaredWithItsModuleNameAndDocumentation) {
  const auto cls = account_class();
  ASSERT_TRUE(Class_Generic::isInstance(cls));
  EXPECT_EQ(qualname(cls).toUtf8(), "kest.declaretest.Account");
  EXPECT_EQ(cls.doc().toUtf8(), "A bank account.");
  auto module = find_module(S(module_name));
  ASSERT_TRUE(module.is<Module>());
  EXPECT_EQ(module.as<Module>().doc().toUtf8(), "Accounts, for the declaration tests.");
}

TEST(Declare, TheConstructorTakesNamesDefaultsAndKeywords) {
  auto init = method_of(account_class(), "$__init__");
  EXPECT_EQ(init.signature().toString().toUtf8(), "(owner: String, opening: Float) -> Untyped");
  EXPECT_EQ(init.doc().toUtf8(), "Opens an account.");
  EXPECT_EQ(init.requiredParameterCount(), 1);
  auto a = open_account("ann", 10);
  EXPECT_EQ(to<double>(a.fieldValue("balance"_field)), 10.0);
  auto defaulted = unwrapped(init("bob"));
  EXPECT_EQ(to<double>(defaulted.fieldValue("balance"_field)), 0.0);
  HashMap named;
  ASSERT_FALSE(named.setChecked(S("opening"), Float(5.5)).isError());
  const Any positional[] = {S("cy")};
  auto by_keyword = unwrapped(init.callWithNamed(positional, named));
  EXPECT_EQ(to<double>(by_keyword.fieldValue("balance"_field)), 5.5);
  EXPECT_EQ(to<std::string>(by_keyword.fieldValue("owner"_field)), "cy");
}

TEST(Declare, TheConstructorsErrorAndWrongArgumentsAreErrorsAsForAnyClass) {
  auto init = method_of(account_class(), "$__init__");
  EXPECT_EQ(error_text(init("dan", -1)), "An account cannot open below zero.");
  EXPECT_TRUE(Error::isInstance(unwrapped(init(3))));
  EXPECT_NE(error_text(init(3)).find("owner"), std::string::npos) << error_text(init(3));
  EXPECT_TRUE(Error::isInstance(unwrapped(init())));
}

TEST(Declare, MethodsStaticFunctionsAndOperators) {
  auto a = open_account("eve", 1);
  EXPECT_EQ(to<double>(call(a, "deposit", {Float(2.5)})), 3.5);
  EXPECT_EQ(to<double>(call(a, "deposit", {Integer(1)})), 4.5); // an Integer is a number too
  EXPECT_TRUE(Error::isInstance(call(a, "deposit", {S("x")})));
  EXPECT_EQ(to<std::string>(call(a, "describe")), "eve!");
  EXPECT_EQ(to<std::string>(call(a, "describe", {S("to "), S(".")})), "to eve.");
  auto deposit = method_of(account_class(), "deposit");
  EXPECT_EQ(deposit.doc().toUtf8(), "Adds to the balance and returns it.");
  EXPECT_FALSE(deposit.isIndependent());
  auto rate = method_of(account_class(), "rate");
  EXPECT_TRUE(rate.isIndependent());
  EXPECT_EQ(to<double>(rate()), 0.02);
  EXPECT_EQ(display(a).toUtf8(), "<Account eve>");
  EXPECT_EQ(to<double>(call(a, "$__add__", {Float(0.5)})), 5.0);
}

TEST(Declare, PropertiesReadOnlyAndWritable) {
  auto a = open_account("fay", 12.34);
  EXPECT_EQ(to<std::string>(a.propertyValue(meta_property_untyped("owner"))), "fay");
  EXPECT_TRUE(Error::isInstance(unwrapped(a.setPropertyValue(meta_property_untyped("owner"), S("x")))));
  EXPECT_EQ(to<std::int64_t>(a.propertyValue(meta_property_untyped("cents"))), 1234);
  EXPECT_FALSE(a.setPropertyValue(meta_property_untyped("cents"), Integer(50)).isError());
  EXPECT_EQ(to<double>(a.fieldValue("balance"_field)), 0.5);
}

TEST(Declare, FieldsKeepTheirTypesAndFlags) {
  auto a = open_account("gus", 1);
  EXPECT_TRUE(a.setFieldValue("balance"_field, S("much")).isError());
  EXPECT_EQ(to<double>(a.fieldValue("balance"_field)), 1.0);
  EXPECT_FALSE(a.setFieldValue("note"_field, S("anything")).isError());
  EXPECT_FALSE(a.setFieldValue("note"_field, Integer(3)).isError());
  auto owner = account_class().definedField("owner"_field);
  ASSERT_TRUE(owner.is<Field>());
}

TEST(Declare, ModuleFunctionsTakeNamesDefaultsAndDocumentation) {
  module_ m(module_name);
  m.def("vat", [](double net, double rate) { return net * rate; }, "net"_a, "rate"_a = 0.5, "The tax on a net price.");
  m.def("twice", [](std::int64_t n) { return 2 * n; });
  auto found = find_module(S(module_name)).as<Module>().callables();
  auto vat = I_Callable_Generic::unsafeFrom(found.find(S("vat")));
  EXPECT_EQ(vat.doc().toUtf8(), "The tax on a net price.");
  EXPECT_EQ(vat.signature().toString().toUtf8(), "(net: Float, rate: Float) -> Float");
  EXPECT_EQ(to<double>(vat(10)), 5.0);
  EXPECT_EQ(to<double>(vat(10, 0.25)), 2.5);
  auto twice = I_Callable_Generic::unsafeFrom(found.find(S("twice")));
  EXPECT_EQ(to<int>(twice(21)), 42);
}

TEST(Declare, AnErrorClass) {
  module_ m(module_name);
  static const Class_Generic overdrawn =
      class_(m, "Overdrawn", "An account went below zero.").base(Error::getClass()).declare();
  ASSERT_TRUE(Class_Generic::isInstance(overdrawn));
  EXPECT_TRUE(overdrawn.derivesFrom(Error::getClass()));
  auto error = Error::create(overdrawn, S("below zero"));
  EXPECT_TRUE(Error::isInstance(error));
  EXPECT_EQ(error_text(error), "below zero");
  EXPECT_EQ(qualname(raw_class_of(error)).toUtf8(), "kest.declaretest.Overdrawn");
}

// What must not compile is checked by the compile.* tests (compile_checks/).
TEST(Declare, ExtrasCollectNamesDefaultsAndDocumentationInAnyOrder) {
  const auto extras = internal::extras_of("x"_a, "doc", "y"_a = 1);
  EXPECT_EQ(extras.params, "x, y");
  EXPECT_EQ(extras.doc, "doc");
  ASSERT_EQ(extras.defaults.size(), 1u);
  EXPECT_EQ(to<int>(extras.defaults[0]), 1);
  EXPECT_FALSE(extras.default_before_plain);
  EXPECT_TRUE(internal::extras_of("x"_a = 1, "y"_a).default_before_plain);
}
