#pragma once
// Entering Python on behalf of a host wrapper of a Python object.

#include "proxies/cpython_object.hpp"
#include "runtime/python.hpp"
#include "runtime/sandbox.hpp"

#include <kest/any.hpp>

#include <optional>

namespace sarvode {

/// True when the wrapper's Python object was handed to the host by sandboxed
/// code (a result, an out-local, or anything reached through them).
bool isSandboxedWrapper(const kest::Any &wrapper);

/// Held for the whole of one entry into a wrapped object: the interpreter
/// lock, and a sandbox scope as well when the object came from sandboxed code,
/// so that what the object does later stays sandboxed.
class PythonEntry {
public:
  explicit PythonEntry(const kest::Any &wrapper) : PythonEntry(isSandboxedWrapper(wrapper)) {}
  explicit PythonEntry(const PythonTarget &target) : PythonEntry(target.sandboxed()) {}
  explicit PythonEntry(bool sandboxed) {
    if (sandboxed) [[unlikely]]
      m_sandbox.emplace();
  }
  PythonEntry(const PythonEntry &) = delete;
  PythonEntry &operator=(const PythonEntry &) = delete;

private:
  // The lock first: a sandbox scope inside it only nests, and ends before it.
  py::gil m_gil;
  std::optional<SandboxScope> m_sandbox;
};

} // namespace sarvode
