// The common slots of KestObject: deallocation, text, hashing, comparison,
// attributes, calls and iteration. Arguments cross with fromPython, results
// with toPython (which raises host errors as Python exceptions).

#include "pyobject/slots.hpp"

#include <structmember.h> // T_PYSSIZET and READONLY of the limited API before 3.12

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "language/cpython_language.hpp"
#include "pyobject/container_protocol.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/member_cache.hpp"
#include "pyobject/member_descriptor.hpp"
#include "pyobject/python_signature.hpp"
#include "pyobject/type_for_class.hpp"

#include <kest/kest.hpp>

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace sarvode {

using kest::internal::result_unwrap_lazy;

std::string classDisplay(const kest::Any &value) { return kest::display(kest::raw_class_of(value)).toUtf8(); }

PyObject *callWithPythonArguments(const kest::I_Callable_Generic &callable, PyObject *args, PyObject *kwargs,
                                  Py_ssize_t first) {
  std::vector<kest::Any> positional;
  const Py_ssize_t n = args ? PyTuple_Size(args) : 0;
  positional.reserve(static_cast<std::size_t>(std::max<Py_ssize_t>(n - first, 0)));
  for (Py_ssize_t i = first; i < n; ++i)
    positional.push_back(fromPython(PyTuple_GetItem(args, i)));
  if (kwargs && PyDict_Size(kwargs) > 0) {
    kest::HashMap named(kest::String::getType(), kest::Type());
    PyObject *key = nullptr, *item = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(kwargs, &pos, &key, &item))
      (void)named.setChecked(fromPython(key), fromPython(item));
    return toPythonLocked(result_unwrap_lazy(callable.callWithNamed(positional, named)));
  }
  return toPythonLocked(result_unwrap_lazy(callable.callWith(positional)));
}

void setRuntimeError(const kest::Any &error) {
  if (kest::Error::isInstance(error)) {
    raiseHostError(error); // its own exception class (a RuntimeError), with the host error as `kest`
    return;
  }
  PyErr_SetString(PyExc_RuntimeError, kest::display(error).toUtf8().c_str());
}

namespace {
PyObject *str_of(const kest::String &text) { return toPythonLocked(text); }

// --- text --------------------------------------------------------------------

/// A host container whose class has no text of its own (no display method)
/// shows as Python shows its containers.
bool shows_as_python_container(const kest::Any &value) {
  const auto cls = kest::class_of(value);
  if (containerShape(cls).kind == container_kind::none)
    return false;
  static const kest::meta_method_untyped display("$__display__");
  return !cls.definedMethod(display).is<kest::I_Callable_Generic>();
}

PyObject *KestObject_repr(PyObject *self) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    auto code = pythonCode(value);
    if (kest::String::isInstance(code))
      return str_of(kest::String::unsafeFrom(code));
    if (shows_as_python_container(value))
      return containerRepr(self);
    return str_of(kest::display(value));
  });
}

PyObject *KestObject_str(PyObject *self) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    if (shows_as_python_container(value) && !kest::String::isInstance(pythonCode(value)))
      return containerRepr(self); // str of a container is its repr, as for Python's own
    auto text = result_unwrap_lazy(kest::String::getClass().coerce(value));
    if (!kest::String::isInstance(text))
      return str_of(kest::display(value)); // not coercible: the display text
    return str_of(kest::String::unsafeFrom(text));
  });
}

Py_hash_t KestObject_hash(PyObject *self) {
  return guarded<Py_hash_t>(-1, [&]() -> Py_hash_t {
    const auto value = kestObjectValue(self);
    // Mutable host objects hash by identity.
    auto h = kest::I_Immutable::isInstance(value) ? kest::hash_of(value) : kest::object_id(value);
    return h == -1 ? -2 : static_cast<Py_hash_t>(h);
  });
}

PyObject *KestObject_richcompare(PyObject *self, PyObject *other, int op) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const int order = kest::compare_objects(fromPython(self), fromPython(other)).value();
    bool result = false;
    if (order == 2) {
      result = op == Py_NE; // unordered values are only unequal
    } else {
      switch (op) {
      case Py_EQ: result = order == 0; break;
      case Py_NE: result = order != 0; break;
      case Py_LT: result = order < 0; break;
      case Py_LE: result = order <= 0; break;
      case Py_GT: result = order > 0; break;
      case Py_GE: result = order >= 0; break;
      default: break;
      }
    }
    PyObject *answer = result ? Py_True : Py_False;
    Py_IncRef(answer);
    return answer;
  });
}

// --- attributes ----------------------------------------------------------------

PyObject *callable_of(std::function<kest::Any(std::span<const kest::Any>)> fn, std::size_t arity) {
  std::vector<kest::Parameter> params;
  for (std::size_t i = 0; i < arity; ++i)
    params.emplace_back(kest::String::fromUtf8("arg" + std::to_string(i)), kest::Type());
  return toPythonLocked(kest::internal::make_callable(std::move(fn), kest::Signature(std::move(params), kest::Type(), arity), true));
}

kest::String module_name_of(const kest::Any &context) {
  if (kest::Module::isInstance(context))
    return kest::Module::unsafeFrom(context).name();
  if (kest::Class_Generic::isInstance(context))
    return kest::qualname(kest::Class_Generic::unsafeFrom(context));
  return {};
}

/// The special names that a KestObject answers itself; null when `name` does
/// not apply to the value (Python's generic lookup then decides).
PyObject *special_attribute(const kest::Any &value, std::string_view name, bool &handled) {
  handled = true;
  const bool callable = kest::I_Callable_Generic::isInstance(value);
  if (name == "__doc__") {
    if (kest::Class_Generic::isInstance(value)) // a constructible class is callable too; its own text wins
      return str_of(kest::Class_Generic::unsafeFrom(value).doc());
    if (callable)
      return str_of(kest::I_Callable_Generic::unsafeFrom(value).doc());
    if (kest::Module::isInstance(value))
      return str_of(kest::Module::unsafeFrom(value).doc());
    if (kest::I_HasDoc::isInstance(value))
      return toPythonLocked(result_unwrap_lazy(kest::I_HasDoc::unsafeFrom(value).doc()));
  } else if (name == "__annotations__") {
    if (callable) {
      auto sig = kest::I_Callable_Generic::unsafeFrom(value).signature();
      auto dict = py::object::steal(PyDict_New());
      for (auto &param : sig.parameters()) {
        auto type = py::object::steal(reinterpret_cast<PyObject *>(typeForClassLocked(param.type().toClass())));
        if (!type || PyDict_SetItemString(dict.get(), param.name().toUtf8().c_str(), type.get()) < 0)
          return nullptr;
      }
      auto result = py::object::steal(reinterpret_cast<PyObject *>(typeForClassLocked(sig.resultType().toClass())));
      if (!result || PyDict_SetItemString(dict.get(), "return", result.get()) < 0)
        return nullptr;
      return dict.release();
    }
  } else if (name == "__module__" || name == "__name__") {
    const bool module_name = name == "__module__";
    if (callable) {
      auto c = kest::I_Callable_Generic::unsafeFrom(value);
      return str_of(module_name ? module_name_of(c.declaringContext()) : c.name());
    }
    if (kest::Module::isInstance(value))
      return str_of(kest::Module::unsafeFrom(value).name());
    if (kest::Class_Generic::isInstance(value)) {
      auto cls = kest::Class_Generic::unsafeFrom(value);
      return str_of(module_name ? module_name_of(cls.declaringContext()) : cls.name());
    }
    if (kest::I_HasName::isInstance(value) && !module_name)
      return toPythonLocked(result_unwrap_lazy(kest::I_HasName::unsafeFrom(value).name()));
  } else if (name == "__code__") {
    if (kest::I_HasCode::isInstance(value))
      return toPythonLocked(result_unwrap_lazy(kest::I_HasCode::unsafeFrom(value).code()));
  } else if (name == "__bytes__") {
    if (kest::ByteArray::isInstance(value))
      return callable_of([value](std::span<const kest::Any>) -> kest::Any { return value; }, 0);
  } else if (name == "__bool__") {
    return callable_of([value](std::span<const kest::Any>) -> kest::Any { return kest::Boolean::from(value); }, 0);
  } else if (name == "__text_signature__") {
    if (callable)
      return str_of(kest::I_Callable_Generic::unsafeFrom(value).signature().toString());
  } else if (name == "__signature__") {
    if (callable) // inspect.signature and help()
      return pythonSignature(kest::I_Callable_Generic::unsafeFrom(value));
  }
  handled = false;
  return nullptr;
}

/// True when every class has a member of that name (the class of classes
/// declares it), so that a class answers it for itself.
bool member_of_classes(const kest::Any &cls, const kest::meta_property_untyped &name) {
  const auto classes = kest::raw_class_of(cls);
  return classes.definedProperty(name).is<kest::Property>() ||
         classes.definedMethod(kest::meta_method_untyped(name.info(), false)).is<kest::I_Callable_Generic>();
}

PyObject *KestObject_getattro(PyObject *self, PyObject *py_name) {
  auto *object = reinterpret_cast<KestObject *>(self)->value;
  if (object && object->members && PyUnicode_CheckExact(py_name)) {
    const auto *entry = object->members->find(py_name);
    if (!entry)
      return nullptr; // the name could not be hashed
    if (entry->what != member_cache::meaning::general && !kest::internal::has_inserted_members(object->value)) {
      // Running a member may run Python, which may change the cache: what is
      // needed is taken out first. The member itself stays alive (its class
      // keeps every member it had), so it is borrowed.
      const auto what = entry->what;
      const auto *member = entry->member.get();
      const auto *info = entry->info;
      const auto epoch = object->members->epoch();
      const auto *getter = entry->getter;
      return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
        switch (what) {
        case member_cache::meaning::property:
          if (getter && getter->exact_argument_count() == 1) // nothing to fill in from defaults
            return toPythonLocked(result_unwrap_lazy(
                kest::internal::call_exact_applicable(*getter, std::span<const kest::Any>(&object->value, 1))));
          return toPythonLocked(result_unwrap_lazy(kest::internal::property_get(member, object->value)));
        case member_cache::meaning::field:
          return toPythonLocked(result_unwrap_lazy(
              kest::internal::field_get(member, object->value, kest::meta_field_untyped(info, false))));
        case member_cache::meaning::method:
          return methodObjectFor(*object, entry->member, epoch); // copies what it keeps before it may run Python
        case member_cache::meaning::general:
          break;
        }
        return nullptr;
      });
    }
  }
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(py_name, &size);
    if (!utf8)
      return nullptr;
    const std::string_view name(utf8, static_cast<std::size_t>(size));
    const auto value = kestObjectValue(self);
    if (isKestSubclass(Py_TYPE(self))) {
      // A Python subclass's own attributes (and its instances') come first.
      if (PyObject *own = PyObject_GenericGetAttr(self, py_name))
        return own;
      if (!PyErr_ExceptionMatches(PyExc_AttributeError))
        return nullptr;
      PyErr_Clear();
    }
    if (kest::Class_Generic::isInstance(value)) {
      bool handled = false;
      PyObject *attribute = containerClassAttribute(kest::Class_Generic::unsafeFrom(value), name, handled);
      if (handled)
        return attribute;
    }
    if (name.starts_with('_')) {
      // Host members whose names begin with "_" are deliberately unreachable.
      bool handled = false;
      PyObject *special = special_attribute(value, name, handled);
      if (handled)
        return special;
      return PyObject_GenericGetAttr(self, py_name);
    }
    // A container's Python methods (keys, pop, ...) win over host members of
    // the same name; Python code reaches those through kest.member(obj, name).
    if (value && isContainerMethodName(containerShape(kest::class_of(value)), name))
      return PyObject_GenericGetAttr(self, py_name);
    const kest::meta_property_untyped property_name(name);
    if (value.kind() == kest::internal::ObjectType::Class && !member_of_classes(value, property_name)) {
      // What a class's instances have, seen through the class: a descriptor, never
      // a member run without an instance.
      bool found = false;
      PyObject *descriptor = instanceMemberDescriptor(kest::Class_Generic::unsafeFrom(value), name, found);
      if (found)
        return descriptor;
    }
    if (auto property = kest::property_of(value, property_name); property.is<kest::Property>())
      return toPythonLocked(result_unwrap_lazy(property.unsafeAs<kest::Property>().get(value)));
    const kest::meta_field_untyped field_name(property_name.info(), false);
    if (auto field = kest::find_field(value, field_name); field.is<kest::Field>())
      return toPythonLocked(result_unwrap_lazy(value.fieldValue(field_name)));
    const kest::meta_method_untyped method_name(property_name.info(), false);
    if (auto method = kest::method_of(value, method_name); method.is<kest::I_Callable_Generic>())
      return toPythonLocked(method.unsafeAs<kest::I_Callable_Generic>().bindInstance(value));
    if (auto *cls = value.get() ? value.get()->class_value() : nullptr; cls && cls->find_getter_hook())
      return toPythonLocked(result_unwrap_lazy(value.propertyValue(property_name)));
    PyErr_Format(PyExc_AttributeError, "'%s' object has no attribute '%s'", classDisplay(value).c_str(),
                 std::string(name).c_str());
    return nullptr;
  });
}

int KestObject_setattro(PyObject *self, PyObject *py_name, PyObject *py_value) {
  return guarded<int>(-1, [&]() -> int {
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(py_name, &size);
    if (!utf8)
      return -1; // the conversion's exception stays set
    const std::string_view name(utf8, static_cast<std::size_t>(size));
    if (name == "__class__") {
      // A host object's class is fixed, as for instances of Python's immutable types.
      PyErr_SetString(PyExc_TypeError, "__class__ assignment only supported for mutable types or ModuleType subclasses");
      return -1;
    }
    const auto value = kestObjectValue(self);
    const kest::meta_property_untyped property_name(name);
    auto *instance = kest::internal::instance_of(value);
    const bool own = instance && instance->own_property(property_name.info());
    if (!py_value) {
      // Only a property added to this object alone can be deleted.
      if (own && instance->remove_property(property_name.info()))
        return 0;
      PyErr_Format(PyExc_AttributeError, "'%s' object attribute '%U' cannot be deleted", classDisplay(value).c_str(),
                   py_name);
      return -1;
    }
    if (own) {
      // A property added to this object by assignment is replaced by the next one.
      auto result = result_unwrap_lazy(kest::insert_property_value(value, property_name, fromPython(py_value)));
      if (kest::Error::isInstance(result)) {
        PyErr_Format(PyExc_RuntimeError, "%U: %s", py_name, kest::Error::unsafeFrom(result).message().toUtf8().c_str());
        return -1;
      }
      return 0;
    }
    if (auto property = kest::property_of(value, property_name); property.is<kest::Property>()) {
      auto p = property.unsafeAs<kest::Property>();
      if (!p.setter().is<kest::I_Callable_Generic>()) {
        PyErr_Format(PyExc_RuntimeError, "Read-only attribute: %U.", py_name);
        return -1;
      }
      auto result = result_unwrap_lazy(p.set(value, fromPython(py_value)));
      if (kest::Error::isInstance(result)) {
        PyErr_Format(PyExc_RuntimeError, "%U: %s.", py_name,
                     kest::Error::unsafeFrom(result).message().toUtf8().c_str());
        return -1;
      }
      return 0;
    }
    const kest::meta_field_untyped field_name(property_name.info(), false);
    kest::Any result;
    if (auto field = kest::raw_class_of(value).definedField(field_name); field.is<kest::Field>()) {
      if (field.unsafeAs<kest::Field>().flags() & kest::field_flags::read_only) {
        PyErr_Format(PyExc_RuntimeError, "Read-only attribute: %U.", py_name);
        return -1;
      }
      result = result_unwrap_lazy(value.setFieldValue(field_name, fromPython(py_value)));
    } else if (isKestSubclass(Py_TYPE(self))) {
      return PyObject_GenericSetAttr(self, py_name, py_value); // an instance of a Python subclass keeps its own
    } else {
      result = result_unwrap_lazy(kest::insert_property_value(value, property_name, fromPython(py_value)));
    }
    if (kest::Error::isInstance(result)) {
      PyErr_Format(PyExc_RuntimeError, "%U: %s", py_name, kest::Error::unsafeFrom(result).message().toUtf8().c_str());
      return -1;
    }
    return 0;
  });
}

// --- calls and iteration --------------------------------------------------------------

/// Calls `target` with the instance in `slots[0]` and the `count` - 1
/// positional arguments of `args` put in the slots after it, which are
/// emptied again afterwards, but for Integers that only the slots hold: the
/// next call refills them instead of making new ones.
PyObject *call_in_slots(const KestValue &self, const kest::internal::object_value_callable &target, PyObject *args,
                        kest::Any *slots, std::size_t count) {
  struct empty_slots {
    kest::Any *slots;
    std::size_t count;
    ~empty_slots() {
      for (std::size_t i = 1; i < count; ++i)
        if (slots[i].kind() != kest::internal::ObjectType::Integer || !slots[i].get()->only_reference())
          slots[i].reset();
    }
  } release{slots, count};
  for (std::size_t i = 1; i < count; ++i)
    fromPythonInto(slots[i], PyTuple_GetItem(args, static_cast<Py_ssize_t>(i) - 1));
  const std::span<const kest::Any> arguments(slots, count);
  auto result = self.applies_in_epoch == kest::internal::class_members_epoch()
                    ? kest::internal::call_exact_applicable(target, arguments)
                    : kest::internal::call_exact(target, arguments);
  return toPythonLocked(result_unwrap_lazy(std::move(result)));
}

/// Calls the method that a method object stands for with the positional
/// arguments in `args`, the instance first; null without an error (and `done`
/// false) when the call needs the bound method (defaults to fill in, many arguments).
PyObject *call_unbound_method(KestValue &self, PyObject *args, bool &done) {
  const Py_ssize_t n = PyTuple_Size(args);
  const auto *target = static_cast<const kest::internal::object_value_callable *>(self.method.get());
  done = n <= static_cast<Py_ssize_t>(KestValue::most_arguments) && n + 1 == target->exact_argument_count();
  if (!done)
    return nullptr;
  const auto count = static_cast<std::size_t>(n) + 1;
  if (self.calling) {
    // A call of this method object is running already (the method led to
    // calling it again): slots on the stack.
    std::array<kest::Any, KestValue::most_arguments + 1> spare;
    spare[0] = self.self();
    return call_in_slots(self, *target, args, spare.data(), count);
  }
  struct end_call {
    KestValue &self;
    ~end_call() { self.calling = false; }
  } end{self};
  self.calling = true;
  return call_in_slots(self, *target, args, self.arguments.get(), count);
}

PyObject *KestObject_descr_get(PyObject *self, PyObject *, PyObject *) {
  Py_IncRef(self);
  return self;
}

PyObject *KestObject_call(PyObject *self, PyObject *args, PyObject *kwargs) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto *object = reinterpret_cast<KestObject *>(self)->value;
    if (object && object->method && (!kwargs || PyDict_Size(kwargs) == 0)) {
      bool done = false;
      PyObject *result = call_unbound_method(*object, args, done);
      if (done)
        return result;
    }
    const kest::Any value = kestObjectValue(self);
    if (kest::Class_Generic::isInstance(value)) {
      bool handled = false;
      PyObject *made = constructContainer(kest::Class_Generic::unsafeFrom(value), args, kwargs, handled);
      if (handled)
        return made;
    }
    if (!kest::I_Callable_Generic::isInstance(value)) {
      PyErr_Format(PyExc_RuntimeError, "Non-callable object: %s", kest::display(value).toUtf8().c_str());
      return nullptr;
    }
    return callWithPythonArguments(kest::I_Callable_Generic::unsafeFrom(value), args, kwargs, 0);
  });
}

PyObject *KestObject_iter(PyObject *self) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    if (kest::List::isInstance(value))
      return iterateHostList(self);
    if (kest::I_Iterable::isInstance(value))
      return toPythonLocked(result_unwrap_lazy(kest::I_Iterable::unsafeFrom(value).iter()));
    if (kest::I_Iterator::isInstance(value)) {
      Py_IncRef(self); // an iterator is its own iterable
      return self;
    }
    PyErr_Format(PyExc_TypeError, "'%s' object is not iterable.", classDisplay(value).c_str());
    return nullptr;
  });
}

PyObject *KestObject_iternext(PyObject *self) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    if (!kest::I_Iterator::isInstance(value)) {
      PyErr_Format(PyExc_TypeError, "'%s' object is not an iterator.", classDisplay(value).c_str());
      return nullptr;
    }
    auto next = result_unwrap_lazy(kest::I_Iterator::unsafeFrom(value).next());
    if (kest::StopIteration::isInstance(next))
      return nullptr; // the end, without an exception
    if (kest::Error::isInstance(next)) {
      setRuntimeError(next);
      return nullptr;
    }
    return toPythonLocked(next);
  });
}

// --- methods ------------------------------------------------------------------------

PyObject *KestObject_dir(PyObject *self, PyObject *) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    auto names = py::object::steal(PyList_New(0));
    auto add = [&](const kest::String &name) {
      auto text = py::object::steal(str_of(name));
      return text && PyList_Append(names.get(), text.get()) == 0;
    };
    auto cls = kest::raw_class_of(value);
    for (auto &f : cls.definedFields())
      if (!add(f.name()))
        return nullptr;
    for (auto &m : cls.definedMethods())
      if (!add(m.name()))
        return nullptr;
    for (auto &p : cls.definedProperties())
      if (!add(p.name()))
        return nullptr;
    for (auto &m : kest::own_methods_of(value))
      if (!add(m.name()))
        return nullptr;
    for (auto &p : kest::own_properties_of(value))
      if (!add(p.name()))
        return nullptr;
    if (kest::Class_Generic::isInstance(value)) { // a class offers its instances' members too
      auto own = kest::Class_Generic::unsafeFrom(value);
      for (auto &p : own.definedProperties())
        if (!add(p.name()))
          return nullptr;
      for (auto &m : own.definedMethods())
        if (!add(m.name()))
          return nullptr;
    }
    // What the Python type adds to what every object has: its special
    // methods, a container's Python methods, a Python subclass's own
    // attributes (dir() sorts; the duplicates of host names go below).
    auto type_names = py::object::steal(PyObject_Dir(reinterpret_cast<PyObject *>(Py_TYPE(self))));
    if (!type_names)
      return nullptr;
    auto *object_type = reinterpret_cast<PyObject *>(&PyBaseObject_Type);
    for (Py_ssize_t i = 0, n = PyList_Size(type_names.get()); i < n; ++i) {
      PyObject *name = PyList_GetItem(type_names.get(), i); // borrowed
      if (!PyObject_HasAttr(object_type, name) && PyList_Append(names.get(), name) < 0)
        return nullptr;
    }
    auto unique = py::object::steal(PySet_New(names.get()));
    return unique ? PySequence_List(unique.get()) : nullptr;
  });
}

PyObject *clone_with(PyObject *self, bool deep, PyObject *memo) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    if (!kest::I_Cloneable::isInstance(value) && containerShape(kest::class_of(value)).kind != container_kind::none)
      return copyContainer(self, deep, memo); // a new container of the same element types, filled
    if (!kest::I_Cloneable::isInstance(value)) {
      PyErr_Format(PyExc_TypeError, "'%s' object cannot be copied.", classDisplay(value).c_str());
      return nullptr;
    }
    auto c = kest::I_Cloneable::unsafeFrom(value);
    return toPythonLocked(result_unwrap_lazy(deep ? c.deepClone() : c.clone()));
  });
}
PyObject *KestObject_copy(PyObject *self, PyObject *) { return clone_with(self, false, nullptr); }
PyObject *KestObject_deepcopy(PyObject *self, PyObject *memo) { return clone_with(self, true, memo); }

PyMemberDef KestObject_members[] = {
    // Where Python keeps the object's weak references.
    {"__weaklistoffset__", T_PYSSIZET, offsetof(KestObject, weakrefs), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyMethodDef KestObject_methods[] = {
    {"__dir__", &KestObject_dir, METH_NOARGS, "The host members of the value."},
    {"__copy__", &KestObject_copy, METH_NOARGS, "A copy made by the host's clone operation."},
    {"__deepcopy__", &KestObject_deepcopy, METH_O, "A deep copy made by the host's deep clone operation."},
    {nullptr, nullptr, 0, nullptr},
};
} // namespace

PyObject *kestObjectDoc(PyObject *self, bool &own) {
  own = false;
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    PyObject *doc = special_attribute(kestObjectValue(self), "__doc__", own);
    return own ? doc : nullptr;
  });
}

void KestObject_dealloc(PyObject *self) {
  // Python deallocates with the interpreter lock held. Releasing the host value
  // may run host finalisers; a pending exception survives them.
  PyObject *type = nullptr, *error = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &error, &traceback);
  auto *object = reinterpret_cast<KestObject *>(self);
  if (object->weakrefs)
    PyObject_ClearWeakRefs(self);
  if (auto *value = std::exchange(object->value, nullptr)) {
    Py_DecRef(std::exchange(value->method_object, nullptr));
    delete value;
  }
  PyErr_Restore(type, error, traceback);
  PyTypeObject *own_type = Py_TYPE(self);
  // The type's own free: a Python subclass with a __dict__ is collected, and its memory is freed as such.
  auto *free_memory = reinterpret_cast<freefunc>(PyType_GetSlot(own_type, Py_tp_free));
  (free_memory ? free_memory : &PyObject_Free)(self);
  Py_DecRef(reinterpret_cast<PyObject *>(own_type)); // instances of heap types own a reference to it
}

std::vector<PyType_Slot> commonSlots(bool callable, const char *doc) {
  std::vector<PyType_Slot> slots{
      {Py_tp_dealloc, reinterpret_cast<void *>(&KestObject_dealloc)},
      {Py_tp_repr, reinterpret_cast<void *>(&KestObject_repr)},
      {Py_tp_str, reinterpret_cast<void *>(&KestObject_str)},
      {Py_tp_hash, reinterpret_cast<void *>(&KestObject_hash)},
      {Py_tp_richcompare, reinterpret_cast<void *>(&KestObject_richcompare)},
      {Py_tp_getattro, reinterpret_cast<void *>(&KestObject_getattro)},
      {Py_tp_setattro, reinterpret_cast<void *>(&KestObject_setattro)},
      {Py_tp_iter, reinterpret_cast<void *>(&KestObject_iter)},
      {Py_tp_iternext, reinterpret_cast<void *>(&KestObject_iternext)},
      {Py_tp_methods, KestObject_methods},
      {Py_tp_members, KestObject_members},
      {Py_tp_doc, const_cast<char *>(doc)},
  };
  if (callable) {
    slots.push_back({Py_tp_call, reinterpret_cast<void *>(&KestObject_call)});
    // As a class attribute a host callable stays itself, as Python's built-in
    // functions do; being a descriptor, inspect and help() take it for a routine.
    slots.push_back({Py_tp_descr_get, reinterpret_cast<void *>(&KestObject_descr_get)});
  }
  return slots;
}

} // namespace sarvode
