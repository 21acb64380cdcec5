// The pending Python exception as a host error.

#include "runtime/python_error.hpp"

#include "runtime/python.hpp"

namespace sarvode {

kest::Error takePythonError() {
  if (!PyErr_Occurred())
    return kest::Error::unknown();
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  auto owned_type = py::object::steal(type);
  auto owned_value = py::object::steal(value);
  auto owned_traceback = py::object::steal(traceback);
  kest::String message(u"Unknown Python error.");
  if (owned_value) {
    auto text = py::object::steal(PyObject_Str(owned_value.get()));
    Py_ssize_t size = 0;
    const char *utf8 = text ? PyUnicode_AsUTF8AndSize(text.get(), &size) : nullptr;
    if (utf8)
      message = kest::String::fromUtf8(std::string_view(utf8, static_cast<std::size_t>(size)));
    PyErr_Clear();
  }
  return kest::Error(message);
}

} // namespace sarvode
