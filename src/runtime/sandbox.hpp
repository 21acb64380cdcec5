#pragma once
// The read-only sandbox: one audit hook for the process and a per-thread
// switch that `SandboxScope` turns on for one sandboxed call.

#include "runtime/python.hpp"

#include <optional>

namespace sarvode {

/// While alive on a thread: holds the interpreter lock, judges the audit events
/// raised on this thread, and keeps imports from writing bytecode files.
class SandboxScope {
public:
  SandboxScope();
  ~SandboxScope();
  SandboxScope(const SandboxScope &) = delete;
  SandboxScope &operator=(const SandboxScope &) = delete;

private:
  std::optional<py::gil> m_gil;
  bool m_previous;
  bool &m_flag;
  PyObject *m_saved_dont_write_bytecode = nullptr; // owned; null when the attribute did not exist
};

/// While alive on a thread, lets its audit events pass: for the host's own
/// work inside a sandboxed call that runs no code of the user's (making the
/// extension's helpers, renaming the code objects of a compiled text, which
/// "code.__new__" would otherwise block). The caller holds the interpreter lock.
class SandboxPause {
public:
  SandboxPause() noexcept;
  ~SandboxPause();
  SandboxPause(const SandboxPause &) = delete;
  SandboxPause &operator=(const SandboxPause &) = delete;

private:
  bool m_previous;
};

/// The message of every blocked operation but a write through "open".
inline constexpr const char *operationBlockedMessage = "operation blocked in sandbox";

/// The audit hook: 0 lets an event pass; -1 with PermissionError stops it.
int sandboxAuditHook(const char *event, PyObject *args, void *userData);

/// True while a SandboxScope is alive on the calling thread.
bool sandboxActive() noexcept;

/// True once any sandbox scope was entered in this process: code that ran in
/// it may have left atexit functions and __del__ methods behind.
bool sandboxEverUsed() noexcept;

} // namespace sarvode
