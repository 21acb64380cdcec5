#pragma once
// Python classes and functions that the conversions use, looked up once per
// process and kept for its life (null when the lookup failed).

#include "runtime/python.hpp"

namespace sarvode::python_classes {

PyObject *date();      ///< datetime.date
PyObject *time();      ///< datetime.time
PyObject *datetime();  ///< datetime.datetime
PyObject *decimal();   ///< decimal.Decimal
/// The same classes, but null while their module was never imported (then no
/// object is their instance): tests of a value's class import nothing. The
/// caller holds the interpreter lock.
PyObject *date_if_imported();
PyObject *time_if_imported();
PyObject *datetime_if_imported();
PyObject *decimal_if_imported();
PyObject *format_exception(); ///< traceback.format_exception
/// inspect.signature, typing.get_type_hints and typing.get_origin, for the
/// signatures of Python functions.
PyObject *inspect_signature();
PyObject *get_type_hints();
PyObject *get_origin();

} // namespace sarvode::python_classes
