#pragma once
// The live proxies of Python containers and iterables in the host: no copy,
// every host operation forwarded at once to the Python object.

#include <kest/class.hpp>

namespace sarvode {

/// A Python mapping as a mutable host map.
kest::Class_Generic cpythonProxyMappingClass();
/// A Python sequence as a mutable host sequence.
kest::Class_Generic cpythonProxySequenceClass();
/// A Python set as a mutable host set.
kest::Class_Generic cpythonProxySetClass();
/// Any other Python iterable as a host iterable.
kest::Class_Generic cpythonProxyIterableClass();
/// A Python iterator as a host iterator.
kest::Class_Generic cpythonProxyIteratorClass();

/// A CPythonProxyIterator over what the wrapped object's "__iter__" returns;
/// the Error "Missing '__iter__' method." when it has none, "Invalid object."
/// for a wrapper without an object, or the Python error of the call.
kest::Any iterateProxy(const kest::Any &wrapper);

} // namespace sarvode
