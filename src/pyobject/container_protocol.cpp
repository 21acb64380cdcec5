// Host maps, sequences and sets as Python containers. The methods are Python
// (container_protocol_source.cpp) over the C slots; this file decides which
// classes get them, gives the Python text its two host primitives, and makes
// containers for calls of the container classes.

#include "pyobject/container_protocol.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/slots.hpp"
#include "pyobject/type_for_class.hpp"
#include "language/python_helper.hpp"

#include <kest/kest.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace sarvode {

namespace {
using kest::internal::result_unwrap_lazy;

/// The Python methods of each kind, as the Python text defines them (kept in
/// step with it: the collision rule of attribute lookup reads these lists).
constexpr std::array<std::string_view, 6> map_methods{"keys", "values", "items", "get", "copy", "fromkeys"};
constexpr std::array<std::string_view, 5> mutable_map_methods{"pop", "popitem", "setdefault", "update", "clear"};
constexpr std::array<std::string_view, 3> sequence_methods{"index", "count", "copy"};
constexpr std::array<std::string_view, 8> mutable_sequence_methods{"insert", "append", "extend", "pop",
                                                                   "remove", "reverse", "sort", "clear"};
constexpr std::array<std::string_view, 2> set_methods{"isdisjoint", "copy"};
constexpr std::array<std::string_view, 5> mutable_set_methods{"add", "discard", "remove", "pop", "clear"};

template <std::size_t N> bool listed(const std::array<std::string_view, N> &names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// An empty host container that can hold what `value` holds: a List, HashMap
/// or HashSet with the same element types.
kest::Any empty_like(const kest::Any &value) {
  if (kest::I_Map::isInstance(value)) {
    auto map = kest::I_Map::unsafeFrom(value);
    return kest::HashMap(map.keysType(), map.valuesType());
  }
  const auto elements =
      kest::I_Iterable::isInstance(value) ? kest::I_Iterable::unsafeFrom(value).elementsType() : kest::Type();
  if (kest::I_Set::isInstance(value))
    return kest::HashSet(elements);
  return kest::List(elements);
}

/// `_host_call(obj, name, *args)`: the host method `name` of obj's value,
/// called with the arguments converted; its result converted back.
PyObject *host_call(PyObject *, PyObject *args) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const Py_ssize_t count = PyTuple_Size(args);
    PyObject *self = count >= 2 ? PyTuple_GetItem(args, 0) : nullptr; // borrowed
    PyObject *name = count >= 2 ? PyTuple_GetItem(args, 1) : nullptr;
    if (!self || !name || !isKestObject(self) || !PyUnicode_Check(name)) {
      PyErr_SetString(PyExc_TypeError, "_host_call(obj, name, *args) needs a host object and a method name");
      return nullptr;
    }
    const char *text = PyUnicode_AsUTF8AndSize(name, nullptr);
    if (!text)
      return nullptr;
    const auto value = kestObjectValue(self);
    auto method = kest::method_of(value, kest::meta_method_untyped(text));
    if (!method.is<kest::I_Callable_Generic>()) {
      PyErr_Format(PyExc_TypeError, "'%s' object has no host method '%s'", classDisplay(value).c_str(), text);
      return nullptr;
    }
    std::vector<kest::Any> arguments;
    for (Py_ssize_t i = 2; i < count; ++i)
      arguments.push_back(fromPython(PyTuple_GetItem(args, i)));
    auto result = result_unwrap_lazy(
        method.unsafeAs<kest::I_Callable_Generic>().bindInstance(value).callWith(std::span<const kest::Any>(arguments)));
    if (kest::Error::isInstance(result)) {
      raiseHostError(result);
      return nullptr;
    }
    return toPythonLocked(result);
  });
}

/// `_host_has(obj, name)`: whether obj's value has a host method of that name.
PyObject *host_has(PyObject *, PyObject *args) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    PyObject *self = nullptr, *name = nullptr;
    if (!PyArg_ParseTuple(args, "OU", &self, &name))
      return nullptr;
    const char *text = PyUnicode_AsUTF8AndSize(name, nullptr);
    if (!text)
      return nullptr;
    const bool has = isKestObject(self) &&
                     kest::method_of(kestObjectValue(self), kest::meta_method_untyped(text)).is<kest::I_Callable_Generic>();
    return PyBool_FromLong(has ? 1 : 0);
  });
}

PyObject *new_like(PyObject *, PyObject *object) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    if (!isKestObject(object)) {
      PyErr_SetString(PyExc_TypeError, "_new_like(obj) needs a host object");
      return nullptr;
    }
    return toPythonLocked(empty_like(kestObjectValue(object)));
  });
}

container_kind container_class(const kest::Class_Generic &cls);

// --- iterating the host's own lists ---------------------------------------------
//
// An iterator by index, as Python's list iterator: it sees what the loop body
// appends, and ends at the list's end as it is when asked.

struct ListIterator {
  PyObject_HEAD
  kest::List *list; // owned; null once the iteration ended
  Py_ssize_t index;
};

PyObject *ListIterator_next(PyObject *self) {
  auto *iterator = reinterpret_cast<ListIterator *>(self);
  if (!iterator->list)
    return nullptr;
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    // One read under the list's lock: past the end (now) is the end.
    auto item = iterator->list->at(iterator->index);
    if (!item.isError()) {
      ++iterator->index;
      return toPythonLocked(item); // a Result that is no error is the value itself
    }
    delete std::exchange(iterator->list, nullptr);
    return nullptr; // the end, without an exception
  });
}

PyObject *ListIterator_iter(PyObject *self) {
  Py_IncRef(self);
  return self;
}

void ListIterator_dealloc(PyObject *self) {
  delete reinterpret_cast<ListIterator *>(self)->list;
  PyTypeObject *type = Py_TYPE(self);
  PyObject_Free(self);
  Py_DecRef(reinterpret_cast<PyObject *>(type));
}

PyType_Slot ListIterator_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(&ListIterator_dealloc)},
    {Py_tp_iter, reinterpret_cast<void *>(&ListIterator_iter)},
    {Py_tp_iternext, reinterpret_cast<void *>(&ListIterator_next)},
    {0, nullptr},
};

PyType_Spec ListIterator_spec{"kest.list_iterator", static_cast<int>(sizeof(ListIterator)), 0, Py_TPFLAGS_DEFAULT,
                              ListIterator_slots};

PyTypeObject *list_iterator_type() {
  static PyTypeObject *type = nullptr; // guarded by the interpreter lock
  return py::type_from_spec(ListIterator_spec, type);
}

/// The host class of a host class's type or of a Python class derived from one.
std::optional<kest::Class_Generic> host_class_of_type(PyObject *type) {
  auto mro = py::object::steal(PyObject_GetAttrString(type, "__mro__"));
  if (!mro || !PyTuple_Check(mro.get())) {
    PyErr_Clear();
    return std::nullopt;
  }
  for (Py_ssize_t i = 0, n = PyTuple_Size(mro.get()); i < n; ++i)
    if (auto cls = classOfOwnType(reinterpret_cast<PyTypeObject *>(PyTuple_GetItem(mro.get(), i))))
      return cls;
  return std::nullopt;
}

/// `_new_instance(cls, args, kwargs)`, the __new__ of a host container's type
/// and of Python classes derived from it: an empty List, HashMap or HashSet
/// (their __init__ fills it), or what calling another host class gives.
PyObject *new_instance(PyObject *, PyObject *args) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    PyObject *type = nullptr, *call_args = nullptr, *call_kwargs = nullptr;
    if (!PyArg_ParseTuple(args, "OOO", &type, &call_args, &call_kwargs) || !PyType_Check(type))
      return nullptr;
    auto cls = host_class_of_type(type);
    if (!cls) {
      auto name = py::object::steal(PyType_GetName(reinterpret_cast<PyTypeObject *>(type)));
      PyErr_Clear();
      PyErr_Format(PyExc_TypeError, "cannot create '%s' instances", std::string(py::utf8(name.get())).c_str());
      return nullptr;
    }
    kest::Any value;
    if (container_class(*cls) != container_kind::none) {
      const auto arguments = cls->genericArguments();
      auto type_at = [&](std::size_t i) { return i < arguments.size() ? arguments[i] : kest::Type(); };
      const auto kind = container_class(*cls);
      value = kind == container_kind::map   ? kest::Any(kest::HashMap(type_at(0), type_at(1)))
              : kind == container_kind::set ? kest::Any(kest::HashSet(type_at(0)))
                                            : kest::Any(kest::List(type_at(0)));
    } else {
      // Another host class: its own constructor takes the arguments.
      auto made = py::object::steal(
          callWithPythonArguments(kest::I_Callable_Generic::unsafeFrom(*cls), call_args, call_kwargs, 0));
      if (!made)
        return nullptr;
      value = fromPython(made.get());
    }
    return newKestObjectOfType(reinterpret_cast<PyTypeObject *>(type), value);
  });
}

/// `_is_built_in_container(obj)`: whether __init__ fills obj from its
/// arguments (List, HashMap, HashSet) or its constructor took them.
PyObject *fills_from_arguments(PyObject *, PyObject *object) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const bool fills = isKestObject(object) &&
                       container_class(kest::raw_class_of(kestObjectValue(object))) != container_kind::none;
    return PyBool_FromLong(fills ? 1 : 0);
  });
}

/// `_host_id(obj)`: the identity of obj's host value. Every crossing into
/// Python makes a new wrapper, so `id()` cannot tell that a container holds itself.
PyObject *host_id(PyObject *, PyObject *object) {
  if (!isKestObject(object)) {
    PyErr_SetString(PyExc_TypeError, "_host_id(obj) needs a host object");
    return nullptr;
  }
  return PyLong_FromLongLong(static_cast<long long>(kest::object_id(kestObjectValue(object))));
}

PyObject *register_subclass(PyObject *, PyObject *type) {
  // Only a class with the KestObject layout: any other would be read as one.
  PyTypeObject *base = kestObjectBaseType();
  if (!base)
    return nullptr;
  if (!PyType_Check(type) || !PyType_IsSubtype(reinterpret_cast<PyTypeObject *>(type), base)) {
    PyErr_SetString(PyExc_TypeError, "_register_subclass(cls) needs a class derived from a host class's type");
    return nullptr;
  }
  registerKestSubclass(reinterpret_cast<PyTypeObject *>(type));
  Py_RETURN_NONE;
}

/// `__mro_entries__` of a host container class seen from Python: a class
/// statement that names it derives from the type of its instances.
PyObject *mro_entries(PyObject *type, PyObject *) { return PyTuple_Pack(1, type); }

PyMethodDef mro_entries_definition{"__mro_entries__", &mro_entries, METH_O,
                                   "The Python type that a class statement derives from in place of this class."};
PyMethodDef new_instance_definition{"_new_instance", &new_instance, METH_VARARGS, "A new instance of a host class's type."};
PyMethodDef fills_definition{"_fills_from_arguments", &fills_from_arguments, METH_O,
                             "Whether __init__ fills the container from its arguments."};
PyMethodDef host_id_definition{"_host_id", &host_id, METH_O, "The identity of a host object's value."};
PyMethodDef register_subclass_definition{"_register_subclass", &register_subclass, METH_O,
                                         "Makes a Python class derived from a host class's type known."};
PyMethodDef host_call_definition{"_host_call", &host_call, METH_VARARGS, "Calls a host method by its host name."};
PyMethodDef host_has_definition{"_host_has", &host_has, METH_VARARGS, "Whether a host method of that name exists."};
PyMethodDef new_like_definition{"_new_like", &new_like, METH_O, "An empty host container like the given one."};

/// The globals of the Python text, made once and kept for the process
/// (borrowed); null with the error cleared when they cannot be made.
PyObject *protocol_globals() {
  static std::atomic<PyObject *> kept{nullptr};
  return pythonHelperGlobals(kept, containerProtocolSource, "<sarvode containers>",
                             {&host_call_definition, &host_has_definition, &new_like_definition,
                              &new_instance_definition, &fills_definition, &register_subclass_definition, &host_id_definition});
}

/// The function `name` of the Python text (borrowed); null with a Python error.
PyObject *protocol_function(const char *name) {
  PyObject *globals = protocol_globals();
  PyObject *function = globals ? PyDict_GetItemString(globals, name) : nullptr; // borrowed
  if (!function)
    PyErr_Format(PyExc_SystemError, "the host container protocol has no '%s'", name);
  return function;
}

const char *kind_name(container_kind kind) {
  switch (kind) {
  case container_kind::map:
    return "map";
  case container_kind::sequence:
    return "sequence";
  case container_kind::set:
    return "set";
  case container_kind::none:
    break;
  }
  return "none";
}

/// Which of List, HashMap and HashSet `cls` is, itself or as a typed form; none otherwise.
container_kind container_class(const kest::Class_Generic &cls) {
  auto definition = cls;
  if (cls.hasFlag(kest::class_flags::generic_instance) && kest::Class_Generic::isInstance(cls.genericDefinition()))
    definition = kest::Class_Generic::unsafeFrom(cls.genericDefinition());
  if (definition.isSame(kest::List::getClass()))
    return container_kind::sequence;
  if (definition.isSame(kest::HashMap::getClass()))
    return container_kind::map;
  if (definition.isSame(kest::HashSet::getClass()))
    return container_kind::set;
  return container_kind::none;
}

/// The host type a Python value names in `kest.List[...]`: a host class, or None.
bool type_of_python(PyObject *object, kest::Type &type) {
  if (object == Py_None) {
    type = kest::Type(kest::None::getClass());
    return true;
  }
  const auto value = fromPython(object);
  if (!kest::Class_Generic::isInstance(value)) {
    PyErr_Format(PyExc_TypeError, "a host container's element type must be a host class, not '%s'",
                 classDisplay(value).c_str());
    return false;
  }
  type = kest::Type(kest::Class_Generic::unsafeFrom(value));
  return true;
}
} // namespace

container_shape containerShape(const kest::Class_Generic &cls) {
  if (!cls || cls.hasFlag(kest::class_flags::python_backed) || cls.hasFlag(kest::class_flags::interface))
    return {};
  if (cls.hasFlag(kest::class_flags::sequence))
    return {container_kind::sequence, cls.derivesFrom(kest::I_MutableSequence::getClass())};
  if (cls.hasFlag(kest::class_flags::map))
    return {container_kind::map, cls.derivesFrom(kest::I_MutableMap::getClass())};
  if (cls.hasFlag(kest::class_flags::set))
    return {container_kind::set, cls.derivesFrom(kest::I_MutableSet::getClass())};
  return {};
}

bool isContainerMethodName(container_shape shape, std::string_view name) {
  switch (shape.kind) {
  case container_kind::map:
    return listed(map_methods, name) || (shape.mutable_ && listed(mutable_map_methods, name));
  case container_kind::sequence:
    return listed(sequence_methods, name) || (shape.mutable_ && listed(mutable_sequence_methods, name));
  case container_kind::set:
    return listed(set_methods, name) || (shape.mutable_ && listed(mutable_set_methods, name));
  case container_kind::none:
    break;
  }
  return false;
}

void addContainerProtocol(PyTypeObject *type, const kest::Class_Generic &cls) {
  addContainerProtocol(type, containerShape(cls));
}

void addContainerProtocol(PyTypeObject *type, container_shape shape) {
  if (shape.kind == container_kind::none || !type)
    return;
  PyObject *install = protocol_function("install");
  auto done = install ? py::object::steal(PyObject_CallFunction(install, "OsO", reinterpret_cast<PyObject *>(type),
                                                                kind_name(shape.kind),
                                                                shape.mutable_ ? Py_True : Py_False))
                      : py::object();
  if (!done)
    PyErr_Clear(); // the type keeps its slots without the interface
}

PyObject *iterateHostList(PyObject *self) {
  PyTypeObject *type = list_iterator_type();
  PyObject *made = type ? PyType_GenericAlloc(type, 0) : nullptr;
  if (!made)
    return nullptr;
  auto *list = new (std::nothrow) kest::List(kest::List::unsafeFrom(kestObjectValue(self)));
  if (!list) {
    Py_DecRef(made);
    return PyErr_NoMemory();
  }
  reinterpret_cast<ListIterator *>(made)->list = list;
  reinterpret_cast<ListIterator *>(made)->index = 0;
  return made;
}

PyObject *sequenceSlice(PyObject *self, PyObject *slice) {
  const auto value = kestObjectValue(self);
  if (kest::List::isInstance(value)) {
    // The host's own list: the elements copied in one step, under its lock.
    const auto list = kest::List::unsafeFrom(value);
    const auto items = list.copyItems();
    Py_ssize_t start = 0, stop = 0, step = 0;
    if (PySlice_Unpack(slice, &start, &stop, &step) < 0)
      return nullptr;
    const auto count = PySlice_AdjustIndices(static_cast<Py_ssize_t>(items.size()), &start, &stop, step);
    std::vector<kest::Any> part;
    part.reserve(static_cast<std::size_t>(count));
    for (Py_ssize_t i = 0, at = start; i < count; ++i, at += step)
      part.push_back(items[static_cast<std::size_t>(at)]);
    return guarded<PyObject *>(nullptr, [&] { return toPythonLocked(kest::List(list.elementType(), std::move(part))); });
  }
  PyObject *get = protocol_function("get_slice");
  return get ? PyObject_CallFunctionObjArgs(get, self, slice, nullptr) : nullptr;
}

int assignSequenceSlice(PyObject *self, PyObject *slice, PyObject *values) {
  PyObject *function = protocol_function(values ? "set_slice" : "del_slice");
  if (!function)
    return -1;
  auto done = py::object::steal(values ? PyObject_CallFunctionObjArgs(function, self, slice, values, nullptr)
                                       : PyObject_CallFunctionObjArgs(function, self, slice, nullptr));
  return done ? 0 : -1;
}

PyObject *containerRepr(PyObject *self) {
  PyObject *text = protocol_function("repr_of");
  return text ? PyObject_CallFunctionObjArgs(text, self, nullptr) : nullptr;
}

PyObject *repeatSequence(PyObject *self, Py_ssize_t count, bool in_place) {
  PyObject *repeat = protocol_function("repeat");
  return repeat ? PyObject_CallFunction(repeat, "OnO", self, count, in_place ? Py_True : Py_False) : nullptr;
}

PyObject *copyContainer(PyObject *self, bool deep, PyObject *memo) {
  PyObject *copy = protocol_function("copy_of");
  return copy ? PyObject_CallFunctionObjArgs(copy, self, deep ? Py_True : Py_False, memo ? memo : Py_None, nullptr)
              : nullptr;
}

PyObject *constructContainer(const kest::Class_Generic &cls, PyObject *args, PyObject *kwargs, bool &handled) {
  const auto kind = container_class(cls);
  handled = kind != container_kind::none;
  if (!handled)
    return nullptr;
  const auto arguments = cls.genericArguments();
  auto type_at = [&](std::size_t i) { return i < arguments.size() ? arguments[i] : kest::Type(); };
  kest::Any empty;
  if (kind == container_kind::map)
    empty = kest::HashMap(type_at(0), type_at(1));
  else if (kind == container_kind::set)
    empty = kest::HashSet(type_at(0));
  else
    empty = kest::List(type_at(0));
  auto result = py::object::steal(toPythonLocked(empty));
  auto no_keywords = py::object::steal(kwargs ? nullptr : PyDict_New());
  PyObject *fill = result ? protocol_function("fill") : nullptr;
  if (!fill || (!kwargs && !no_keywords))
    return nullptr;
  const auto name = kest::qualname(cls).toUtf8();
  return PyObject_CallFunction(fill, "sOOOs", kind_name(kind), result.get(), args, kwargs ? kwargs : no_keywords.get(),
                               name.c_str());
}

PyObject *containerClassAttribute(const kest::Class_Generic &cls, std::string_view name, bool &handled) {
  handled = (name == "fromkeys" || name == "__mro_entries__") && container_class(cls) != container_kind::none;
  if (!handled)
    return nullptr;
  // The class of the instances: List, HashMap and HashSet themselves make untyped ones.
  auto instances = cls;
  if (!cls.hasFlag(kest::class_flags::generic_instance)) {
    const auto kind = container_class(cls);
    instances = kind == container_kind::map   ? kest::HashMap::genericInstance(kest::Type(), kest::Type())
                : kind == container_kind::set ? kest::HashSet::genericInstance(kest::Type())
                                              : kest::List::genericInstance(kest::Type());
  }
  auto type = py::object::steal(reinterpret_cast<PyObject *>(typeForClassLocked(instances)));
  if (!type)
    return nullptr;
  if (name == "__mro_entries__")
    return PyCFunction_New(&mro_entries_definition, type.get());
  return PyObject_GetAttrString(type.get(), "fromkeys");
}

PyObject *typedContainerClass(const kest::Class_Generic &cls, PyObject *key, bool &handled) {
  handled = !cls.hasFlag(kest::class_flags::generic_instance) && container_class(cls) != container_kind::none;
  if (!handled)
    return nullptr;
  const auto kind = container_class(cls);
  const auto name = kest::qualname(cls).toUtf8();
  if (kind == container_kind::map) {
    kest::Type key_type, value_type;
    if (!PyTuple_Check(key) || PyTuple_Size(key) != 2) {
      PyErr_Format(PyExc_TypeError, "%s[...] takes a key type and a value type", name.c_str());
      return nullptr;
    }
    if (!type_of_python(PyTuple_GetItem(key, 0), key_type) || !type_of_python(PyTuple_GetItem(key, 1), value_type))
      return nullptr;
    return toPythonLocked(kest::HashMap::genericInstance(key_type, value_type));
  }
  kest::Type element_type;
  if (PyTuple_Check(key)) {
    PyErr_Format(PyExc_TypeError, "%s[...] takes one element type", name.c_str());
    return nullptr;
  }
  if (!type_of_python(key, element_type))
    return nullptr;
  return toPythonLocked(kind == container_kind::set ? kest::HashSet::genericInstance(element_type)
                                                    : kest::List::genericInstance(element_type));
}

} // namespace sarvode
