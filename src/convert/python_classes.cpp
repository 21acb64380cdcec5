// Python classes and functions that the conversions use.

#include "convert/python_classes.hpp"

#include <atomic>
#include <utility>

namespace sarvode::python_classes {

namespace {
/// One cached lookup. It is not a blocking one-time guard on purpose: the
/// import may release the interpreter lock, and a thread waiting on a guard
/// while holding the lock would deadlock. Python imports a module once, so a
/// concurrent first use repeats only the attribute lookup; the first result
/// stays, a failure is cached as null.
class cached {
public:
  constexpr cached(const char *module, const char *attribute, const char *accelerator = nullptr)
      : m_module(module), m_attribute(attribute), m_accelerator(accelerator) {}

  /// The value when its module (or its C accelerator, which defines the same
  /// class) was imported already; null when not, without importing it: no
  /// object can be an instance of a class that was never made. The caller
  /// holds the interpreter lock.
  PyObject *get_if_imported() {
    if (m_done.load(std::memory_order_acquire))
      return m_value.load(std::memory_order_acquire);
    return imported() ? get() : nullptr;
  }

  PyObject *get() {
    if (m_done.load(std::memory_order_acquire))
      return m_value.load(std::memory_order_acquire);
    py::gil lock;
    auto module = py::object::steal(PyImport_ImportModule(m_module));
    PyObject *value = module ? PyObject_GetAttrString(module.get(), m_attribute) : nullptr;
    if (!value)
      PyErr_Clear();
    PyObject *expected = nullptr;
    if (value && !m_value.compare_exchange_strong(expected, value, std::memory_order_acq_rel))
      Py_DecRef(value); // another thread stored it first
    m_done.store(true, std::memory_order_release);
    return m_value.load(std::memory_order_acquire);
  }

private:
  // Conversions of floats and of other objects ask this until the module is
  // imported: the names are kept as interned strings, whose hashes are kept.
  bool imported() {
    PyObject *modules = PyImport_GetModuleDict(); // borrowed
    if (!modules)
      return false;
    for (auto [name, key] : {std::pair{m_module, &m_module_key}, std::pair{m_accelerator, &m_accelerator_key}}) {
      if (!name)
        continue;
      if (!*key) {
        *key = PyUnicode_InternFromString(name); // kept for the life of the process
        if (!*key) {
          PyErr_Clear();
          continue;
        }
      }
      if (PyDict_GetItem(modules, *key)) // borrowed; never raises
        return true;
    }
    return false;
  }

  const char *m_module;
  const char *m_attribute;
  const char *m_accelerator;
  PyObject *m_module_key = nullptr;      // guarded by the interpreter lock
  PyObject *m_accelerator_key = nullptr; // guarded by the interpreter lock
  std::atomic<PyObject *> m_value{nullptr}; // kept for the life of the process
  std::atomic<bool> m_done{false};
};

constinit cached g_date("datetime", "date", "_datetime");
constinit cached g_time("datetime", "time", "_datetime");
constinit cached g_datetime("datetime", "datetime", "_datetime");
constinit cached g_decimal("decimal", "Decimal", "_decimal");
constinit cached g_format_exception("traceback", "format_exception");
constinit cached g_signature("inspect", "signature");
constinit cached g_get_type_hints("typing", "get_type_hints");
constinit cached g_get_origin("typing", "get_origin");
} // namespace

PyObject *date() { return g_date.get(); }
PyObject *time() { return g_time.get(); }
PyObject *datetime() { return g_datetime.get(); }
PyObject *decimal() { return g_decimal.get(); }
PyObject *format_exception() { return g_format_exception.get(); }
PyObject *inspect_signature() { return g_signature.get(); }
PyObject *get_type_hints() { return g_get_type_hints.get(); }
PyObject *get_origin() { return g_get_origin.get(); }

PyObject *date_if_imported() { return g_date.get_if_imported(); }
PyObject *time_if_imported() { return g_time.get_if_imported(); }
PyObject *datetime_if_imported() { return g_datetime.get_if_imported(); }
PyObject *decimal_if_imported() { return g_decimal.get_if_imported(); }

} // namespace sarvode::python_classes
