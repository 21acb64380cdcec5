// Modules: the host's own module "kest" and its reflection functions, the
// module table, registration of functions and properties, and module metadata.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

using namespace kest;
using namespace kest_test;

namespace {

Module kest_module() {
  auto m = find_module(S("kest"));
  if (!m.is<Module>())
    throw std::runtime_error("the module kest is missing");
  return m.as<Module>();
}

/// A function of the module "kest", called with `args`.
Result<Any> call_kest(const char *name, std::initializer_list<Any> args) {
  auto f = kest_module().callables().find(S(name));
  if (!I_Callable_Generic::isInstance(f))
    throw std::runtime_error(std::string("kest has no callable ") + name);
  return I_Callable_Generic::unsafeFrom(f).callWith(args);
}

Module module_named(const std::string &name) {
  auto m = get_module(S(name));
  if (m.isError())
    throw std::runtime_error("get_module failed: " + Error::unsafeFrom(m).message().toUtf8());
  return m.as<Module>();
}

std::size_t position_in_modules(const std::string &name) {
  auto all = modules();
  for (std::size_t i = 0; i < all.size(); ++i)
    if (all[i].name().toUtf8() == name)
      return i;
  return all.size();
}

} // namespace

// --- the module "kest" -----------------------------------------------------------------

TEST(KestModule, ExistsFromLibraryLoad) {
  auto m = find_module(S("kest"));
  ASSERT_TRUE(m.is<Module>());
  EXPECT_EQ(m.as<Module>().name().toUtf8(), "kest");
  EXPECT_FALSE(m.as<Module>().doc().empty());
  EXPECT_LT(position_in_modules("kest"), modules().size());
}

TEST(KestModule, ListsTheHostClasses) {
  auto classes = kest_module().classes();
  EXPECT_TRUE(classes.find(S("String")).isSame(String::getClass()));
  EXPECT_TRUE(classes.find(S("LogRecord")).isSame(LogRecord::getClass()));
  EXPECT_TRUE(classes.find(S("Logger")).isSame(Logger::getClass()));
  EXPECT_TRUE(classes.find(S("Module")).isSame(Module::getClass()));
  EXPECT_TRUE(classes.find(S("NoSuchClass")).empty());
  auto p = property_of(kest_module(), meta_property_untyped("Integer"));
  ASSERT_TRUE(p.is<Property>());
  EXPECT_TRUE(unwrapped(p.as<Property>().get(kest_module())).isSame(Integer::getClass()));
}

TEST(KestModule, OffersTheReflectionFunctions) {
  auto callables = kest_module().callables();
  for (const char *name : {"get_logger", "display", "class_name", "call", "length", "items", "at", "get", "put",
                           "signature", "compare"}) {
    auto f = callables.find(S(name));
    ASSERT_TRUE(I_Callable_Generic::isInstance(f)) << name;
    auto callable = I_Callable_Generic::unsafeFrom(f);
    EXPECT_EQ(callable.name().toUtf8(), name);
    EXPECT_EQ(qualname(callable).toUtf8(), std::string("kest.") + name);
    EXPECT_FALSE(callable.doc().empty()) << name;
  }
}

TEST(KestModule, GetLoggerReturnsTheHostLogger) {
  auto r = call_kest("get_logger", {});
  ASSERT_FALSE(r.isError());
  EXPECT_TRUE(Logger::isInstance(r));
  EXPECT_TRUE(unwrapped(r).isSame(get_logger()));
}

TEST(KestModule, DisplayAndClassName) {
  EXPECT_EQ(text_of(call_kest("display", {Integer(42)})), "42");
  EXPECT_EQ(text_of(call_kest("display", {S("plain text")})), "plain text");
  EXPECT_EQ(text_of(call_kest("display", {List{Integer(1), S("a")}})), "[1, 'a']");
  EXPECT_EQ(text_of(call_kest("class_name", {Integer(1)})), "kest.Integer");
  EXPECT_EQ(text_of(call_kest("class_name", {S("x")})), "kest.String");
  EXPECT_EQ(text_of(call_kest("class_name", {Any()})), "kest.None");
}

TEST(KestModule, CallCallsAnyCallableWithTheRemainingArguments) {
  auto add = make_function([](std::int64_t a, std::int64_t b) { return a + b; });
  EXPECT_EQ(int_of(call_kest("call", {add, Integer(2), Integer(3)})), 5);
  auto none = make_function([] { return std::string("no arguments"); });
  EXPECT_EQ(text_of(call_kest("call", {none})), "no arguments");
  auto bad = call_kest("call", {Integer(1)});
  ASSERT_TRUE(bad.isError());
  EXPECT_EQ(error_text(bad), "Unable to cast a value of class 'kest.Integer' to 'I_Callable'.");
  EXPECT_EQ(error_text(call_kest("call", {})), "Missing argument 'f' for kest.call.");
  EXPECT_EQ(error_text(call_kest("call", {add, S("x"), Integer(1)})), "Argument 1 must be kest.Integer, not kest.String.");
}

TEST(KestModule, LengthOfSequencesMapsSetsAndText) {
  EXPECT_EQ(int_of(call_kest("length", {List{Integer(1), Integer(2), Integer(3)}})), 3);
  HashMap map;
  ASSERT_FALSE(map.setChecked(S("a"), Integer(1)).isError());
  ASSERT_FALSE(map.setChecked(S("b"), Integer(2)).isError());
  EXPECT_EQ(int_of(call_kest("length", {map})), 2);
  EXPECT_EQ(int_of(call_kest("length", {S("four")})), 4);
  EXPECT_EQ(int_of(call_kest("length", {Tuple({Integer(1)})})), 1);
  EXPECT_TRUE(call_kest("length", {Integer(3)}).isError());
}

TEST(KestModule, ItemsCollectsAnIterableIntoANewList) {
  List source{Integer(1), Integer(2)};
  auto r = call_kest("items", {source});
  ASSERT_FALSE(r.isError());
  auto items = unwrapped(r);
  ASSERT_TRUE(List::isInstance(items));
  EXPECT_FALSE(items.isSame(source));
  EXPECT_EQ(display(items).toUtf8(), "[1, 2]");
  auto bad = call_kest("items", {Integer(1)});
  ASSERT_TRUE(bad.isError());
  EXPECT_EQ(error_text(bad), "Unable to cast a value of class 'kest.Integer' to 'I_Iterable'.");
}

TEST(KestModule, AtGetAndPut) {
  List list{S("zero"), S("one"), S("two")};
  EXPECT_EQ(text_of(call_kest("at", {list, Integer(1)})), "one");
  EXPECT_EQ(text_of(call_kest("at", {list, Integer(-1)})), "two");
  auto out_of_range = call_kest("at", {list, Integer(10)});
  ASSERT_TRUE(out_of_range.isError());
  EXPECT_EQ(error_text(out_of_range), "Index 10 is out of range for a sequence of length 3.");
  EXPECT_EQ(error_text(call_kest("at", {list, S("1")})), "Argument 2 (index) must be kest.Integer, not kest.String.");

  HashMap map(String::getType(), Integer::getType());
  auto put = call_kest("put", {map, S("k"), Integer(5)});
  ASSERT_FALSE(put.isError()) << error_text(put);
  EXPECT_TRUE(None::isInstance(unwrapped(put)));
  EXPECT_EQ(int_of(map.find(S("k"))), 5);
  EXPECT_EQ(int_of(call_kest("get", {map, S("k")})), 5);
  EXPECT_TRUE(call_kest("put", {map, S("k"), S("not an integer")}).isError());
  EXPECT_EQ(int_of(map.find(S("k"))), 5);
}

TEST(KestModule, SignatureGivesTheSignatureText) {
  auto add = make_function([](std::int64_t a, std::int64_t b) { return a + b; });
  EXPECT_EQ(text_of(call_kest("signature", {add})), "(arg0: Integer, arg1: Integer) -> Integer");
  auto display_fn = I_Callable_Generic::unsafeFrom(kest_module().callables().find(S("display")));
  EXPECT_EQ(text_of(call_kest("signature", {display_fn})), "(value: Untyped) -> String");
  EXPECT_EQ(error_text(call_kest("signature", {Integer(1)})), "Argument 1 (f) must be kest.I_Callable, not kest.Integer.");
}

TEST(KestModule, CompareGivesTheOrderingNumber) {
  EXPECT_EQ(int_of(call_kest("compare", {Integer(1), Integer(2)})), -1);
  EXPECT_EQ(int_of(call_kest("compare", {Integer(2), Integer(2)})), 0);
  EXPECT_EQ(int_of(call_kest("compare", {S("b"), S("a")})), 1);
  EXPECT_EQ(int_of(call_kest("compare", {Integer(1), S("a")})), 2);
}

// --- the module table -----------------------------------------------------------------------

TEST(ModuleTable, GetModuleCreatesAndRegistersOnce) {
  EXPECT_TRUE(find_module(S("tmod_fresh")).is<None>());
  const auto before = internal::modules_version();
  auto first = module_named("tmod_fresh");
  EXPECT_EQ(internal::modules_version(), before + 1);
  auto second = module_named("tmod_fresh");
  EXPECT_TRUE(first.isSame(second));
  EXPECT_EQ(internal::modules_version(), before + 1);
  auto found = find_module(S("tmod_fresh"));
  ASSERT_TRUE(found.is<Module>());
  EXPECT_TRUE(found.as<Module>().isSame(first));
  EXPECT_EQ(first.name().toUtf8(), "tmod_fresh");
  auto all = modules();
  EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const Module &m) { return m.name().toUtf8() == "tmod_fresh"; }), 1);
}

TEST(ModuleTable, EmptyNameIsAnError) {
  auto r = get_module(String());
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "A module needs a name.");
}

TEST(ModuleTable, FirstRegistrationOfANameWins) {
  auto original = module_named("tmod_first");
  auto impostor = Module::create(S("tmod_first"));
  const auto before = internal::modules_version();
  bool inserted = true;
  {
    std::lock_guard guard(internal::g_modules_lock);
    inserted = internal::g_modules.insert(S("tmod_first"), impostor);
  }
  EXPECT_FALSE(inserted);
  EXPECT_EQ(internal::modules_version(), before);
  auto found = find_module(S("tmod_first"));
  ASSERT_TRUE(found.is<Module>());
  EXPECT_TRUE(found.as<Module>().isSame(original));
  EXPECT_TRUE(module_named("tmod_first").isSame(original));
  for (auto &m : modules())
    EXPECT_FALSE(m.isSame(impostor));
}

TEST(ModuleTable, CreatedModuleIsNotRegisteredUntilInserted) {
  auto loose = Module::create(S("tmod_loose"));
  EXPECT_TRUE(find_module(S("tmod_loose")).is<None>());
  const auto before = internal::modules_version();
  {
    std::lock_guard guard(internal::g_modules_lock);
    EXPECT_TRUE(internal::g_modules.insert(S("tmod_loose"), loose));
  }
  EXPECT_EQ(internal::modules_version(), before + 1);
  auto found = find_module(S("tmod_loose"));
  ASSERT_TRUE(found.is<Module>());
  EXPECT_TRUE(found.as<Module>().isSame(loose));
}

TEST(ModuleTable, ModulesAreListedInRegistrationOrder) {
  module_named("tmod_order_c");
  module_named("tmod_order_a");
  module_named("tmod_order_b");
  const auto kest = position_in_modules("kest");
  const auto c = position_in_modules("tmod_order_c");
  const auto a = position_in_modules("tmod_order_a");
  const auto b = position_in_modules("tmod_order_b");
  const auto count = modules().size();
  ASSERT_LT(b, count);
  EXPECT_LT(kest, c);
  EXPECT_LT(c, a);
  EXPECT_LT(a, b);
  EXPECT_EQ(b, count - 1);
}

TEST(ModuleTable, GlobalsIsOneSharedMap) {
  auto g1 = globals();
  auto g2 = globals();
  EXPECT_TRUE(g1.isSame(g2));
  ASSERT_FALSE(g1.setChecked(S("tmod_global"), Integer(8)).isError());
  EXPECT_EQ(int_of(globals().find(S("tmod_global"))), 8);
  EXPECT_TRUE(globals().remove(S("tmod_global")));
  EXPECT_TRUE(g2.find(S("tmod_global")).empty());
}

// --- registration --------------------------------------------------------------------------

TEST(ModuleRegistration, RegisteredFunctionIsListedAndVisibleAsAProperty) {
  internal::method_builder_base builder(S("triple"));
  builder.assign_func(make_function([](std::int64_t v) { return v * 3; }));
  auto f = builder.callable();
  ASSERT_FALSE(internal::register_function(S("tmod_fn"), S("triple"), f).isError());
  auto m = find_module(S("tmod_fn"));
  ASSERT_TRUE(m.is<Module>());
  auto listed = m.as<Module>().callables().find(S("triple"));
  EXPECT_TRUE(listed.isSame(f));
  auto p = property_of(m.as<Module>(), meta_property_untyped("triple"));
  ASSERT_TRUE(p.is<Property>());
  auto value = unwrapped(m.as<Module>().propertyValue(meta_property_untyped("triple")));
  EXPECT_TRUE(value.isSame(f));
  EXPECT_EQ(int_of(I_Callable_Generic::unsafeFrom(value)(Integer(4))), 12);
  EXPECT_EQ(qualname(f).toUtf8(), "tmod_fn.triple");
}

TEST(ModuleRegistration, RegisteredPropertyIsReadThroughTheModule) {
  ASSERT_FALSE(
      internal::register_property(S("tmod_prop"), S("answer"), Property::fromValue(S("answer"), Integer(42))).isError());
  auto m = module_named("tmod_prop");
  auto p = property_of(m, meta_property_untyped("answer"));
  ASSERT_TRUE(p.is<Property>());
  EXPECT_EQ(int_of(p.as<Property>().get(m)), 42);
  EXPECT_EQ(int_of(m.propertyValue(meta_property_untyped("answer"))), 42);
  EXPECT_TRUE(m.callables().find(S("answer")).empty());
}

TEST(ModuleRegistration, MembersOfOneModuleNeverAppearOnAnother) {
  ASSERT_FALSE(
      internal::register_property(S("tmod_own_a"), S("onlyHere"), Property::fromValue(S("onlyHere"), Integer(1))).isError());
  auto other = module_named("tmod_own_b");
  EXPECT_TRUE(property_of(other, meta_property_untyped("onlyHere")).is<None>());
  EXPECT_FALSE(other.moduleClass().isSame(module_named("tmod_own_a").moduleClass()));
  EXPECT_TRUE(other.moduleClass().derivesFrom(Module::getClass()));
  EXPECT_TRUE(Module::isInstance(other));
}

TEST(ModuleRegistration, AddClassListsTheClassAndAddsAProperty) {
  auto m = module_named("tmod_classes");
  auto cls = Class_Generic::create(S("Thing"));
  m.addClass(S("Thing"), cls);
  EXPECT_TRUE(m.classes().find(S("Thing")).isSame(cls));
  EXPECT_TRUE(unwrapped(m.propertyValue(meta_property_untyped("Thing"))).isSame(cls));
  EXPECT_EQ(m.classes().length(), 1);
}

// --- module metadata --------------------------------------------------------------------------

TEST(ModuleMetadata, NameAndDoc) {
  auto m = module_named("tmod_meta");
  EXPECT_EQ(m.name().toUtf8(), "tmod_meta");
  EXPECT_EQ(m.doc().toUtf8(), "");
  m.setDoc(S("Documented module."));
  EXPECT_EQ(m.doc().toUtf8(), "Documented module.");
  EXPECT_EQ(text_of(m.propertyValue(meta_property_untyped("$$name"))), "tmod_meta");
  EXPECT_EQ(text_of(m.propertyValue(meta_property_untyped("$$doc"))), "Documented module.");
  EXPECT_EQ(display(m).toUtf8(), "<module tmod_meta>");
}

TEST(ModuleMetadata, ImportanceDefaultsToNormal) {
  auto m = module_named("tmod_importance");
  EXPECT_EQ(m.importance(), Importance::Normal);
  m.setImportance(Importance::Hidden);
  EXPECT_EQ(m.importance(), Importance::Hidden);
  m.setImportance(Importance::Low);
  EXPECT_EQ(m.importance(), Importance::Low);
}

TEST(ModuleMetadata, InlinedIsAMetaProperty) {
  auto m = module_named("tmod_inlined");
  EXPECT_FALSE(m.inlined());
  EXPECT_TRUE(property_of(m, meta_property_untyped("$$inlined")).is<None>());
  m.setInlined(true);
  EXPECT_TRUE(m.inlined());
  auto p = property_of(m, meta_property_untyped("$$inlined"));
  ASSERT_TRUE(p.is<Property>());
  auto v = unwrapped(p.as<Property>().get(m));
  ASSERT_TRUE(Boolean::isInstance(v));
  EXPECT_TRUE(Boolean::unsafeFrom(v).value());
  m.setInlined(false);
  EXPECT_FALSE(m.inlined());
  EXPECT_FALSE(module_named("tmod_not_inlined").inlined());
}
