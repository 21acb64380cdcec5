// The importer of host modules: which names it claims, its two native
// functions, what a created module holds, the exception types of host error
// classes, and the host StopIteration inside Python loops.

#include "host_object_test_support.hpp"

#include "convert/to_python.hpp"
#include "language/exception_types.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
/// Code that binds the importer's two native functions to has_module and create_module.
constexpr const char *find_functions = R"(
import sys
importer = next(f for f in sys.meta_path if type(f).__name__ == '_KestModuleImporter')
functions = type(importer).create_module.__globals__
has_module = functions['_kest_has_module']
create_module = functions['_kest_create_module']
)";

kest::Property value_property(const char *name, const kest::Any &value) {
  return kest::Property::fromValue(S(name), value);
}
} // namespace

TEST(HostImporter, ImportKestGivesTheHostModule) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ASSERT_TRUE(ns.run("import kest\nimport types"));
  EXPECT_TRUE(ns.truth("isinstance(kest, types.ModuleType)"));
  EXPECT_EQ(ns.text("kest.__name__"), "kest");
  EXPECT_TRUE(ns.truth("__import__('sys').modules['kest'] is kest"));
}

TEST(HostImporter, TheImporterIsFirstOnTheMetaPath) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  EXPECT_EQ(ns.text("type(__import__('sys').meta_path[0]).__name__"), "_KestModuleImporter");
}

TEST(HostImporter, ANameThatOnlyBeginsWithKestIsNotClaimed) {
  ensurePythonReady();
  py::gil lock;
  // A host module of that name exists, so only the name test keeps it out.
  ASSERT_FALSE(kest::get_module(S("kestrel")).isError());
  py_namespace ns;
  ASSERT_TRUE(ns.run(find_functions));
  EXPECT_FALSE(ns.truth("has_module('kestrel')"));
  auto error = ns.run_raising("import kestrel");
  EXPECT_TRUE(error.is_exactly(PyExc_ModuleNotFoundError)) << error.type_name() << ": " << error.message();
  EXPECT_EQ(error.message(), "No module named 'kestrel': a host module of that name exists, but Python imports only "
                             "host modules named 'kest' or 'kest.\u2026'");
  // A name that is no host module fails as in python3; python.* mirrors are not looked up.
  auto plain = ns.run_raising("import no_such_module_anywhere_here");
  EXPECT_TRUE(plain.is_exactly(PyExc_ModuleNotFoundError));
  EXPECT_EQ(plain.message(), "No module named 'no_such_module_anywhere_here'");
  EXPECT_TRUE(ns.truth("type(__import__('sys').meta_path[-1]).__name__ == '_KestModuleNameHint'"));
}

TEST(HostImporter, HasModuleAnswersFalseForANonString) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ASSERT_TRUE(ns.run(find_functions));
  EXPECT_TRUE(ns.truth("has_module(5) is False"));
  EXPECT_TRUE(ns.truth("has_module('kest') is True"));
  EXPECT_TRUE(ns.truth("has_module('kest.no_such_module') is False"));
}

TEST(HostImporter, CreateModuleRejectsANonString) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ASSERT_TRUE(ns.run(find_functions));
  auto error = ns.run_raising("create_module(5)");
  EXPECT_TRUE(error.is_exactly(PyExc_TypeError)) << error.type_name();
  EXPECT_EQ(error.message(), "Kest module name must be a string.");
}

TEST(HostImporter, CreateModuleOfAnUnknownModuleRaisesRuntimeError) {
  ensurePythonReady();
  py::gil lock;
  py_namespace ns;
  ASSERT_TRUE(ns.run(find_functions));
  auto error = ns.run_raising("create_module('kest.no_such')");
  EXPECT_TRUE(error.is_exactly(PyExc_RuntimeError)) << error.type_name();
  EXPECT_EQ(error.message(), "[export_kest_module] Unable to import the module.");
}

TEST(HostImporter, AModuleShowsIndependentPropertiesOnly) {
  ensurePythonReady();
  const auto module = S("kest.testmod");
  ASSERT_FALSE(kest::internal::register_property(module, S("@hidden"), value_property("@hidden", kest::Integer(1))).isError());
  ASSERT_FALSE(kest::internal::register_property(module, S("answer"), value_property("answer", kest::Integer(42))).isError());
  {
    kest::internal::property_builder_base independent{S("level")};
    independent.assign_getter(kest::make_function([] { return std::int64_t{7}; }));
    ASSERT_FALSE(kest::internal::register_property(module, S("level"), independent.build()).isError());
  }
  {
    kest::internal::property_builder_base needy{S("needy")};
    needy.assign_getter(kest::make_method([](kest::Any) { return std::int64_t{8}; }));
    ASSERT_FALSE(kest::internal::register_property(module, S("needy"), needy.build()).isError());
  }
  py::gil lock;
  py_namespace ns;
  ASSERT_TRUE(ns.run("import kest.testmod as mod\nnames = vars(mod)"));
  EXPECT_TRUE(ns.truth("mod.level == 7"));
  EXPECT_TRUE(ns.truth("mod.answer == 42"));
  EXPECT_FALSE(ns.truth("'@hidden' in names"));
  EXPECT_FALSE(ns.truth("any(name.startswith('@') for name in names)"));
  EXPECT_FALSE(ns.truth("'needy' in names"));
  EXPECT_FALSE(ns.truth("hasattr(mod, 'needy')"));
  EXPECT_EQ(ns.text("mod.__name__"), "kest.testmod");
}

TEST(HostImporter, AModuleHoldsItsFunctions) {
  ensurePythonReady();
  ASSERT_FALSE(kest::internal::register_function(S("kest.testfuncs"), S("double_it"),
                                                 kest::make_function([](std::int64_t n) { return n * 2; }))
                   .isError());
  py::gil lock;
  py_namespace ns;
  ASSERT_TRUE(ns.run("from kest.testfuncs import double_it\nresult = double_it(21)"));
  EXPECT_TRUE(ns.truth("result == 42"));
}

TEST(HostImporter, TheSameErrorClassGivesTheSameExceptionType) {
  ensurePythonReady();
  py::gil lock;
  auto cls = declare_class({S("ImportedError"), B::base_entry(kest::Error::getClass()), B::module_entry(S("thi"))});
  PyObject *first = exceptionTypeFor(cls);
  PyObject *second = exceptionTypeFor(cls);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(PyType_Check(first));
  EXPECT_TRUE(PyObject_IsSubclass(first, PyExc_RuntimeError) == 1);

  // Raised twice from host errors, the exceptions share the type.
  auto raising = kest::make_function([cls]() -> kest::Any { return kest::Error::create(cls, S("again")); });
  py_namespace ns;
  ns.set("raising", raising);
  ASSERT_TRUE(ns.run("types = []\n"
                     "for _ in range(2):\n"
                     "    try:\n"
                     "        raising()\n"
                     "    except RuntimeError as e:\n"
                     "        types.append(type(e))\n"));
  EXPECT_TRUE(ns.truth("len(types) == 2 and types[0] is types[1]"));
  auto caught = ns.eval("types[0]");
  ASSERT_TRUE(caught);
  EXPECT_EQ(caught.get(), first);
}

TEST(HostImporter, TheHostStopIterationEndsAPythonForLoop) {
  ensurePythonReady();
  py::gil lock;
  EXPECT_EQ(exceptionTypeFor(kest::StopIteration::getClass()), PyExc_StopIteration);
  auto counter = std::make_shared<std::int64_t>(0);
  auto step = kest::make_function([counter]() -> kest::Any {
    if (*counter >= 3)
      return kest::StopIteration();
    return kest::Integer(++*counter);
  });
  py_namespace ns;
  ns.set("step", step);
  ASSERT_TRUE(ns.run("class Steps:\n"
                     "    def __iter__(self):\n"
                     "        return self\n"
                     "    def __next__(self):\n"
                     "        return step()\n"
                     "seen = [x for x in Steps()]\n"
                     "finished = True\n"));
  EXPECT_TRUE(ns.truth("seen == [1, 2, 3]"));
  EXPECT_TRUE(ns.truth("finished"));
}
