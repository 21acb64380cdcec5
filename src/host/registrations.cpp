// Load-time registrations: the start-up handlers of the extension and the name
// objects it uses. The host runs the handlers by level:
//   2  the class CPythonLanguage
//   3  start the interpreter and put the log bridge on Python's root logger
//   4  "kest.cpython" property "doc"
//   5  "kest.cpython" functions "cpython_add_sys_path", "evaluate", "evaluate_expr"

#include "host/names.hpp"
#include "language/cpython_language.hpp"
#include "proxies/cpython_module.hpp"
#include "runtime/log_bridge.hpp"
#include "runtime/python_ready.hpp"
#include "runtime/python_version.hpp"

#include <kest/builders.hpp>
#include <kest/init.hpp>
#include <kest/module.hpp>

namespace sarvode {

const kest::meta_field_untyped &names::pyobj() {
  static const kest::meta_field_untyped name("$_pyobj");
  return name;
}
const kest::meta_field_untyped &names::sandboxed() {
  static const kest::meta_field_untyped name("$_sandboxed");
  return name;
}
const kest::meta_property_untyped &names::defaults() {
  static const kest::meta_property_untyped name("$$defaults");
  return name;
}
const kest::meta_field_untyped &names::result_type() {
  static const kest::meta_field_untyped name("$_result_type");
  return name;
}
const kest::meta_field_untyped &names::sign() {
  static const kest::meta_field_untyped name("$_sign");
  return name;
}
const kest::meta_method_untyped &names::import_all_modules() {
  static const kest::meta_method_untyped name("importAllModules");
  return name;
}

namespace {
const kest::String module_name(u"kest.cpython");

/// The builders are made at load, before any handler runs.
struct module_members {
  kest::internal::property_builder_base doc{kest::String(u"doc")};
  kest::internal::method_builder_base add_sys_path{kest::String(u"cpython_add_sys_path")};
  kest::internal::method_builder_base evaluate{kest::String(u"evaluate")};
  kest::internal::method_builder_base evaluate_expr{kest::String(u"evaluate_expr")};

  module_members() {
    const std::vector<kest::Any> no_scope{kest::Any()};
    evaluate.assign_func(kest::make_function(
        [](kest::String code, kest::Any scope) { return evaluateWithScope(code, scope); }));
    evaluate.signature(kest::String(u"code, scope"));
    evaluate.assign_doc(kest::String(u"Evaluates Python code."));
    evaluate.assign_defaults(no_scope);
    evaluate_expr.assign_func(kest::make_function(
        [](kest::String code, kest::Any scope) { return evaluateExpressionWithScope(code, scope); }));
    evaluate_expr.signature(kest::String(u"code, scope"));
    evaluate_expr.assign_doc(kest::String(u"Evaluates Python expression."));
    evaluate_expr.assign_defaults(no_scope);
    doc.assign_getter_value(kest::String(u"Interface to Python language."));
    add_sys_path.assign_func(kest::make_function([](kest::String path) { return addSysPath(path); }));
    add_sys_path.signature(kest::String(u"path"));
    add_sys_path.assign_doc(kest::String(u"Adds a path to sys.path once."));
  }
};

module_members &members() {
  static module_members m;
  return m;
}

const bool g_registered = [] {
  // Touch the name objects so that they exist before any handler runs.
  (void)names::pyobj(), (void)names::sandboxed(), (void)names::defaults(), (void)names::result_type(), (void)names::sign(),
      (void)names::import_all_modules();
  (void)members();
  kest::internal::add_init_handler(2, [] {
    if (!pythonRefusal().empty())
      return;
    (void)cpythonLanguageClass();
    (void)cpythonModuleClass();
  });
  kest::internal::add_init_handler(3, [] {
    if (pythonRefusal().empty())
      startPythonWithLogBridge();
  });
  kest::internal::add_init_handler(4, [] {
    if (!pythonRefusal().empty())
      return;
    (void)kest::internal::register_property(module_name, members().doc.name().string(), members().doc.build());
  });
  kest::internal::add_init_handler(5, [] {
    if (!pythonRefusal().empty())
      return;
    for (auto *builder : {&members().add_sys_path, &members().evaluate, &members().evaluate_expr})
      (void)kest::internal::register_function(module_name, builder->name().string(), builder->callable());
  });
  return true;
}();

} // namespace
} // namespace sarvode
