// CPythonLanguage and the functions of the module "kest.cpython".

#include "language/cpython_language.hpp"

#include "convert/from_python.hpp"
#include "language/evaluation.hpp"
#include "host/names.hpp"
#include "language/module_catalogue.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_entry.hpp"
#include "runtime/python_ready.hpp"
#include "runtime/python_shutdown.hpp"
#include "runtime/sandbox.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

namespace sarvode {

namespace {
using builder = kest::internal::class_builder_base;

kest::I_Callable_Generic method(const char *name, kest::I_Callable_Generic fn, const char *params, const char *doc,
                                std::vector<kest::Any> defaults = {}) {
  return kest::internal::declared_function(kest::String::fromUtf8(name), std::move(fn), kest::String::fromUtf8(params),
                                           kest::String::fromUtf8(doc), std::move(defaults));
}

kest::Any value_property(const char *name, const kest::Any &value) {
  kest::internal::property_builder_base p{kest::String::fromUtf8(name)};
  p.assign_getter_value(value);
  return builder::property_entry(p);
}

struct scope_parts {
  kest::Any self;
  kest::Union<kest::I_Map, kest::None> globals, locals;
  kest::Union<kest::I_MutableMap, kest::None> out_locals;
};

scope_parts unpack(const kest::Any &scope) {
  if (kest::is_none(scope) || !kest::EvaluationScope::isInstance(scope))
    return {kest::Any(), kest::None(), kest::None(), kest::None()};
  auto s = kest::EvaluationScope::unsafeFrom(scope);
  return {s.self(), s.globals(), s.locals(), s.outLocals()};
}

kest::Any sandboxed_statements(const kest::String &code, const kest::Any &scope) {
  if (pythonShutDown())
    return pythonShutDownError();
  SandboxScope sandbox;
  return evaluateWithScope(code, scope);
}

kest::Any sandboxed_expression(const kest::String &code, const kest::Any &scope) {
  if (pythonShutDown())
    return pythonShutDownError();
  SandboxScope sandbox;
  return evaluateExpressionWithScope(code, scope);
}

void build_class(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"CPythonLanguage")));
  b.add_entry(builder::module_entry(kest::String(u"kest.cpython")));
  b.add_entry(builder::doc_entry(kest::String(u"Implementation of 'I_Language' interface for Python language.")));
  const auto py_example = kest::String(u"kest.cpython.CPythonLanguage.evaluateExpression('[1, 2, 3]')");
  b.add_entry(builder::example_entry(kest::internal::language_name_cpp(),
                                     kest::String(u"CPythonLanguage::evaluateExpression(\"[1, 2, 3]\");")));
  b.add_entry(builder::example_entry(kest::internal::language_name_js(), py_example));
  b.add_entry(builder::example_entry(kest::internal::language_name_python(), py_example));
  const std::vector<kest::Any> no_scope{kest::Any()};
  b.add_entry(builder::method_entry(
      kest::meta_method_untyped("$toCode"),
      method("toCode", kest::make_method([](const kest::Any &, const kest::Any &value) { return pythonCode(value); }), "value",
             "Python source text for a value.")));
  b.add_entry(builder::method_entry(
      kest::meta_method_untyped("$resolve"),
      method("resolve", kest::make_method([](const kest::Any &, const kest::String &path) { return resolvePath(path); }), "path",
             "The Python object at a dotted path.")));
  b.add_entry(builder::method_entry(
      kest::meta_method_untyped("$evaluateExpressionInSandbox"),
      method("evaluateExpressionInSandbox",
             kest::make_method([](const kest::Any &, const kest::String &code, const kest::Any &scope) { return sandboxed_expression(code, scope); }),
             "code, scope", "Evaluates a Python expression in the read-only sandbox.", no_scope)));
  b.add_entry(builder::method_entry(
      kest::meta_method_untyped("$evaluateInSandbox"),
      method("evaluateInSandbox",
             kest::make_method([](const kest::Any &, const kest::String &code, const kest::Any &scope) { return sandboxed_statements(code, scope); }),
             "code, scope", "Evaluates Python code in the read-only sandbox.", no_scope)));
  b.add_entry(builder::method_entry(
      kest::meta_method_untyped("$evaluateExpression"),
      method("evaluateExpression",
             kest::make_method([](const kest::Any &, const kest::String &code, const kest::Any &scope) {
               return evaluateExpressionWithScope(code, scope);
             }),
             "code, scope", "Evaluates Python expression.", no_scope)));
  b.add_entry(builder::method_entry(
      kest::meta_method_untyped("$evaluate"),
      method("evaluate",
             kest::make_method([](const kest::Any &, const kest::String &code, const kest::Any &scope) { return evaluateWithScope(code, scope); }),
             "code, scope", "Evaluates Python code.", no_scope)));
  b.add_entry(builder::method_entry(
      names::import_all_modules(),
      method("importAllModules", kest::make_method([](const kest::Any &) { importAllModules(); }), "",
             "Adds a host module under \"python\" for every installed top-level Python module.")));
  b.add_entry(value_property("$$name", kest::String(u"CPython")));
  b.add_entry(value_property("$$canEvaluate", kest::Boolean(true)));
  b.add_entry(builder::base_entry(kest::PythonLanguage::getClass()));
}

kest::internal::class_declaration g_declaration("CPythonLanguage", &build_class);
} // namespace

kest::Class_Generic cpythonLanguageClass() { return g_declaration.get(); }

kest::Any cpythonLanguage() {
  static const kest::Any instance = [] {
    auto cls = cpythonLanguageClass();
    auto made = kest::internal::result_unwrap_lazy(cls.allocateInstance());
    // The instance is the language that the host finds under the Python name.
    cls->add_property(kest::meta_property_untyped("$$instance"),
                      kest::Property::fromValue(kest::String(u"instance"), made));
    kest::internal::register_language(kest::internal::language_name_python(), made);
    static const kest::internal::python_lock_hooks lock{&py::enter_lock, &py::leave_lock};
    kest::internal::set_python_lock(&lock);
    return made;
  }();
  return instance;
}

kest::Any evaluateWithScope(const kest::String &code, const kest::Any &scope) {
  if (pythonShutDown())
    return pythonShutDownError();
  auto s = unpack(scope);
  return runStatements(code, s.self, s.locals, s.globals, s.out_locals);
}

kest::Any evaluateExpressionWithScope(const kest::String &code, const kest::Any &scope) {
  if (pythonShutDown())
    return pythonShutDownError();
  auto s = unpack(scope);
  return runExpression(code, s.locals, s.globals);
}

kest::Any resolvePath(const kest::String &path) {
  if (path.empty())
    return {};
  const auto dot = path.rfind(u'.');
  const auto module_part = dot < 0 ? path : path.substr(0, dot);
  const auto object_name = dot < 0 ? kest::String() : path.sliced(dot + 1);
  if (pythonShutDown())
    return pythonShutDownError();
  ensurePythonReady();
  py::gil lock;
  auto module = py::object::steal(PyImport_ImportModule(module_part.toUtf8().c_str()));
  if (!module) {
    PyErr_Clear();
    return kest::Error(kest::String::fromUtf8(fmt::format("Unable to find the module: {}.", module_part.utf8View())));
  }
  if (object_name.empty())
    return fromPython(module.get());
  PyObject *dict = PyModule_GetDict(module.get()); // borrowed
  if (!dict) {
    PyErr_Clear();
    return kest::Error(kest::String::fromUtf8(fmt::format("Unable to get the module dict: {}.", module_part.utf8View())));
  }
  PyObject *object = PyDict_GetItemString(dict, object_name.toUtf8().c_str()); // borrowed
  if (!object)
    return kest::Error(kest::String::fromUtf8(fmt::format("Unable to find the object: {}.", path.utf8View())));
  return fromPython(object);
}

kest::Any pythonCode(const kest::Any &value) {
  if (isPythonBacked(value)) {
    PythonEntry entry(value); // repr runs the object's own code
    PyObject *object = entry.object();
    auto text = py::object::steal(object ? PyObject_Repr(object) : nullptr);
    if (!text) {
      PyErr_Clear();
      return kest::String();
    }
    auto converted = fromPython(text.get());
    return kest::String::isInstance(converted) ? converted : kest::Any(kest::String());
  }
  return kest::PythonLanguage::toCode(value);
}

} // namespace sarvode
