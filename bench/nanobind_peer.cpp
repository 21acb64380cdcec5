// Imports the nanobind peer module from the folder the build put it in.

#include "nanobind_peer.hpp"

namespace bench_nanobind {

namespace {
PyObject *peer_module() {
  static PyObject *module = [] {
    PyObject *path = PySys_GetObject("path"); // borrowed
    PyObject *folder = PyUnicode_FromString(SARVODE_BENCH_NANOBIND_DIR);
    if (path && folder)
      PyList_Insert(path, 0, folder);
    Py_XDECREF(folder);
    return PyImport_ImportModule("bench_nanobind_peer");
  }();
  return module;
}
} // namespace

PyObject *make_counter() {
  PyObject *m = peer_module();
  return m ? PyObject_CallMethod(m, "Counter", nullptr) : nullptr;
}

PyObject *make_shape(const char *kind, double size) {
  PyObject *m = peer_module();
  return m ? PyObject_CallMethod(m, "Shape", "sd", kind, size) : nullptr;
}

} // namespace bench_nanobind
