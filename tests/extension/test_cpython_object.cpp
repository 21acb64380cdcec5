// CPythonObject: a Python object's attributes as host properties and methods,
// its text and its order, the meta-methods that report nothing, the helper
// functions compiled from source text, and the failures of each.

#include "python_objects_test_support.hpp"

#include "proxies/cpython_object.hpp"
#include "proxies/python_call.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
kest::meta_property_untyped prop(const char* name) {
  return kest::meta_property_untyped(name);
}
kest::meta_method_untyped meth(const char* name) {
  return kest::meta_method_untyped(name);
}

/// The message of an error result; no Python error may be pending after it.
std::string failure_of(const kest::Any& result, const std::string& member) {
  expect_no_python_error(member);
  EXPECT_TRUE(kest::Error::isInstance(result))
      << member << " did not fail: " << class_name_of(result);
  return message_of(result);
}

/// The ordering of two values, keeping the error of a failing comparison.
kest::Any ordering_of(const kest::Any& a, const kest::Any& b) {
  return value_of(kest::internal::compare_objects_value(a, b));
}

int ordering_value(const kest::Any& ordering) {
  if (!kest::Ordering::isInstance(ordering)) {
    ADD_FAILURE() << "not an Ordering: " << class_name_of(ordering) << " (" << message_of(ordering)
                  << ")";
    return -99;
  }
  return kest::Ordering::unsafeFrom(ordering).value();
}

/// A wrapper made straight over the object of `expression`, whatever it is
/// (an int or a str, which conversion would turn into host values).
kest::Any plain_wrapper(python_scope& py, const std::string& expression) {
  return wrapper_over(cpythonObjectClass(), py.object(expression));
}

constexpr const char* counted_class =
    "calls = 0\n"
    "class Counted:\n"
    "    def __lt__(self, other):\n        global calls; calls += 1; return False\n"
    "    def __gt__(self, other):\n        global calls; calls += 1; return False\n"
    "    def __eq__(self, other):\n        global calls; calls += 1; return False\n"
    "    __hash__ = object.__hash__\n";

constexpr const char* point_class =
    "class Point:\n"
    "    def __init__(self):\n        self._x = 1\n        self.log = []\n"
    "    @property\n"
    "    def x(self):\n        self.log.append('get')\n        return self._x\n"
    "    @x.setter\n"
    "    def x(self, value):\n        self.log.append('set')\n        self._x = value\n"
    "    @property\n"
    "    def fixed(self):\n        return 42\n"
    "    def scaled(self, k):\n        return self._x * k\n"
    "    def __str__(self):\n        return f'Point({self._x})'\n";
} // namespace

// --- Comparison ------------------------------------------------------------------

TEST(CPythonObject, AWrapperComparedWithItselfIsEqualWithoutPythonComparison) {
  python_scope py;
  py.run(counted_class);
  py.run("c = Counted()\n");
  auto wrapper = py.host("c");
  ASSERT_TRUE(isPythonBacked(wrapper));
  EXPECT_EQ(ordering_value(ordering_of(wrapper, wrapper)), 0);
  EXPECT_EQ(py.integer("calls"), 0);
}

TEST(CPythonObject, TwoWrappersOfOnePythonObjectAreEqualWithoutPythonComparison) {
  python_scope py;
  py.run(counted_class);
  py.run("c = Counted()\n");
  auto first = py.host("c");
  auto second = py.host("c");
  ASSERT_FALSE(first.isSame(second));
  EXPECT_EQ(ordering_value(ordering_of(first, second)), 0);
  EXPECT_EQ(ordering_value(ordering_of(second, first)), 0);
  EXPECT_EQ(py.integer("calls"), 0);
}

TEST(CPythonObject, AWrapperComparedWithAHostIntegerOrdersByIdentityNeverByValue) {
  python_scope py;
  // It claims to be less and greater than everything; the host never asks it.
  py.run("calls = 0\nclass Boastful:\n"
         "    def __lt__(self, other):\n        global calls; calls += 1; return True\n"
         "    def __gt__(self, other):\n        global calls; calls += 1; return True\n");
  auto wrapper = py.host("Boastful()");
  for (std::int64_t n : {-1000000, 0, 5, 1000000}) {
    kest::Integer number(n);
    const auto by_identity =
        kest::Ordering::fromSign(kest::object_id(wrapper) - kest::object_id(number)).value();
    EXPECT_EQ(ordering_value(ordering_of(wrapper, number)), by_identity) << n;
  }
  EXPECT_EQ(py.integer("calls"), 0);
}

TEST(CPythonObject, OneAgainstTextFailsWithPythonsTypeErrorFromTheHelper) {
  python_scope py;
  auto one = plain_wrapper(py, "1");
  auto text = plain_wrapper(py, "'a'");
  auto r = ordering_of(one, text);
  py.run("try:\n    1 > 'a'\nexcept TypeError as e:\n    expected = str(e)\n");
  EXPECT_EQ(failure_of(r, "compare"), py.text("expected"));
  EXPECT_EQ(kest::compare_objects(one, text).value(), 2); // an error counts as unordered
}

TEST(CPythonObject, TwoNansFallThroughToTheHelperWhichCallsThemEqual) {
  python_scope py;
  py.run("a = float('nan')\nb = float('nan')\n");
  ASSERT_TRUE(py.truth("a is not b"));
  auto a = plain_wrapper(py, "a");
  auto b = plain_wrapper(py, "b");
  EXPECT_EQ(ordering_value(ordering_of(a, b)), 0);
  expect_no_python_error("compare");
}

TEST(CPythonObject, RichComparisonOrdersPythonObjects) {
  python_scope py;
  auto small = plain_wrapper(py, "2");
  auto big = plain_wrapper(py, "10");
  EXPECT_EQ(ordering_value(ordering_of(small, big)), -1);
  EXPECT_EQ(ordering_value(ordering_of(big, small)), 1);
  EXPECT_EQ(ordering_value(ordering_of(small, plain_wrapper(py, "2"))), 0);
  auto lists = py.host("[1, 2]");
  EXPECT_EQ(ordering_value(ordering_of(lists, py.host("[1, 3]"))), -1);
}

TEST(CPythonObject, AnObjectThatOrdersOnlyThroughTheHelperIsComparedByIt) {
  python_scope py;
  // No rich comparison answers True; the helper's "a > b" and "a < b" do.
  py.run("class Truthy:\n"
         "    def __init__(self, b):\n        self.b = b\n"
         "    def __bool__(self):\n        return self.b\n"
         "class Sly:\n"
         "    def __init__(self, v):\n        self.v = v\n"
         "    def __lt__(self, o):\n        return Truthy(self.v < o.v)\n"
         "    def __gt__(self, o):\n        return Truthy(self.v > o.v)\n");
  auto one = py.host("Sly(1)");
  auto two = py.host("Sly(2)");
  EXPECT_EQ(ordering_value(ordering_of(one, two)), -1);
  EXPECT_EQ(ordering_value(ordering_of(two, one)), 1);
}

// --- Properties --------------------------------------------------------------------

TEST(CPythonObject, APythonPropertyWithoutSetterGivesAHostPropertyWithoutSetter) {
  python_scope py;
  py.run(point_class);
  auto point = py.host("Point()");
  auto fixed = kest::property_of(point, prop("fixed"));
  ASSERT_TRUE(fixed.is<kest::Property>());
  EXPECT_FALSE(fixed.as<kest::Property>().setter().is<kest::I_Callable_Generic>());
  EXPECT_EQ(host_integer(value_of(fixed.as<kest::Property>().get(point))), 42);
  auto x = kest::property_of(point, prop("x"));
  ASSERT_TRUE(x.is<kest::Property>());
  EXPECT_TRUE(x.as<kest::Property>().setter().is<kest::I_Callable_Generic>());
}

TEST(CPythonObject, WritingAPropertyWithoutSetterFailsWithPythonsOwnText) {
  python_scope py;
  py.run(point_class);
  py.run("p = Point()\n");
  auto point = py.host("p");
  auto r = point.setPropertyValue(prop("fixed"), kest::Integer(1));
  py.run("try:\n    p.fixed = 1\nexcept AttributeError as e:\n    expected = str(e)\n");
  EXPECT_EQ(failure_of(r, "setPropertyValue"), py.text("expected"));
  EXPECT_EQ(host_integer(value_of(point.propertyValue(prop("fixed")))), 42);
}

TEST(CPythonObject, APythonPropertyIsReadAndWrittenFromTheHost) {
  python_scope py;
  py.run(point_class);
  py.run("p = Point()\n");
  auto point = py.host("p");
  EXPECT_EQ(host_integer(value_of(point.propertyValue(prop("x")))), 1);
  ASSERT_FALSE(point.setPropertyValue(prop("x"), kest::Integer(9)).isError());
  EXPECT_EQ(py.integer("p._x"), 9);
  EXPECT_EQ(host_integer(value_of(point.propertyValue(prop("x")))), 9);
  EXPECT_TRUE(py.truth("p.log == ['get', 'set', 'get']"));
  // through the host Property object as well
  auto x = kest::property_of(point, prop("x"));
  ASSERT_TRUE(x.is<kest::Property>());
  ASSERT_FALSE(x.as<kest::Property>().set(point, kest::Integer(11)).isError());
  EXPECT_EQ(host_integer(value_of(x.as<kest::Property>().get(point))), 11);
  EXPECT_EQ(py.integer("p._x"), 11);
}

TEST(CPythonObject, PlainAttributesAreReadAndWrittenAndAMissingOneIsPythonsError) {
  python_scope py;
  py.run("class Bag:\n    pass\nb = Bag()\nb.size = 3\n");
  auto bag = py.host("b");
  EXPECT_EQ(host_integer(value_of(bag.propertyValue(prop("size")))), 3);
  ASSERT_FALSE(bag.setPropertyValue(prop("colour"), kest::String(u"red")).isError());
  EXPECT_TRUE(py.truth("b.colour == 'red'"));
  auto missing = value_of(bag.propertyValue(prop("weight")));
  py.run("try:\n    b.weight\nexcept AttributeError as e:\n    expected = str(e)\n");
  EXPECT_EQ(failure_of(missing, "propertyValue"), py.text("expected"));
  // A plain attribute is a value property; a missing one is no property.
  auto size = kest::property_of(bag, prop("size"));
  ASSERT_TRUE(size.is<kest::Property>());
  EXPECT_TRUE(size.as<kest::Property>().isValueProperty());
  EXPECT_TRUE(kest::property_of(bag, prop("weight")).is<kest::None>());
  expect_no_python_error("property");
}

TEST(CPythonObject, ADeclaredReadOnlyPropertyIsReadOnly) {
  python_scope py;
  py.run("def named():\n    pass\n");
  auto function = py.host("named");
  auto r = function.setPropertyValue(prop("name"), kest::String(u"other"));
  EXPECT_EQ(failure_of(r, "setPropertyValue"),
            "The property 'name' is read-only for '" + kest::display(function).toUtf8() + "'.");
  EXPECT_TRUE(py.truth("named.__name__ == 'named'"));
}

// --- Meta-methods that report nothing ----------------------------------------------------

TEST(CPythonObject, OwnPropertiesAndOwnMethodsAreEmptyMaps) {
  python_scope py;
  py.run(point_class);
  for (const char* expression : {"Point()", "{'a': 1}", "[1]", "len", "__import__('math')"}) {
    SCOPED_TRACE(expression);
    auto wrapper = py.host(expression);
    for (const char* meta : {"$__ownProperties__", "$__ownMethods__"}) {
      auto map = call_meta(wrapper, meta);
      ASSERT_TRUE(kest::HashMap::isInstance(map)) << meta << ": " << class_name_of(map);
      EXPECT_EQ(kest::HashMap::unsafeFrom(map).length(), 0) << meta;
    }
  }
}

TEST(CPythonObject, RemovingAPropertyOrMethodIsFalseEvenForAnExistingAttribute) {
  python_scope py;
  py.run(point_class);
  py.run("p = Point()\n");
  auto point = py.host("p");
  EXPECT_FALSE(host_boolean(call_meta(point, "$__removeProperty__", {kest::String(u"_x")})));
  EXPECT_FALSE(host_boolean(call_meta(point, "$__removeMethod__", {kest::String(u"scaled")})));
  EXPECT_TRUE(py.truth("p._x == 1 and callable(p.scaled)"));
}

// --- Methods -----------------------------------------------------------------------------

TEST(CPythonObject, APythonMethodIsAHostCallable) {
  python_scope py;
  py.run(point_class);
  auto point = py.host("Point()");
  auto scaled = kest::method_of(point, meth("scaled"));
  ASSERT_TRUE(scaled.is<kest::I_Callable_Generic>());
  EXPECT_EQ(
      host_integer(value_of(scaled.as<kest::I_Callable_Generic>().callWith({kest::Integer(5)}))),
      5);
  EXPECT_TRUE(kest::method_of(point, meth("nothing_here")).is<kest::None>());
  EXPECT_TRUE(kest::method_of(point, meth("_x")).is<kest::None>()); // an attribute, but no callable
  expect_no_python_error("method");
}

TEST(CPythonObject, AMethodStoredOnTheHostSideOnlyShadowsThePythonAttribute) {
  python_scope py;
  py.run(point_class);
  py.run("p = Point()\n");
  auto point = py.host("p");
  auto host_side = kest::make_function([]() { return kest::String(u"from the host"); });
  ASSERT_FALSE(kest::raw_insert_method(point, meth("scaled"), host_side).isError());
  auto found = kest::method_of(point, meth("scaled"));
  ASSERT_TRUE(found.is<kest::I_Callable_Generic>());
  EXPECT_TRUE(found.as<kest::I_Callable_Generic>().isSame(host_side));
  auto own = call_meta(point, "$__ownMethod__", {kest::String(u"scaled")});
  EXPECT_TRUE(own.isSame(host_side));
  EXPECT_TRUE(py.truth("p.scaled(2) == 2")); // Python still sees its own method
}

TEST(CPythonObject, InsertingAMethodSetsAPythonAttributeThatPythonCanCall) {
  python_scope py;
  py.run("class Bag:\n    pass\nb = Bag()\n");
  auto bag = py.host("b");
  auto twice = kest::make_function([](std::int64_t n) { return n * 2; });
  auto r = call_meta(bag, "$__insertMethod__", {kest::String(u"twice"), twice});
  expect_no_python_error("insertMethod");
  EXPECT_TRUE(kest::None::isInstance(r) || r.empty()) << message_of(r);
  EXPECT_EQ(py.integer("b.twice(21)"), 42);
}

TEST(CPythonObject, InsertingAValuePropertySetsAPythonAttribute) {
  python_scope py;
  py.run("class Bag:\n    pass\nb = Bag()\n");
  auto bag = py.host("b");
  auto r = call_meta(
      bag, "$__insertProperty__",
      {kest::String(u"size"), kest::Property::fromValue(kest::String(u"size"), kest::Integer(8))});
  expect_no_python_error("insertProperty");
  EXPECT_FALSE(kest::Error::isInstance(r)) << message_of(r);
  EXPECT_EQ(py.integer("b.size"), 8);
}

TEST(CPythonObject, InsertingAnAccessorPropertyIsRefused) {
  python_scope py;
  py.run("class Bag:\n    pass\nb = Bag()\n");
  auto bag = py.host("b");
  kest::Property accessor(kest::String(u"size"),
                          kest::make_function([]() { return std::int64_t{1}; }));
  auto r = call_meta(bag, "$__insertProperty__", {kest::String(u"size"), accessor});
  EXPECT_EQ(
      failure_of(r, "insertProperty"),
      "Unable to insert non-value property to a python object, use 'raw_insert_property' instead.");
  EXPECT_FALSE(py.truth("hasattr(b, 'size')"));
}

// --- Text ----------------------------------------------------------------------------------

TEST(CPythonObject, DisplayIsPythonsStr) {
  python_scope py;
  py.run(point_class);
  EXPECT_EQ(kest::display(py.host("Point()")).toUtf8(), "Point(1)");
  EXPECT_EQ(kest::display(py.host("[1, 'a', None]")).toUtf8(), "[1, 'a', None]");
  EXPECT_EQ(kest::display(py.host("{'a': 1}")).toUtf8(), "{'a': 1}");
}

TEST(CPythonObject, AStrThatRaisesMakesDisplayFailWithPythonsError) {
  python_scope py;
  py.run("class Mute:\n    def __str__(self):\n        raise ValueError('no words')\n");
  auto r = call_meta(py.host("Mute()"), "$__display__");
  EXPECT_EQ(failure_of(r, "display"), "no words");
}

// --- A wrapper without a Python object -------------------------------------------------------

TEST(CPythonObject, AWrapperWithoutAnObjectFailsGetAndSetAndHasNoMembers) {
  ensurePythonReady();
  auto hollow = empty_wrapper(cpythonObjectClass());
  EXPECT_EQ(failure_of(value_of(hollow.propertyValue(prop("x"))), "propertyValue"),
            "The object is null.");
  EXPECT_EQ(failure_of(hollow.setPropertyValue(prop("x"), kest::Integer(1)), "setPropertyValue"),
            "The object is null.");
  EXPECT_TRUE(kest::property_of(hollow, prop("x")).is<kest::None>());
  EXPECT_TRUE(kest::method_of(hollow, meth("x")).is<kest::None>());
  auto own = call_meta(hollow, "$__ownProperty__", {kest::String(u"x")});
  EXPECT_TRUE(kest::None::isInstance(own) || own.empty()) << class_name_of(own);
  EXPECT_EQ(failure_of(call_meta(hollow, "$__display__"), "display"), "The object is null.");
  expect_no_python_error("members of a hollow wrapper");
}

// --- Helper functions compiled from source text ---------------------------------------------

TEST(HelperFunction, ALambdaIsEvaluatedAsAnExpression) {
  ensurePythonReady();
  auto fn = compileHelperFunction(kest::String(u"  lambda a, b: a * b  "));
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(fn)) << message_of(fn);
  EXPECT_TRUE(is_of_class(fn, cpythonFunctionClass()));
  EXPECT_TRUE(kest::I_Callable_Generic::unsafeFrom(fn).isIndependent());
  EXPECT_EQ(host_integer(value_of(kest::I_Callable_Generic::unsafeFrom(fn).callWith(
                {kest::Integer(6), kest::Integer(7)}))),
            42);
}

TEST(HelperFunction, ADefIsFoundByItsName) {
  ensurePythonReady();
  auto fn = compileHelperFunction(kest::String(u"def   add (a, b):\n    return a + b\n"));
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(fn)) << message_of(fn);
  auto callable = kest::I_Callable_Generic::unsafeFrom(fn);
  EXPECT_EQ(callable.name().toUtf8(), "add");
  EXPECT_EQ(host_integer(value_of(callable.callWith({kest::Integer(2), kest::Integer(3)}))), 5);
}

TEST(HelperFunction, ADefWithHelpersAroundItIsFoundByTheFirstName) {
  ensurePythonReady();
  auto fn = compileHelperFunction(
      kest::String(u"def outer(x):\n    return inner(x) + 1\ndef inner(x):\n    return x * 10"));
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(fn)) << message_of(fn);
  EXPECT_EQ(kest::I_Callable_Generic::unsafeFrom(fn).name().toUtf8(), "outer");
  EXPECT_EQ(
      host_integer(value_of(kest::I_Callable_Generic::unsafeFrom(fn).callWith({kest::Integer(4)}))),
      41);
}

TEST(HelperFunction, ABareBodyBecomesFuncOfStarArgs) {
  ensurePythonReady();
  auto fn = compileHelperFunction(
      kest::String(u"total = 0\nfor a in args:\n    total += a\nreturn total"));
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(fn)) << message_of(fn);
  auto callable = kest::I_Callable_Generic::unsafeFrom(fn);
  EXPECT_EQ(callable.name().toUtf8(), "func");
  EXPECT_TRUE(callable.hasVariadicParameters());
  EXPECT_EQ(host_integer(value_of(
                callable.callWith({kest::Integer(1), kest::Integer(2), kest::Integer(3)}))),
            6);
}

TEST(HelperFunction, TextThatOnlyLooksLikeADefIsABody) {
  ensurePythonReady();
  // "define" has no blank after "def": the text is a body.
  auto fn = compileHelperFunction(kest::String(u"define = len(args)\nreturn define"));
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(fn)) << message_of(fn);
  EXPECT_EQ(kest::I_Callable_Generic::unsafeFrom(fn).name().toUtf8(), "func");
  EXPECT_EQ(host_integer(value_of(kest::I_Callable_Generic::unsafeFrom(fn).callWith(
                {kest::Integer(1), kest::Integer(1)}))),
            2);
}

TEST(HelperFunction, SourceThatDoesNotRunIsUnableToCompile) {
  ensurePythonReady();
  for (const char16_t* source : {u"def broken(:\n    pass", u"lambda x: )", u"return (",
                                 u"def f(x):\n    return x\nraise ValueError()"}) {
    auto fn = compileHelperFunction(kest::String(source));
    EXPECT_EQ(failure_of(fn, "compile"), "Unable to compile the function.")
        << kest::String(source).toUtf8();
  }
}

TEST(HelperFunction, ANameThatIsNotDefinedOrNotCallableIsNotFound) {
  ensurePythonReady();
  auto rebound = compileHelperFunction(kest::String(u"def f(x):\n    return x\nf = 3"));
  EXPECT_EQ(failure_of(rebound, "compile"), "Unable to find the function: f.");
  auto deleted = compileHelperFunction(kest::String(u"def g(x):\n    return x\ndel g"));
  EXPECT_EQ(failure_of(deleted, "compile"), "Unable to find the function: g.");
}

// --- reaching the Python object of an entry -------------------------------------------

TEST(CPythonObject, AnEntryThroughAWeakReferenceReachesTheWrappedObject) {
  python_scope py;
  py.run("numbers = [4, 5, 6]");
  auto wrapper = py.host("numbers");
  const kest::WeakReference weak(wrapper);
  EXPECT_EQ(PythonTarget(weak).object(), held_by(wrapper));
  EXPECT_FALSE(PythonTarget(weak).sandboxed());
  auto length = value_of(callPythonMethod(weak, "__len__", {}));
  EXPECT_EQ(host_integer(length), 3);
  expect_no_python_error("the call through a weak reference");
}

TEST(CPythonObject, AnEntryForAValueThatWrapsNothingHasNoObject) {
  python_scope py;
  EXPECT_EQ(PythonTarget(kest::Integer(3)).object(), nullptr);
  EXPECT_EQ(PythonTarget(kest::Any()).object(), nullptr);
  EXPECT_EQ(PythonTarget().object(), nullptr);
  auto result = value_of(callPythonMethod(kest::Integer(3), "__len__", {}));
  ASSERT_TRUE(kest::Error::isInstance(result));
  EXPECT_EQ(message_of(result), "The object is null.");
  expect_no_python_error("the call on a value that wraps nothing");
}
