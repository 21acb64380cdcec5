// The renaming walks the code objects' constants and remakes each code
// object through its own `replace` method, as Python code would, but without
// a helper written in Python (compiling one was a sixth of a start's
// compiling).

#include "language/module_level.hpp"

#include "runtime/sandbox.hpp"

namespace sarvode {

namespace {

constexpr long co_optimized = 0x0001; // set for functions, clear for class bodies

bool is_code(PyObject *object, PyObject *code_type) { return reinterpret_cast<PyObject *>(Py_TYPE(object)) == code_type; }

/// `c.replace(**changes)`, where `changes` alternates names and values.
py::object replaced(PyObject *c, std::initializer_list<std::pair<const char *, PyObject *>> changes) {
  auto replace = py::object::steal(PyObject_GetAttrString(c, "replace"));
  auto args = py::object::steal(PyTuple_New(0));
  auto kwargs = py::object::steal(PyDict_New());
  if (!replace || !args || !kwargs)
    return {};
  for (const auto &[name, value] : changes)
    if (PyDict_SetItemString(kwargs.get(), name, value) < 0)
      return {};
  return py::object::steal(PyObject_Call(replace.get(), args.get(), kwargs.get()));
}

/// A new tuple of what `remake` gives for each item of the tuple `items`
/// (a new reference each); null when it gives null for one.
template <class Remake> py::object remade(PyObject *items, Remake remake) {
  const Py_ssize_t n = PyTuple_Size(items);
  auto fresh = py::object::steal(PyTuple_New(n));
  if (!fresh)
    return {};
  for (Py_ssize_t i = 0; i < n; ++i) {
    py::object item = remake(PyTuple_GetItem(items, i)); // borrowed item
    if (!item)
      return {};
    PyTuple_SetItem(fresh.get(), i, item.release()); // steals
  }
  return fresh;
}

struct renamer {
  PyObject *code_type;
  py::object prefix; // "<function_name>.<locals>."

  /// `c` named `qualname`, with the code objects among its constants named as
  /// their own; a class body's constant that is its old name becomes the new one.
  py::object renamed(PyObject *c, PyObject *qualname) {
    auto old = py::object::steal(PyObject_GetAttrString(c, "co_qualname"));
    auto flags_object = py::object::steal(PyObject_GetAttrString(c, "co_flags"));
    auto consts = py::object::steal(PyObject_GetAttrString(c, "co_consts"));
    if (!old || !flags_object || !consts || !PyTuple_Check(consts.get()))
      return {};
    const long flags = PyLong_AsLong(flags_object.get());
    if (flags == -1 && PyErr_Occurred())
      return {};
    const bool class_body = (flags & co_optimized) == 0;
    auto fresh = remade(consts.get(), [&](PyObject *k) -> py::object {
      if (is_code(k, code_type))
        return own(k);
      if (class_body && PyUnicode_CheckExact(k) && PyUnicode_Compare(k, old.get()) == 0)
        return py::object::borrow(qualname);
      return PyErr_Occurred() ? py::object() : py::object::borrow(k);
    });
    if (!fresh)
      return {};
    return replaced(c, {{"co_consts", fresh.get()}, {"co_qualname", qualname}});
  }

  /// A code object defined inside the statements: its qualified name without the prefix.
  py::object own(PyObject *c) {
    auto q = py::object::steal(PyObject_GetAttrString(c, "co_qualname"));
    if (!q)
      return {};
    const Py_ssize_t length = PyUnicode_GetLength(prefix.get());
    const Py_ssize_t starts = PyUnicode_Tailmatch(q.get(), prefix.get(), 0, PY_SSIZE_T_MAX, -1);
    if (starts < 0)
      return {};
    if (starts == 1) {
      q = py::object::steal(PyUnicode_Substring(q.get(), length, PY_SSIZE_T_MAX));
      if (!q)
        return {};
    }
    return renamed(c, q.get());
  }
};

py::object module_level(PyObject *code, std::string_view function_name) {
  auto name = py::object::steal(
      PyUnicode_FromStringAndSize(function_name.data(), static_cast<Py_ssize_t>(function_name.size())));
  auto prefix = py::object::steal(PyUnicode_FromFormat("%U.<locals>.", name.get()));
  auto module = py::object::steal(PyUnicode_FromString("<module>"));
  auto consts = py::object::steal(PyObject_GetAttrString(code, "co_consts"));
  if (!name || !prefix || !module || !consts || !PyTuple_Check(consts.get()))
    return {};
  renamer r{reinterpret_cast<PyObject *>(Py_TYPE(code)), std::move(prefix)};
  auto fresh = remade(consts.get(), [&](PyObject *k) -> py::object {
    if (!is_code(k, r.code_type))
      return py::object::borrow(k);
    auto k_name = py::object::steal(PyObject_GetAttrString(k, "co_name"));
    const int matches = k_name ? PyObject_RichCompareBool(k_name.get(), name.get(), Py_EQ) : -1;
    if (matches <= 0)
      return matches < 0 ? py::object() : py::object::borrow(k);
    auto inner = r.renamed(k, module.get());
    return inner ? replaced(inner.get(), {{"co_name", module.get()}}) : py::object();
  });
  if (!fresh)
    return {};
  return replaced(code, {{"co_consts", fresh.get()}});
}

} // namespace

py::object asModuleLevel(py::object code, std::string_view function_name) {
  py::object renamed;
  {
    SandboxPause host_work; // remakes code objects only: no code of the user's runs
    renamed = module_level(code.get(), function_name);
  }
  if (!renamed) {
    PyErr_Clear(); // the text still runs, under the generated names
    return code;
  }
  return renamed;
}

} // namespace sarvode
