#pragma once
// Python exceptions as host errors.

#include "runtime/python.hpp"

#include <kest/error.hpp>

#include <cstdint>
#include <string>

namespace sarvode {

/// The pending exception, normalised (its traceback set on its value), and cleared.
struct pendingException {
  py::object type, value, traceback;
};
pendingException takePendingException();

/// Takes the pending Python exception as a host error: an EvaluationError when
/// a position is known (shifted by the offsets), else an Error; the host's
/// unknown error when nothing is pending. The position is a syntax error's own
/// (only SyntaxError and its subclasses carry one), else the line of the
/// innermost frame of the traceback. A host error carried by the exception
/// and a StopIteration come back as they are. No Python error is pending
/// afterwards.
kest::Error errorFromPython(std::int64_t lineOffset, std::int64_t columnOffset);

/// The user's text that an evaluation ran, as its failures are told apart
/// from the code around it and from library code.
struct evaluated_text {
  PyObject *globals = nullptr;    ///< the run's globals: the text's own frames run in them (borrowed)
  PyObject *wrapper = nullptr;    ///< generated code around the text, left out of the stack (borrowed, may be null)
  std::int64_t line_offset = 0;   ///< added to a line of the text's frames to give the user's line
  std::int64_t line_count = 1;    ///< the lines of the user's text
  bool did_not_compile = false;   ///< the pending error is the text's own syntax error
};

/// The pending exception of an evaluation as a host error, as errorFromPython
/// makes it, except that the position is that of the innermost frame of the
/// user's text (library frames below it do not move it), and the stack text
/// shows the user's frames with the user's lines and no frame of the code
/// generated around the text. A host error that the text raised comes back
/// as a copy of itself (its class, message and state) with the line of the
/// call and the name of its Python type. Only the text's own syntax error gives the
/// position from its attributes, which must already be in the user's text
/// (see placeSyntaxError); a SyntaxError that the running text raised (from a
/// call of compile) is placed at the line of that call.
kest::Error errorFromEvaluation(const evaluated_text &text);

/// The qualified name of an exception type as Python's traceback prints it:
/// "KeyError", "json.decoder.JSONDecodeError".
std::string exceptionTypeName(PyObject *type);

/// The pending Python exception as a host error, or None when nothing is
/// pending or its value is no error. Consumes the pending exception.
kest::Union<kest::Error, kest::None> currentPythonError();

/// An exception object as a host error (a carried host error comes back as it is).
kest::Any errorFromException(PyObject *exception);

} // namespace sarvode
