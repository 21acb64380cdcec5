// The class CPythonLanguage, its instance, the module "kest.cpython", the
// sandboxed evaluations, and evaluation from several threads.

#include "language_test_support.hpp"
#include "fresh_interpreter.hpp"
#include "temp_folder.hpp"

#include "language/cpython_language.hpp"
#include "proxies/cpython_object.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;
using sarvode::test_support::temp_folder;

namespace {

/// Expects a Python-backed value that wraps a list of `length` items.
void expect_python_list(const kest::Any &value, Py_ssize_t length) {
  ASSERT_TRUE(isPythonBacked(value)) << kest::display(value).toUtf8() << " (" << message_of(value) << ")";
  py::gil lock;
  PyObject *object = pythonObjectOf(value);
  ASSERT_NE(object, nullptr);
  ASSERT_TRUE(PyList_Check(object));
  EXPECT_EQ(PyList_Size(object), length);
}

/// A str attribute of a Python object, or "" (the caller holds the lock).
std::string python_text_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  Py_ssize_t size = 0;
  const char *utf8 = value && PyUnicode_Check(value.get()) ? PyUnicode_AsUTF8AndSize(value.get(), &size) : nullptr;
  if (!utf8) {
    PyErr_Clear();
    return {};
  }
  return std::string(utf8, static_cast<std::size_t>(size));
}

/// sys.dont_write_bytecode: 1 for true, 0 for false, -1 when missing or not a bool.
int dont_write_bytecode() {
  py::gil lock;
  PyObject *value = PySys_GetObject("dont_write_bytecode"); // borrowed
  if (value == Py_True)
    return 1;
  if (value == Py_False)
    return 0;
  return -1;
}

void set_dont_write_bytecode(bool value) {
  py::gil lock;
  ASSERT_EQ(PySys_SetObject("dont_write_bytecode", value ? Py_True : Py_False), 0);
}

void expect_no_pending_python_error(const char *after) {
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr) << "a Python error is pending after: " << after;
  PyErr_Clear();
}

std::string read_file(const std::string &path) {
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  return text;
}

const char *const write_blocked = "write blocked: read-only sandbox";

/// The names of the methods in the class's own table, in their order.
std::vector<std::string> own_method_names(const kest::Class_Generic &cls) {
  std::vector<std::string> names;
  std::lock_guard guard(cls->lock);
  for (const auto &[name, method] : cls->methods.entries)
    names.push_back(name->utf8);
  return names;
}

/// Expects `wanted` to appear in `names`, in that relative order.
void expect_in_order(const std::vector<std::string> &names, const std::vector<std::string> &wanted) {
  std::ptrdiff_t previous = -1;
  for (const auto &name : wanted) {
    auto it = std::find(names.begin(), names.end(), name);
    ASSERT_NE(it, names.end()) << "missing method " << name;
    const auto index = it - names.begin();
    EXPECT_GT(index, previous) << name << " is out of order";
    previous = index;
  }
}

kest::Module cpython_module() {
  ensurePythonReady();
  (void)kest::internal::run_init_handlers();
  auto module = kest::find_module(kest::String(u"kest.cpython"));
  EXPECT_TRUE(module.is<kest::Module>());
  return module.as<kest::Module>();
}

kest::I_Callable_Generic module_callable(const kest::Module &module, const char16_t *name) {
  auto found = module.callables().find(kest::String(name));
  EXPECT_TRUE(kest::I_Callable_Generic::isInstance(found)) << "no callable " << kest::String(name).toUtf8();
  return kest::I_Callable_Generic::unsafeFrom(found);
}

std::vector<std::string> parameter_names(const kest::I_Callable_Generic &callable) {
  std::vector<std::string> names;
  for (const auto &parameter : callable.signature().parameters())
    names.push_back(parameter.name().toUtf8());
  return names;
}
} // namespace

// --- evaluation through the instance ------------------------------------------------------

TEST(CPythonLanguage, EvaluateExpressionWithoutScopeYieldsTheList) {
  expect_python_list(evaluate_expression("[1, 2, 3]"), 3);
}

TEST(CPythonLanguage, AWholeNumberFloatIsReadAsANumberNotReinterpreted) {
  // 0.5 * 4 is the float 2.0, which arrives as the Integer 2.
  const auto result = python_language().evaluateExpression(kest::String(u"0.5 * 4"));
  EXPECT_TRUE(result.is<kest::Integer>());
  EXPECT_THROW((void)result.as<kest::Float>(), kest::bad_access);
  EXPECT_EQ(kest::to<double>(result), 2.0);
  EXPECT_EQ(kest::to<int>(result), 2);
  EXPECT_EQ(kest::to<double>(python_language().evaluateExpression(kest::String(u"0.5 * 5"))), 2.5);
  EXPECT_THROW((void)kest::to<int>(python_language().evaluateExpression(kest::String(u"0.5 * 5"))), kest::bad_access);
  // A failed evaluation is an error, and reading it says so.
  try {
    (void)kest::to<double>(python_language().evaluateExpression(kest::String(u"1 / 0")));
    ADD_FAILURE() << "an error was read as a number";
  } catch (const kest::bad_access &e) {
    EXPECT_NE(std::string(e.what()).find("ZeroDivisionError: division by zero"), std::string::npos) << e.what();
  }
}

TEST(CPythonLanguage, ScopeThatIsNoEvaluationScopeMeansNoSelfAndNoMaps) {
  ensurePythonReady();
  ASSERT_FALSE(kest::globals().setChecked(kest::String(u"host_value"), kest::Integer(11)).isError());
  const kest::Any not_a_scope = kest::Integer(5);
  EXPECT_TRUE(boolean_of(evaluate("return self is None", not_a_scope)));
  // With no scope maps, the host's global table is what the code sees.
  EXPECT_EQ(integer_of(evaluate("return host_value", not_a_scope)), 11);
  EXPECT_EQ(integer_of(evaluate_expression("host_value + 1", not_a_scope)), 12);
  auto map_scope = string_map({{"host_value", kest::Integer(99)}});
  EXPECT_EQ(integer_of(evaluate("return host_value", map_scope)), 11); // a map is no scope either
}

// --- the sandbox --------------------------------------------------------------------------

TEST(CPythonLanguage, SandboxedEvaluationRestoresDontWriteBytecode) {
  SARVODE_REQUIRE_OWN_START_UP();
  auto lang = python_language();
  for (const bool before : {false, true}) {
    SCOPED_TRACE(before);
    set_dont_write_bytecode(before);
    auto inside = unwrapped(lang.evaluateInSandbox(kest::String(u"import sys\nreturn sys.dont_write_bytecode")));
    EXPECT_TRUE(boolean_of(inside)); // no bytecode is written while sandboxed
    EXPECT_EQ(dont_write_bytecode(), before ? 1 : 0);
    auto expression = unwrapped(lang.evaluateExpressionInSandbox(kest::String(u"1 + 1")));
    EXPECT_EQ(integer_of(expression), 2);
    EXPECT_EQ(dont_write_bytecode(), before ? 1 : 0);
  }
}

TEST(CPythonLanguage, SandboxedEvaluationRestoresDontWriteBytecodeAfterAnError) {
  SARVODE_REQUIRE_OWN_START_UP();
  set_dont_write_bytecode(false);
  auto failed = unwrapped(python_language().evaluateInSandbox(kest::String(u"raise ValueError('x')")));
  EXPECT_TRUE(kest::Error::isInstance(failed));
  EXPECT_EQ(dont_write_bytecode(), 0);
}

TEST(CPythonLanguage, SandboxedEvaluationRefusesWritingAFile) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("written.txt");
  const auto code = "with open(r'" + path + "', 'w') as f:\n    f.write('data')\nreturn 1";
  auto lang = python_language();

  auto refused = unwrapped(lang.evaluateInSandbox(kest::String::fromUtf8(code)));
  ASSERT_TRUE(kest::Error::isInstance(refused)) << kest::display(refused).toUtf8();
  EXPECT_EQ(message_of(refused), write_blocked);
  EXPECT_FALSE(std::filesystem::exists(path));

  auto refused_expression =
      unwrapped(lang.evaluateExpressionInSandbox(kest::String::fromUtf8("open(r'" + path + "', 'w')")));
  ASSERT_TRUE(kest::Error::isInstance(refused_expression)) << kest::display(refused_expression).toUtf8();
  EXPECT_EQ(message_of(refused_expression), write_blocked);
  EXPECT_FALSE(std::filesystem::exists(path));

  // Plain evaluation of the same code writes the file.
  EXPECT_EQ(integer_of(unwrapped(lang.evaluate(kest::String::fromUtf8(code)))), 1);
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(read_file(path), "data");
}

TEST(CPythonLanguage, SandboxedEvaluationSeesTheScope) {
  SARVODE_REQUIRE_OWN_START_UP();
  auto out = string_map({{"result", kest::Integer(0)}});
  kest::EvaluationScope with(kest::Integer(4), kest::None(), kest::I_Map::unsafeFrom(string_map({{"n", kest::Integer(3)}})),
                             kest::I_MutableMap::unsafeFrom(out));
  auto lang = python_language();
  EXPECT_TRUE(kest::is_none(unwrapped(lang.evaluateInSandbox(kest::String(u"result = self * n"), with))));
  EXPECT_EQ(integer_of(out.find(kest::String(u"result"))), 12);
  EXPECT_EQ(integer_of(unwrapped(lang.evaluateExpressionInSandbox(kest::String(u"n + 1"), with))), 4);
}

// --- the instance's properties ---------------------------------------------------------------

TEST(CPythonLanguage, NamePropertyReadsCPython) {
  auto lang = language();
  auto property = kest::property_of(lang, kest::meta_property_untyped("$$name"));
  ASSERT_TRUE(property.is<kest::Property>());
  EXPECT_EQ(text_of(unwrapped(property.as<kest::Property>().get(lang))), "CPython");
  EXPECT_EQ(text_of(unwrapped(lang.propertyValue(kest::meta_property_untyped("$$name")))), "CPython");
}

TEST(CPythonLanguage, CanEvaluatePropertyReadsTrue) {
  auto lang = language();
  EXPECT_TRUE(boolean_of(unwrapped(lang.propertyValue(kest::meta_property_untyped("$$canEvaluate")))));
  EXPECT_TRUE(lang.canEvaluate());
}

TEST(CPythonLanguage, InstancePropertyIsTheRegisteredLanguage) {
  auto lang = language();
  EXPECT_TRUE(lang.isSame(cpythonLanguage()));
  auto instance = unwrapped(lang.propertyValue(kest::meta_property_untyped("$$instance")));
  EXPECT_TRUE(instance.isSame(lang));
  auto declared = cpythonLanguageClass().definedProperty(kest::meta_property_untyped("$$instance"));
  ASSERT_TRUE(declared.is<kest::Property>());
  EXPECT_TRUE(declared.as<kest::Property>().storedValue().isSame(lang));
}

// --- the class --------------------------------------------------------------------------------

TEST(CPythonLanguage, ClassBelongsToTheModuleKestCpython) {
  ensurePythonReady();
  auto cls = cpythonLanguageClass();
  EXPECT_EQ(cls.name().toUtf8(), "CPythonLanguage");
  EXPECT_EQ(kest::qualname(cls).toUtf8(), "kest.cpython.CPythonLanguage");
  auto context = cls.declaringContext();
  ASSERT_TRUE(kest::Module::isInstance(context)) << kest::display(context).toUtf8();
  EXPECT_EQ(kest::Module::unsafeFrom(context).name().toUtf8(), "kest.cpython");
  auto found = kest::find_type(kest::String(u"kest.cpython.CPythonLanguage"));
  ASSERT_TRUE(found.is<kest::Type>());
  EXPECT_TRUE(found.as<kest::Type>().toClass().isSame(cls));
}

TEST(CPythonLanguage, ClassDerivesFromPythonLanguage) {
  ensurePythonReady();
  auto cls = cpythonLanguageClass();
  EXPECT_TRUE(cls.derivesFrom(kest::PythonLanguage::getClass()));
  EXPECT_TRUE(cls.derivesFrom(kest::I_Language::getClass()));
  EXPECT_TRUE(kest::class_of(cpythonLanguage()).isSame(cls));
}

TEST(CPythonLanguage, ClassHasItsDocumentationAndExamples) {
  ensurePythonReady();
  auto cls = cpythonLanguageClass();
  EXPECT_EQ(cls.doc().toUtf8(), "Implementation of 'I_Language' interface for Python language.");
  EXPECT_EQ(cls.example(kest::internal::language_name_cpp()).toUtf8(),
            "CPythonLanguage::evaluateExpression(\"[1, 2, 3]\");");
  EXPECT_EQ(cls.example(kest::internal::language_name_js()).toUtf8(),
            "kest.cpython.CPythonLanguage.evaluateExpression('[1, 2, 3]')");
  EXPECT_EQ(cls.example(kest::internal::language_name_python()).toUtf8(),
            "kest.cpython.CPythonLanguage.evaluateExpression('[1, 2, 3]')");
}

TEST(CPythonLanguage, ClassDeclaresItsMethodsInOrder) {
  ensurePythonReady();
  auto cls = cpythonLanguageClass();
  const std::vector<std::string> wanted{"toCode",          "resolve",           "evaluateExpressionInSandbox",
                                        "evaluateInSandbox", "evaluateExpression", "evaluate"};
  expect_in_order(own_method_names(cls), wanted);

  std::vector<std::string> defined;
  for (const auto &method : cls.definedMethods())
    defined.push_back(method.name().toUtf8());
  expect_in_order(defined, wanted);
  // The class's own toCode replaces the one of PythonLanguage.
  EXPECT_EQ(std::count(defined.begin(), defined.end(), "toCode"), 1);
  auto to_code = cls.definedMethod(kest::meta_method_untyped("toCode"));
  ASSERT_TRUE(to_code.is<kest::I_Callable_Generic>());
  auto base_to_code = kest::PythonLanguage::getClass().definedMethod(kest::meta_method_untyped("toCode"));
  ASSERT_TRUE(base_to_code.is<kest::I_Callable_Generic>());
  EXPECT_FALSE(to_code.isSame(base_to_code));
}

TEST(CPythonLanguage, AskingForTheClassTwiceGivesTheSameClass) {
  ensurePythonReady();
  auto first = cpythonLanguageClass();
  auto second = cpythonLanguageClass();
  EXPECT_FALSE(first.empty());
  EXPECT_TRUE(first.isSame(second));
  EXPECT_TRUE(cpythonLanguage().isSame(cpythonLanguage()));
}

// --- toCode -------------------------------------------------------------------------------

TEST(CPythonLanguage, ToCodeOfAPythonBackedValueIsItsRepr) {
  auto list = evaluate_expression("[1, 2]");
  ASSERT_TRUE(isPythonBacked(list));
  EXPECT_EQ(text_of(unwrapped(language().toCode(list))), "[1, 2]");
  auto dict = evaluate_expression("{'a': (1, 'b')}");
  ASSERT_TRUE(isPythonBacked(dict));
  EXPECT_EQ(text_of(unwrapped(language().toCode(dict))), "{'a': (1, 'b')}");
}

TEST(CPythonLanguage, ToCodeIsEmptyWhenReprRaises) {
  auto object = evaluate("class Unprintable:\n"
                         "    def __repr__(self):\n"
                         "        raise ValueError('no repr')\n"
                         "return Unprintable()");
  ASSERT_TRUE(isPythonBacked(object)) << message_of(object);
  auto code = unwrapped(language().toCode(object));
  ASSERT_TRUE(kest::String::isInstance(code)) << kest::display(code).toUtf8();
  EXPECT_TRUE(kest::String::unsafeFrom(code).empty());
  expect_no_pending_python_error("toCode of a value whose repr raises");
}

TEST(CPythonLanguage, ToCodeOfHostValuesWritesPythonLiterals) {
  auto lang = language();
  const kest::List list{kest::Integer(1), kest::Integer(2)};
  EXPECT_EQ(text_of(unwrapped(lang.toCode(kest::Boolean(true)))), "True");
  EXPECT_EQ(text_of(unwrapped(lang.toCode(kest::String(u"a")))), "'a'");
  EXPECT_EQ(text_of(unwrapped(lang.toCode(list))), "[1, 2]");
  for (const kest::Any &value : {kest::Any(kest::None()), kest::Any(kest::Integer(-3)), kest::Any(list)}) {
    auto expected = kest::internal::result_unwrap_lazy(kest::PythonLanguage::toCode(value));
    EXPECT_EQ(text_of(unwrapped(lang.toCode(value))), text_of(expected));
  }
  // A value without a literal form gives the host's error.
  auto module = kest::find_module(kest::String(u"kest"));
  auto refused = unwrapped(lang.toCode(module));
  ASSERT_TRUE(kest::Error::isInstance(refused));
  EXPECT_EQ(message_of(refused), message_of(kest::internal::result_unwrap_lazy(kest::PythonLanguage::toCode(module))));
}

// --- resolve --------------------------------------------------------------------------------

TEST(CPythonLanguage, ResolveOfAModuleNameGivesTheModule) {
  auto math = unwrapped(language().resolve(kest::String(u"math")));
  ASSERT_TRUE(isPythonBacked(math)) << kest::display(math).toUtf8() << " " << message_of(math);
  py::gil lock;
  PyObject *object = pythonObjectOf(math);
  ASSERT_NE(object, nullptr);
  EXPECT_TRUE(PyModule_Check(object));
  EXPECT_EQ(python_text_attribute(object, "__name__"), "math");
}

TEST(CPythonLanguage, ResolveOfAModuleAttributeGivesItsHostValue) {
  auto pi = unwrapped(language().resolve(kest::String(u"math.pi")));
  ASSERT_TRUE(kest::Float::isInstance(pi)) << kest::display(pi).toUtf8();
  EXPECT_EQ(kest::Float::unsafeFrom(pi).value(), 3.141592653589793);
}

TEST(CPythonLanguage, ResolveOfAMissingAttributeIsAnError) {
  auto missing = unwrapped(language().resolve(kest::String(u"math.nosuch")));
  ASSERT_TRUE(kest::Error::isInstance(missing)) << kest::display(missing).toUtf8();
  EXPECT_EQ(message_of(missing), "Unable to find the object: math.nosuch.");
}

TEST(CPythonLanguage, ResolveImportsTheModulePartOfADottedPath) {
  auto join = unwrapped(language().resolve(kest::String(u"os.path.join")));
  ASSERT_TRUE(isPythonBacked(join)) << kest::display(join).toUtf8() << " " << message_of(join);
  py::gil lock;
  PyObject *object = pythonObjectOf(join);
  ASSERT_NE(object, nullptr);
  EXPECT_TRUE(PyCallable_Check(object));
  EXPECT_EQ(python_text_attribute(object, "__name__"), "join");
  PyObject *modules = PySys_GetObject("modules"); // borrowed
  ASSERT_NE(modules, nullptr);
  EXPECT_EQ(PyMapping_HasKeyString(modules, "os.path"), 1);
}

TEST(CPythonLanguage, ResolveOfAMissingModuleIsAnError) {
  auto missing = unwrapped(language().resolve(kest::String(u"nosuchmodule")));
  ASSERT_TRUE(kest::Error::isInstance(missing)) << kest::display(missing).toUtf8();
  EXPECT_EQ(message_of(missing), "Unable to find the module: nosuchmodule.");
}

TEST(CPythonLanguage, ResolveOfAnEmptyPathGivesAnEmptyResult) {
  auto nothing = unwrapped(language().resolve(kest::String()));
  EXPECT_FALSE(kest::internal::is_error_value(nothing)) << message_of(nothing);
  EXPECT_TRUE(kest::is_none(nothing)) << kest::display(nothing).toUtf8();
  EXPECT_TRUE(resolvePath(kest::String()).empty());
}

// --- the module "kest.cpython" ----------------------------------------------------------------

TEST(CPythonLanguage, ModuleDocReadsInterfaceToPythonLanguage) {
  auto module = cpython_module();
  auto doc = kest::property_of(module, kest::meta_property_untyped("doc"));
  ASSERT_TRUE(doc.is<kest::Property>());
  EXPECT_EQ(text_of(unwrapped(doc.as<kest::Property>().get(module))), "Interface to Python language.");
}

TEST(CPythonLanguage, ModuleOffersEvaluateAndEvaluateExpr) {
  auto module = cpython_module();
  auto evaluate_fn = module_callable(module, u"evaluate");
  auto evaluate_expr = module_callable(module, u"evaluate_expr");
  EXPECT_EQ(parameter_names(evaluate_fn), (std::vector<std::string>{"code", "scope"}));
  EXPECT_EQ(parameter_names(evaluate_expr), (std::vector<std::string>{"code", "scope"}));
  EXPECT_EQ(evaluate_fn.doc().toUtf8(), "Evaluates Python code.");
  EXPECT_EQ(evaluate_expr.doc().toUtf8(), "Evaluates Python expression.");
}

TEST(CPythonLanguage, ModuleOffersCpythonAddSysPath) {
  auto module = cpython_module();
  auto add = module_callable(module, u"cpython_add_sys_path");
  EXPECT_EQ(parameter_names(add), (std::vector<std::string>{"path"}));
  EXPECT_EQ(add.doc().toUtf8(), "Adds a path to sys.path once.");
}

TEST(CPythonLanguage, ModuleEvaluateRunsWithTheScopeDefaultingToNone) {
  auto evaluate_fn = module_callable(cpython_module(), u"evaluate");
  EXPECT_EQ(integer_of(unwrapped(evaluate_fn.callWith({kest::String(u"return 3")}))), 3);
  EXPECT_TRUE(boolean_of(unwrapped(evaluate_fn.callWith({kest::String(u"return self is None")}))));
}

TEST(CPythonLanguage, ModuleEvaluateExprUsesTheScope) {
  auto evaluate_expr = module_callable(cpython_module(), u"evaluate_expr");
  kest::EvaluationScope with(kest::Any(), kest::I_Map::unsafeFrom(string_map({{"y", kest::Integer(2)}})),
                             kest::I_Map::unsafeFrom(string_map({{"x", kest::Integer(40)}})), kest::None());
  EXPECT_EQ(integer_of(unwrapped(evaluate_expr.callWith({kest::String(u"x + y"), with}))), 42);
  EXPECT_EQ(integer_of(unwrapped(evaluate_expr.callWith({kest::String(u"6 * 7")}))), 42);
}

// --- threads ----------------------------------------------------------------------------------

TEST(CPythonLanguage, EvaluationFromSeveralThreadsAtOnceGivesTheRightResults) {
  auto lang = language();
  constexpr int threads = 4;
  constexpr int rounds = 50;
  std::atomic<int> correct{0};
  std::mutex failures_lock;
  std::vector<std::string> failures;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&, t] {
      const auto code = kest::String::fromUtf8("sum(range(" + std::to_string(10 + t) + ")) * " + std::to_string(t + 1));
      const std::int64_t expected = static_cast<std::int64_t>((10 + t) * (9 + t) / 2) * (t + 1);
      for (int i = 0; i < rounds; ++i) {
        auto value = kest::internal::result_unwrap_lazy(lang.evaluateExpression(code));
        if (kest::Integer::isInstance(value) && kest::Integer::unsafeFrom(value).value() == expected) {
          ++correct;
        } else {
          std::lock_guard guard(failures_lock);
          failures.push_back(code.toUtf8() + " gave " + kest::display(value).toUtf8());
        }
      }
    });
  for (auto &worker : workers)
    worker.join();
  EXPECT_EQ(correct.load(), threads * rounds);
  EXPECT_TRUE(failures.empty()) << failures.front();
}

// --- no error left behind ---------------------------------------------------------------------

TEST(CPythonLanguage, FailedEvaluationsLeaveNoPythonErrorPending) {
  auto lang = python_language();
  auto unbound = string_map({{"missing", newCPythonObject(nullptr)}});
  kest::EvaluationScope unbound_scope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(unbound));
  struct attempt {
    const char *what;
    std::function<kest::Result<kest::Any>()> run;
  };
  const std::vector<attempt> attempts{
      {"syntax error", [&] { return lang.evaluate(kest::String(u"x = = 1")); }},
      {"runtime error", [&] { return lang.evaluate(kest::String(u"raise ValueError('x')")); }},
      {"unbound out-local", [&] { return lang.evaluate(kest::String(u"x = 1"), unbound_scope); }},
      {"StopIteration", [&] { return lang.evaluate(kest::String(u"raise StopIteration")); }},
      {"expression syntax error", [&] { return lang.evaluateExpression(kest::String(u"1 + * 2")); }},
      {"expression name error", [&] { return lang.evaluateExpression(kest::String(u"nosuch")); }},
      {"sandboxed write", [&] { return lang.evaluateInSandbox(kest::String(u"open('/nonexistent/x', 'w')")); }},
      {"sandboxed expression", [&] { return lang.evaluateExpressionInSandbox(kest::String(u"1 / 0")); }},
      {"missing module", [&] { return lang.resolve(kest::String(u"nosuchmodule")); }},
      {"missing attribute", [&] { return lang.resolve(kest::String(u"math.nosuch")); }},
  };
  for (const auto &a : attempts) {
    SCOPED_TRACE(a.what);
    auto result = unwrapped(a.run());
    EXPECT_TRUE(kest::Error::isInstance(result)) << kest::display(result).toUtf8();
    expect_no_pending_python_error(a.what);
  }
}
