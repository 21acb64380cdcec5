// The module export: every exported module is an instance of a class of its
// own ("Module", derived from CPythonModule), whose class properties are the
// module's public classes and callables.

#include "proxies/cpython_module.hpp"

#include "convert/from_python.hpp"
#include "language/evaluation.hpp"
#include "runtime/warnings_ignored.hpp"

#include <kest/kest.hpp>

namespace sarvode {

namespace {
kest::internal::class_declaration g_declaration("CPythonModule", [](kest::internal::class_builder_base &b) {
  using builder = kest::internal::class_builder_base;
  b.add_entry(builder::name_entry(kest::String(u"CPythonModule")));
  b.add_entry(builder::module_entry(kest::String(u"kest.cpython")));
  b.add_entry(builder::doc_entry(kest::String(u"Class to export a python module.")));
  b.add_entry(builder::base_entry(kest::Module::getClass()));
});

/// The body that lists a package's sub-modules (none for a plain module).
constexpr char16_t submodules_body[] = u"import pkgutil\npath = getattr( pp, '__path__', None )\nif path:\n"
                                       u"    return list( pkgutil.iter_modules( path ) )\nreturn list()";

void add_member(const kest::Module &module, const kest::String &name, const kest::Any &member) {
  module.moduleClass()->add_class_property_unsafe(kest::meta_property_untyped(name),
                                                  kest::Property::fromValue(name, member));
}

/// The public classes and callables of the module's dictionary, in its order.
void walk(PyObject *python, const kest::Module &module, kest::HashMap &classes, kest::HashMap &callables) {
  // Reading some modules' members warns (typing.io and typing.re do), and
  // cataloguing a module is no use of it.
  warnings_ignored quiet(PyExc_Warning);
  PyObject *dict = PyModule_GetDict(python); // borrowed
  PyObject *key = nullptr, *value = nullptr;
  Py_ssize_t position = 0;
  while (dict && PyDict_Next(dict, &position, &key, &value)) {
    auto name = kest::String::cast(fromPython(key));
    if (!name.is<kest::String>() || name.unsafeAs<kest::String>().empty() || name.unsafeAs<kest::String>().startsWith(u"_"))
      continue;
    const auto text = name.unsafeAs<kest::String>();
    if (PyType_Check(value)) {
      auto cls = kest::Class_Generic::cast(fromPython(value));
      if (!cls.is<kest::Class_Generic>())
        continue;
      auto c = cls.unsafeAs<kest::Class_Generic>();
      if (kest::is_none(c.declaringContext()))
        c.setDeclaringContext(module);
      add_member(module, text, c);
      (void)classes.setChecked(text, c);
    } else if (PyCallable_Check(value)) {
      auto callable = kest::I_Callable_Generic::cast(fromPython(value));
      if (!callable.is<kest::I_Callable_Generic>())
        continue;
      add_member(module, text, callable.unsafeAs<kest::I_Callable_Generic>());
      (void)callables.setChecked(text, callable.unsafeAs<kest::I_Callable_Generic>());
    }
    // Module-level data, sub-module objects and instances are left out.
  }
  PyErr_Clear();
}

/// The public sub-module names of a package, as pkgutil lists them.
std::vector<kest::String> submodule_names(PyObject *python) {
  std::vector<kest::String> names;
  kest::HashMap locals(kest::String::getType(), kest::Type());
  (void)locals.setChecked(kest::String(u"pp"), fromPython(python));
  auto listed = runStatements(kest::String(submodules_body), kest::Any(), kest::I_Map::unsafeFrom(locals), kest::None(),
                              kest::None());
  auto sequence = kest::I_Sequence::cast(listed);
  if (!sequence.is<kest::I_Sequence>())
    return names;
  for (kest::internal::iterator_iterable it(sequence.unsafeAs<kest::I_Sequence>()), end; it != end; ++it) {
    auto name = kest::String::cast(kest::internal::result_unwrap_lazy(it->propertyValue(kest::meta_property_untyped("name"))));
    if (name.is<kest::String>() && !name.unsafeAs<kest::String>().empty() && !name.unsafeAs<kest::String>().startsWith(u"_"))
      names.push_back(name.unsafeAs<kest::String>());
  }
  return names;
}
} // namespace

kest::Class_Generic cpythonModuleClass() { return g_declaration.get(); }

void addModuleToParent(const kest::Module &parent, const kest::Module &child, const kest::String &name) {
  add_member(parent, name, child);
}

kest::Union<kest::Module, kest::None> exportPythonModule(const std::string &pythonName, const kest::String &hostName,
                                                          bool withSubmodules) {
  py::gil lock;
  auto python = py::object::steal(PyImport_ImportModule(pythonName.c_str()));
  if (!python) {
    PyErr_Clear();
    return kest::None();
  }
  auto cls = kest::internal::defclass_impl({kest::internal::class_builder_base::name_entry(kest::String(u"Module")),
                                            kest::internal::class_builder_base::base_entry(cpythonModuleClass())});
  if (cls.isError())
    return kest::None();
  auto made = kest::Module::createOfClass(hostName, cls.unsafeAs<kest::Class_Generic>());
  if (made.isError())
    return kest::None();
  auto module = made.unsafeAs<kest::Module>();
  auto classes = module.classes();
  auto callables = module.callables();
  walk(python.get(), module, classes, callables);
  if (auto doc = py::object::steal(PyObject_GetAttrString(python.get(), "__doc__"))) {
    auto text = kest::String::cast(fromPython(doc.get()));
    if (text.is<kest::String>())
      module.setDoc(text.unsafeAs<kest::String>());
  }
  PyErr_Clear();
  for (auto &[name, c] : module.classes().copyPairs())
    if (kest::Class_Generic::isInstance(c) && kest::is_none(kest::Class_Generic::unsafeFrom(c).declaringContext()))
      kest::Class_Generic::unsafeFrom(c).setDeclaringContext(module);
  {
    std::lock_guard guard(kest::internal::g_modules_lock);
    (void)kest::internal::g_modules.insert(hostName, module); // the first registration of a name wins
  }
  if (withSubmodules) {
    for (const auto &name : submodule_names(python.get())) {
      auto child = exportPythonModule(pythonName + "." + name.toUtf8(), hostName + kest::String(u".") + name, true);
      if (child.is<kest::Module>())
        addModuleToParent(module, child.unsafeAs<kest::Module>(), name);
    }
  }
  PyErr_Clear();
  return module;
}

} // namespace sarvode
