// Builders: once-only class declarations and their recursion guard, property
// getter and setter checks, and class declarations from entries.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace kest;
using namespace kest_test;
using kest::internal::class_declaration;
using kest::internal::property_builder_base;

namespace {

/// Waits (up to a few seconds) until `flag` reaches `value`; false on time-out.
bool wait_for(const std::atomic<int> &flag, int value) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (flag.load() < value) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::yield();
  }
  return true;
}

I_Callable_Generic with_defaults(I_Callable_Generic callable, std::vector<Any> defaults) {
  internal::method_builder_base builder(S("withDefaults"));
  builder.assign_defaults(std::move(defaults));
  return builder.decorate(callable);
}

const char *const getter_error = "[property_builder::getter] Too many parameters in the getter function.";
const char *const setter_error = "[property_builder::setter] Too many parameters in the setter function.";

} // namespace

// --- once-only declarations -------------------------------------------------------------

namespace {
std::atomic<int> g_once_builds{0};
void build_once(B &b) {
  ++g_once_builds;
  b.add_entry(B::name_entry(S("DeclaredOnce")));
}
class_declaration g_once("DeclaredOnce", &build_once);

std::atomic<int> g_threaded_builds{0};
void build_threaded(B &b) {
  ++g_threaded_builds;
  std::this_thread::sleep_for(std::chrono::milliseconds(20)); // let the other threads arrive
  b.add_entry(B::name_entry(S("DeclaredFromFourThreads")));
}
class_declaration g_threaded("DeclaredFromFourThreads", &build_threaded);
} // namespace

TEST(ClassDeclaration, AskingTwiceGivesTheSameClassBuiltOnce) {
  EXPECT_EQ(g_once.build_count(), 0);
  auto first = g_once.get();
  auto second = g_once.get();
  ASSERT_TRUE(first);
  EXPECT_TRUE(first.isSame(second));
  EXPECT_EQ(first.name().toUtf8(), "DeclaredOnce");
  EXPECT_EQ(g_once.build_count(), 1);
  EXPECT_EQ(g_once_builds.load(), 1);
}

TEST(ClassDeclaration, FourThreadsAskingAtOnceShareOneBuild) {
  std::atomic<int> ready{0};
  std::vector<Class_Generic> seen(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      ++ready;
      wait_for(ready, 4);
      seen[static_cast<std::size_t>(t)] = g_threaded.get();
    });
  for (auto &t : threads)
    t.join();
  ASSERT_TRUE(seen[0]);
  for (auto &cls : seen)
    EXPECT_TRUE(cls.isSame(seen[0]));
  EXPECT_EQ(seen[0].name().toUtf8(), "DeclaredFromFourThreads");
  EXPECT_EQ(g_threaded.build_count(), 1);
  EXPECT_EQ(g_threaded_builds.load(), 1);
}

namespace {
class_declaration &recursive_declaration();
class_declaration &mutual_a();
class_declaration &mutual_b();
class_declaration &nested_base();

void build_recursive(B &b) {
  b.add_entry(B::name_entry(S("SelfReferencing")));
  b.add_entry(B::base_entry(recursive_declaration().get())); // asks for itself while being built
}
void build_mutual_a(B &b) {
  b.add_entry(B::name_entry(S("MutualA")));
  b.add_entry(B::base_entry(mutual_b().get()));
}
void build_mutual_b(B &b) {
  b.add_entry(B::name_entry(S("MutualB")));
  b.add_entry(B::base_entry(mutual_a().get()));
}
void build_nested(B &b) {
  b.add_entry(B::name_entry(S("Nested")));
  b.add_entry(B::base_entry(nested_base().get()));
}

class_declaration g_recursive("SelfReferencing", &build_recursive);
class_declaration g_mutual_a("MutualA", &build_mutual_a);
class_declaration g_mutual_b("MutualB", &build_mutual_b);
class_declaration g_nested_base("NestedBase", [](B &b) { b.add_entry(B::name_entry(S("NestedBase"))); });
class_declaration g_nested("Nested", &build_nested);

class_declaration &recursive_declaration() { return g_recursive; }
class_declaration &mutual_a() { return g_mutual_a; }
class_declaration &mutual_b() { return g_mutual_b; }
class_declaration &nested_base() { return g_nested_base; }

std::string recursive_failure(class_declaration &declaration) {
  try {
    (void)declaration.get();
  } catch (const std::runtime_error &e) {
    return e.what();
  }
  return "<no exception>";
}
} // namespace

TEST(ClassDeclaration, RecursiveRequestOnTheSameThreadThrows) {
  EXPECT_EQ(recursive_failure(g_recursive), "Recursive call detected while initializing class: SelfReferencing");
  EXPECT_EQ(g_recursive.build_count(), 0);
  // The failed attempt leaves nothing half-declared: asking again fails the same way.
  EXPECT_EQ(recursive_failure(g_recursive), "Recursive call detected while initializing class: SelfReferencing");
}

TEST(ClassDeclaration, MutualRecursionNamesTheClassAskedForAgain) {
  EXPECT_EQ(recursive_failure(g_mutual_a), "Recursive call detected while initializing class: MutualA");
}

TEST(ClassDeclaration, DeclarationMayAskForAnotherClass) {
  auto nested = g_nested.get();
  ASSERT_TRUE(nested);
  EXPECT_TRUE(nested.derivesFrom(g_nested_base.get()));
  EXPECT_EQ(g_nested_base.build_count(), 1);
  EXPECT_EQ(g_nested.build_count(), 1);
}

namespace {
std::atomic<int> g_parallel_inside{0};
void build_parallel_one(B &b) {
  ++g_parallel_inside;
  wait_for(g_parallel_inside, 2); // both declarations are being built at the same time
  b.add_entry(B::name_entry(S("ParallelOne")));
}
void build_parallel_two(B &b) {
  ++g_parallel_inside;
  wait_for(g_parallel_inside, 2);
  b.add_entry(B::name_entry(S("ParallelTwo")));
}
class_declaration g_parallel_one("ParallelOne", &build_parallel_one);
class_declaration g_parallel_two("ParallelTwo", &build_parallel_two);

std::atomic<int> g_slow_stage{0};
void build_slow(B &b) {
  g_slow_stage = 1;
  wait_for(g_slow_stage, 2); // another thread is now asking for this class
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  b.add_entry(B::name_entry(S("SlowDeclaration")));
}
class_declaration g_slow("SlowDeclaration", &build_slow);
} // namespace

TEST(ClassDeclaration, TwoThreadsDeclaringDifferentClassesDoNotDisturbEachOther) {
  Class_Generic one, two;
  std::string failure;
  std::thread a([&] {
    try {
      one = g_parallel_one.get();
    } catch (const std::exception &e) {
      failure = e.what();
    }
  });
  std::thread b([&] {
    try {
      two = g_parallel_two.get();
    } catch (const std::exception &e) {
      failure = e.what();
    }
  });
  a.join();
  b.join();
  EXPECT_EQ(failure, "");
  EXPECT_EQ(g_parallel_inside.load(), 2);
  ASSERT_TRUE(one);
  ASSERT_TRUE(two);
  EXPECT_EQ(one.name().toUtf8(), "ParallelOne");
  EXPECT_EQ(two.name().toUtf8(), "ParallelTwo");
  EXPECT_EQ(g_parallel_one.build_count(), 1);
  EXPECT_EQ(g_parallel_two.build_count(), 1);
}

TEST(ClassDeclaration, AnotherThreadAskingDuringTheBuildWaitsInsteadOfFailing) {
  Class_Generic from_builder, from_waiter;
  std::string failure;
  std::thread builder([&] { from_builder = g_slow.get(); });
  ASSERT_TRUE(wait_for(g_slow_stage, 1));
  std::thread waiter([&] {
    g_slow_stage = 2;
    try {
      from_waiter = g_slow.get();
    } catch (const std::exception &e) {
      failure = e.what();
    }
  });
  builder.join();
  waiter.join();
  EXPECT_EQ(failure, "");
  ASSERT_TRUE(from_builder);
  EXPECT_TRUE(from_builder.isSame(from_waiter));
  EXPECT_EQ(g_slow.build_count(), 1);
}

namespace {
class_declaration g_nameless("Nameless", [](B &b) { b.add_entry(B::doc_entry(S("no name entry"))); });
}

TEST(ClassDeclaration, FailedDeclarationIsReportedAndGivesAnEmptyClass) {
  log_capture capture;
  auto cls = g_nameless.get();
  EXPECT_FALSE(cls);
  EXPECT_TRUE(capture.contains(S("A class declaration needs a name.")));
  EXPECT_EQ(g_nameless.build_count(), 1);
}

// --- property getters ----------------------------------------------------------------

TEST(PropertyGetter, OneRequiredParameterIsAccepted) {
  log_capture capture;
  property_builder_base p(S("value"));
  auto getter = make_method([](Any self) { return display(self); });
  p.assign_getter(getter);
  EXPECT_TRUE(capture.records().empty());
  EXPECT_FALSE(getter.isIndependent());
  EXPECT_EQ(text_of(p.build().get(Integer(5))), "5");
}

TEST(PropertyGetter, TwoRequiredParametersAreReported) {
  log_capture capture;
  property_builder_base p(S("value"));
  p.assign_getter(make_method([](Any, Any) { return 1; }));
  EXPECT_TRUE(capture.contains(S(getter_error)));
  ASSERT_EQ(capture.records().size(), 1u);
  EXPECT_EQ(capture.records()[0].level(), 40);
}

TEST(PropertyGetter, NoParametersMarksTheGetterIndependent) {
  log_capture capture;
  property_builder_base p(S("constant"));
  auto getter = make_method([] { return 3; });
  EXPECT_FALSE(getter.isIndependent());
  p.assign_getter(getter);
  EXPECT_TRUE(getter.isIndependent());
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(int_of(p.build().get(S("ignored"))), 3);
}

TEST(PropertyGetter, SecondParameterWithADefaultIsAccepted) {
  log_capture capture;
  property_builder_base p(S("scaled"));
  auto getter = with_defaults(make_method([](Any self, std::int64_t factor) {
                                return Integer::unsafeFrom(self).value() * factor;
                              }),
                              {Integer(3)});
  EXPECT_EQ(property_builder_base::function_defaults_count(getter), 1);
  p.assign_getter(getter);
  EXPECT_TRUE(capture.records().empty());
  EXPECT_FALSE(getter.isIndependent());
  EXPECT_EQ(int_of(p.build().get(Integer(7))), 21);
}

TEST(PropertyGetter, ConstantValueNeedsNoCheck) {
  log_capture capture;
  property_builder_base p(S("fixed"));
  auto many = make_function([](Any, Any, Any) { return 0; });
  p.assign_getter_value(many); // a callable stored as a value is not a getter
  auto built = p.build();
  EXPECT_TRUE(capture.records().empty());
  EXPECT_TRUE(built.isValueProperty());
  EXPECT_TRUE(built.storedValue().isSame(many));
  EXPECT_TRUE(unwrapped(built.get(Any())).isSame(many));

  property_builder_base q(S("number"));
  q.assign_getter_value(Integer(12));
  EXPECT_EQ(int_of(q.build().get(Any())), 12);
  EXPECT_TRUE(capture.records().empty());
}

TEST(PropertyGetter, BuiltPropertyKeepsNameDocAndHiddenFlag) {
  property_builder_base p(S("$$secret"));
  p.assign_getter_value(Integer(1));
  p.assign_doc(S("A hidden value."));
  auto built = p.build();
  EXPECT_EQ(built.name().toUtf8(), "secret");
  EXPECT_EQ(built.doc().toUtf8(), "A hidden value.");
  EXPECT_TRUE(built.hidden());
  EXPECT_EQ(p.name().utf8(), "secret");
  EXPECT_TRUE(p.name().hidden());

  property_builder_base open(S("open"));
  EXPECT_FALSE(open.build().hidden());
  EXPECT_TRUE(is_none(unwrapped(open.build().get(Any())))); // no getter at all reads as None
}

// --- property setters -----------------------------------------------------------------

TEST(PropertySetter, ValueOnlySetterIsMarkedIndependent) {
  log_capture capture;
  auto stored = std::make_shared<std::int64_t>(0);
  property_builder_base p(S("global"));
  p.assign_getter(make_function([stored] { return *stored; }));
  auto setter = make_method([stored](std::int64_t v) { *stored = v; });
  EXPECT_FALSE(setter.isIndependent());
  p.assign_setter(setter);
  EXPECT_TRUE(setter.isIndependent());
  EXPECT_TRUE(capture.records().empty());
  auto built = p.build();
  ASSERT_FALSE(built.set(S("any instance"), Integer(17)).isError());
  EXPECT_EQ(*stored, 17);
  EXPECT_EQ(int_of(built.get(S("any instance"))), 17);
}

TEST(PropertySetter, InstanceAndValueSetterIsAccepted) {
  log_capture capture;
  property_builder_base p(S("field"));
  auto setter = make_method([](Any, Any) {});
  p.assign_setter(setter);
  EXPECT_FALSE(setter.isIndependent());
  EXPECT_TRUE(capture.records().empty());
}

TEST(PropertySetter, MoreThanTwoRequiredParametersAreReported) {
  log_capture capture;
  property_builder_base p(S("field"));
  p.assign_setter(make_method([](Any, Any, Any) {}));
  EXPECT_TRUE(capture.contains(S(setter_error)));
  EXPECT_FALSE(capture.contains(S(getter_error)));
}

TEST(PropertySetter, ThirdParameterWithADefaultIsAccepted) {
  log_capture capture;
  property_builder_base p(S("field"));
  p.assign_setter(with_defaults(make_method([](Any, Any, Any) {}), {Integer(0)}));
  EXPECT_TRUE(capture.records().empty());
}

TEST(PropertySetter, PropertyWithoutSetterIsReadOnly) {
  property_builder_base p(S("readOnly"));
  p.assign_getter(make_method([](Any) { return 1; }));
  auto r = p.build().set(S("target"), Integer(2));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "The property 'readOnly' is read-only for 'target'.");
}

// --- declarations from entries -----------------------------------------------------------

namespace {
Class_Generic widget_base() {
  static const Class_Generic cls = declare({S("WidgetBase"), B::module_entry(S("tbld_widgets")),
                                            B::method_entry(meta_method_untyped("baseMethod"),
                                                            make_method([](Any) { return std::string("from base"); }))});
  return cls;
}

Class_Generic widget() {
  static const Class_Generic cls = [] {
    property_builder_base size(S("size"));
    size.assign_getter(make_method([](Any self) { return unwrapped(self.fieldValue(meta_field_untyped("_size"))); }));
    size.assign_setter(make_method([](Any self, std::int64_t v) {
      return self.setFieldValue(meta_field_untyped("_size"), Integer(v));
    }));
    size.assign_doc(S("The size of the widget."));
    internal::method_builder_base grow(S("grow"));
    grow.assign_func(make_method([](Any self, std::int64_t by) -> Result<None> {
      auto now = unwrapped(self.fieldValue(meta_field_untyped("_size")));
      return self.setFieldValue(meta_field_untyped("_size"), Integer(Integer::unsafeFrom(now).value() + by));
    }));
    grow.signature(S("by"));
    grow.assign_defaults({Integer(1)});
    grow.assign_doc(S("Makes the widget larger."));
    internal::field_builder_base field(S("$_size"));
    field.assign_type(&Integer::getType);
    return declare({S("Widget"), B::module_entry(S("tbld_widgets")), B::doc_entry(S("A widget for tests.")),
                    B::example_entry(S("python"), S("w = Widget()")), B::example_entry(S("js"), S("const w = new Widget();")),
                    B::base_entry(widget_base()), B::field_entry(field), B::property_entry(size), B::method_entry(grow)});
  }();
  return cls;
}
} // namespace

TEST(DeclaredClass, EntriesGiveNameModuleDocExamplesAndBases) {
  auto cls = widget();
  EXPECT_EQ(cls.name().toUtf8(), "Widget");
  EXPECT_EQ(qualname(cls).toUtf8(), "tbld_widgets.Widget");
  EXPECT_EQ(cls.doc().toUtf8(), "A widget for tests.");
  EXPECT_EQ(cls.example(S("python")).toUtf8(), "w = Widget()");
  EXPECT_EQ(cls.example(S("js")).toUtf8(), "const w = new Widget();");
  EXPECT_EQ(cls.example(S("cpp")).toUtf8(), "");
  ASSERT_EQ(cls.bases().size(), 1u);
  EXPECT_TRUE(cls.bases()[0].isSame(widget_base()));
  EXPECT_TRUE(cls.derivesFrom(widget_base()));
}

TEST(DeclaredClass, MembersFromEntriesWork) {
  auto cls = widget();
  auto size = cls.definedProperty(meta_property_untyped("size"));
  ASSERT_TRUE(size.is<Property>());
  EXPECT_EQ(size.as<Property>().doc().toUtf8(), "The size of the widget.");
  auto field = cls.definedField(meta_field_untyped("_size"));
  ASSERT_TRUE(field.is<Field>());
  EXPECT_TRUE(field.as<Field>().type().isSame(Integer::getClass()));

  auto obj = unwrapped(cls.allocateInstance());
  ASSERT_FALSE(obj.setPropertyValue(meta_property_untyped("size"), Integer(4)).isError());
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("size"))), 4);
  auto grow = I_Callable_Generic::unsafeFrom(obj.boundMethod(meta_method_untyped("grow")));
  ASSERT_FALSE(grow(Integer(3)).isError());
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("size"))), 7);
  ASSERT_FALSE(grow.callWith({}).isError()); // the default of "by"
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("size"))), 8);
  EXPECT_EQ(text_of(I_Callable_Generic::unsafeFrom(obj.boundMethod(meta_method_untyped("baseMethod")))()), "from base");

  auto method = cls.definedMethod(meta_method_untyped("grow")).as<I_Callable_Generic>();
  EXPECT_EQ(method.doc().toUtf8(), "Makes the widget larger.");
  EXPECT_EQ(qualname(method).toUtf8(), "tbld_widgets.Widget.grow");
  EXPECT_TRUE(method.declaringContext().isSame(cls));
  // An inherited method keeps the class that declared it.
  auto inherited = cls.definedMethod(meta_method_untyped("baseMethod")).as<I_Callable_Generic>();
  EXPECT_TRUE(inherited.declaringContext().isSame(widget_base()));
}

TEST(DeclaredClass, AppearsInItsModuleAndUnderFindType) {
  auto cls = widget();
  auto module = find_module(S("tbld_widgets"));
  ASSERT_TRUE(module.is<Module>());
  auto listed = module.as<Module>().classes().find(S("Widget"));
  EXPECT_TRUE(listed.isSame(cls));
  auto prop = property_of(module.as<Module>(), meta_property_untyped("Widget"));
  ASSERT_TRUE(prop.is<Property>());
  EXPECT_TRUE(unwrapped(prop.as<Property>().get(module.as<Module>())).isSame(cls));
  auto found = find_type(S("tbld_widgets.Widget"));
  ASSERT_TRUE(found.is<Type>());
  EXPECT_TRUE(found.as<Type>().isSame(cls));
  EXPECT_TRUE(cls.declaringContext().isSame(module.as<Module>()));
}

TEST(DeclaredClass, DeclarationWithoutANameIsAnError) {
  auto r = internal::defclass_impl({B::module_entry(S("tbld_widgets")), B::doc_entry(S("nameless"))});
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(error_text(r), "A class declaration needs a name.");
  auto empty = internal::defclass_impl({B::name_entry(String())});
  ASSERT_TRUE(empty.isError());
  EXPECT_EQ(error_text(empty), "A class declaration needs a name.");
}

TEST(DeclaredClass, UnknownEntryIsAnError) {
  auto r = internal::defclass_impl({B::name_entry(S("Odd")), Integer(1)});
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Unknown class declaration entry of class 'kest.Integer'.");
}

TEST(DeclaredClass, FlagsEntriesCombine) {
  auto cls = declare({S("Flagged"), B::flags_entry(class_flags::abstract), B::flags_entry(class_flags::sequence)});
  EXPECT_TRUE(cls.hasFlag(class_flags::abstract));
  EXPECT_TRUE(cls.hasFlag(class_flags::sequence));
  EXPECT_TRUE(cls.allocateInstance().isError());
}

TEST(DeclaredClass, DeclarationWorksAfterStartUp) {
  internal::run_init_handlers();
  auto before = internal::modules_version();
  auto cls = declare({S("LateComer"), B::module_entry(S("tbld_late")),
                      B::method_entry(meta_method_untyped("hello"), make_method([](Any) { return std::string("hi"); }))});
  EXPECT_GT(internal::modules_version(), before); // its module was registered now
  auto found = find_type(S("tbld_late.LateComer"));
  ASSERT_TRUE(found.is<Type>());
  EXPECT_TRUE(found.as<Type>().isSame(cls));
  auto obj = unwrapped(cls.allocateInstance());
  EXPECT_EQ(text_of(I_Callable_Generic::unsafeFrom(obj.boundMethod(meta_method_untyped("hello")))()), "hi");
}

TEST(DeclaredClass, ClassDerivedFromErrorMakesErrorsOfThatClass) {
  auto cls = declare({S("ParseFailure"), B::module_entry(S("tbld_errors")), B::base_entry(Error::getClass())});
  EXPECT_TRUE(cls.hasFlag(class_flags::error));
  auto e = Error::create(cls, S("unexpected token"));
  EXPECT_TRUE(Error::isInstance(e));
  EXPECT_TRUE(raw_class_of(e).isSame(cls));
  EXPECT_EQ(e.message().toUtf8(), "unexpected token");
  EXPECT_EQ(display(e).toUtf8(), "unexpected token");
  EXPECT_TRUE(Result<Any>(e).isError());
  EXPECT_FALSE(BadArgument::isInstance(e));

  auto narrower = declare({S("BadToken"), B::module_entry(S("tbld_errors")), B::base_entry(BadArgument::getClass())});
  auto b = Error::create(narrower, S("bad token"));
  EXPECT_TRUE(BadArgument::isInstance(b));
  EXPECT_TRUE(raw_class_of(b).isSame(narrower));
  EXPECT_EQ(b.message().toUtf8(), "bad token");

  auto not_error = Error::create(Class_Generic::create(S("NotAnError")), S("plain"));
  EXPECT_TRUE(raw_class_of(not_error).isSame(Error::getClass()));
  EXPECT_EQ(not_error.message().toUtf8(), "plain");
}

TEST(DeclaredClass, HiddenMemberNamesAreMarkedHidden) {
  auto cls = declare({S("WithHidden"), B::property_entry(meta_property_untyped("$$internal"),
                                                         Property::fromValue(S("internal"), Integer(1))),
                      B::property_entry(meta_property_untyped("visible"), Property::fromValue(S("visible"), Integer(2)))});
  auto hidden = cls.definedProperty(meta_property_untyped("internal"));
  ASSERT_TRUE(hidden.is<Property>());
  EXPECT_TRUE(hidden.as<Property>().hidden());
  auto visible = cls.definedProperty(meta_property_untyped("visible"));
  ASSERT_TRUE(visible.is<Property>());
  EXPECT_FALSE(visible.as<Property>().hidden());
}
