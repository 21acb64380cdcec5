// Importing host modules from Python.
//
// Two native functions, _kest_has_module and _kest_create_module, and a small
// finder/loader at the front of sys.meta_path. Every host module imports as a
// package, so that a dotted host module imports below its parent. A last
// finder turns a failed import of a host module whose name Python cannot
// import (outside "kest.…") into an error that says so.

#include "language/host_importer.hpp"

#include "convert/to_python.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <list>
#include <mutex>
#include <optional>
#include <string_view>

namespace sarvode {

namespace {
constexpr const char *importer_script = R"(
import sys

class _KestModuleImporter:
    def find_spec(self, fullname, path=None, target=None):
        if _kest_has_module(fullname):
            import importlib.util  # here, not at start-up: python3 does not import it to start

            return importlib.util.spec_from_loader(fullname, self, is_package=True)
        return None

    def create_module(self, spec):
        return _kest_create_module(spec.name)

    def exec_module(self, module):
        pass

sys.meta_path.insert(0, _KestModuleImporter())

class _KestModuleNameHint:
    # Last on the meta path: asked only when no other finder found the name.
    def find_spec(self, fullname, path=None, target=None):
        if _kest_unreachable_module(fullname):
            raise ModuleNotFoundError(
                f"No module named {fullname!r}: a host module of that name exists, but Python "
                f"imports only host modules named 'kest' or 'kest.\u2026'", name=fullname)
        return None

sys.meta_path.append(_KestModuleNameHint())
)";

/// Module definitions must outlive their modules: one per created module,
/// kept with its texts for the life of the process.
struct module_definition {
  std::string name, doc;
  PyModuleDef def{};
};
struct definitions {
  kest::spinlock lock;
  std::list<module_definition> items;
};
definitions &all_definitions() {
  static auto *d = new definitions;
  return *d;
}

PyModuleDef *new_definition(const kest::Module &module) {
  auto &d = all_definitions();
  std::lock_guard guard(d.lock);
  auto &item = d.items.emplace_back();
  item.name = module.name().toUtf8();
  item.doc = module.doc().toUtf8();
  item.def = {PyModuleDef_HEAD_INIT, item.name.c_str(), item.doc.c_str(), -1, nullptr, nullptr, nullptr, nullptr, nullptr};
  return &item.def;
}

bool is_host_module_name(const kest::String &name) { return name.view() == u"kest" || name.startsWith(u"kest."); }

bool store(PyObject *dict, const kest::String &name, const kest::Any &value) {
  auto converted = py::object::steal(toPython(value));
  if (!converted)
    return false;
  return PyDict_SetItemString(dict, name.toUtf8().c_str(), converted.get()) == 0;
}

/// Stores the value of every property that needs no object to be read.
bool store_properties(PyObject *dict, const kest::Any &module, const std::vector<kest::Property> &properties) {
  for (auto &property : properties) {
    const auto name = property.name();
    if (name.empty() || name.startsWith(u"@"))
      continue;
    if (!property.isValueProperty() && !property.getter().isIndependent())
      continue;
    auto value = kest::internal::result_unwrap_lazy(property.get(module));
    if (!store(dict, name, value))
      return false;
  }
  return true;
}

/// The text of a module name: nothing for an object that is no str, and
/// nothing with `failed` set (and the exception set) for a str without UTF-8.
std::optional<std::string_view> name_text(PyObject *name, bool &failed) {
  failed = false;
  if (!PyUnicode_Check(name))
    return std::nullopt;
  Py_ssize_t size = 0;
  const char *utf8 = PyUnicode_AsUTF8AndSize(name, &size);
  if (!utf8) {
    failed = true;
    return std::nullopt;
  }
  return std::string_view(utf8, static_cast<std::size_t>(size));
}

PyObject *kest_has_module(PyObject *, PyObject *name) {
  bool failed = false;
  const auto text = name_text(name, failed);
  if (failed)
    return nullptr;
  if (!text)
    Py_RETURN_FALSE;
  const auto host_name = kest::String::fromUtf8(*text);
  if (is_host_module_name(host_name) && kest::find_module(host_name).is<kest::Module>())
    Py_RETURN_TRUE;
  Py_RETURN_FALSE;
}

/// True for the name of a host module that Python cannot import: one outside
/// "kest" and "kest.…". The host's mirrors of Python modules ("python.…")
/// are left alone, and looking them up would make them.
PyObject *kest_unreachable_module(PyObject *, PyObject *name) {
  bool failed = false;
  const auto text = name_text(name, failed);
  if (failed)
    return nullptr;
  if (!text || *text == "python" || text->starts_with("python."))
    Py_RETURN_FALSE;
  const auto host_name = kest::String::fromUtf8(*text);
  if (!is_host_module_name(host_name) && kest::find_module(host_name).is<kest::Module>())
    Py_RETURN_TRUE;
  Py_RETURN_FALSE;
}

PyObject *kest_create_module(PyObject *, PyObject *name) {
  try {
    if (!PyUnicode_Check(name)) {
      PyErr_SetString(PyExc_TypeError, "Kest module name must be a string.");
      return nullptr;
    }
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(name, &size);
    if (!utf8)
      return nullptr;
    auto found = kest::find_module(kest::String::fromUtf8(std::string_view(utf8, static_cast<std::size_t>(size))));
    if (!found.is<kest::Module>()) {
      PyErr_SetString(PyExc_RuntimeError, "[export_kest_module] Unable to import the module.");
      return nullptr;
    }
    auto module = found.unsafeAs<kest::Module>();
    auto created = py::object::steal(PyModule_Create2(new_definition(module), 1013));
    if (!created)
      return nullptr;
    PyObject *dict = PyModule_GetDict(created.get()); // borrowed
    for (auto &[key, value] : module.callables().copyPairs())
      if (!store(dict, kest::String::unsafeFrom(key), value))
        return nullptr;
    for (auto &[key, value] : module.classes().copyPairs())
      if (!store(dict, kest::String::unsafeFrom(key), value))
        return nullptr;
    auto own = kest::own_properties_of(module);
    auto defined = module.moduleClass().definedProperties();
    defined.insert(defined.end(), own.begin(), own.end());
    if (!store_properties(dict, module, defined) ||
        !store_properties(dict, module, module.moduleClass().ownDefinedProperties()))
      return nullptr;
    return created.release();
  } catch (const std::exception &e) {
    PyErr_SetString(PyExc_SystemError, e.what());
    return nullptr;
  }
}

PyMethodDef has_module_def{"_kest_has_module", &kest_has_module, METH_O, "Whether a host module of that name exists."};
PyMethodDef unreachable_module_def{"_kest_unreachable_module", &kest_unreachable_module, METH_O,
                                  "Whether a host module of that name exists that Python cannot import."};
PyMethodDef create_module_def{"_kest_create_module", &kest_create_module, METH_O, "The Python module of a host module."};
} // namespace

void installHostImporter() {
  py::gil lock;
  auto dict = py::object::steal(PyDict_New());
  auto has_module = py::object::steal(PyCFunction_NewEx(&has_module_def, nullptr, nullptr));
  auto create_module = py::object::steal(PyCFunction_NewEx(&create_module_def, nullptr, nullptr));
  auto unreachable = py::object::steal(PyCFunction_NewEx(&unreachable_module_def, nullptr, nullptr));
  if (!dict || !has_module || !create_module || !unreachable ||
      PyDict_SetItemString(dict.get(), "_kest_has_module", has_module.get()) < 0 ||
      PyDict_SetItemString(dict.get(), "_kest_create_module", create_module.get()) < 0 ||
      PyDict_SetItemString(dict.get(), "_kest_unreachable_module", unreachable.get()) < 0) {
    PyErr_Clear();
    return;
  }
  auto result = py::object::steal(runWithBuiltin("exec", importer_script, dict.get(), dict.get()));
  if (!result)
    PyErr_Clear(); // a failing script leaves imports of host modules unavailable
}

} // namespace sarvode
