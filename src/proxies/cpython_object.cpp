// CPythonObject: its class and the Python object it holds.
//
// The object's address lives in the hidden Integer field `$_pyobj`; the
// instance owns one strong reference to it. The host-side protocols of the
// class (properties, methods, display, comparison) join with the proxies.

#include "proxies/cpython_object.hpp"

#include "host/names.hpp"

#include <kest/builders.hpp>
#include <kest/instance.hpp>
#include <kest/integer.hpp>
#include <kest/interfaces.hpp>
#include <kest/reflection.hpp>

#include <mutex>

namespace sarvode {

namespace {
/// Copies `$_pyobj` under the instance's lock; null when it holds no object.
PyObject *stored_object(const kest::Any &value) {
  auto *instance = kest::internal::instance_of(value);
  if (!instance)
    return nullptr;
  auto field = kest::find_field(value, names::pyobj());
  if (!field.is<kest::Field>())
    return nullptr;
  kest::Any slot = instance->field(field.as<kest::Field>().index());
  if (!kest::Integer::isInstance(slot))
    return nullptr;
  return reinterpret_cast<PyObject *>(static_cast<std::intptr_t>(kest::Integer::unsafeFrom(slot).value()));
}

void finalise(kest::internal::object_value_instance &instance) {
  auto field = instance.class_value()->find_field(names::pyobj().info());
  if (!field)
    return;
  kest::Any slot = instance.exchange_field(kest::Field::unsafeFrom(field).index(), kest::Any());
  if (kest::Integer::isInstance(slot))
    if (auto *object = reinterpret_cast<PyObject *>(static_cast<std::intptr_t>(kest::Integer::unsafeFrom(slot).value()))) {
      py::gil lock;
      Py_DecRef(object);
    }
}

kest::internal::class_declaration g_declaration("CPythonObject", [](kest::internal::class_builder_base &b) {
  using builder = kest::internal::class_builder_base;
  b.add_entry(builder::name_entry(kest::String(u"CPythonObject")));
  b.add_entry(builder::module_entry(kest::String(u"kest.cpython")));
  b.add_entry(builder::doc_entry(kest::String(u"Proxy wrapper around of 'PyObject'.")));
  b.add_entry(builder::base_entry(kest::I_RuntimeOnly::getClass()));
  b.add_entry(builder::field_entry(names::pyobj().string(), 0, &kest::Integer::getType));
  b.add_entry(builder::flags_entry(kest::class_flags::python_backed));
  b.add_entry(builder::finaliser_entry(&finalise));
});
} // namespace

kest::Class_Generic cpythonObjectClass() { return g_declaration.get(); }

bool isPythonBacked(const kest::Any &value) {
  kest::Any v = kest::internal::unwrap(value);
  auto *cls = v.get() ? v.get()->class_value() : nullptr;
  return cls && (cls->flags.load() & kest::class_flags::python_backed) != 0;
}

PyObject *pythonObjectOf(const kest::Any &value) {
  kest::Any v = kest::internal::unwrap(value);
  if (!isPythonBacked(v))
    return nullptr;
  return stored_object(v);
}

void setPythonObject(const kest::Any &wrapper, PyObject *object) {
  auto *instance = kest::internal::instance_of(wrapper);
  auto field = kest::find_field(wrapper, names::pyobj());
  if (!instance || !field.is<kest::Field>())
    return;
  if (object) {
    py::gil lock;
    Py_IncRef(object);
  }
  kest::Any old = instance->exchange_field(field.as<kest::Field>().index(),
                                           kest::Integer(static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(object))));
  if (kest::Integer::isInstance(old))
    if (auto *previous = reinterpret_cast<PyObject *>(static_cast<std::intptr_t>(kest::Integer::unsafeFrom(old).value()))) {
      py::gil lock;
      Py_DecRef(previous);
    }
}

kest::Any newCPythonObject(PyObject *object) {
  auto instance = cpythonObjectClass().allocateInstance();
  if (instance.isError())
    return instance;
  setPythonObject(instance, object);
  return instance;
}

} // namespace sarvode
