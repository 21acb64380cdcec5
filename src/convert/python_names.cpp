// The table of names made once.

#include "convert/python_names.hpp"

#include "convert/to_python.hpp"

#include <kest/string.hpp>

#include <cstddef>
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
} // namespace

PyObject *pythonName(std::string_view name) {
  auto &table = names();
  if (auto found = table.find(name); found != table.end()) {
    Py_IncRef(found->second);
    return found->second;
  }
  PyObject *text = made(name);
  if (text && table.size() < most_names) {
    Py_IncRef(text); // the table's own reference
    table.emplace(std::string(name), text);
  }
  return text;
}

PyObject *pythonKey(const kest::Any &key) {
  if (key.kind() == kest::internal::ObjectType::String) {
    const auto text = kest::internal::string_utf8_of(key);
    if (text.size() <= longest_key)
      return pythonName(text);
  }
  return toPythonLocked(key);
}

} // namespace sarvode
