#pragma once
// `CPythonObject`: the host class whose instances each hold one Python object.

#include "runtime/python.hpp"

#include <kest/any.hpp>
#include <kest/class.hpp>

namespace sarvode {

/// The class, declared on first use.
kest::Class_Generic cpythonObjectClass();

/// A new host wrapper holding a new reference to `object`.
kest::Any newCPythonObject(PyObject *object);

/// A new instance of `cls` (CPythonObject or a class derived from it) holding
/// a new reference to `object`.
kest::Any newPythonWrapper(const kest::Class_Generic &cls, PyObject *object);

/// Stores `object` in a newly allocated wrapper, and marks the wrapper when
/// sandboxed code is handing the object over.
void initialisePythonWrapper(const kest::Any &wrapper, PyObject *object);

/// Stores `object` (a new reference is taken) in the wrapper, releasing the one
/// it held before; the swap happens under the instance's lock, the release after it.
/// Only for a wrapper that no other thread uses yet: entries read the object
/// without a lock.
void setPythonObject(const kest::Any &wrapper, PyObject *object);

/// The Python object a host value wraps, as a borrowed pointer that the wrapper
/// keeps alive; null when the value wraps none (looking through computed values
/// and weak references). The caller holds the interpreter lock.
PyObject *pythonObjectOf(const kest::Any &value);

/// The Python object of a host wrapper and the wrapper's sandbox mark, read
/// once for one entry into Python. Needs no interpreter lock: a wrapper's
/// object is set before the wrapper is shared and released only when the
/// wrapper ends, and the target keeps the wrapper it read alive (the
/// caller's value, or the value found behind a computed or weak one).
class PythonTarget {
public:
  PythonTarget() noexcept = default; // no wrapper: no object, not sandboxed
  explicit PythonTarget(const kest::Any &value);
  /// Borrowed; null when the value wraps no Python object.
  [[nodiscard]] PyObject *object() const noexcept { return m_object; }
  [[nodiscard]] bool sandboxed() const noexcept { return m_sandboxed; }

private:
  kest::Any m_unwrapped; // set only when the value had to be looked through
  PyObject *m_object = nullptr;
  bool m_sandboxed = false;
};

/// True when the value's class marks Python-backed instances.
bool isPythonBacked(const kest::Any &value);

} // namespace sarvode
