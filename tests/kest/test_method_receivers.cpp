// Which values a method applies to, decided for a class: the declaring class
// and the classes derived from it, any value for an independent callable or
// one declared outside a class. Callers that decided it once per members
// epoch call without the check; a change of context or independence starts
// a new epoch.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <stdexcept>

using namespace kest;
using B = kest::internal::class_builder_base;

namespace {
Class_Generic declare(std::initializer_list<Any> entries) {
  auto made = internal::defclass_impl(entries);
  return made.as<Class_Generic>();
}

Class_Generic base_class() {
  static const Class_Generic cls = [] {
    internal::method_builder_base name{String(u"name")};
    name.assign_func(make_method([](const Any &) { return std::string("base"); }));
    return declare({String(u"ReceiverBase"), B::module_entry(String(u"treceivers")), B::method_entry(name)});
  }();
  return cls;
}

const internal::object_value_callable &native(const I_Callable_Generic &c) {
  return *static_cast<const internal::object_value_callable *>(c.get());
}
} // namespace

TEST(MethodReceivers, AMethodAppliesToItsClassAndTheClassesDerivedFromIt) {
  auto base = base_class();
  auto derived = declare({String(u"ReceiverDerived"), B::module_entry(String(u"treceivers")), base});
  auto unrelated = declare({String(u"ReceiverUnrelated"), B::module_entry(String(u"treceivers"))});
  auto name = base.definedMethod(meta_method_untyped("name")).as<I_Callable_Generic>();
  EXPECT_TRUE(internal::method_applies_to(native(name), base.value()));
  EXPECT_TRUE(internal::method_applies_to(native(name), derived.value()));
  EXPECT_FALSE(internal::method_applies_to(native(name), unrelated.value()));
  EXPECT_FALSE(internal::method_applies_to(native(name), Integer::getClass().value()));
  EXPECT_FALSE(internal::method_applies_to(native(name), nullptr));
}

TEST(MethodReceivers, IndependentCallablesAndMethodsOutsideAClassApplyToAnyValue) {
  auto unrelated = declare({String(u"ReceiverAny"), B::module_entry(String(u"treceivers"))});
  auto loose = make_method([](const Any &) { return 1; }); // declared in no class
  EXPECT_TRUE(internal::method_applies_to(native(loose), unrelated.value()));
  EXPECT_TRUE(internal::method_applies_to(native(loose), Integer::getClass().value()));
  auto independent = make_function([] { return 2; });
  EXPECT_TRUE(internal::method_applies_to(native(independent), unrelated.value()));
}

TEST(MethodReceivers, ChangingContextOrIndependenceStartsANewMembersEpoch) {
  auto base = base_class();
  auto other = declare({String(u"ReceiverOther"), B::module_entry(String(u"treceivers"))});
  auto method = make_method([](const Any &) { return 3; });
  auto epoch = internal::class_members_epoch();
  method.setDeclaringContext(base);
  EXPECT_NE(internal::class_members_epoch(), epoch);
  EXPECT_TRUE(internal::method_applies_to(native(method), base.value()));
  EXPECT_FALSE(internal::method_applies_to(native(method), other.value()));
  epoch = internal::class_members_epoch();
  method.setIndependent(true);
  EXPECT_NE(internal::class_members_epoch(), epoch);
  EXPECT_TRUE(internal::method_applies_to(native(method), other.value()));
}

TEST(MethodReceivers, ACallWithoutTheCheckRunsTheFunctionAndCatchesWhatItThrows) {
  auto base = base_class();
  auto instance = internal::result_unwrap_lazy(base.allocateInstance());
  auto name = base.definedMethod(meta_method_untyped("name")).as<I_Callable_Generic>();
  const Any arguments[] = {instance};
  auto result = internal::result_unwrap_lazy(internal::call_exact_applicable(native(name), arguments));
  ASSERT_TRUE(String::isInstance(result));
  EXPECT_EQ(String::unsafeFrom(result).toUtf8(), "base");
  auto throws = make_method([](const Any &) -> std::int64_t { throw std::runtime_error("thrown by the method"); });
  auto error = internal::result_unwrap_lazy(internal::call_exact_applicable(native(throws), arguments));
  ASSERT_TRUE(Error::isInstance(error));
  EXPECT_NE(Error::unsafeFrom(error).message().toUtf8().find("thrown by the method"), std::string::npos);
  // The checked call refuses a receiver the method does not apply to.
  const Any wrong[] = {Integer(1)};
  EXPECT_TRUE(BadArgument::isInstance(internal::result_unwrap_lazy(internal::call_exact(native(name), wrong))));
}

TEST(MethodReceivers, IntegerAndFloatPartsAreReadInlineAndZeroForOtherValues) {
  EXPECT_EQ(internal::integer_parts_of(Integer(-7)).bits, static_cast<std::uint64_t>(-7));
  EXPECT_TRUE(internal::integer_parts_of(Integer(-7)).is_signed);
  EXPECT_FALSE(internal::integer_parts_of(Integer::fromUnsigned(~0ull)).is_signed);
  EXPECT_EQ(internal::integer_parts_of(Integer::fromUnsigned(~0ull)).bits, ~0ull);
  EXPECT_EQ(internal::integer_parts_of(Float(2.5)).bits, 0u);
  EXPECT_EQ(internal::integer_parts_of(Any()).bits, 0u);
  EXPECT_EQ(internal::float_value_of(Float(2.5)), 2.5);
  EXPECT_EQ(internal::float_value_of(Integer(3)), 0.0);
  EXPECT_EQ(internal::float_value_of(String(u"x")), 0.0);
}
