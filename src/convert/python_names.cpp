// The table of names made once.

#include "convert/python_names.hpp"

#include "convert/to_python.hpp"

#include <kest/string.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace sarvode {

namespace {
/// Enough for the names of every scope a host evaluates with; a host that
/// makes names without end (generated ones) stops filling the table there.
constexpr std::size_t most_names = 4096;
/// Longer keys are converted each time: the table holds words, not texts.
constexpr std::size_t longest_key = 64;

struct text_hash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

/// Kept for the life of the process: its strings must not be released after
/// the interpreter is gone.
std::unordered_map<std::string, PyObject *, text_hash, std::equal_to<>> &names() {
  static auto *table = new std::unordered_map<std::string, PyObject *, text_hash, std::equal_to<>>;
  return *table;
}

PyObject *made(std::string_view name) {
  PyObject *text = PyUnicode_FromStringAndSize(name.data(), static_cast<Py_ssize_t>(name.size()));
  if (text)
    PyUnicode_InternInPlace(&text);
  return text;
}

/// The table's str for `name` (borrowed: the table keeps it for the
/// process), added when there is room; null when the table is full and does
/// not have it, or with a Python error when it could not be made.
PyObject *kept_name(std::string_view name) {
  auto &table = names();
  if (auto found = table.find(name); found != table.end())
    return found->second;
  if (table.size() >= most_names)
    return nullptr;
  PyObject *text = made(name);
  if (text)
    table.emplace(std::string(name), text); // the table owns the new reference
  return text;
}

/// The host strings that this thread used as keys last, by address and text:
/// a host that reads the same key, or a few, from dict after dict finds each
/// name without hashing its text. The string is not kept (that would keep it
/// alive), so a string made later at the same address must have the same text
/// to be taken for it.
struct recent_key {
  const void *address = nullptr;
  std::string text;
  PyObject *name = nullptr; // the table's
};
constexpr std::size_t recent_keys = 8;
thread_local std::array<recent_key, recent_keys> t_recent;

recent_key &recent_slot(const void *address) {
  return t_recent[(reinterpret_cast<std::uintptr_t>(address) / alignof(std::max_align_t)) % recent_keys];
}
} // namespace

PyObject *pythonName(std::string_view name) {
  if (PyObject *kept = kept_name(name)) {
    Py_IncRef(kept);
    return kept;
  }
  return PyErr_Occurred() ? nullptr : made(name);
}

PyObject *pythonKey(const kest::Any &key) {
  if (key.kind() == kest::internal::ObjectType::String) {
    const auto text = kest::internal::string_utf8_of(key);
    if (text.size() <= longest_key) {
      auto &slot = recent_slot(key.get());
      if (slot.address == key.get() && slot.text == text) {
        Py_IncRef(slot.name);
        return slot.name;
      }
      if (PyObject *kept = kept_name(text)) {
        slot.address = key.get();
        slot.text.assign(text);
        slot.name = kept;
        Py_IncRef(kept);
        return kept;
      }
      return PyErr_Occurred() ? nullptr : made(text);
    }
  }
  return toPythonLocked(key);
}

} // namespace sarvode
