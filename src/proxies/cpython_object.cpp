// CPythonObject: its class and the Python object it holds.
//
// The object's address lives in the hidden Integer field `$_pyobj`; the
// instance owns one strong reference to it. The hidden Boolean field
// `$_sandboxed` marks an object that sandboxed code handed over: entering it
// later, and releasing it, happen inside a sandbox scope. The host-side protocols of the
// class (properties, methods, display, comparison) join with the proxies.

#include "proxies/cpython_object.hpp"

#include "host/names.hpp"
#include "proxies/cpython_object_members.hpp"
#include "proxies/python_entry.hpp"
#include "runtime/sandbox.hpp"

#include <kest/boolean.hpp>
#include <kest/builders.hpp>
#include <kest/instance.hpp>
#include <kest/integer.hpp>
#include <kest/interfaces.hpp>
#include <kest/reflection.hpp>

#include <atomic>
#include <mutex>
#include <optional>
#include <typeinfo>

namespace sarvode {

namespace {
/// The instances of every Python-backed class. The fields stay the record (the
/// finaliser releases what `$_pyobj` holds); the object and the sandbox mark
/// are also kept here, so that the paths into Python read them without a
/// field lookup. The object is written once when the wrapper is made (and
/// again only by setPythonObject, under the same rules as the field).
class python_wrapper_instance final : public kest::internal::object_value_instance {
public:
  explicit python_wrapper_instance(kest::Class_Generic cls) : object_value_instance(std::move(cls)) {}
  std::atomic<PyObject *> object{nullptr}; // borrowed from `$_pyobj`, which owns the reference
  std::atomic<bool> sandboxed{false};
};

/// The wrapper instance behind one value. The class is final, so comparing
/// the exact type is enough, and costs far less than a cast that searches
/// the bases (this runs on every entry into Python from the host).
const python_wrapper_instance *as_wrapper(const kest::Any &value) {
  if (value.kind() != kest::internal::ObjectType::Instance)
    return nullptr;
  const kest::internal::object_value &object = *value.get();
  return typeid(object) == typeid(python_wrapper_instance) ? static_cast<const python_wrapper_instance *>(&object)
                                                           : nullptr;
}

/// The wrapper instance behind a value, looking through computed and weak values.
const python_wrapper_instance *wrapper_instance(const kest::Any &value) {
  if (value.kind() == kest::internal::ObjectType::Instance)
    return as_wrapper(value);
  return as_wrapper(kest::internal::unwrap(value));
}

/// Copies `$_pyobj` under the instance's lock; null when it holds no object.
PyObject *stored_object(const kest::Any &value) {
  auto *instance = kest::internal::instance_of(value);
  if (!instance)
    return nullptr;
  auto field = kest::find_field(value, names::pyobj());
  if (!field.is<kest::Field>())
    return nullptr;
  kest::Any slot = instance->field(field.unsafeAs<kest::Field>().index());
  if (!kest::Integer::isInstance(slot))
    return nullptr;
  return reinterpret_cast<PyObject *>(static_cast<std::intptr_t>(kest::Integer::unsafeFrom(slot).value()));
}

/// The index of a field of the class, if it has one.
std::optional<std::size_t> field_index(const kest::internal::object_value_class *cls, const kest::meta_field_untyped &name) {
  auto field = cls->find_field(name.info());
  if (!field)
    return std::nullopt;
  return kest::Field::unsafeFrom(field).index();
}

bool sandboxed_instance(const kest::internal::object_value_instance &instance) {
  auto index = field_index(instance.class_value(), names::sandboxed());
  if (!index)
    return false;
  kest::Any flag = instance.field(*index);
  return kest::Boolean::isInstance(flag) && kest::Boolean::unsafeFrom(flag).value();
}

void finalise(kest::internal::object_value_instance &instance) {
  auto index = field_index(instance.class_value(), names::pyobj());
  if (!index)
    return;
  kest::Any slot = instance.exchange_field(*index, kest::Any());
  if (!kest::Integer::isInstance(slot))
    return;
  auto *object = reinterpret_cast<PyObject *>(static_cast<std::intptr_t>(kest::Integer::unsafeFrom(slot).value()));
  if (!object || !Py_IsInitialized())
    return; // after the interpreter ended there is nothing left to release
  // The release may run the object's __del__: code that sandboxed code made
  // stays sandboxed, on whichever thread drops the last host reference.
  PythonEntry entry(sandboxed_instance(instance));
  Py_DecRef(object);
}

kest::internal::class_declaration g_declaration("CPythonObject", [](kest::internal::class_builder_base &b) {
  using builder = kest::internal::class_builder_base;
  b.add_entry(builder::name_entry(kest::String(u"CPythonObject")));
  b.add_entry(builder::module_entry(kest::String(u"kest.cpython")));
  b.add_entry(builder::doc_entry(kest::String(u"Proxy wrapper around of 'PyObject'.")));
  b.add_entry(builder::base_entry(kest::I_RuntimeOnly::getClass()));
  b.add_entry(builder::field_entry(names::pyobj().string(), 0, &kest::Integer::getType));
  b.add_entry(builder::field_entry(names::sandboxed().string(), 0, &kest::Boolean::getType));
  b.add_entry(builder::flags_entry(kest::class_flags::python_backed));
  b.add_entry(builder::finaliser_entry(&finalise));
  for (auto &member : cpythonObjectMembers())
    b.add_entry(member);
});
} // namespace

kest::Class_Generic cpythonObjectClass() {
  static const kest::Class_Generic cls = [] {
    auto c = g_declaration.get();
    installCPythonObjectHooks(c);
    // Classes derived from it find this allocator along their bases.
    c.setAllocator([](const kest::Class_Generic &of) { return kest::Any(new python_wrapper_instance(of)); });
    return c;
  }();
  return cls;
}

bool isPythonBacked(const kest::Any &value) {
  kest::Any v = kest::internal::unwrap(value);
  auto *cls = v.get() ? v.get()->class_value() : nullptr;
  return cls && (cls->flags.load() & kest::class_flags::python_backed) != 0;
}

PyObject *pythonObjectOf(const kest::Any &value) {
  if (auto *wrapper = wrapper_instance(value))
    return wrapper->object.load(std::memory_order_acquire);
  kest::Any v = kest::internal::unwrap(value);
  if (!isPythonBacked(v))
    return nullptr;
  return stored_object(v); // an instance made some other way: the field says
}

PythonTarget::PythonTarget(const kest::Any &value) {
  const python_wrapper_instance *wrapper = as_wrapper(value);
  if (!wrapper) {
    m_unwrapped = kest::internal::unwrap(value);
    wrapper = as_wrapper(m_unwrapped);
  }
  if (wrapper) {
    m_object = wrapper->object.load(std::memory_order_acquire);
    m_sandboxed = wrapper->sandboxed.load(std::memory_order_acquire);
    return;
  }
  // An instance made some other way: its fields say.
  m_object = pythonObjectOf(m_unwrapped);
  m_sandboxed = isSandboxedWrapper(m_unwrapped);
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
  kest::Any old = instance->exchange_field(field.unsafeAs<kest::Field>().index(),
                                           kest::Integer(static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(object))));
  if (auto *cached = dynamic_cast<python_wrapper_instance *>(instance))
    cached->object.store(object, std::memory_order_release);
  if (kest::Integer::isInstance(old))
    if (auto *previous = reinterpret_cast<PyObject *>(static_cast<std::intptr_t>(kest::Integer::unsafeFrom(old).value()))) {
      py::gil lock;
      Py_DecRef(previous);
    }
}

void initialisePythonWrapper(const kest::Any &wrapper, PyObject *object) {
  if (sandboxActive()) {
    (void)wrapper.setFieldValue(names::sandboxed(), kest::Boolean(true));
    if (auto *cached = dynamic_cast<python_wrapper_instance *>(wrapper.get()))
      cached->sandboxed.store(true, std::memory_order_release);
  }
  setPythonObject(wrapper, object);
}

kest::Any newPythonWrapper(const kest::Class_Generic &cls, PyObject *object) {
  auto instance = cls.allocateInstance();
  if (instance.isError())
    return instance;
  kest::Any wrapper(instance);
  initialisePythonWrapper(wrapper, object);
  return wrapper;
}

kest::Any newCPythonObject(PyObject *object) { return newPythonWrapper(cpythonObjectClass(), object); }

bool isSandboxedWrapper(const kest::Any &wrapper) {
  if (auto *cached = wrapper_instance(wrapper))
    return cached->sandboxed.load(std::memory_order_acquire);
  kest::Any v = kest::internal::unwrap(wrapper);
  auto *instance = kest::internal::instance_of(v);
  return instance && isPythonBacked(v) && sandboxed_instance(*instance);
}

} // namespace sarvode
