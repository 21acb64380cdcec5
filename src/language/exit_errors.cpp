// SystemExit and KeyboardInterrupt as host error classes.

#include "language/exit_errors.hpp"

#include <kest/kest.hpp>

namespace sarvode {

namespace {
void declare(kest::internal::class_builder_base &b, const char16_t *name, const char16_t *doc) {
  using builder = kest::internal::class_builder_base;
  b.add_entry(builder::name_entry(kest::String(name)));
  b.add_entry(builder::module_entry(kest::String(u"kest.cpython")));
  b.add_entry(builder::doc_entry(kest::String(doc)));
  b.add_entry(builder::base_entry(kest::Error::getClass()));
}

kest::internal::class_declaration g_system_exit("SystemExit", [](kest::internal::class_builder_base &b) {
  declare(b, u"SystemExit", u"Python code asked to end the program; the value is the exit code.");
});
kest::internal::class_declaration g_keyboard_interrupt("KeyboardInterrupt", [](kest::internal::class_builder_base &b) {
  declare(b, u"KeyboardInterrupt", u"Python code was interrupted (Ctrl-C).");
});
} // namespace

kest::Class_Generic systemExitErrorClass() { return g_system_exit.get(); }
kest::Class_Generic keyboardInterruptErrorClass() { return g_keyboard_interrupt.get(); }

kest::Class_Generic exitErrorClassFor(PyObject *exception) {
  if (PyObject_TypeCheck(exception, reinterpret_cast<PyTypeObject *>(PyExc_SystemExit)))
    return systemExitErrorClass();
  if (PyObject_TypeCheck(exception, reinterpret_cast<PyTypeObject *>(PyExc_KeyboardInterrupt)))
    return keyboardInterruptErrorClass();
  return {};
}

} // namespace sarvode
