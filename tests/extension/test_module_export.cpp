// Python modules in the host: the module export, the standard entries of the
// host module "python", and the catalogue of every installed module.

#include "fresh_interpreter.hpp"
#include "language_test_support.hpp"
#include "temp_folder.hpp"

#include "language/module_catalogue.hpp"
#include "proxies/cpython_module.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
void write(const std::string &path, const std::string &text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << text;
}

/// A package in a temporary folder on sys.path: a sub-package, a public
/// function, a class, a constant, a private name, a class imported from elsewhere.
struct sample_package {
  temp_folder tmp;
  explicit sample_package(const std::string &name) {
    write(tmp.file(name + "/__init__.py"), "from collections import OrderedDict\n"
                                           "X = 1\n"
                                           "def f():\n    return 42\n"
                                           "def _g():\n    return 0\n"
                                           "class C:\n    pass\n");
    write(tmp.file(name + "/tools.py"), "def tool():\n    return 'tool'\n");
    write(tmp.file(name + "/_private.py"), "def hidden():\n    pass\n");
    write(tmp.file(name + "/inner/__init__.py"), "class Inner:\n    pass\n");
    write(tmp.file(name + "/inner/deep.py"), "def deep():\n    return 'deep'\n");
    ensurePythonReady();
    (void)addSysPath(kest::String::fromUtf8(tmp.path()));
  }
};

std::set<std::string> keys_of(const kest::HashMap &map) {
  std::set<std::string> out;
  for (auto &[key, value] : map.copyPairs())
    out.insert(kest::String::unsafeFrom(key).toUtf8());
  return out;
}

kest::Module found(const char *name) {
  auto m = kest::find_module(kest::String::fromUtf8(name));
  EXPECT_TRUE(m.is<kest::Module>()) << name << " is not registered";
  return m.is<kest::Module>() ? m.as<kest::Module>() : kest::Module::create(kest::String(u"missing"));
}

kest::Any member(const kest::Module &module, const char *name) {
  return kest::internal::result_unwrap_lazy(module.propertyValue(kest::meta_property_untyped(name)));
}
} // namespace

TEST(ModuleExport, OnlyPublicFunctionsAndClassesBecomeMembers) {
  sample_package package("pkg_members");
  auto exported = exportPythonModule("pkg_members", kest::String(u"exported.members"), false);
  ASSERT_TRUE(exported.is<kest::Module>());
  auto module = exported.as<kest::Module>();
  EXPECT_EQ(keys_of(module.callables()), (std::set<std::string>{"f"}));
  EXPECT_EQ(keys_of(module.classes()), (std::set<std::string>{"C", "OrderedDict"}));
  EXPECT_TRUE(kest::is_none(member(module, "X")) || kest::Error::isInstance(member(module, "X")));
  auto f = kest::I_Callable_Generic::cast(member(module, "f"));
  ASSERT_TRUE(f.is<kest::I_Callable_Generic>());
  EXPECT_EQ(integer_of(unwrapped(f.as<kest::I_Callable_Generic>().callWith({}))), 42);
  EXPECT_TRUE(kest::raw_class_of(module).derivesFrom(cpythonModuleClass()));
  EXPECT_EQ(module.name().toUtf8(), "exported.members");
  EXPECT_TRUE(found("exported.members").isSame(module));
}

TEST(ModuleExport, AModuleThatCannotBeImportedGivesNothing) {
  ensurePythonReady();
  EXPECT_TRUE(exportPythonModule("no_such_module_here", kest::String(u"exported.none"), false).is<kest::None>());
  EXPECT_TRUE(kest::find_module(kest::String(u"exported.none")).is<kest::None>());
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(ModuleExport, TheFirstRegistrationOfANameWins) {
  sample_package package("pkg_first");
  auto first = exportPythonModule("pkg_first", kest::String(u"exported.first"), false);
  auto second = exportPythonModule("json", kest::String(u"exported.first"), false);
  ASSERT_TRUE(first.is<kest::Module>());
  ASSERT_TRUE(second.is<kest::Module>()); // a module is made all the same
  EXPECT_FALSE(second.as<kest::Module>().isSame(first.as<kest::Module>()));
  EXPECT_TRUE(found("exported.first").isSame(first.as<kest::Module>()));
}

TEST(ModuleExport, APackageWithSubmodulesGetsOneChildPerPublicSubmodule) {
  sample_package package("pkg_tree");
  auto exported = exportPythonModule("pkg_tree", kest::String(u"tree"), true);
  ASSERT_TRUE(exported.is<kest::Module>());
  auto tools = found("tree.tools");
  auto inner = found("tree.inner");
  auto deep = found("tree.inner.deep");
  EXPECT_TRUE(kest::find_module(kest::String(u"tree._private")).is<kest::None>());
  EXPECT_TRUE(member(exported.as<kest::Module>(), "tools").isSame(tools));
  EXPECT_TRUE(member(exported.as<kest::Module>(), "inner").isSame(inner));
  EXPECT_TRUE(member(inner, "deep").isSame(deep));
  EXPECT_EQ(keys_of(deep.callables()), (std::set<std::string>{"deep"}));
  EXPECT_EQ(keys_of(inner.classes()), (std::set<std::string>{"Inner"}));
}

TEST(ModuleExport, APlainModuleHasNoChildren) {
  ensurePythonReady();
  auto exported = exportPythonModule("json.decoder", kest::String(u"plain.decoder"), true);
  ASSERT_TRUE(exported.is<kest::Module>());
  std::size_t children = 0;
  for (auto &module : kest::modules())
    if (module.name().startsWith(u"plain.decoder."))
      ++children;
  EXPECT_EQ(children, 0u);
}

TEST(ModuleExport, ClassesGetTheModuleAsContextUnlessTheyHaveOne) {
  sample_package package("pkg_context");
  // OrderedDict was met before: its host class already has a context.
  ASSERT_FALSE(kest::Error::isInstance(evaluate("import collections\nreturn collections.OrderedDict")));
  auto ordered_before = kest::Class_Generic::cast(evaluate("import collections\nreturn collections.OrderedDict"));
  ASSERT_TRUE(ordered_before.is<kest::Class_Generic>());
  auto earlier_context = ordered_before.as<kest::Class_Generic>().declaringContext();

  auto exported = exportPythonModule("pkg_context", kest::String(u"exported.context"), false);
  ASSERT_TRUE(exported.is<kest::Module>());
  auto module = exported.as<kest::Module>();
  auto c = kest::Class_Generic::unsafeFrom(unwrapped(module.classes().find(kest::String(u"C"))));
  EXPECT_TRUE(c.declaringContext().isSame(module));
  auto ordered = kest::Class_Generic::unsafeFrom(unwrapped(module.classes().find(kest::String(u"OrderedDict"))));
  if (!kest::is_none(earlier_context)) {
    EXPECT_TRUE(ordered.declaringContext().isSame(earlier_context));
  }
}

TEST(PythonModule, TheStandardEntriesAreMadeOnFirstLookUp) {
  SARVODE_REQUIRE_OWN_START_UP();
  // Start-up made none of them and imported none of their Python modules.
  auto listed = [](const char *name) {
    auto all = kest::modules();
    return std::any_of(all.begin(), all.end(), [&](const kest::Module &m) { return m.name().toUtf8() == name; });
  };
  EXPECT_FALSE(listed("python.builtins"));
  EXPECT_FALSE(listed("python.typing"));
  auto imported = evaluate("import sys\nreturn 'typing' in sys.modules or 'decimal' in sys.modules");
  ASSERT_TRUE(kest::Boolean::isInstance(imported));
  EXPECT_FALSE(kest::Boolean::unsafeFrom(imported).value());

  for (const char *name : {"python.builtins", "python.collections", "python.collections.abc", "python.datetime",
                           "python.decimal", "python.sys", "python.types", "python.typing"})
    (void)found(name);
  auto python = found("python");
  for (const char *child : {"builtins", "collections", "datetime", "decimal", "sys", "types", "typing"})
    EXPECT_TRUE(kest::Module::isInstance(member(python, child))) << child;
  EXPECT_TRUE(member(found("python.collections"), "abc").isSame(found("python.collections.abc")));
  EXPECT_TRUE(found("python.types").isSame(member(python, "types")));
  EXPECT_TRUE(keys_of(found("python.builtins").callables()).count("len"));
}

TEST(PythonModule, ImportAllModulesAddsEveryInstalledTopLevelModuleOnce) {
  SARVODE_REQUIRE_OWN_START_UP();
  auto listed = evaluate("import pkgutil\n"
                         "skipped = {'builtins', 'this', 'antigravity', 'sys'}\n"
                         "return sorted({m.name for m in pkgutil.iter_modules()\n"
                         "               if m.name and not m.name.startswith('_') and m.name not in skipped})");
  std::set<std::string> expected;
  for (kest::internal::iterator_iterable it(listed), end; it != end; ++it)
    expected.insert(kest::String::unsafeFrom(*it).toUtf8());
  ASSERT_FALSE(expected.empty());

  auto builtins_before = found("python.builtins");
  importAllModules();
  importAllModules(); // a second call does nothing
  auto python = found("python");
  std::set<std::string> properties;
  for (auto &property : python.moduleClass().ownDefinedProperties())
    properties.insert(property.name().toUtf8());
  EXPECT_TRUE(properties.count("json"));
  for (const char *skipped : {"this", "antigravity", "__future__", "_thread"}) {
    EXPECT_FALSE(properties.count(skipped)) << skipped;
    EXPECT_FALSE(kest::find_module(kest::String(u"python.") + kest::String::fromUtf8(skipped)).is<kest::Module>())
        << skipped;
  }
  // builtins and sys are the standard entries of start-up, not made again.
  EXPECT_TRUE(found("python.builtins").isSame(builtins_before));

  // Every listed module is there, but those whose import fails in Python too.
  std::size_t imported = 0;
  for (const auto &name : expected) {
    if (kest::find_module(kest::String::fromUtf8("python." + name)).is<kest::Module>()) {
      EXPECT_TRUE(properties.count(name)) << name;
      ++imported;
      continue;
    }
    auto attempt = evaluate("import importlib\nimportlib.import_module('" + name + "')");
    EXPECT_TRUE(kest::Error::isInstance(attempt)) << name << " imports, yet is missing";
  }
  EXPECT_GT(imported, expected.size() / 2) << imported << " of " << expected.size();
}
