#pragma once
// Running scripts, modules, standard input and the console the way python3
// does, through the Python modules of the command line (app/python/), which
// the host's Python language evaluates.

#include "python_options.hpp"
#include "python_runner.hpp"

#include <string>
#include <vector>

namespace sarvode {

/// The exit status that stands for "ended by KeyboardInterrupt".
inline constexpr int status_interrupted = -2;

/// Runs a request: {"file", PATH, ARG...}, {"module", NAME, ARG...},
/// {"command", CODE, ARG...}, {"stdin", ARGV0, ARG...} or {"console", HISTORY_FILE}; `host_argv` is
/// sarvode's own command line (sys.orig_argv). Errors are printed by the
/// Python side; returns the exit status (0..255 or status_interrupted).
int run_request(const kest::I_Language &language, const run_options &options, const std::vector<std::string> &request,
                const std::vector<std::string> &host_argv);

/// Makes the command line's Python modules, which set Python up as python3
/// has it (Ctrl-C raises KeyboardInterrupt, sys.executable), before any mode
/// runs: so a time limit or Ctrl-C also ends a sleep in --exec or -e.
/// `environment` is what python3's options set for Python's start, to put
/// back now; `x_options` the -X options, for sys._xoptions.
void prepare_python(const kest::I_Language &language, const run_options &options,
                    const std::vector<environment_change> &environment, const std::vector<std::string> &x_options);

/// Prints a value as Python's print() does (nothing for None), after its host
/// class name and ": " when asked. Returns 0, or 1 when it could not be printed.
int show_value(const kest::I_Language &language, const run_options &options, const kest::Any &value);

/// For --exec: 0 when the statements parse; else prints the syntax error on the
/// user's own line, with a caret, and returns 1.
int check_syntax(const kest::I_Language &language, const run_options &options, const std::string &code);

/// Ends a run as python3 does: the interpreter finalized (threads joined,
/// exit handlers run, modules cleared, output flushed); when Python still
/// runs on another thread, only threads joined, exit handlers run and the
/// standard streams flushed. Returns the final status.
int finish_run(const kest::I_Language &language, const run_options &options, int status);

} // namespace sarvode
