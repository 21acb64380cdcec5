// Running Python snippets from the extension's tests.

#include "python_test_support.hpp"

#include "runtime/python_ready.hpp"

namespace sarvode::test_support {

namespace {
std::string str_of(PyObject *object) {
  auto text = py::object::steal(PyObject_Str(object));
  if (!text) {
    PyErr_Clear();
    return {};
  }
  Py_ssize_t size = 0;
  const char *utf8 = PyUnicode_AsUTF8AndSize(text.get(), &size);
  if (!utf8) {
    PyErr_Clear();
    return {};
  }
  return std::string(utf8, static_cast<std::size_t>(size));
}

outcome take_error() {
  outcome o;
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  auto t = py::object::steal(type), v = py::object::steal(value), tb = py::object::steal(traceback);
  if (t) {
    auto name = py::object::steal(PyObject_GetAttrString(t.get(), "__name__"));
    o.type = name ? str_of(name.get()) : std::string();
    PyErr_Clear();
  }
  if (v)
    o.message = str_of(v.get());
  return o;
}
} // namespace

outcome run_python(const std::string &code) {
  ensurePythonReady();
  py::gil lock;
  auto globals = py::object::steal(PyDict_New());
  auto result = py::object::steal(runWithBuiltin("exec", code.c_str(), globals.get(), globals.get()));
  if (!result)
    return take_error();
  return {true, {}, {}};
}

std::string eval_str(const std::string &expression) {
  ensurePythonReady();
  py::gil lock;
  auto globals = py::object::steal(PyDict_New());
  auto result = py::object::steal(runWithBuiltin("eval", expression.c_str(), globals.get(), globals.get()));
  if (!result) {
    PyErr_Clear();
    return {};
  }
  return str_of(result.get());
}

} // namespace sarvode::test_support
