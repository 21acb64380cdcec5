// Making KestObjects and reading their values back.

#include "pyobject/kest_object.hpp"

#include "pyobject/slots.hpp"
#include "pyobject/type_for_class.hpp"

#include <kest/callable.hpp>
#include <kest/reflection.hpp>

#include <atomic>
#include <new>
#include <unordered_set>
#include <utility>

namespace sarvode {

PyObject *wrapKestObject(const kest::Any &value) {
  py::gil lock;
  return wrapKestObjectLocked(value);
}

namespace {
/// A new KestObject of `type` holding `value`; null with a Python error.
KestObject *new_object(PyTypeObject *type, const kest::Any &value) {
  PyObject *self = PyType_GenericAlloc(type, 0); // adds the instance's reference to its type
  if (!self)
    return nullptr;
  auto *object = reinterpret_cast<KestObject *>(self);
  object->value = new (std::nothrow) KestValue;
  if (!object->value) {
    Py_DecRef(self);
    PyErr_NoMemory();
    return nullptr;
  }
  object->value->value = value;
  return object;
}
} // namespace

PyObject *wrapKestObjectLocked(const kest::Any &value) {
  auto [type, members] = typeAndMembersForClassLocked(kest::raw_class_of(value));
  if (!type)
    return nullptr;
  auto *object = new_object(type, value);
  Py_DecRef(reinterpret_cast<PyObject *>(type));
  if (object && value.kind() != kest::internal::ObjectType::Class)
    object->value->members = members;
  return reinterpret_cast<PyObject *>(object);
}

PyObject *methodObjectFor(KestValue &self, const kest::Any &borrowed_method, std::uint64_t epoch) {
  PyObject *last = self.method_object;
  if (last && Py_REFCNT(last) == 1) {
    auto *kept = reinterpret_cast<KestObject *>(last)->value;
    if (kept && kept->method.isSame(borrowed_method) && kept->self().isSame(self.value)) {
      kept->applies_in_epoch = epoch;
      Py_IncRef(last); // nobody else holds it and it binds the same: it serves again
      return last;
    }
  }
  const kest::Any method = borrowed_method; // making a type may run Python, which may drop the caller's copy
  auto bound = kest::I_Callable_Generic::unsafeFrom(method).bindInstance(self.value);
  auto [type, members] = typeAndMembersForClassLocked(kest::raw_class_of(bound));
  if (!type)
    return nullptr;
  auto *object = new_object(type, bound);
  Py_DecRef(reinterpret_cast<PyObject *>(type));
  if (!object)
    return nullptr;
  object->value->method = method;
  object->value->applies_in_epoch = epoch;
  object->value->arguments = std::make_unique<kest::Any[]>(KestValue::most_arguments + 1);
  object->value->arguments[0] = self.value;
  auto *made = reinterpret_cast<PyObject *>(object);
  Py_IncRef(made);
  // Read again: Python run above may have replaced it. One that somebody else
  // still holds is theirs alone now.
  Py_DecRef(std::exchange(self.method_object, made));
  return made;
}

namespace {
/// The Python classes derived from host classes' types; they are never
/// freed once registered (their instances may outlive a class statement's
/// scope), and read with the interpreter lock held.
struct subclass_registry {
  std::unordered_set<const PyTypeObject *> types;
  std::atomic<bool> any{false}; // lets the common check skip the set
};
subclass_registry &subclasses() {
  static auto *r = new subclass_registry;
  return *r;
}
} // namespace

void registerKestSubclass(PyTypeObject *type) {
  auto &r = subclasses();
  if (r.types.insert(type).second)
    Py_IncRef(reinterpret_cast<PyObject *>(type)); // kept: the set holds its address
  r.any = true;
}

bool isKestSubclass(const PyTypeObject *type) {
  auto &r = subclasses();
  return r.any.load(std::memory_order_relaxed) && r.types.count(type) != 0;
}

bool isKestObject(PyObject *object) {
  // Every KestObject type, per-class or shared, has this deallocation slot;
  // Python's subclasses of them have Python's own and are registered.
  return object && (PyType_GetSlot(Py_TYPE(object), Py_tp_dealloc) == reinterpret_cast<void *>(&KestObject_dealloc) ||
                    isKestSubclass(Py_TYPE(object)));
}

PyObject *newKestObjectOfType(PyTypeObject *type, const kest::Any &value) {
  auto *object = new_object(type, value);
  if (object && !isKestSubclass(type) && value.kind() != kest::internal::ObjectType::Class) {
    // The class's own type: attribute access may use the member cache. A
    // Python subclass looks names up the general way, its own first.
    auto [own, members] = typeAndMembersForClassLocked(kest::raw_class_of(value));
    if (own == type)
      object->value->members = members;
    Py_DecRef(reinterpret_cast<PyObject *>(own));
    PyErr_Clear();
  }
  return reinterpret_cast<PyObject *>(object);
}

kest::Any kestObjectValue(PyObject *object) {
  auto *value = reinterpret_cast<KestObject *>(object)->value;
  return value ? value->value : kest::Any();
}

} // namespace sarvode
