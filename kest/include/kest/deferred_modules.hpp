#pragma once
/// Modules made on first use.
///
/// A library that can offer many modules but should not pay for them at
/// start-up (importing another language's standard library, say) registers a
/// name prefix with a function that makes them. The function runs the first
/// time a module of that prefix is looked up by name (`find_module`,
/// `get_module`) or when `load_deferred_modules` is called (a complete
/// listing of the table wants every module). `modules()` lists only what was
/// made so far.

#include <kest/string.hpp>

#include <functional>

namespace kest {

/// Registers `make` for the module named `prefix` and those under `prefix.`.
/// `make` returns true once the modules are made (or can never be), and is
/// not called again after that; false when it made nothing yet. Its own
/// lookups do not call it again. It must be safe to call from any thread:
/// a call that arrives while another thread runs it is its to handle (wait
/// for that one, or return false).
KEST_API void defer_modules(const String &prefix, std::function<bool()> make);

/// Runs every registered maker that has not completed yet.
KEST_API void load_deferred_modules();

namespace internal {
/// Runs the maker whose prefix covers `name`, if it has not completed.
void load_deferred_module(const String &name);
} // namespace internal

} // namespace kest
