// Warnings held back through the interpreter's own filter list.

#include "runtime/warnings_ignored.hpp"

namespace sarvode {

warnings_ignored::warnings_ignored(PyObject *category) {
  auto module = py::object::steal(PyImport_ImportModule("_warnings")); // built in, imported at start
  auto filters = module ? py::object::steal(PyObject_GetAttrString(module.get(), "filters")) : py::object();
  if (!filters || !PyList_Check(filters.get())) {
    PyErr_Clear(); // no filter list: the warnings are shown as before
    return;
  }
  // Tells the interpreter that the list changed (its cache of decisions
  // goes); without it, the filters are still read on every warning.
  m_changed = py::object::steal(PyObject_GetAttrString(module.get(), "_filters_mutated"));
  PyErr_Clear();
  auto saved = py::object::steal(PyList_GetSlice(filters.get(), 0, PyList_Size(filters.get())));
  auto entry = py::object::steal(Py_BuildValue("(sOOOi)", "ignore", Py_None, category, Py_None, 0));
  if (!saved || !entry || PyList_Insert(filters.get(), 0, entry.get()) < 0) {
    PyErr_Clear();
    return;
  }
  m_filters = std::move(filters);
  m_saved = std::move(saved);
  filters_changed();
}

warnings_ignored::~warnings_ignored() {
  if (!m_filters)
    return;
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  if (PyList_SetSlice(m_filters.get(), 0, PyList_Size(m_filters.get()), m_saved.get()) < 0)
    PyErr_Clear();
  filters_changed();
  PyErr_Restore(type, value, traceback);
}

void warnings_ignored::filters_changed() const {
  if (!m_changed)
    return;
  (void)py::object::steal(PyObject_CallNoArgs(m_changed.get()));
  PyErr_Clear();
}

} // namespace sarvode
