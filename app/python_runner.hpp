#pragma once
// Evaluating code and expressions through the host's language interface, and
// reporting errors the way a compiler does.

#include <kest/kest.hpp>

#include <iosfwd>
#include <optional>
#include <string>

namespace sarvode {

/// The host's Python language, found in its language registry.
std::optional<kest::I_Language> python_language();

struct run_options {
  bool sandbox = false;
  bool show_class = false;
  bool host_log = false; ///< scripts' Python logging reaches the host log (--host-log)
  bool inspect = false;  ///< -i with FILE, -m or -: the console after the script
};

/// The exit status that an error of Python's SystemExit or KeyboardInterrupt
/// asks for, as python3 gives it (a SystemExit message is printed to `err`;
/// an interrupt ends the process by SIGINT); nothing for any other error.
std::optional<int> requested_exit(std::ostream &err, const kest::Error &error);

/// Prints an error as "SOURCE:LINE:COLUMN: error: TYPE: MESSAGE" (the line
/// and column when it has them; TYPE is the name of the Python type that
/// raised it, when one did).
void print_error(std::ostream &err, const std::string &source, const kest::Error &error);

/// `print_error`, then the error's stack text: Python's traceback of the
/// user's frames, as python3 prints it.
void print_error_and_stack(std::ostream &err, const std::string &source, const kest::Error &error);

/// Evaluates statements (the host's statement evaluation: a body whose return
/// gives the result) or an expression, in the sandbox when asked. The result
/// or an Error.
kest::Any evaluate(const kest::I_Language &language, const std::string &code, bool expression,
                   const run_options &options);

} // namespace sarvode
