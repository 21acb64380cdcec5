// Python types as host classes: typeFromPython and pythonTypeOfClass.

#include "conversion_test_support.hpp"

#include "convert/type_mapping.hpp"
#include "proxies/cpython_object.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// The host class for the type that `expression` evaluates to.
kest::Any map_expression(const std::string &expression) {
  auto type = eval_py(expression);
  if (!type)
    return {};
  auto cls = typeFromPython(type.get());
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  return cls;
}

kest::Class_Generic class_of_result(const kest::Any &value) {
  if (!kest::Class_Generic::isInstance(value)) {
    ADD_FAILURE() << "not a class: " << kest::display(value).toUtf8();
    return {};
  }
  return kest::Class_Generic::unsafeFrom(value);
}

/// The stored value of class property `name`, or empty.
kest::Any class_property_value(const kest::Class_Generic &cls, const char *name) {
  auto property = cls.definedProperty(kest::meta_property_untyped(name));
  if (!property.is<kest::Property>())
    return {};
  return property.as<kest::Property>().storedValue();
}
} // namespace

TEST(TypeMapping, IntBoolAndStrMapToTheHostsOwnClasses) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_TRUE(map_expression("int").isSame(kest::Integer::getClass()));
  EXPECT_TRUE(map_expression("bool").isSame(kest::Boolean::getClass()));
  EXPECT_TRUE(map_expression("str").isSame(kest::String::getClass()));
}

TEST(TypeMapping, EveryBytesLikeTypeMapsToByteArray) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_TRUE(map_expression("bytes").isSame(kest::ByteArray::getClass()));
  EXPECT_TRUE(map_expression("bytearray").isSame(kest::ByteArray::getClass()));
  EXPECT_TRUE(map_expression("memoryview").isSame(kest::ByteArray::getClass()));
}

TEST(TypeMapping, FloatAndTypeMapToFloatAndClass) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_TRUE(map_expression("float").isSame(kest::Float::getClass()));
  EXPECT_TRUE(map_expression("type").isSame(kest::Class_Generic::getClass()));
}

TEST(TypeMapping, DatetimeTypesMapToDateDateTimeAndTime) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_TRUE(map_expression("__import__('datetime').date").isSame(kest::Date::getClass()));
  EXPECT_TRUE(map_expression("__import__('datetime').datetime").isSame(kest::DateTime::getClass()));
  EXPECT_TRUE(map_expression("__import__('datetime').time").isSame(kest::Time::getClass()));
}

TEST(TypeMapping, DecimalMapsToDecimal) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_TRUE(map_expression("__import__('decimal').Decimal").isSame(kest::Decimal::getClass()));
}

TEST(TypeMapping, BuiltInTypesHaveNoPythonTypeOfTheirOwn) {
  ensurePythonReady();
  py::gil lock;
  (void)map_expression("int");
  EXPECT_EQ(pythonTypeOfClass(kest::Integer::getClass()), nullptr);
}

TEST(TypeMapping, TheSameUserClassMapsToTheIdenticalHostClass) {
  ensurePythonReady();
  py::gil lock;
  auto type = exec_get("class Once:\n    pass\n", "Once");
  ASSERT_TRUE(type);
  auto first = typeFromPython(type.get());
  auto second = typeFromPython(type.get());
  ASSERT_TRUE(kest::Class_Generic::isInstance(first));
  EXPECT_TRUE(first.isSame(second));
  EXPECT_EQ(pythonTypeOfClass(kest::Class_Generic::unsafeFrom(first)), type.get());
}

TEST(TypeMapping, TwoClassesOfTheSameNameMapToDifferentHostClasses) {
  ensurePythonReady();
  py::gil lock;
  auto a = exec_get("class Twin:\n    pass\n", "Twin");
  auto b = exec_get("class Twin:\n    pass\n", "Twin");
  ASSERT_NE(a.get(), b.get());
  EXPECT_FALSE(typeFromPython(a.get()).isSame(typeFromPython(b.get())));
}

TEST(TypeMapping, ANonTypeGivesNotATypeError) {
  ensurePythonReady();
  py::gil lock;
  auto instance = eval_py("42");
  for (PyObject *object : {instance.get(), static_cast<PyObject *>(nullptr)}) {
    auto result = typeFromPython(object);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    ASSERT_TRUE(kest::Error::isInstance(result));
    EXPECT_EQ(message_of(result), "Not a type.");
  }
}

TEST(TypeMapping, ADottedNameGivesTheLastPartAsClassName) {
  ensurePythonReady();
  py::gil lock;
  auto type = eval_py("type('pkg.Thing', (), {})");
  ASSERT_TRUE(type);
  ASSERT_EQ(text_attribute(type.get(), "__name__"), "pkg.Thing");
  auto cls = class_of_result(typeFromPython(type.get()));
  ASSERT_TRUE(cls);
  EXPECT_EQ(cls.name().toUtf8(), "Thing");
}

TEST(TypeMapping, AUserClassKeepsItsDocumentationMembersAndBases) {
  ensurePythonReady();
  py::gil lock;
  auto globals = exec_py("class Base:\n"
                         "    '''The base.'''\n"
                         "    inherited = 1\n"
                         "class Thing(Base):\n"
                         "    '''A thing of tests.'''\n"
                         "    answer = 42\n"
                         "    label = 'forty-two'\n"
                         "    def method(self):\n"
                         "        return 1\n");
  ASSERT_TRUE(globals);
  PyObject *base = PyDict_GetItemString(globals.get(), "Base");
  PyObject *thing = PyDict_GetItemString(globals.get(), "Thing");
  ASSERT_NE(base, nullptr);
  ASSERT_NE(thing, nullptr);
  auto cls = class_of_result(typeFromPython(thing));
  ASSERT_TRUE(cls);
  EXPECT_EQ(cls.name().toUtf8(), "Thing");
  EXPECT_EQ(cls.doc().toUtf8(), "A thing of tests.");

  auto answer = class_property_value(cls, "answer");
  ASSERT_TRUE(kest::Integer::isInstance(answer));
  EXPECT_EQ(kest::Integer::unsafeFrom(answer).value(), 42);
  auto label = class_property_value(cls, "label");
  ASSERT_TRUE(kest::String::isInstance(label));
  EXPECT_EQ(kest::String::unsafeFrom(label).toUtf8(), "forty-two");
  auto method = class_property_value(cls, "method");
  EXPECT_TRUE(isPythonBacked(method));

  auto base_cls = class_of_result(typeFromPython(base));
  ASSERT_TRUE(base_cls);
  EXPECT_TRUE(cls.derivesFrom(base_cls));
  EXPECT_FALSE(base_cls.derivesFrom(cls));
  EXPECT_EQ(base_cls.doc().toUtf8(), "The base.");
  // Members of a base come through the base class.
  auto inherited = class_property_value(cls, "inherited");
  ASSERT_TRUE(kest::Integer::isInstance(inherited));
  EXPECT_EQ(kest::Integer::unsafeFrom(inherited).value(), 1);
  // Every made class wraps Python objects.
  EXPECT_TRUE(cls.derivesFrom(cpythonObjectClass()));
  EXPECT_TRUE(cls.hasFlag(kest::class_flags::python_backed));
}

TEST(TypeMapping, AClassWithoutDocumentationHasAnEmptyDoc) {
  ensurePythonReady();
  py::gil lock;
  auto type = exec_get("class Bare:\n    pass\n", "Bare");
  auto cls = class_of_result(typeFromPython(type.get()));
  ASSERT_TRUE(cls);
  EXPECT_TRUE(cls.doc().empty());
}

TEST(TypeMapping, AClassThatRefersToItselfCanBeMapped) {
  ensurePythonReady();
  py::gil lock;
  auto type = exec_get("class Node:\n    pass\nNode.kind = Node\n", "Node");
  ASSERT_TRUE(type);
  auto cls = class_of_result(typeFromPython(type.get()));
  ASSERT_TRUE(cls);
  EXPECT_TRUE(class_property_value(cls, "kind").isSame(cls));
}

TEST(TypeMapping, ABaseThatRefersToItsSubclassCanBeMapped) {
  ensurePythonReady();
  py::gil lock;
  auto globals = exec_py("class Shape:\n    pass\n"
                         "class Square(Shape):\n    pass\n"
                         "Shape.default = Square\n");
  ASSERT_TRUE(globals);
  PyObject *shape = PyDict_GetItemString(globals.get(), "Shape");
  PyObject *square = PyDict_GetItemString(globals.get(), "Square");
  auto shape_cls = class_of_result(typeFromPython(shape));
  auto square_cls = class_of_result(typeFromPython(square));
  ASSERT_TRUE(shape_cls);
  ASSERT_TRUE(square_cls);
  EXPECT_TRUE(square_cls.derivesFrom(shape_cls));
  EXPECT_TRUE(class_property_value(shape_cls, "default").isSame(square_cls));
}
