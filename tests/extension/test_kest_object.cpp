// KestObject: the Python types of host classes, the instance layout, text,
// attributes, hashing, comparison, iteration, calls, the double-underscore attributes,
// deallocation and the balance of made and freed wrappers.

#include "host_object_test_support.hpp"

#include "convert/to_python.hpp"
#include "language/exception_types.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/type_for_class.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
constexpr const char *module_name = "tko";

/// The Python type of a host class (a new reference); null fails the test.
py::object type_of_class(const kest::Class_Generic &cls) {
  auto type = py::object::steal(reinterpret_cast<PyObject *>(typeForClass(cls)));
  if (!type) {
    PyErr_Print();
    ADD_FAILURE() << "typeForClass failed";
  }
  return type;
}

/// The name of a type through PyType_GetName.
std::string type_name(PyObject *type) {
  auto name = py::object::steal(PyType_GetName(reinterpret_cast<PyTypeObject *>(type)));
  if (!name) {
    PyErr_Clear();
    return {};
  }
  return utf8_of(name.get());
}

/// The Python form of a host value (a new reference); null fails the test.
py::object wrap(const kest::Any &value) {
  auto object = py::object::steal(toPython(value));
  if (!object) {
    PyErr_Print();
    ADD_FAILURE() << "toPython failed";
  }
  return object;
}

PyObject *type_object(PyObject *object) { return reinterpret_cast<PyObject *>(Py_TYPE(object)); }

kest::Class_Generic plain_class(const char *name, const char *module = module_name) {
  return declare_class({S(name), B::module_entry(S(module))});
}

/// An immutable class holding one integer, hashed and compared by it.
kest::Class_Generic coin_class(const char *name) {
  return declare_class(
      {S(name), B::module_entry(S(module_name)), B::base_entry(kest::I_Immutable::getClass()),
       B::field_entry(S("$_v"), 0, &kest::Integer::getType),
       method_entry("$__hash__", kest::make_method([](kest::Any self) {
                      return kest::Integer::unsafeFrom(field_of(self, "$_v")).value();
                    })),
       method_entry("$__compare__", kest::make_method([](kest::Any self, kest::Any other) -> kest::Any {
                      if (kest::raw_class_of(other).isSame(kest::raw_class_of(self)) == false)
                        return kest::Integer(2);
                      const auto a = kest::Integer::unsafeFrom(field_of(self, "$_v")).value();
                      const auto b = kest::Integer::unsafeFrom(field_of(other, "$_v")).value();
                      return kest::Integer(a < b ? -1 : a > b ? 1 : 0);
                    }),
                    "other")});
}

kest::Any coin(const kest::Class_Generic &cls, std::int64_t v) {
  auto c = make_instance(cls);
  set_field(c, "$_v", kest::Integer(v));
  return c;
}

/// An iterator class counting down from its field "$_n"; "next" gives
/// `on_end` when the count reached zero.
kest::Class_Generic countdown_class(const char *name, kest::Any on_end) {
  return declare_class({S(name), B::module_entry(S(module_name)), B::base_entry(kest::I_Iterator::getClass()),
                        B::field_entry(S("$_n"), 0, &kest::Integer::getType),
                        method_entry("next", kest::make_method([on_end](kest::Any self) -> kest::Any {
                                       const auto n = kest::Integer::unsafeFrom(field_of(self, "$_n")).value();
                                       if (n <= 0)
                                         return on_end;
                                       set_field(self, "$_n", kest::Integer(n - 1));
                                       return kest::Integer(n);
                                     }))});
}

/// A function "combine(a, b)" giving a * 10 + b, with documentation.
kest::I_Callable_Generic combine_function() {
  kest::internal::method_builder_base builder{S("combine")};
  builder.assign_func(kest::make_function([](std::int64_t a, std::int64_t b) { return a * 10 + b; }));
  builder.signature(S("a, b"));
  builder.assign_doc(S("Combines two digits."));
  return builder.callable();
}

/// A class with a field "count", a method "ping", a read-only property "level",
/// a read-write property "mood" and a property "strict" whose setter fails.
kest::Class_Generic gadget_class(const char *name) {
  return declare_class(
      {S(name), B::module_entry(S(module_name)), B::field_entry(S("count"), 0, &kest::Integer::getType),
       B::field_entry(S("$_mood"), 0, &kest::String::getType),
       method_entry("ping", kest::make_method([](kest::Any) { return std::string("pong"); })),
       property_entry("level", kest::make_method([](kest::Any) { return std::int64_t{3}; })),
       property_entry("mood", kest::make_method([](kest::Any self) { return field_of(self, "$_mood"); }),
                      kest::make_method([](kest::Any self, kest::Any v) { set_field(self, "$_mood", v); })),
       property_entry("strict", kest::make_method([](kest::Any) { return std::int64_t{0}; }),
                      kest::make_method([](kest::Any, kest::Any) -> kest::Any { return kest::Error("too high"); }))});
}
} // namespace

// --- the type family -------------------------------------------------------------

TEST(KestObject, TwoNamedClassesGiveTwoTypesNamedAfterTheirQualifiedNames) {
  ensurePythonReady();
  py::gil lock;
  auto thing = plain_class("Thing", "tko.sub");
  auto other = plain_class("Other");
  auto thing_type = type_of_class(thing);
  auto other_type = type_of_class(other);
  ASSERT_TRUE(thing_type && other_type);
  EXPECT_NE(thing_type.get(), other_type.get());
  EXPECT_EQ(type_name(thing_type.get()), "kest~tko`sub`Thing");
  EXPECT_EQ(type_name(other_type.get()), "kest~tko`Other");
  EXPECT_EQ(text_attribute(thing_type.get(), "__name__"), "kest~tko`sub`Thing");

  // Instances carry the type of their class.
  auto instance = wrap(make_instance(thing));
  ASSERT_TRUE(instance);
  EXPECT_EQ(type_object(instance.get()), thing_type.get());
}

TEST(KestObject, TheSameClassGivesTheSameTypeEveryTime) {
  ensurePythonReady();
  py::gil lock;
  auto cls = plain_class("Repeated");
  auto first = type_of_class(cls);
  auto second = type_of_class(cls);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first.get(), second.get());
  auto a = wrap(make_instance(cls));
  auto b = wrap(make_instance(cls));
  ASSERT_TRUE(a && b);
  EXPECT_EQ(type_object(a.get()), first.get());
  EXPECT_EQ(type_object(b.get()), first.get());
}

TEST(KestObject, ANamedClassTypeDerivesFromTheBaseType) {
  ensurePythonReady();
  py::gil lock;
  auto type = type_of_class(plain_class("Derived"));
  ASSERT_TRUE(type);
  PyTypeObject *base = kestObjectBaseType();
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(type_name(reinterpret_cast<PyObject *>(base)), ">KestObject");
  EXPECT_TRUE(PyType_IsSubtype(reinterpret_cast<PyTypeObject *>(type.get()), base));
  auto direct_base = py::object::steal(PyObject_GetAttrString(type.get(), "__base__"));
  ASSERT_TRUE(direct_base);
  EXPECT_EQ(direct_base.get(), reinterpret_cast<PyObject *>(base));
}

TEST(KestObject, AnonymousClassesShareTypesNamedKestObject) {
  ensurePythonReady();
  py::gil lock;
  auto first = kest::Class_Generic::create(S("LooseFirst"));
  auto second = kest::Class_Generic::create(S("LooseSecond"));
  auto a = wrap(make_instance(first));
  auto b = wrap(make_instance(second));
  ASSERT_TRUE(a && b);
  EXPECT_EQ(type_object(a.get()), type_object(b.get()));
  EXPECT_EQ(type_name(type_object(a.get())), ">KestObject");
  EXPECT_TRUE(isKestObject(a.get()));
  auto first_type = type_of_class(first);
  ASSERT_TRUE(first_type);
  EXPECT_EQ(first_type.get(), type_object(a.get()));
}

TEST(KestObject, AClassWithANamedParentButNoModuleGetsATypeOfItsOwn) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("ParentNamed"), B::base_entry(kest::I_Iterator::getClass())});
  auto type = type_of_class(cls);
  ASSERT_TRUE(type);
  EXPECT_EQ(type_name(type.get()), "kest~ParentNamed");
}

TEST(KestObject, MakingATypeUnderWarningsAsErrorsRaisesNothingAndKeepsTheFilters) {
  // A type name without a module part warns (DeprecationWarning); the
  // extension holds that back while it makes the type, whatever the filters
  // say, and puts them back as they were.
  ensurePythonReady();
  py::gil lock;
  auto warnings = py::object::steal(PyImport_ImportModule("warnings"));
  ASSERT_TRUE(warnings);
  auto filters = py::object::steal(PyObject_GetAttrString(warnings.get(), "filters"));
  ASSERT_TRUE(filters && PyList_Check(filters.get()));
  auto saved = py::object::steal(PySequence_List(filters.get()));
  auto error = py::object::steal(PyObject_CallMethod(warnings.get(), "simplefilter", "s", "error"));
  ASSERT_TRUE(error);
  auto before = py::object::steal(PySequence_Tuple(filters.get()));

  auto cls = declare_class({S("UnderWarningsAsErrors"), B::base_entry(kest::I_Iterator::getClass())});
  auto type = type_of_class(cls);
  EXPECT_TRUE(type);
  EXPECT_FALSE(PyErr_Occurred());
  PyErr_Clear();
  auto after = py::object::steal(PySequence_Tuple(filters.get()));
  ASSERT_TRUE(before && after);
  EXPECT_EQ(PyObject_RichCompareBool(before.get(), after.get(), Py_EQ), 1);

  ASSERT_EQ(PyList_SetSlice(filters.get(), 0, PyList_Size(filters.get()), saved.get()), 0);
  auto changed = py::object::steal(PyObject_CallMethod(warnings.get(), "_filters_mutated", nullptr));
  PyErr_Clear();
}

TEST(KestObject, AFreedClassDoesNotLendItsTypeToALaterClass) {
  ensurePythonReady();
  py::gil lock;
  // Classes with a named parent and no module are held by no module: unless
  // the type cache keeps them, dropping the handle frees them and the
  // allocator hands the same address to the next class.
  for (int i = 0; i < 50; ++i) {
    const std::string name = "Transient" + std::to_string(i);
    auto cls = declare_class({S(name), B::base_entry(kest::I_Iterator::getClass())});
    auto type = type_of_class(cls);
    ASSERT_TRUE(type);
    EXPECT_EQ(type_name(type.get()), "kest~" + name) << "round " << i;
  }
}

TEST(KestObject, TheTypeDocumentationIsTheClassDocumentation) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("Documented"), B::module_entry(S(module_name)), B::doc_entry(S("A documented thing."))});
  auto type = type_of_class(cls);
  ASSERT_TRUE(type);
  EXPECT_EQ(text_attribute(type.get(), "__doc__"), "A documented thing.");
  auto other = type_of_class(declare_class(
      {S("OtherDocumented"), B::module_entry(S(module_name)), B::doc_entry(S("Another text."))}));
  ASSERT_TRUE(other);
  EXPECT_EQ(text_attribute(other.get(), "__doc__"), "Another text.");
}

// --- layout --------------------------------------------------------------------------

TEST(KestObject, AnInstanceIsAHeaderAPointerAndItsWeakReferences) {
  ensurePythonReady();
  py::gil lock;
  // The value's pointer, and the list Python keeps of weak references to the object.
  const auto expected = static_cast<long long>(sizeof(PyObject) + 2 * sizeof(void *));
  auto base_size = py::object::steal(PyObject_GetAttrString(reinterpret_cast<PyObject *>(kestObjectBaseType()), "__basicsize__"));
  ASSERT_TRUE(base_size);
  EXPECT_EQ(long_of(base_size.get()), expected);

  py_namespace ns;
  ns.set("thing", make_instance(plain_class("Sized")));
  ASSERT_TRUE(ns.run("import sys\nsize = sys.getsizeof(thing)\nbasic = type(thing).__basicsize__"));
  EXPECT_EQ(long_of(ns.get("size").get()), expected);
  EXPECT_EQ(long_of(ns.get("basic").get()), expected);
  EXPECT_TRUE(ns.truth("type(thing).__itemsize__ == 0"));
}

// --- text -----------------------------------------------------------------------------

TEST(KestObject, StrOfANonCoercibleValueIsItsDisplayText) {
  ensurePythonReady();
  py::gil lock;
  auto plain = make_instance(plain_class("Shown"));
  auto custom = make_instance(declare_class(
      {S("CustomShown"), B::module_entry(S(module_name)),
       method_entry("$__display__", kest::make_method([](kest::Any) { return std::string("a custom display"); }))}));
  py_namespace ns;
  ns.set("plain", plain);
  ns.set("custom", custom);
  EXPECT_EQ(ns.text("str(plain)"), shown(plain));
  EXPECT_EQ(ns.text("str(plain)"), "<tko.Shown object>");
  EXPECT_EQ(ns.text("str(custom)"), "a custom display");
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(KestObject, StrOfACoercibleHostValueIsItsText) {
  ensurePythonReady();
  py::gil lock;
  auto computed = kest::Computed<kest::Integer>::create([]() -> kest::Result<kest::Integer> { return kest::Integer(42); });
  auto object = wrap(computed);
  ASSERT_TRUE(object);
  ASSERT_TRUE(isKestObject(object.get())) << "the computed value should stay a KestObject";
  auto text = py::object::steal(PyObject_Str(object.get()));
  ASSERT_TRUE(text) << "str() raised";
  EXPECT_TRUE(PyUnicode_Check(text.get()));
  EXPECT_EQ(utf8_of(text.get()), "42");
}

// --- attributes ----------------------------------------------------------------------

TEST(KestObject, AnUnderscoreAttributeNeverReachesTheHostObject) {
  ensurePythonReady();
  py::gil lock;
  auto reads = std::make_shared<std::atomic<int>>(0);
  auto cls = declare_class({S("Secretive"), B::module_entry(S(module_name)),
                            property_entry("_x", kest::make_method([reads](kest::Any) {
                                             ++*reads;
                                             return std::int64_t{7};
                                           })),
                            property_entry("x", kest::make_method([](kest::Any) { return std::int64_t{5}; }))});
  auto value = make_instance(cls);
  ASSERT_TRUE(kest::property_of(value, kest::meta_property_untyped("_x")).is<kest::Property>());
  py_namespace ns;
  ns.set("obj", value);
  auto visible = ns.eval("obj.x");
  ASSERT_TRUE(visible);
  EXPECT_EQ(long_of(visible.get()), 5);
  auto error = ns.run_raising("obj._x");
  EXPECT_TRUE(error.is_a(PyExc_AttributeError)) << error.type_name() << ": " << error.message();
  EXPECT_EQ(reads->load(), 0);
  EXPECT_FALSE(ns.truth("hasattr(obj, '_x')"));
}

TEST(KestObject, AnUnknownAttributeRaisesAttributeError) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("PlainGadget"));
  py_namespace ns;
  ns.set("obj", value);
  auto error = ns.run_raising("obj.nothing_like_this");
  EXPECT_TRUE(error.is_exactly(PyExc_AttributeError)) << error.type_name();
  EXPECT_NE(error.message().find("nothing_like_this"), std::string::npos) << error.message();
  EXPECT_TRUE(ns.truth("getattr(obj, 'nothing_like_this', 'fallback') == 'fallback'"));
  EXPECT_EQ(ns.text("obj.ping()"), "pong");
}

TEST(KestObject, AssigningAReadOnlyPropertyRaisesRuntimeErrorNamingIt) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("ReadOnlyGadget"));
  py_namespace ns;
  ns.set("obj", value);
  auto error = ns.run_raising("obj.level = 9");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message(), "Read-only attribute: level.");
  auto still = ns.eval("obj.level");
  ASSERT_TRUE(still);
  EXPECT_EQ(long_of(still.get()), 3);
}

TEST(KestObject, AssigningAnUnknownNameAddsAPropertyToThatObject) {
  ensurePythonReady();
  py::gil lock;
  auto cls = gadget_class("OpenGadget");
  auto value = make_instance(cls);
  auto other = make_instance(cls);
  py_namespace ns;
  ns.set("obj", value);
  ASSERT_TRUE(ns.run("obj.extra = 11"));
  auto own = kest::own_properties_of(value);
  ASSERT_EQ(own.size(), 1u);
  EXPECT_EQ(own[0].name().toUtf8(), "extra");
  auto stored = kest::internal::result_unwrap_lazy(own[0].get(value));
  ASSERT_TRUE(kest::Integer::isInstance(stored));
  EXPECT_EQ(kest::Integer::unsafeFrom(stored).value(), 11);
  EXPECT_TRUE(kest::own_properties_of(other).empty()) << "only the assigned object gains the property";
  auto back = ns.eval("obj.extra");
  ASSERT_TRUE(back);
  EXPECT_EQ(long_of(back.get()), 11);
}

TEST(KestObject, AssigningAFieldWritesTheField) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("FieldGadget"));
  py_namespace ns;
  ns.set("obj", value);
  ASSERT_TRUE(ns.run("obj.count = 4"));
  auto stored = field_of(value, "count");
  ASSERT_TRUE(kest::Integer::isInstance(stored));
  EXPECT_EQ(kest::Integer::unsafeFrom(stored).value(), 4);
  EXPECT_TRUE(kest::own_properties_of(value).empty());
  auto back = ns.eval("obj.count");
  ASSERT_TRUE(back);
  EXPECT_EQ(long_of(back.get()), 4);
}

TEST(KestObject, AssigningAFieldAValueOfTheWrongTypeRaisesRuntimeErrorNamingIt) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("TypedFieldGadget"));
  py_namespace ns;
  ns.set("obj", value);
  auto error = ns.run_raising("obj.count = 'many'");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message().rfind("count: ", 0), 0u) << error.message();
  EXPECT_TRUE(field_of(value, "count").empty() || kest::is_none(field_of(value, "count")));
}

TEST(KestObject, AReadWritePropertyTakesTheValueThroughItsSetter) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("MoodGadget"));
  py_namespace ns;
  ns.set("obj", value);
  ASSERT_TRUE(ns.run("obj.mood = 'calm'"));
  auto stored = field_of(value, "$_mood");
  ASSERT_TRUE(kest::String::isInstance(stored));
  EXPECT_EQ(kest::String::unsafeFrom(stored).toUtf8(), "calm");
  EXPECT_TRUE(kest::own_properties_of(value).empty());
}

TEST(KestObject, ASetterThatReturnsAnErrorRaisesRuntimeErrorWithNameAndMessage) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("StrictGadget"));
  py_namespace ns;
  ns.set("obj", value);
  auto error = ns.run_raising("obj.strict = 5");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message(), "strict: too high.");
}

TEST(KestObject, TheSetAttributeSlotReportsAFailureWhenTheNameCannotBeRead) {
  ensurePythonReady();
  py::gil lock;
  auto object = wrap(make_instance(gadget_class("UnreadableNameGadget")));
  ASSERT_TRUE(object);
  auto name = eval_py("'bad\\udcffname'"); // a lone surrogate has no UTF-8 form
  ASSERT_TRUE(name);
  auto slot = reinterpret_cast<setattrofunc>(PyType_GetSlot(Py_TYPE(object.get()), Py_tp_setattro));
  ASSERT_NE(slot, nullptr);
  auto value = py::object::steal(PyLong_FromLong(1));
  const int result = slot(object.get(), name.get(), value.get());
  const bool error_set = PyErr_Occurred() != nullptr;
  EXPECT_EQ(result == -1, error_set) << "an exception must be set exactly when -1 is returned";
  EXPECT_EQ(result, -1);
  PyErr_Clear();

  py_namespace ns;
  ns.set_object("obj", object.get());
  auto error = ns.run_raising("setattr(obj, 'bad\\udcffname', 1)");
  EXPECT_TRUE(error.is_a(PyExc_UnicodeEncodeError)) << error.type_name() << ": " << error.message();
}

// --- hashing and comparison ---------------------------------------------------------------

TEST(KestObject, EqualImmutableHostValuesHashEqually) {
  ensurePythonReady();
  py::gil lock;
  auto cls = coin_class("Coin");
  py_namespace ns;
  ns.set("a", coin(cls, 7));
  ns.set("b", coin(cls, 7));
  ns.set("c", coin(cls, 8));
  ASSERT_TRUE(ns.truth("a is not b"));
  EXPECT_TRUE(ns.truth("a == b"));
  EXPECT_TRUE(ns.truth("hash(a) == hash(b)"));
  auto h = ns.eval("hash(a)");
  ASSERT_TRUE(h);
  EXPECT_EQ(long_of(h.get()), 7) << "the host hash decides";
  auto other = ns.eval("hash(c)");
  ASSERT_TRUE(other);
  EXPECT_EQ(long_of(other.get()), 8);
  EXPECT_TRUE(ns.truth("len({a, b, c}) == 2"));
}

TEST(KestObject, AHostHashOfMinusOneBecomesMinusTwo) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("MinusOneHash"), B::module_entry(S(module_name)), B::base_entry(kest::I_Immutable::getClass()),
                            method_entry("$__hash__", kest::make_method([](kest::Any) { return std::int64_t{-1}; }))});
  auto object = wrap(make_instance(cls));
  ASSERT_TRUE(object);
  const Py_hash_t h = PyObject_Hash(object.get());
  EXPECT_EQ(h, -2);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  PyErr_Clear();
}

TEST(KestObject, DistinctMutableHostObjectsWithEqualContentHashDifferently) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ns.set("a", kest::List());
  ns.set("b", kest::List());
  ASSERT_TRUE(isKestObject(ns.get("a").get()));
  ASSERT_TRUE(isKestObject(ns.get("b").get()));
  EXPECT_TRUE(ns.truth("a == b")) << "two empty lists compare equal";
  EXPECT_TRUE(ns.truth("hash(a) != hash(b)"));
  EXPECT_TRUE(ns.truth("hash(a) == hash(a)"));
}

TEST(KestObject, UnorderedHostValuesAreOnlyUnequal) {
  ensurePythonReady();
  py::gil lock;
  auto cls = plain_class("Unordered");
  auto first = make_instance(cls);
  auto second = make_instance(cls);
  ASSERT_EQ(kest::compare_objects(first, second).value(), 2);
  py_namespace ns;
  ns.set("a", first);
  ns.set("b", second);
  EXPECT_FALSE(ns.truth("a == b"));
  EXPECT_TRUE(ns.truth("a != b"));
  EXPECT_FALSE(ns.truth("a < b"));
  EXPECT_FALSE(ns.truth("a <= b"));
  EXPECT_FALSE(ns.truth("a > b"));
  EXPECT_FALSE(ns.truth("a >= b"));
  EXPECT_TRUE(ns.truth("a == a"));
  EXPECT_TRUE(ns.truth("(a == b) is False and (a != b) is True"));
}

// --- iteration ------------------------------------------------------------------------------

TEST(KestObject, IterOfANonIterableHostObjectRaisesTypeError) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(plain_class("NotIterable"));
  py_namespace ns;
  ns.set("obj", value);
  auto error = ns.run_raising("iter(obj)");
  EXPECT_TRUE(error.is_exactly(PyExc_TypeError)) << error.type_name();
  const auto text = error.message();
  const std::string suffix = "' object is not iterable.";
  EXPECT_EQ(text.rfind("'", 0), 0u) << text;
  ASSERT_GE(text.size(), suffix.size());
  EXPECT_EQ(text.substr(text.size() - suffix.size()), suffix) << text;
  EXPECT_NE(text.find("NotIterable"), std::string::npos) << text;
}

TEST(KestObject, AHostIteratorEndingWithStopIterationEndsAForLoop) {
  ensurePythonReady();
  py::gil lock;
  auto cls = countdown_class("Countdown", kest::StopIteration());
  auto it = make_instance(cls);
  set_field(it, "$_n", kest::Integer(3));
  py_namespace ns;
  ns.set("it", it);
  ASSERT_TRUE(ns.run("seen = []\nfor x in it:\n    seen.append(x)\nfinished = True"));
  EXPECT_TRUE(ns.truth("seen == [3, 2, 1]"));
  EXPECT_TRUE(ns.truth("finished"));
  EXPECT_TRUE(ns.truth("iter(it) is it"));
}

TEST(KestObject, AHostIteratorFailingWithAnotherErrorRaisesRuntimeError) {
  ensurePythonReady();
  py::gil lock;
  auto cls = countdown_class("BrokenCountdown", kest::Error("the counter broke"));
  auto it = make_instance(cls);
  set_field(it, "$_n", kest::Integer(2));
  py_namespace ns;
  ns.set("it", it);
  ns.run("seen = []");
  auto error = ns.run_raising("for x in it:\n    seen.append(x)");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message(), "the counter broke");
  EXPECT_TRUE(ns.truth("seen == [2, 1]"));
}

TEST(KestObject, AHostIterableGivesItsElementsToAForLoop) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ns.set("items", kest::List({kest::Integer(1), kest::String(u"two")}));
  ASSERT_TRUE(isKestObject(ns.get("items").get()));
  ASSERT_TRUE(ns.run("seen = [x for x in items]"));
  EXPECT_TRUE(ns.truth("seen == [1, 'two']"));
}

// --- calls ------------------------------------------------------------------------------------

TEST(KestObject, PositionalAndKeywordArgumentsReachTheHostCallable) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ns.set("combine", combine_function());
  auto positional = ns.eval("combine(1, 2)");
  auto mixed = ns.eval("combine(1, b=2)");
  auto named = ns.eval("combine(b=2, a=1)");
  ASSERT_TRUE(positional && mixed && named);
  EXPECT_EQ(long_of(positional.get()), 12);
  EXPECT_EQ(long_of(mixed.get()), 12);
  EXPECT_EQ(long_of(named.get()), 12);
  auto swapped = ns.eval("combine(b=1, a=2)");
  ASSERT_TRUE(swapped);
  EXPECT_EQ(long_of(swapped.get()), 21);
}

TEST(KestObject, CallingANonCallableHostObjectRaisesRuntimeError) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(plain_class("NotCallable"));
  py_namespace ns;
  ns.set("obj", value);
  ASSERT_TRUE(ns.truth("callable(obj)")) << "named types have the call slot";
  auto error = ns.run_raising("obj()");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message().rfind("Non-callable object: ", 0), 0u) << error.message();
  EXPECT_EQ(error.message(), "Non-callable object: " + shown(value));
}

TEST(KestObject, AHostErrorResultRaisesTheMappedException) {
  ensurePythonReady();
  py::gil lock;
  auto error_class = declare_class({S("GadgetError"), B::base_entry(kest::Error::getClass()), B::module_entry(S(module_name))});
  auto failing = kest::make_function([error_class]() -> kest::Any {
    return kest::Error::create(error_class, S("the gadget failed"));
  });
  auto plain_failing = kest::make_function([]() -> kest::Any { return kest::Error("plainly failed"); });
  py_namespace ns;
  ns.set("failing", failing);
  ns.set("plain_failing", plain_failing);

  PyObject *mapped = exceptionTypeFor(error_class);
  ASSERT_NE(mapped, nullptr);
  auto error = ns.run_raising("failing()");
  EXPECT_TRUE(error.is_exactly(mapped)) << error.type_name();
  EXPECT_TRUE(error.is_a(PyExc_RuntimeError));
  // The exception carries the host error, whose text is the message.
  ASSERT_TRUE(error);
  ns.set_object("caught", error.exception.get());
  EXPECT_EQ(ns.text("str(caught.kest)"), "the gadget failed");

  auto plain = ns.run_raising("plain_failing()");
  EXPECT_TRUE(plain.is_exactly(PyExc_RuntimeError)) << plain.type_name();
  EXPECT_EQ(plain.message(), "plainly failed");
}

// --- double-underscore attributes ---------------------------------------------------------------------

TEST(KestObject, AHostCallableHasItsDocumentationAsDoc) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ns.set("combine", combine_function());
  EXPECT_EQ(ns.text("combine.__doc__"), "Combines two digits.");
}

TEST(KestObject, ARegisteredModuleFunctionHasItsNameAndModule) {
  ensurePythonReady();
  py::gil lock;
  auto fn = combine_function();
  ASSERT_FALSE(kest::internal::register_function(S("tko.funcs"), S("combine"), fn).isError());
  py_namespace ns;
  ns.set("combine", fn);
  EXPECT_EQ(ns.text("combine.__name__"), "combine");
  EXPECT_EQ(ns.text("combine.__module__"), "tko.funcs");
  EXPECT_TRUE(ns.truth("type(combine.__module__) is str"));
}

TEST(KestObject, AHostCallableHasATextSignature) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ns.set("combine", combine_function());
  EXPECT_EQ(ns.text("combine.__text_signature__"), "(a: Integer, b: Integer) -> Integer");
}

TEST(KestObject, AHostCallableHasAnnotationsMappingParametersAndReturnToTypes) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ns.set("combine", combine_function());
  ASSERT_TRUE(ns.run("ann = combine.__annotations__"));
  EXPECT_TRUE(ns.truth("type(ann) is dict"));
  EXPECT_TRUE(ns.truth("sorted(ann) == ['a', 'b', 'return']"));
  EXPECT_TRUE(ns.truth("all(isinstance(t, type) for t in ann.values())"));
  EXPECT_TRUE(ns.truth("ann['a'] is ann['b'] and ann['a'] is ann['return']"));
  auto integer_type = type_of_class(kest::Integer::getClass());
  ASSERT_TRUE(integer_type);
  auto a = ns.eval("ann['a']");
  ASSERT_TRUE(a);
  EXPECT_EQ(a.get(), integer_type.get());
}

TEST(KestObject, DirListsFieldsMethodsPropertiesAndPerObjectMembers) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(gadget_class("ListedGadget"));
  ASSERT_FALSE(kest::insert_property_value(value, kest::meta_property_untyped("extra"), kest::Integer(1)).isError());
  py_namespace ns;
  ns.set("obj", value);
  ASSERT_TRUE(ns.run("names = dir(obj)"));
  for (const char *expected : {"count", "ping", "level", "mood", "extra"})
    EXPECT_TRUE(ns.truth(std::string("'") + expected + "' in names")) << expected;
  auto other = make_instance(gadget_class("UnlistedGadget"));
  ns.set("other", other);
  EXPECT_FALSE(ns.truth("'extra' in dir(other)"));
}

// --- lifetime ---------------------------------------------------------------------------------

TEST(KestObject, DeallocationKeepsAPendingExceptionIntact) {
  ensurePythonReady();
  py::gil lock;
  auto finalised = std::make_shared<std::atomic<bool>>(false);
  auto cls = declare_class({S("Finalised"), B::module_entry(S(module_name)),
                            B::finaliser_entry([finalised](kest::internal::object_value_instance &) {
                              // Python work that raises and clears an exception of its own.
                              py::gil inner;
                              PyObject *missing = PyObject_GetAttrString(Py_None, "no_such_attribute");
                              if (missing)
                                Py_DecRef(missing);
                              PyErr_Clear();
                              finalised->store(true);
                            })});
  PyObject *object = nullptr;
  {
    auto value = make_instance(cls);
    object = toPython(value);
  }
  ASSERT_NE(object, nullptr);
  ASSERT_FALSE(finalised->load());

  auto pending = py::object::steal(PyObject_CallFunction(PyExc_LookupError, "s", "still pending"));
  ASSERT_TRUE(pending);
  PyErr_SetObject(PyExc_LookupError, pending.get());
  Py_DecRef(object); // the last reference: the host value and its finaliser go
  EXPECT_TRUE(finalised->load());

  PyObject *type = nullptr, *error = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &error, &traceback);
  EXPECT_EQ(type, PyExc_LookupError);
  EXPECT_EQ(error, pending.get());
  Py_XDECREF(type);
  Py_XDECREF(error);
  Py_XDECREF(traceback);
}

TEST(KestObject, EveryWrapperMadeIsFreed) {
  ensurePythonReady();
  py::gil lock;
  auto make_list = kest::make_function([](std::int64_t n) { return kest::List({kest::Integer(n), kest::String(u"x")}); });
  auto cls = plain_class("Counted");
  py_namespace ns;
  ns.set("make_list", make_list);
  auto round = [&] {
    for (int i = 0; i < 100; ++i) {
      auto wrapped = py::object::steal(toPython(make_instance(cls)));
      EXPECT_TRUE(wrapped && isKestObject(wrapped.get()));
      auto list = py::object::steal(toPython(kest::List({kest::Integer(i)})));
      EXPECT_TRUE(list && isKestObject(list.get()));
    }
    EXPECT_TRUE(ns.run("items = [make_list(i) for i in range(100)]\n"
                       "pairs = [(a, b) for a, b in zip(items, items[1:])]\n"
                       "del items, pairs\n"
                       "import gc\n"
                       "gc.collect()"));
  };
  round(); // caches made on first use stay
  const auto before = kest::internal::object_value::live_count();
  round();
  round();
  EXPECT_EQ(kest::internal::object_value::live_count(), before);
}
