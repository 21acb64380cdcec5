#pragma once
// Names (dictionary keys, attribute names) as Python strings made once.

#include "runtime/python.hpp"

#include <kest/any.hpp>

#include <string_view>

namespace sarvode {

/// The interned Python str of the UTF-8 `name`, made on first use and kept
/// for the process (up to a bound; beyond it each call makes the str anew),
/// so that filling a dictionary with the same names, call after call,
/// decodes and hashes nothing. A new reference, or null with a Python error.
/// The caller holds the interpreter lock, which guards the table.
PyObject *pythonName(std::string_view name);

/// A host value as a dictionary key: a short String (a name, a word) from
/// the same table, so that looking it up again hashes nothing; anything
/// else converted as every value is. A new reference, or null with a Python
/// error. The caller holds the interpreter lock.
PyObject *pythonKey(const kest::Any &key);

} // namespace sarvode
