#pragma once
// Python classes and functions that the conversions use, looked up once per
// process and kept for its life (null when the lookup failed).

#include "runtime/python.hpp"

namespace sarvode::python_classes {

PyObject *date();      ///< datetime.date
PyObject *time();      ///< datetime.time
PyObject *datetime();  ///< datetime.datetime
PyObject *decimal();   ///< decimal.Decimal
PyObject *format_exception(); ///< traceback.format_exception

} // namespace sarvode::python_classes
