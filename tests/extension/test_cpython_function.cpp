// CPythonFunction: Python callables called from the host with host values,
// their names, documentation, signatures with host types, result types and
// defaults, and the mapping of annotations to host types.

#include "proxies/annotation_type.hpp"
#include "python_objects_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
kest::I_Callable_Generic callable_of(const kest::Any& value) {
  EXPECT_TRUE(kest::I_Callable_Generic::isInstance(value))
      << class_name_of(value) << " " << message_of(value);
  EXPECT_TRUE(is_of_class(value, cpythonFunctionClass())) << class_name_of(value);
  return kest::I_Callable_Generic::unsafeFrom(value);
}

/// The message of an error result; no Python error may be pending after it.
std::string failure_of(const kest::Any& result, const std::string& member) {
  expect_no_python_error(member);
  EXPECT_TRUE(kest::Error::isInstance(result))
      << member << " did not fail: " << class_name_of(result);
  return message_of(result);
}

std::string type_name(const kest::Type& type) {
  return type.name().toUtf8();
}

/// The parameter types of a callable's signature, by name of type.
std::vector<std::string> parameter_types(const kest::I_Callable_Generic& fn) {
  std::vector<std::string> out;
  for (const auto& p : fn.signature().parameters())
    out.push_back(type_name(p.type()));
  return out;
}

std::vector<std::string> parameter_names(const kest::I_Callable_Generic& fn) {
  std::vector<std::string> out;
  for (const auto& p : fn.signature().parameters())
    out.push_back(p.name().toUtf8());
  return out;
}

kest::Any property_value(const kest::Any& self, const char* name) {
  return value_of(self.propertyValue(kest::meta_property_untyped(name)));
}

/// The type an annotation expression maps to.
kest::Type annotation_type(python_scope& py, const std::string& expression) {
  auto annotation = py.object(expression);
  py::gil lock;
  auto type = typeOfAnnotation(annotation.get());
  EXPECT_EQ(PyErr_Occurred(), nullptr) << expression;
  PyErr_Clear();
  return type;
}
} // namespace

// --- Signatures ----------------------------------------------------------------------

TEST(CPythonFunction, ADefaultAndStarArgsGiveTheCountsOfTheHostSignature) {
  python_scope py;
  py.run("def f(a, b=2, *args):\n    return a\n");
  auto fn = callable_of(py.host("f"));
  EXPECT_EQ(parameter_names(fn), (std::vector<std::string>{"a", "b", "args"}));
  EXPECT_EQ(fn.parameterCount(), 3);
  EXPECT_EQ(fn.requiredParameterCount(), 1);
  EXPECT_TRUE(fn.hasVariadicParameters());
  EXPECT_EQ(host_integer(property_value(fn, "parameterCount")), 3);
  EXPECT_EQ(host_integer(property_value(fn, "requiredParameterCount")), 1);
  EXPECT_TRUE(host_boolean(property_value(fn, "hasVariadicParameters")));
  auto defaults = property_value(fn, "$$defaults");
  EXPECT_EQ(host_integers(defaults), (std::vector<std::int64_t>{2}));
}

TEST(CPythonFunction, AFunctionWithoutStarArgsIsNotVariadic) {
  python_scope py;
  py.run("def g(a, b):\n    return a\n");
  auto fn = callable_of(py.host("g"));
  EXPECT_EQ(fn.parameterCount(), 2);
  EXPECT_EQ(fn.requiredParameterCount(), 2);
  EXPECT_FALSE(fn.hasVariadicParameters());
}

TEST(CPythonFunction, ListAndDictAnnotationsGiveTheListAndHashMapClasses) {
  python_scope py;
  py.run("def f(x: list[int]) -> dict[str, int]:\n    return {}\n");
  auto fn = callable_of(py.host("f"));
  auto parameters = fn.signature().parameters();
  ASSERT_EQ(parameters.size(), 1u);
  EXPECT_TRUE(parameters[0].type().isSame(kest::List::getType()))
      << type_name(parameters[0].type());
  EXPECT_TRUE(fn.resultType().isSame(kest::HashMap::getType())) << type_name(fn.resultType());
}

TEST(CPythonFunction, AStringAnnotationWithoutAHostTypeIsUntyped) {
  python_scope py;
  py.run("def f(x: 'MyType') -> 'MyOtherType':\n    return x\n");
  auto fn = callable_of(py.host("f"));
  EXPECT_EQ(parameter_types(fn), (std::vector<std::string>{kest::Type().name().toUtf8()}));
  EXPECT_TRUE(fn.signature().parameters().at(0).type().isUntyped());
  EXPECT_TRUE(fn.resultType().isUntyped());
}

TEST(CPythonFunction, StringAnnotationsAreCutToTheirName) {
  python_scope py;
  py.run("import typing\n"
         "def f(x: 'int | None', y: 'typing.List[int]', z: ' str ') -> 'typing.Mapping[str, "
         "int]':\n    return x\n");
  auto fn = callable_of(py.host("f"));
  auto parameters = fn.signature().parameters();
  ASSERT_EQ(parameters.size(), 3u);
  EXPECT_TRUE(parameters[0].type().isSame(kest::Integer::getType()))
      << type_name(parameters[0].type());
  EXPECT_TRUE(parameters[1].type().isSame(kest::List::getType()))
      << type_name(parameters[1].type());
  EXPECT_TRUE(parameters[2].type().isSame(kest::String::getType()))
      << type_name(parameters[2].type());
  EXPECT_TRUE(fn.resultType().isSame(kest::HashMap::getType())) << type_name(fn.resultType());
}

TEST(CPythonFunction, AFunctionWithoutAnnotationsIsUntypedThroughout) {
  python_scope py;
  py.run("def f(a, b, c=1):\n    return a\n");
  auto fn = callable_of(py.host("f"));
  auto parameters = fn.signature().parameters();
  ASSERT_EQ(parameters.size(), 3u);
  for (const auto& p : parameters)
    EXPECT_TRUE(p.type().isUntyped()) << p.name().toUtf8() << ": " << type_name(p.type());
  EXPECT_TRUE(fn.resultType().isUntyped());
  EXPECT_TRUE(kest::Type::unsafeFrom(property_value(fn, "resultType")).isUntyped());
}

TEST(CPythonFunction, TheSignatureIsComputedOnceAndCached) {
  python_scope py;
  py.run("def f(a: int) -> str:\n    return str(a)\n");
  auto fn = callable_of(py.host("f"));
  auto first = property_value(fn, "signature");
  ASSERT_TRUE(kest::Signature::isInstance(first)) << message_of(first);
  EXPECT_TRUE(property_value(fn, "signature").isSame(first));
  EXPECT_TRUE(value_of(fn.fieldValue(kest::meta_field_untyped("$_sign"))).isSame(first));
  EXPECT_TRUE(value_of(fn.fieldValue(kest::meta_field_untyped("$_result_type")))
                  .isSame(kest::String::getType()));
  EXPECT_EQ(kest::Signature::unsafeFrom(first).toString().toUtf8(),
            kest::Signature({kest::Parameter(kest::String(u"a"), kest::Integer::getType())},
                            kest::String::getType(), 1)
                .toString()
                .toUtf8());
}

TEST(CPythonFunction, TheResultTypeIsCachedWithoutASignature) {
  python_scope py;
  py.run("def f() -> bool:\n    return True\n");
  auto fn = py.host("f");
  EXPECT_FALSE(
      kest::Type::isInstance(value_of(fn.fieldValue(kest::meta_field_untyped("$_result_type")))));
  auto type = property_value(fn, "resultType");
  EXPECT_TRUE(type.isSame(kest::Boolean::getType())) << class_name_of(type);
  EXPECT_TRUE(value_of(fn.fieldValue(kest::meta_field_untyped("$_result_type")))
                  .isSame(kest::Boolean::getType()));
  EXPECT_FALSE(
      kest::Signature::isInstance(value_of(fn.fieldValue(kest::meta_field_untyped("$_sign")))));
}

TEST(CPythonFunction, ABuiltinWithoutASignatureGivesPythonsError) {
  python_scope py;
  py.run("import inspect\n"
         "try:\n    inspect.signature(next)\n    expected = None\nexcept ValueError as e:\n    "
         "expected = str(e)\n");
  if (py.truth("expected is None"))
    GTEST_SKIP() << "this Python has a signature for next()";
  auto fn = py.host("next");
  auto sig = property_value(fn, "signature");
  EXPECT_EQ(failure_of(sig, "signature"), py.text("expected"));
}

// --- Defaults -------------------------------------------------------------------------------

TEST(CPythonFunction, NewDefaultsChangeTheNextCallWhileTheCachedSignatureKeepsTheOld) {
  python_scope py;
  py.run("def f(a, b, c=3):\n    return [a, b, c]\n");
  auto fn = callable_of(py.host("f"));
  auto before = fn.signature();
  EXPECT_EQ(before.requiredParameterCount(), 2);
  kest::List defaults(kest::Type(), {kest::Integer(1), kest::Integer(2)});
  ASSERT_FALSE(fn.setPropertyValue(kest::meta_property_untyped("$$defaults"), defaults).isError());
  EXPECT_TRUE(py.truth("f.__defaults__ == (1, 2)"));
  EXPECT_EQ(host_integers(property_value(fn, "$$defaults")), (std::vector<std::int64_t>{1, 2}));
  // Python applies them on the next call.
  EXPECT_EQ(host_integers(value_of(fn.callWith({kest::Integer(0)}))),
            (std::vector<std::int64_t>{0, 1, 2}));
  EXPECT_TRUE(py.truth("f(9) == [9, 1, 2]"));
  // The signature read before keeps what it had.
  auto after = fn.signature();
  EXPECT_TRUE(after.isSame(before));
  EXPECT_EQ(after.requiredParameterCount(), 2);
}

TEST(CPythonFunction, DefaultsTakeAnyHostIterable) {
  python_scope py;
  py.run("def f(a=0):\n    return a\n");
  auto fn = callable_of(py.host("f"));
  auto tuple = kest::Tuple(std::vector<kest::Any>{kest::String(u"x")});
  ASSERT_FALSE(fn.setPropertyValue(kest::meta_property_untyped("$$defaults"), tuple).isError());
  EXPECT_TRUE(py.truth("f() == 'x'"));
  auto r = fn.setPropertyValue(kest::meta_property_untyped("$$defaults"), kest::Integer(5));
  EXPECT_FALSE(failure_of(r, "defaults").empty());
  EXPECT_TRUE(py.truth("f.__defaults__ == ('x',)"));
}

TEST(CPythonFunction, AFunctionWithoutDefaultsHasAnEmptyList) {
  python_scope py;
  py.run("def f(a):\n    return a\n");
  EXPECT_TRUE(host_integers(property_value(py.host("f"), "$$defaults")).empty());
  EXPECT_TRUE(host_integers(property_value(py.host("len"), "$$defaults")).empty());
  expect_no_python_error("defaults");
}

// --- Calls ------------------------------------------------------------------------------------

TEST(CPythonFunction, IsCalledWithHostValues) {
  python_scope py;
  py.run("def describe(n, text, flag, items):\n"
         "    return f'{n + 1}:{text.upper()}:{flag}:{sum(items)}'\n");
  auto fn = callable_of(py.host("describe"));
  kest::List items(kest::Type(), {kest::Integer(1), kest::Integer(2), kest::Integer(3)});
  auto r =
      value_of(fn.callWith({kest::Integer(41), kest::String(u"ab"), kest::Boolean(true), items}));
  EXPECT_EQ(host_text(r), "42:AB:True:6");
  // and with a host sequence of arguments
  auto again = value_of(fn.callWithSequence(
      kest::List(kest::Type(), {kest::Integer(0), kest::String(u"x"), kest::Boolean(false),
                                kest::List(kest::Type())})));
  EXPECT_EQ(host_text(again), "1:X:False:0");
}

TEST(CPythonFunction, AHostValueThatTravelsThroughPythonComesBackAsItself) {
  python_scope py;
  py.run("def same(x):\n    return x\n");
  auto fn = callable_of(py.host("same"));
  kest::HashMap map(kest::String::getType(), kest::Type());
  EXPECT_TRUE(value_of(fn.callWith({map})).isSame(map));
}

TEST(CPythonFunction, MoreArgumentsThanItTakesIsPythonsTypeError) {
  python_scope py;
  py.run("def one(a):\n    return a\n"
         "try:\n    one(1, 2)\nexcept TypeError as e:\n    expected = str(e)\n");
  auto fn = callable_of(py.host("one"));
  auto r = value_of(fn.callWith({kest::Integer(1), kest::Integer(2)}));
  EXPECT_EQ(failure_of(r, "call"), py.text("expected"));
}

TEST(CPythonFunction, AnExceptionInTheFunctionComesBackAsAnError) {
  python_scope py;
  py.run("def fail(x):\n    raise ValueError(f'bad {x}')\n");
  auto r = value_of(callable_of(py.host("fail")).callWith({kest::Integer(3)}));
  EXPECT_EQ(failure_of(r, "call"), "bad 3");
}

TEST(CPythonFunction, AnArgumentThatDoesNotConvertFailsTheCall) {
  python_scope py;
  py.run("calls = 0\ndef f(x):\n    global calls; calls += 1\n");
  auto hollow = empty_wrapper(cpythonObjectClass());
  auto r = value_of(callable_of(py.host("f")).callWith({hollow}));
  EXPECT_EQ(failure_of(r, "call"),
            "Unable to convert an argument: " + kest::display(hollow).toUtf8() + ".");
  EXPECT_EQ(py.integer("calls"), 0);
}

TEST(CPythonFunction, CallableObjectsClassesAndBoundMethodsAreFunctions) {
  python_scope py;
  py.run("class Adder:\n    def __init__(self, n):\n        self.n = n\n"
         "    def __call__(self, x):\n        return self.n + x\n"
         "    def add(self, x):\n        return self.n + x\n"
         "a = Adder(10)\n");
  EXPECT_EQ(host_integer(value_of(callable_of(py.host("a")).callWith({kest::Integer(1)}))), 11);
  EXPECT_EQ(host_integer(value_of(callable_of(py.host("a.add")).callWith({kest::Integer(2)}))), 12);
  EXPECT_EQ(callable_of(py.host("a")).name().toUtf8(),
            "Adder"); // no __name__ of its own: its type's
}

// --- Name, documentation, identity
// ----------------------------------------------------------------

TEST(CPythonFunction, NameAndDocumentationComeFromPython) {
  python_scope py;
  py.run("def greet(name):\n    \"\"\"Says hello.\"\"\"\n    return 'hello ' + name\n"
         "def bare():\n    pass\n");
  auto greet = callable_of(py.host("greet"));
  EXPECT_EQ(greet.name().toUtf8(), "greet");
  EXPECT_EQ(greet.doc().toUtf8(), "Says hello.");
  EXPECT_EQ(host_text(value_of(kest::I_HasName::unsafeFrom(greet).name())), "greet");
  EXPECT_EQ(host_text(value_of(kest::I_HasDoc::unsafeFrom(greet).doc())), "Says hello.");
  auto bare = callable_of(py.host("bare"));
  auto doc = property_value(bare, "doc");
  EXPECT_EQ(host_text(doc), ""); // __doc__ is None
}

TEST(CPythonFunction, IsSameComparesTheWrappedObjects) {
  python_scope py;
  py.run("def f():\n    pass\ndef g():\n    pass\n");
  auto first = py.host("f");
  auto second = py.host("f");
  ASSERT_FALSE(first.isSame(second));
  EXPECT_TRUE(host_boolean(call_meta(first, "$__isSame__", {second})));
  EXPECT_FALSE(host_boolean(call_meta(first, "$__isSame__", {py.host("g")})));
  EXPECT_FALSE(host_boolean(call_meta(first, "$__isSame__", {kest::Integer(1)})));
  EXPECT_FALSE(host_boolean(call_meta(first, "$__isSame__", {py.host("[f]")})));
  auto hollow = empty_wrapper(cpythonFunctionClass());
  EXPECT_TRUE(
      host_boolean(call_meta(hollow, "$__isSame__", {empty_wrapper(cpythonFunctionClass())})));
  EXPECT_FALSE(host_boolean(call_meta(hollow, "$__isSame__", {first})));
}

TEST(CPythonFunction, EveryFunctionIsIndependent) {
  python_scope py;
  py.run("def f(self_like):\n    return self_like\n");
  auto fn = callable_of(py.host("f"));
  EXPECT_TRUE(fn.isIndependent());
  EXPECT_EQ(host_integer(value_of(fn.callWith({kest::Integer(4)}))), 4);
}

// --- Failures
// ----------------------------------------------------------------------------------------

TEST(CPythonFunction, AnObjectThatIsNotCallableIsNoFunction) {
  python_scope py;
  auto list = py.object("[1]");
  kest::Any made;
  {
    py::gil lock;
    made = newCPythonFunction(list.get());
  }
  EXPECT_EQ(failure_of(made, "create"), "The source object isn't a function.");
  kest::Any from_null;
  {
    py::gil lock;
    from_null = newCPythonFunction(nullptr);
  }
  EXPECT_EQ(failure_of(from_null, "create"), "The source object isn't a function.");
}

TEST(CPythonFunction, AWrapperWithoutAFunctionHasNoSignatureAndCallsToNothing) {
  ensurePythonReady();
  auto hollow = empty_wrapper(cpythonFunctionClass());
  EXPECT_EQ(failure_of(property_value(hollow, "signature"), "signature"),
            "Unable to find the function.");
  auto called = value_of(kest::I_Callable_Generic::unsafeFrom(hollow).callWith({kest::Integer(1)}));
  expect_no_python_error("call");
  EXPECT_TRUE(called.empty()) << class_name_of(called);
}

// --- Annotation mapping
// ----------------------------------------------------------------------------------

TEST(AnnotationType, NamesMapThroughTheTable) {
  ensurePythonReady();
  const std::vector<std::pair<const char*, kest::Type>> rows{
      {"Any", kest::Type()},
      {"_empty", kest::Type()},
      {"None", kest::None::getType()},
      {"NoneType", kest::None::getType()},
      {"bool", kest::Boolean::getType()},
      {"bytes", kest::ByteArray::getType()},
      {"bytearray", kest::ByteArray::getType()},
      {"memoryview", kest::ByteArray::getType()},
      {"dict", kest::HashMap::getType()},
      {"Mapping", kest::HashMap::getType()},
      {"MutableMapping", kest::HashMap::getType()},
      {"float", kest::Float::getType()},
      {"int", kest::Integer::getType()},
      {"list", kest::List::getType()},
      {"Sequence", kest::List::getType()},
      {"MutableSequence", kest::List::getType()},
      {"set", kest::HashSet::getType()},
      {"Set", kest::HashSet::getType()},
      {"MutableSet", kest::HashSet::getType()},
      {"str", kest::String::getType()},
      {"tuple", kest::Tuple::getType()},
      {"Callable", kest::I_Callable_Generic::getType()},
      {"typing.List[int]", kest::List::getType()},
      {"int | None", kest::Integer::getType()},
      {" collections.abc.Mapping[str, int] | None ", kest::HashMap::getType()},
      {"Int", kest::Type()},
      {"NoSuchTypeAnywhere", kest::Type()},
  };
  for (const auto& [name, expected] : rows)
    EXPECT_TRUE(typeOfAnnotationName(name).isSame(expected))
        << name << " gave " << typeOfAnnotationName(name).name().toUtf8();
}

TEST(AnnotationType, AnnotationObjectsMapByOriginClassOrName) {
  python_scope py;
  py.run("import typing\nclass Mine:\n    pass\n");
  EXPECT_TRUE(annotation_type(py, "int").isSame(kest::Integer::getType()));
  EXPECT_TRUE(annotation_type(py, "None").isSame(kest::None::getType()));
  EXPECT_TRUE(annotation_type(py, "type(None)").isSame(kest::None::getType()));
  EXPECT_TRUE(annotation_type(py, "list[int]").isSame(kest::List::getType()));
  EXPECT_TRUE(annotation_type(py, "typing.List[int]").isSame(kest::List::getType()));
  EXPECT_TRUE(annotation_type(py, "typing.Dict[str, int]").isSame(kest::HashMap::getType()));
  EXPECT_TRUE(annotation_type(py, "typing.Any").isUntyped());
  EXPECT_TRUE(annotation_type(py, "'float'").isSame(kest::Float::getType()));
  {
    py::gil lock;
    EXPECT_TRUE(typeOfAnnotation(nullptr).isUntyped());
  }
  auto mine = annotation_type(py, "Mine");
  EXPECT_FALSE(mine.isUntyped());
  EXPECT_EQ(mine.toClass().name().toUtf8(), "Mine");
}
