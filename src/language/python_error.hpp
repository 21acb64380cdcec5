#pragma once
// Python exceptions as host errors.

#include "runtime/python.hpp"

#include <kest/error.hpp>

#include <cstdint>

namespace sarvode {

/// Takes the pending Python exception as a host error: an EvaluationError when
/// a position is known (shifted by the offsets), else an Error; the host's
/// unknown error when nothing is pending. A host error carried by the exception
/// and a StopIteration come back as they are, without a position. No Python
/// error is pending afterwards.
kest::Error errorFromPython(std::int64_t lineOffset, std::int64_t columnOffset);

/// The pending Python exception as a host error, or None when nothing is
/// pending or its value is no error. Consumes the pending exception.
kest::Union<kest::Error, kest::None> currentPythonError();

/// An exception object as a host error (a carried host error comes back as it is).
kest::Any errorFromException(PyObject *exception);

} // namespace sarvode
