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
/// so that what the object does later stays sandboxed. The wrapped object is
/// read once, as the entry begins, and used borrowed: the wrapper, which the
/// caller holds for the entry, keeps it alive.
class PythonEntry {
public:
  explicit PythonEntry(const kest::Any &wrapper) : m_target(wrapper) {
    if (m_target.sandboxed()) [[unlikely]]
      m_sandbox.emplace();
  }
  /// An entry for no wrapper (a release of a wrapper's object), sandboxed or not.
  explicit PythonEntry(bool sandboxed) {
    if (sandboxed)
      m_sandbox.emplace();
  }
  PythonEntry(const PythonEntry &) = delete;
  PythonEntry &operator=(const PythonEntry &) = delete;

  /// The wrapper's Python object (borrowed); null when it holds none.
  [[nodiscard]] PyObject *object() const noexcept { return m_target.object(); }

private:
  PythonTarget m_target;
  // The lock before the sandbox scope: the scope only nests in it, and ends first.
  py::gil m_gil;
  std::optional<SandboxScope> m_sandbox;
};

} // namespace sarvode
