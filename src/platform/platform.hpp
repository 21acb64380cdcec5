#pragma once
// The few operating-system calls of the extension. Each platform has its own
// file beside this one.

#include "runtime/python.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sarvode::platform {

/// The folder that holds the extension's own library file, without a trailing
/// separator; empty when the system cannot tell.
std::string extension_directory();

/// The value of an environment variable, or nothing when it is unset.
std::optional<std::string> environment(const char *name);

/// Removes an environment variable of the process.
void unset_environment(const char *name);

/// The per-user base folder when neither LOCALAPPDATA nor USERPROFILE is set
/// (empty when there is none).
std::string user_data_fallback();

/// A function of the already loaded interpreter library, by name (nothing is
/// loaded); null when it has none. For functions the running Python offers
/// beyond the oldest stable ABI this build serves.
void *find_interpreter_symbol(const char *name);

/// The interpreter's PySys_AddAuditHook, looked up in the already loaded
/// interpreter library (never loading anything); null when there is none.
using audit_hook_fn = int (*)(const char *, PyObject *, void *);
using add_audit_hook_fn = int (*)(audit_hook_fn, void *);
add_audit_hook_fn find_add_audit_hook();

/// Which memory is mapped writable (a table of the interpreter's that the
/// sandbox patches must be, or it is left alone), as the system tells when
/// the object is made: one look for many questions in a row.
class writable_memory {
public:
  writable_memory();
  [[nodiscard]] bool contains(const void *address) const;

private:
  std::vector<std::pair<std::uintptr_t, std::uintptr_t>> m_ranges; // [start, end), where the system lists them
};

/// Keeps the extension's library loaded until the process ends, whatever the
/// host's unload calls say.
void keep_loaded();

/// The lowest address of the calling thread's stack (stacks grow down on
/// every platform we build for); null when the system cannot tell.
const char *stack_limit();

/// Makes the loaded interpreter library's symbols visible to the extension
/// modules it loads later (they do not link it themselves).
void make_interpreter_symbols_global();

/// True when the text locale (LC_CTYPE) that the environment selects is the
/// C or POSIX locale, which turns on Python's UTF-8 mode (PEP 540). Sets
/// LC_CTYPE from the environment, as the interpreter's start does anyway.
/// Always false on Windows, where the C locale plays no such part.
bool text_locale_is_c();

/// True when SIGINT has its default disposition in the process (importing
/// Python's signal module puts Python's handler in place of that default).
bool sigint_is_default();

/// Runs `handler` in the child after every fork of the process (a lock that
/// another thread held at the fork must be made anew there); nothing where
/// processes are not forked.
void after_fork_in_child(void (*handler)());

} // namespace sarvode::platform
