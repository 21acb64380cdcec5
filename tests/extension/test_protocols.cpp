// The operator protocols of KestObject: Python's number, sequence and mapping
// operators call the host object's methods and properties.

#include "host_object_test_support.hpp"

#include "convert/to_python.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/type_for_class.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
constexpr const char *module_name = "tpr";

using log_ptr = std::shared_ptr<call_log>;

/// The kind and text of a host argument, for the call log ("Integer:3").
std::string described(const kest::Any &value) {
  const char *kind = kest::Integer::isInstance(value) ? "Integer"
                     : kest::String::isInstance(value) ? "String"
                     : kest::List::isInstance(value)   ? "List"
                                                       : "other";
  return std::string(kind) + ":" + shown(value);
}

/// A method entry that logs "<tag> <argument>" and returns the text "<tag>:<argument>".
kest::Any logging_binary(const char *name, const char *tag, const log_ptr &log) {
  std::string t = tag;
  return method_entry(name, kest::make_method([log, t](kest::Any, kest::Any arg) -> kest::Any {
                        log->add(t + " " + described(arg));
                        return kest::String::fromUtf8(t + ":" + shown(arg));
                      }),
                      "other");
}

/// A method entry that logs "<tag> <argument>" and returns None (an in-place change).
kest::Any logging_in_place(const char *name, const char *tag, const log_ptr &log) {
  std::string t = tag;
  return method_entry(name, kest::make_method([log, t](kest::Any, kest::Any arg) -> kest::Any {
                        log->add(t + " " + described(arg));
                        return kest::None();
                      }),
                      "other");
}

kest::Any length_entry(std::int64_t n) {
  return property_entry("$$__len__", kest::make_method([n](kest::Any) { return n; }));
}

/// A class without any operator methods.
kest::Class_Generic bare_class() {
  return declare_class({S("Bare"), B::module_entry(S(module_name))});
}

/// Runs `code` in a namespace where `a` is the host value and returns what it raised.
raised raising_with(const kest::Any &value, const std::string &code) {
  py_namespace ns;
  ns.set("a", value);
  return ns.run_raising(code);
}
} // namespace

// --- number protocol ------------------------------------------------------------------------

TEST(Protocols, AddWithoutAddOrConcatRaisesNotImplementedError) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(bare_class());
  auto error = raising_with(value, "a + 1");
  EXPECT_TRUE(error.is_exactly(PyExc_NotImplementedError)) << error.type_name();
  const std::string prefix = "[kest_sequence_concat] None method 'concat' in: ";
  EXPECT_EQ(error.message().rfind(prefix, 0), 0u) << error.message();
  EXPECT_EQ(error.message(), prefix + shown(value));
}

TEST(Protocols, AddCallsAddThenConcat) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto with_add = make_instance(declare_class({S("WithAdd"), B::module_entry(S(module_name)),
                                               logging_binary("$__add__", "add", log),
                                               logging_binary("concat", "concat", log)}));
  auto with_concat =
      make_instance(declare_class({S("WithConcat"), B::module_entry(S(module_name)), logging_binary("concat", "concat", log)}));
  py_namespace ns;
  ns.set("a", with_add);
  ns.set("b", with_concat);
  EXPECT_EQ(ns.text("a + 5"), "add:5");
  EXPECT_EQ(ns.text("b + 6"), "concat:6");
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"add Integer:5", "concat Integer:6"}));
}

TEST(Protocols, OperatorsCallTheirHostMethods) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("Operators"), B::module_entry(S(module_name)),
                            method_entry("$__not__", kest::make_method([log](kest::Any) {
                                           log->add("not");
                                           return std::string("inverted");
                                         })),
                            logging_binary("$__div__", "div", log), logging_binary("$__sub__", "sub", log),
                            logging_binary("$__and__", "and", log), logging_binary("$__or__", "or", log),
                            logging_binary("$__xor__", "xor", log)});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  EXPECT_EQ(ns.text("~a"), "inverted");
  EXPECT_EQ(ns.text("a / 4"), "div:4");
  EXPECT_EQ(ns.text("a - 3"), "sub:3");
  EXPECT_EQ(ns.text("a & 1"), "and:1");
  EXPECT_EQ(ns.text("a | 2"), "or:2");
  EXPECT_EQ(ns.text("a ^ 'x'"), "xor:x");
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"not", "div Integer:4", "sub Integer:3", "and Integer:1",
                                                      "or Integer:2", "xor String:x"}));
}

TEST(Protocols, MissingBitwiseMethodsRaiseNotImplementedErrorWithTheirNames) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(bare_class());
  const std::string shown_value = shown(value);
  const std::pair<const char *, const char *> cases[] = {{"a & 1", "[kest_number_and] None method in: "},
                                                         {"a | 1", "[kest_number_or] None method in: "},
                                                         {"a ^ 1", "[kest_number_xor] None method in: "}};
  for (const auto &[code, prefix] : cases) {
    auto error = raising_with(value, code);
    EXPECT_TRUE(error.is_exactly(PyExc_NotImplementedError)) << code << ": " << error.type_name();
    EXPECT_EQ(error.message(), prefix + shown_value) << code;
  }
}

TEST(Protocols, MissingSubtractDivideAndInvertRaiseNotImplementedError) {
  ensurePythonReady();
  py::gil lock;
  auto value = make_instance(bare_class());
  for (const char *code : {"a - 1", "a / 1", "~a"}) {
    auto error = raising_with(value, code);
    EXPECT_TRUE(error.is_exactly(PyExc_NotImplementedError)) << code << ": " << error.type_name();
    EXPECT_NE(error.message().find(shown(value)), std::string::npos) << code << ": " << error.message();
  }
}

TEST(Protocols, FloorDivisionModuloAndPowerRaiseTheUsualTypeError) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  // Even a class that has methods of those names does not get the operators.
  auto cls = declare_class({S("NoArithmetic"), B::module_entry(S(module_name)), logging_binary("$__floordiv__", "floordiv", log),
                            logging_binary("$__mod__", "mod", log), logging_binary("$__pow__", "pow", log)});
  auto value = make_instance(cls);
  for (const char *code : {"a // 2", "a % 2", "a ** 2"}) {
    auto error = raising_with(value, code);
    EXPECT_TRUE(error.is_exactly(PyExc_TypeError)) << code << ": " << error.type_name();
    EXPECT_EQ(error.message().rfind("unsupported operand type(s)", 0), 0u) << code << ": " << error.message();
  }
  EXPECT_TRUE(log->entries().empty());
}

TEST(Protocols, AReversedOperandIsNotTheHostsToHandle) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("LeftOnly"), B::module_entry(S(module_name)), logging_binary("$__sub__", "sub", log)});
  auto error = raising_with(make_instance(cls), "5 - a");
  EXPECT_TRUE(error.is_exactly(PyExc_TypeError)) << error.type_name();
  EXPECT_TRUE(log->entries().empty());
}

// --- length -------------------------------------------------------------------------------------

TEST(Protocols, LenWithoutAHostLengthRaisesRuntimeErrorWithTheHostMessage) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("NoLength"), B::module_entry(S(module_name)), B::flags_entry(kest::class_flags::sequence)});
  auto value = make_instance(cls);
  auto host = kest::internal::result_unwrap_lazy(value.propertyValue(kest::meta_property_untyped("$$__len__")));
  ASSERT_TRUE(kest::Error::isInstance(host));
  auto error = raising_with(value, "len(a)");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message(), message_of(host));
}

TEST(Protocols, LenGivesTheHostLength) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("WithLength"), B::module_entry(S(module_name)), B::flags_entry(kest::class_flags::sequence),
                            length_entry(3)});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  auto n = ns.eval("len(a)");
  ASSERT_TRUE(n);
  EXPECT_EQ(long_of(n.get()), 3);
}

TEST(Protocols, TheLengthSlotCalledOnAnotherObjectRaisesTypeError) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("SlotOwner"), B::module_entry(S(module_name)), B::flags_entry(kest::class_flags::sequence),
                            length_entry(2)});
  auto type = py::object::steal(reinterpret_cast<PyObject *>(typeForClass(cls)));
  ASSERT_TRUE(type);
  auto length = reinterpret_cast<lenfunc>(PyType_GetSlot(reinterpret_cast<PyTypeObject *>(type.get()), Py_sq_length));
  ASSERT_NE(length, nullptr);

  auto number = py::object::steal(PyLong_FromLong(5));
  const Py_ssize_t result = length(number.get());
  EXPECT_EQ(result, -1);
  EXPECT_EQ(result == -1, PyErr_Occurred() != nullptr);
  auto error = raised{take_exception()};
  EXPECT_TRUE(error.is_exactly(PyExc_TypeError)) << error.type_name();
  EXPECT_EQ(error.message(), "Object is not a Kest sequence.");

  // The same slot on its own kind of object answers.
  auto own = py::object::steal(toPython(make_instance(cls)));
  ASSERT_TRUE(own);
  EXPECT_EQ(length(own.get()), 2);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// --- sequence protocol ----------------------------------------------------------------------------

TEST(Protocols, InPlaceAddCallsIaddWhenPresent) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("WithIadd"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
                            logging_in_place("$__iadd__", "iadd", log), logging_in_place("extend", "extend", log)});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  ASSERT_TRUE(ns.run("before = a\na += 7"));
  EXPECT_TRUE(ns.truth("a is before"));
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"iadd Integer:7"}));
}

TEST(Protocols, InPlaceAddCallsExtendWithoutIadd) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("WithExtend"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
                            logging_in_place("extend", "extend", log)});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  ASSERT_TRUE(ns.run("before = a\na += 8"));
  EXPECT_TRUE(ns.truth("a is before"));
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"extend Integer:8"}));
}

TEST(Protocols, AnonymousContainerClassesAreRegisteredByKindAndMutability) {
  // Classes without a module share their Python types; a container's type
  // still has its kind's interface and abstract class.
  ensurePythonReady();
  py::gil lock;
  auto mutable_map = declare_class({S("LooseMap"), B::base_entry(kest::I_MutableMap::getClass())});
  auto reading_map = declare_class({S("LooseReadingMap"), B::base_entry(kest::I_Map::getClass())});
  auto sequence = declare_class({S("LooseSequence"), B::base_entry(kest::I_MutableSequence::getClass())});
  py_namespace ns;
  ns.set("m", make_instance(mutable_map));
  ns.set("r", make_instance(reading_map));
  ns.set("s", make_instance(sequence));
  ASSERT_TRUE(ns.run("import collections.abc as abc"));
  EXPECT_TRUE(ns.truth("isinstance(m, abc.MutableMapping)"));
  EXPECT_TRUE(ns.truth("isinstance(r, abc.Mapping) and not isinstance(r, abc.MutableMapping)"));
  EXPECT_TRUE(ns.truth("isinstance(s, abc.MutableSequence)"));
  EXPECT_TRUE(ns.truth("callable(m.items) and callable(s.index)"));
}

TEST(Protocols, InPlaceAddOnAHostListExtendsIt) {
  ensurePythonReady();
  py::gil lock;
  kest::List list({kest::Integer(1)});
  py_namespace ns;
  ns.set("a", list);
  ns.set("more", kest::List({kest::Integer(2), kest::Integer(3)}));
  ASSERT_TRUE(ns.run("before = a\na += more"));
  EXPECT_TRUE(ns.truth("a is before"));
  EXPECT_EQ(list.length(), 3);
  EXPECT_EQ(shown(list), "[1, 2, 3]");
}

TEST(Protocols, InPlaceMultiplyCallsImul) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("WithImul"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
                            logging_in_place("$__imul__", "imul", log), logging_binary("repeat", "repeat", log)});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  ASSERT_TRUE(ns.run("before = a\na *= 3"));
  EXPECT_TRUE(ns.truth("a is before"));
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"imul Integer:3"}));
}

TEST(Protocols, MultiplyCallsMulThenRepeat) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto with_mul = declare_class({S("WithMul"), B::module_entry(S(module_name)), B::base_entry(kest::I_Sequence::getClass()),
                                 logging_binary("$__mul__", "mul", log), logging_binary("repeat", "repeat", log)});
  auto with_repeat = declare_class({S("WithRepeat"), B::module_entry(S(module_name)), B::base_entry(kest::I_Sequence::getClass()),
                                    logging_binary("repeat", "repeat", log)});
  py_namespace ns;
  ns.set("a", make_instance(with_mul));
  ns.set("b", make_instance(with_repeat));
  EXPECT_EQ(ns.text("a * 3"), "mul:3");
  EXPECT_EQ(ns.text("b * 4"), "repeat:4");
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"mul Integer:3", "repeat Integer:4"}));
}

TEST(Protocols, IndexingCallsAtWithTheIndexAsAnInteger) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("Indexed"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
                            length_entry(5), logging_binary("at", "at", log)});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  EXPECT_EQ(ns.text("a[2]"), "at:2");
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"at Integer:2"}));
  auto error = ns.run_raising("a[7]");
  EXPECT_TRUE(error.is_exactly(PyExc_IndexError)) << error.type_name();
  EXPECT_EQ(log->entries().size(), 1u) << "an index past the length does not reach the host";
}

TEST(Protocols, ItemAssignmentCallsSet) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("Assignable"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
                            length_entry(5),
                            method_entry("set", kest::make_method([log](kest::Any, kest::Any index, kest::Any value) {
                                           log->add("set " + described(index) + " " + described(value));
                                         }),
                                         "index, value")});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  ASSERT_TRUE(ns.run("a[1] = 'one'"));
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"set Integer:1 String:one"}));
}

TEST(Protocols, ContainmentCallsContains) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("Container"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
                            method_entry("contains", kest::make_method([log](kest::Any, kest::Any value) {
                                           log->add("contains " + described(value));
                                           return kest::String::isInstance(value) &&
                                                  kest::String::unsafeFrom(value).toUtf8() == "yes";
                                         }),
                                         "value")});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  EXPECT_TRUE(ns.truth("'yes' in a"));
  EXPECT_FALSE(ns.truth("'no' in a"));
  EXPECT_TRUE(ns.truth("'no' not in a"));
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"contains String:yes", "contains String:no", "contains String:no"}));
}

// --- mapping protocol ----------------------------------------------------------------------------

TEST(Protocols, AMissingMapKeyRaisesKeyError) {
  ensurePythonReady();
  py::gil lock;
  kest::HashMap map;
  ASSERT_FALSE(map.setChecked(kest::String(u"present"), kest::Integer(1)).isError());
  py_namespace ns;
  ns.set("m", map);
  ASSERT_TRUE(isKestObject(ns.get("m").get()));
  auto found = ns.eval("m['present']");
  ASSERT_TRUE(found);
  EXPECT_EQ(long_of(found.get()), 1);
  auto error = ns.run_raising("m['absent']");
  EXPECT_TRUE(error.is_exactly(PyExc_KeyError)) << error.type_name();
  ns.set_object("caught", error.exception.get());
  EXPECT_TRUE(ns.truth("caught.args == ('absent',)"));
}

TEST(Protocols, MapAssignmentCallsSet) {
  ensurePythonReady();
  py::gil lock;
  auto log = std::make_shared<call_log>();
  auto cls = declare_class({S("Registry"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableMap::getClass()),
                            method_entry("set", kest::make_method([log](kest::Any, kest::Any key, kest::Any value) {
                                           log->add("set " + described(key) + " " + described(value));
                                         }),
                                         "key, value")});
  py_namespace ns;
  ns.set("m", make_instance(cls));
  ASSERT_TRUE(ns.run("m['k'] = 5"));
  EXPECT_EQ(log->entries(), (std::vector<std::string>{"set String:k Integer:5"}));
}

TEST(Protocols, MapAssignmentStoresIntoAHostMap) {
  ensurePythonReady();
  py::gil lock;
  kest::HashMap map;
  py_namespace ns;
  ns.set("m", map);
  ASSERT_TRUE(ns.run("m['k'] = 5"));
  auto stored = map.find(kest::String(u"k"));
  ASSERT_TRUE(kest::Integer::isInstance(stored));
  EXPECT_EQ(kest::Integer::unsafeFrom(stored).value(), 5);
}

// --- the slot contract ------------------------------------------------------------------------------

namespace {
/// A slot result and the pending exception agree: failure exactly when one is set.
void expect_int_slot_failure(int result, PyObject *expected_type, const char *what) {
  const bool error_set = PyErr_Occurred() != nullptr;
  EXPECT_EQ(result, -1) << what;
  EXPECT_EQ(result == -1, error_set) << what << ": an exception must be set exactly when -1 is returned";
  auto error = raised{take_exception()};
  EXPECT_TRUE(error.is_exactly(expected_type)) << what << ": " << error.type_name() << ": " << error.message();
}

void expect_object_slot_failure(PyObject *result, PyObject *expected_type, const char *what) {
  const bool error_set = PyErr_Occurred() != nullptr;
  EXPECT_EQ(result, nullptr) << what;
  EXPECT_EQ(result == nullptr, error_set) << what << ": an exception must be set exactly when null is returned";
  if (result)
    Py_DecRef(result);
  auto error = raised{take_exception()};
  EXPECT_TRUE(error.is_exactly(expected_type)) << what << ": " << error.type_name() << ": " << error.message();
}

template <class F> F slot_of(PyObject *object, int slot) {
  return reinterpret_cast<F>(PyType_GetSlot(Py_TYPE(object), slot));
}
} // namespace

TEST(Protocols, FailingSlotsSetAnExceptionExactlyWhenTheyFail) {
  ensurePythonReady();
  py::gil lock;
  auto failing = [](const char *message) {
    std::string text = message;
    return kest::make_method([text](kest::Any, kest::Any, kest::Any) -> kest::Any { return kest::Error(S(text)); });
  };
  auto sequence = declare_class(
      {S("FailingSequence"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
       method_entry("contains", kest::make_method([](kest::Any, kest::Any) -> kest::Any { return kest::Error("no contains"); }),
                    "value"),
       method_entry("set", failing("no set"), "index, value")});
  auto map = declare_class({S("FailingMap"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableMap::getClass()),
                            method_entry("set", failing("no map set"), "key, value")});
  auto seq = py::object::steal(toPython(make_instance(sequence)));
  auto mapped = py::object::steal(toPython(make_instance(map)));
  auto bare = py::object::steal(toPython(make_instance(bare_class())));
  ASSERT_TRUE(seq && mapped && bare);
  auto key = py::object::steal(PyUnicode_FromString("k"));
  auto one = py::object::steal(PyLong_FromLong(1));

  expect_int_slot_failure(slot_of<objobjproc>(seq.get(), Py_sq_contains)(seq.get(), one.get()), PyExc_RuntimeError,
                          "contains");
  expect_int_slot_failure(slot_of<ssizeobjargproc>(seq.get(), Py_sq_ass_item)(seq.get(), 1, one.get()),
                          PyExc_RuntimeError, "item assignment");
  expect_int_slot_failure(slot_of<ssizeobjargproc>(seq.get(), Py_sq_ass_item)(seq.get(), 1, nullptr), PyExc_TypeError,
                          "item deletion");
  expect_int_slot_failure(slot_of<objobjargproc>(mapped.get(), Py_mp_ass_subscript)(mapped.get(), key.get(), one.get()),
                          PyExc_RuntimeError, "map assignment");
  expect_object_slot_failure(slot_of<getiterfunc>(bare.get(), Py_tp_iter)(bare.get()), PyExc_TypeError, "iter");
  auto no_arguments = py::object::steal(PyTuple_New(0));
  expect_object_slot_failure(slot_of<ternaryfunc>(bare.get(), Py_tp_call)(bare.get(), no_arguments.get(), nullptr),
                             PyExc_RuntimeError, "call");
  expect_object_slot_failure(slot_of<binaryfunc>(bare.get(), Py_nb_and)(bare.get(), one.get()),
                             PyExc_NotImplementedError, "and");
  expect_object_slot_failure(slot_of<getattrofunc>(bare.get(), Py_tp_getattro)(bare.get(), key.get()),
                             PyExc_AttributeError, "attribute");

  // An operand that is no KestObject is not ours: NotImplemented, without an exception.
  PyObject *answer = slot_of<binaryfunc>(bare.get(), Py_nb_and)(one.get(), bare.get());
  EXPECT_EQ(answer, Py_NotImplemented);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  if (answer)
    Py_DecRef(answer);
  PyErr_Clear();
}

TEST(Protocols, FailingHostMethodsRaiseRuntimeErrorWithTheirMessages) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class(
      {S("FailingContainer"), B::module_entry(S(module_name)), B::base_entry(kest::I_MutableSequence::getClass()),
       method_entry("contains", kest::make_method([](kest::Any, kest::Any) -> kest::Any { return kest::Error("cannot look"); }),
                    "value"),
       method_entry("$__sub__", kest::make_method([](kest::Any, kest::Any) -> kest::Any { return kest::Error("cannot subtract"); }),
                    "other")});
  py_namespace ns;
  ns.set("a", make_instance(cls));
  auto contains = ns.run_raising("1 in a");
  EXPECT_TRUE(contains.is_exactly(PyExc_RuntimeError)) << contains.type_name();
  EXPECT_EQ(contains.message(), "cannot look");
  auto subtract = ns.run_raising("a - 1");
  EXPECT_TRUE(subtract.is_exactly(PyExc_RuntimeError)) << subtract.type_name();
  EXPECT_EQ(subtract.message(), "cannot subtract");
}
