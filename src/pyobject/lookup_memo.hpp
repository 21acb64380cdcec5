#pragma once
// Small memos for `map[key]` on host maps: code looks the same keys up again
// and again, and making the host key from a str (UTF-8 to UTF-16, an
// allocation) and the Python result from a host scalar (an allocation) costs
// more than the lookup itself. Both are guarded by the interpreter lock,
// which every caller holds.

#include "runtime/python.hpp"

#include <kest/any.hpp>

namespace sarvode {

/// The host value for a key: for a short exact str the same host String each
/// time the same str object comes back; any other key converted as usual.
kest::Any hostKeyOf(PyObject *key);

/// A new reference to the Python value of a host value: for a host integer,
/// float or short string the same Python object each time the same host
/// object comes back (they are immutable on both sides).
PyObject *pythonValueOf(const kest::Any &value);

} // namespace sarvode
