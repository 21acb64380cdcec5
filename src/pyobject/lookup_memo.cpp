// Memos of the conversions that `map[key]` repeats. Each slot owns a strong
// reference to its Python object, so the object's identity alone says that the
// slot is current: a str or int cannot change, and while the slot holds it no
// other object can take its address. The host side is held the same way.
// Slots are never released: they live as long as the interpreter, whose end
// is the end of the process's Python.

#include "pyobject/lookup_memo.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"

#include <kest/string.hpp>

#include <array>
#include <cstdint>

namespace sarvode {

namespace {
/// Longer texts are converted each time rather than kept alive by a memo.
constexpr Py_ssize_t memo_text_limit = 256;

struct memo_slot {
  PyObject *python = nullptr; // owned
  kest::Any host;
};

/// Eight slots, chosen by the address of what is looked up.
template <typename Key> memo_slot &slot_for(std::array<memo_slot, 8> &slots, const Key *key) {
  return slots[(reinterpret_cast<std::uintptr_t>(key) >> 4) % slots.size()];
}

/// Replaces the slot's pair; the caller holds the interpreter lock.
void remember(memo_slot &slot, PyObject *python, const kest::Any &host) {
  Py_IncRef(python);
  PyObject *old = slot.python;
  slot.python = python;
  slot.host = host;
  Py_DecRef(old); // a str or int: no Python code runs
}

std::array<memo_slot, 8> &key_slots() {
  static auto *slots = new std::array<memo_slot, 8>(); // never destroyed: see above
  return *slots;
}

std::array<memo_slot, 8> &value_slots() {
  static auto *slots = new std::array<memo_slot, 8>();
  return *slots;
}
} // namespace

kest::Any hostKeyOf(PyObject *key) {
  if (!PyUnicode_CheckExact(key))
    return fromPython(key);
  auto &slot = slot_for(key_slots(), key);
  if (slot.python == key)
    return slot.host;
  auto host = fromPython(key);
  if (host.kind() == kest::internal::ObjectType::String && PyUnicode_GetLength(key) <= memo_text_limit)
    remember(slot, key, host);
  return host;
}

PyObject *pythonValueOf(const kest::Any &value) {
  using kind = kest::internal::ObjectType;
  const auto k = value.kind();
  if (k != kind::Integer && k != kind::Float && k != kind::String)
    return toPythonLocked(value);
  auto &slot = slot_for(value_slots(), value.get());
  if (slot.python && slot.host.isSame(value)) {
    Py_IncRef(slot.python);
    return slot.python;
  }
  PyObject *made = toPythonLocked(value);
  if (made && (k != kind::String || kest::String::unsafeFrom(value).length() <= memo_text_limit))
    remember(slot, made, value);
  return made;
}

} // namespace sarvode
