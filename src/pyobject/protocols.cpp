// The number, sequence and mapping slots of KestObject: Python operators call
// the host object's methods and properties.

#include "pyobject/slots.hpp"
#include "pyobject/container_protocol.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/lookup_memo.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace sarvode {

using kest::internal::result_unwrap_lazy;

namespace {
/// The host value behind a binary operator's left operand, or nothing when the
/// operand is no KestObject (then the operator is not ours: NotImplemented).
std::optional<kest::Any> operand(PyObject *object) {
  if (!object || !isKestObject(object))
    return std::nullopt;
  return kest::internal::unwrap(kestObjectValue(object));
}

PyObject *not_implemented() {
  Py_IncRef(Py_NotImplemented);
  return Py_NotImplemented;
}

/// Finds `primary` (then `fallback`) and calls it bound to `value` with `args`;
/// a missing method raises NotImplementedError with `message`.
PyObject *call_operator(const kest::Any &value, const char *primary, const char *fallback,
                        const std::string &message, std::initializer_list<kest::Any> args,
                        PyObject *self_for_none = nullptr) {
  if (kest::Error::isInstance(value))
    return toPythonLocked(value);
  auto method = kest::method_of(value, kest::meta_method_untyped(std::string("$") + primary));
  if (!method.is<kest::I_Callable_Generic>() && fallback)
    method = kest::method_of(value, kest::meta_method_untyped(fallback));
  if (!method.is<kest::I_Callable_Generic>()) {
    PyErr_SetString(PyExc_NotImplementedError, message.c_str());
    return nullptr;
  }
  auto bound = method.unsafeAs<kest::I_Callable_Generic>().bindInstance(value);
  auto result = result_unwrap_lazy(bound.callWith(std::span<const kest::Any>(args.begin(), args.size())));
  if (kest::Error::isInstance(result)) {
    setRuntimeError(result);
    return nullptr;
  }
  if (self_for_none && kest::is_none(result)) {
    // An in-place method that changed the object returns it.
    Py_IncRef(self_for_none);
    return self_for_none;
  }
  return toPythonLocked(result);
}

std::string message(const char *format, const kest::Any &value) {
  return fmt::format(fmt::runtime(format), kest::display(value).toUtf8());
}

PyObject *binary(PyObject *left, PyObject *right, const char *primary, const char *fallback, const char *format,
                 bool in_place = false) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto value = operand(left);
    if (!value)
      return not_implemented();
    return call_operator(*value, primary, fallback, message(format, *value), {fromPython(right)},
                         in_place ? left : nullptr);
  });
}

PyObject *bitwise(PyObject *left, PyObject *right, const char *primary, const char *short_name) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto value = operand(left);
    if (!value)
      return not_implemented();
    return call_operator(*value, primary, nullptr,
                         fmt::format("[kest_number_{}] None method in: {}", short_name, kest::display(*value).toUtf8()),
                         {fromPython(right)});
  });
}

bool has_method(const kest::Any &value, std::initializer_list<const char *> names);
PyObject *sq_concat(PyObject *a, PyObject *b);

// --- number table --------------------------------------------------------------------

PyObject *nb_subtract(PyObject *a, PyObject *b) {
  return binary(a, b, "__sub__", nullptr, "[kest_number_subtract] None method '__sub__' in: {}");
}
PyObject *nb_invert(PyObject *a) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto value = operand(a);
    if (!value)
      return not_implemented();
    return call_operator(*value, "__not__", nullptr, message("[kest_number_not] None method '__not__' in: {}", *value), {});
  });
}
PyObject *nb_and(PyObject *a, PyObject *b) { return bitwise(a, b, "__and__", "and"); }
PyObject *nb_or(PyObject *a, PyObject *b) { return bitwise(a, b, "__or__", "or"); }
PyObject *nb_xor(PyObject *a, PyObject *b) { return bitwise(a, b, "__xor__", "xor"); }
PyObject *nb_inplace_subtract(PyObject *a, PyObject *b) {
  if (auto value = operand(a); value && !has_method(*value, {"$__isub__"}) && has_method(*value, {"$__sub__"}))
    return not_implemented(); // Python then uses `a - b`
  return binary(a, b, "__isub__", nullptr, "[kest_number_inplace_subtract] None method '__isub__' in: {}", true);
}
PyObject *nb_true_divide(PyObject *a, PyObject *b) {
  return binary(a, b, "__div__", nullptr, "[kest_number_divide] None method '__div__' in: {}.");
}
PyObject *nb_inplace_true_divide(PyObject *a, PyObject *b) {
  if (auto value = operand(a); value && !has_method(*value, {"$__idiv__"}) && has_method(*value, {"$__div__"}))
    return not_implemented(); // Python then uses `a / b`
  return binary(a, b, "__idiv__", nullptr, "[kest_number_divide] None method '__idiv__' in: {}.", true);
}

// --- sequence tables --------------------------------------------------------------------

PyObject *sq_concat(PyObject *a, PyObject *b) {
  return binary(a, b, "__add__", "concat", "[kest_sequence_concat] None method 'concat' in: {}");
}
/// True when the value has a method of one of these names.
bool has_method(const kest::Any &value, std::initializer_list<const char *> names) {
  for (const char *name : names)
    if (kest::method_of(value, kest::meta_method_untyped(name)).is<kest::I_Callable_Generic>())
      return true;
  return false;
}

PyObject *sq_inplace_concat(PyObject *a, PyObject *b) {
  // Without an in-place method, `a += b` becomes `a = a + b`, as in Python.
  if (auto value = operand(a); value && !has_method(*value, {"$__iadd__", "extend"}) &&
                               has_method(*value, {"$__add__", "concat"}))
    return sq_concat(a, b);
  return binary(a, b, "__iadd__", "extend", "[kest_sequence_extend] None method 'extend' in: {}.", true);
}
/// A host sequence that has no repeat of its own repeats as a Python list does.
bool repeats_as_python(const kest::Any &value, std::initializer_list<const char *> host_names) {
  return containerShape(kest::class_of(value)).kind == container_kind::sequence && !has_method(value, host_names);
}

PyObject *sq_repeat(PyObject *a, Py_ssize_t count) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto value = operand(a);
    if (!value)
      return not_implemented();
    if (repeats_as_python(*value, {"$__mul__", "repeat"}))
      return repeatSequence(a, count, false);
    return call_operator(*value, "__mul__", "repeat", message("[kest_sequence_repeat] None method 'repeat' in: {}.", *value),
                         {kest::Integer(static_cast<std::int64_t>(count))});
  });
}
PyObject *sq_inplace_repeat(PyObject *a, Py_ssize_t count) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto value = operand(a);
    if (!value)
      return not_implemented();
    if (kest::I_MutableSequence::isInstance(*value) && repeats_as_python(*value, {"$__imul__"}))
      return repeatSequence(a, count, true);
    return call_operator(*value, "__imul__", nullptr,
                         message("[kest_sequence_inplace_repeat] None method '__imul__' in: {}.", *value),
                         {kest::Integer(static_cast<std::int64_t>(count))}, a);
  });
}

Py_ssize_t sq_length(PyObject *self) {
  return guarded<Py_ssize_t>(-1, [&]() -> Py_ssize_t {
    if (!self || !isKestObject(self) || !kestObjectValue(self)) {
      PyErr_SetString(PyExc_TypeError, "Object is not a Kest sequence.");
      return -1;
    }
    const auto &value = reinterpret_cast<KestObject *>(self)->value->value;
    // The host's own containers know their length without a property lookup.
    if (kest::List::isInstance(value))
      return static_cast<Py_ssize_t>(kest::List::unsafeFrom(value).length());
    if (kest::HashMap::isInstance(value))
      return static_cast<Py_ssize_t>(kest::HashMap::unsafeFrom(value).length());
    if (kest::HashSet::isInstance(value))
      return static_cast<Py_ssize_t>(kest::HashSet::unsafeFrom(value).length());
    auto length = result_unwrap_lazy(value.propertyValue(kest::meta_property_untyped("$$__len__")));
    if (kest::Integer::isInstance(length))
      return static_cast<Py_ssize_t>(kest::Integer::unsafeFrom(length).value());
    if (kest::Error::isInstance(length))
      setRuntimeError(length);
    else
      PyErr_SetString(PyExc_RuntimeError, "The length of the object is not an integer.");
    return -1;
  });
}

/// Calls a named method on the value; a missing method raises RuntimeError
/// with the host's method-not-found message.
kest::Any call_method(const kest::Any &value, const char *name, std::initializer_list<kest::Any> args) {
  auto method = kest::method_of(value, kest::meta_method_untyped(name));
  if (!method.is<kest::I_Callable_Generic>())
    return kest::internal::helpers::error_method_not_found(kest::String::fromUtf8(name), value);
  return result_unwrap_lazy(method.unsafeAs<kest::I_Callable_Generic>().bindInstance(value).callWith(
      std::span<const kest::Any>(args.begin(), args.size())));
}

PyObject *sq_item(PyObject *self, Py_ssize_t index) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto value = kestObjectValue(self);
    if (kest::List::isInstance(value)) { // the host's own list: one read under its lock
      const auto list = kest::List::unsafeFrom(value);
      if (index < 0 || index >= list.length()) {
        PyErr_SetString(PyExc_IndexError, "Kest sequence index out of range.");
        return nullptr;
      }
      auto item = result_unwrap_lazy(list.at(index));
      if (kest::Error::isInstance(item)) { // shortened meanwhile by another thread
        PyErr_SetString(PyExc_IndexError, "Kest sequence index out of range.");
        return nullptr;
      }
      return toPythonLocked(item);
    }
    auto length = result_unwrap_lazy(value.propertyValue(kest::meta_property_untyped("$$__len__")));
    if (kest::Integer::isInstance(length) && (index < 0 || index >= kest::Integer::unsafeFrom(length).value())) {
      PyErr_SetString(PyExc_IndexError, "Kest sequence index out of range.");
      return nullptr;
    }
    auto result = call_method(value, "at", {kest::Integer(static_cast<std::int64_t>(index))});
    if (kest::Error::isInstance(result)) {
      setRuntimeError(result);
      return nullptr;
    }
    return toPythonLocked(result);
  });
}

int sq_ass_item(PyObject *self, Py_ssize_t index, PyObject *item) {
  return guarded<int>(-1, [&]() -> int {
    const auto value = kestObjectValue(self);
    if (!item && !has_method(value, {"removeAt"})) {
      PyErr_SetString(PyExc_TypeError, "Kest sequences do not support item deletion.");
      return -1;
    }
    auto length = result_unwrap_lazy(value.propertyValue(kest::meta_property_untyped("$$__len__")));
    if (kest::Integer::isInstance(length) && (index < 0 || index >= kest::Integer::unsafeFrom(length).value())) {
      PyErr_SetString(PyExc_IndexError, item ? "Kest sequence assignment index out of range."
                                             : "Kest sequence index out of range.");
      return -1;
    }
    if (!item) {
      auto removed = call_method(value, "removeAt", {kest::Integer(static_cast<std::int64_t>(index))});
      if (kest::Error::isInstance(removed)) {
        setRuntimeError(removed);
        return -1;
      }
      return 0;
    }
    auto result = call_method(value, "set", {kest::Integer(static_cast<std::int64_t>(index)), fromPython(item)});
    if (kest::Error::isInstance(result)) {
      setRuntimeError(result);
      return -1;
    }
    return 0;
  });
}

int sq_contains(PyObject *self, PyObject *item) {
  return guarded<int>(-1, [&]() -> int {
    auto result = call_method(kestObjectValue(self), "contains", {fromPython(item)});
    if (kest::Error::isInstance(result)) {
      setRuntimeError(result);
      return -1;
    }
    return kest::Boolean::from(result).value() ? 1 : 0;
  });
}

// --- mapping table --------------------------------------------------------------------

/// `map[key]` on the host's own HashMap: one lookup, text and int keys without
/// the general immutability check (they are immutable).
PyObject *hash_map_item(const kest::HashMap &map, PyObject *key) {
  const auto host_key = hostKeyOf(key);
  const auto kind = host_key.kind();
  if (kind != kest::internal::ObjectType::String && kind != kest::internal::ObjectType::Integer &&
      !kest::I_Immutable::isInstance(host_key) && !kest::is_none(host_key)) {
    PyErr_Format(PyExc_TypeError, "A map key must be immutable, not '%s'.", classDisplay(host_key).c_str());
    return nullptr;
  }
  auto found = map.find(host_key);
  if (!found && !map.contains(host_key)) { // empty is also what a stored None reads as
    PyErr_SetObject(PyExc_KeyError, key);
    return nullptr;
  }
  return pythonValueOf(found);
}

PyObject *mp_subscript(PyObject *self, PyObject *key) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    const auto &held = reinterpret_cast<KestObject *>(self)->value;
    if (held && held->value.kind() == kest::internal::ObjectType::HashMap)
      return hash_map_item(kest::HashMap::unsafeFrom(held->value), key);
    const auto value = kestObjectValue(self);
    if (kest::Class_Generic::isInstance(value)) { // kest.List[kest.Integer]
      bool handled = false;
      PyObject *typed = typedContainerClass(kest::Class_Generic::unsafeFrom(value), key, handled);
      if (handled)
        return typed;
    }
    if (!kest::I_Map::isInstance(value) && kest::I_Sequence::isInstance(value) && PySlice_Check(key))
      return sequenceSlice(self, key);
    if (!kest::I_Map::isInstance(value) && kest::I_Sequence::isInstance(value) && PyLong_Check(key)) {
      auto index = PyLong_AsSsize_t(key);
      if (index == -1 && PyErr_Occurred())
        return nullptr;
      if (index < 0) { // counts from the end, as in Python
        const auto length = sq_length(self);
        if (length < 0)
          return nullptr;
        index += length;
      }
      return sq_item(self, index);
    }
    if (!kest::I_Map::isInstance(value)) {
      PyErr_Format(PyExc_TypeError, "'%s' object is not subscriptable.", classDisplay(value).c_str());
      return nullptr;
    }
    const auto host_key = fromPython(key);
    if (!kest::I_Immutable::isInstance(host_key) && !kest::is_none(host_key)) {
      PyErr_Format(PyExc_TypeError, "A map key must be immutable, not '%s'.", classDisplay(host_key).c_str());
      return nullptr;
    }
    auto map = kest::I_Map::unsafeFrom(value);
    auto present = result_unwrap_lazy(map.contains(host_key));
    if (kest::Boolean::isInstance(present) && !kest::Boolean::unsafeFrom(present).value()) {
      PyErr_SetObject(PyExc_KeyError, key);
      return nullptr;
    }
    auto result = result_unwrap_lazy(map.get(host_key));
    if (kest::Error::isInstance(result)) {
      setRuntimeError(result);
      return nullptr;
    }
    return toPythonLocked(result);
  });
}

int mp_ass_subscript(PyObject *self, PyObject *key, PyObject *item) {
  return guarded<int>(-1, [&]() -> int {
    const auto value = kestObjectValue(self);
    if (!kest::I_MutableMap::isInstance(value)) {
      if (kest::I_MutableSequence::isInstance(value) && PySlice_Check(key))
        return assignSequenceSlice(self, key, item);
      if (kest::I_Sequence::isInstance(value) && PyLong_Check(key)) {
        auto index = PyLong_AsSsize_t(key);
        if (index == -1 && PyErr_Occurred())
          return -1;
        if (index < 0) {
          const auto length = sq_length(self);
          if (length < 0)
            return -1;
          index += length;
        }
        return sq_ass_item(self, index, item);
      }
      PyErr_Format(PyExc_TypeError, "'%s' object does not support item assignment.", classDisplay(value).c_str());
      return -1;
    }
    auto map = kest::I_MutableMap::unsafeFrom(value);
    const auto host_key = fromPython(key);
    if (!item) {
      auto present = result_unwrap_lazy(kest::I_Map::unsafeFrom(value).contains(host_key));
      if (kest::Boolean::isInstance(present) && !kest::Boolean::unsafeFrom(present).value()) {
        PyErr_SetObject(PyExc_KeyError, key);
        return -1;
      }
    }
    kest::Any result = item ? kest::Any(result_unwrap_lazy(map.setChecked(host_key, fromPython(item))))
                            : result_unwrap_lazy(map.remove(host_key));
    if (kest::Error::isInstance(result)) {
      setRuntimeError(result);
      return -1;
    }
    return 0;
  });
}
} // namespace

std::vector<PyType_Slot> kestObjectSlots(sequence_table sequence, bool mapping, bool callable, const char *doc) {
  auto slots = commonSlots(callable, doc);
  const PyType_Slot number[] = {
      {Py_nb_subtract, reinterpret_cast<void *>(&nb_subtract)},
      {Py_nb_invert, reinterpret_cast<void *>(&nb_invert)},
      {Py_nb_and, reinterpret_cast<void *>(&nb_and)},
      {Py_nb_or, reinterpret_cast<void *>(&nb_or)},
      {Py_nb_xor, reinterpret_cast<void *>(&nb_xor)},
      {Py_nb_inplace_subtract, reinterpret_cast<void *>(&nb_inplace_subtract)},
      {Py_nb_true_divide, reinterpret_cast<void *>(&nb_true_divide)},
      {Py_nb_inplace_true_divide, reinterpret_cast<void *>(&nb_inplace_true_divide)},
  };
  slots.insert(slots.end(), std::begin(number), std::end(number));
  // Every table has concatenation, so "+" always reaches the host.
  slots.push_back({Py_sq_concat, reinterpret_cast<void *>(&sq_concat)});
  slots.push_back({Py_sq_inplace_concat, reinterpret_cast<void *>(&sq_inplace_concat)});
  if (sequence != sequence_table::reduced)
    slots.push_back({Py_sq_contains, reinterpret_cast<void *>(&sq_contains)});
  if (sequence == sequence_table::full) {
    slots.push_back({Py_sq_length, reinterpret_cast<void *>(&sq_length)});
    slots.push_back({Py_sq_repeat, reinterpret_cast<void *>(&sq_repeat)});
    slots.push_back({Py_sq_item, reinterpret_cast<void *>(&sq_item)});
    slots.push_back({Py_sq_ass_item, reinterpret_cast<void *>(&sq_ass_item)});
    slots.push_back({Py_sq_inplace_repeat, reinterpret_cast<void *>(&sq_inplace_repeat)});
  }
  if (mapping) {
    slots.push_back({Py_mp_length, reinterpret_cast<void *>(&sq_length)});
    slots.push_back({Py_mp_subscript, reinterpret_cast<void *>(&mp_subscript)});
    slots.push_back({Py_mp_ass_subscript, reinterpret_cast<void *>(&mp_ass_subscript)});
  }
  slots.push_back({0, nullptr});
  return slots;
}

} // namespace sarvode
