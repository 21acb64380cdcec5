#pragma once
// python3's own options (-u, -B, -O, -W, -X, -s, and the refused -E, -I, -S),
// honoured the one way an embedded interpreter can: through the environment
// variables that the interpreter reads when it starts, which sarvode sets
// for the start and then puts back as they were.

#include <optional>
#include <string>
#include <vector>

namespace sarvode {

struct python_options {
  bool unbuffered = false;          ///< -u
  bool no_bytecode = false;         ///< -B
  int optimize = 0;                 ///< -O, -OO
  std::vector<std::string> warnings; ///< -W ARG...
  std::vector<std::string> x_options; ///< -X ARG...
  bool no_user_site = false;        ///< -s
  bool ignore_environment = false;  ///< -E (refused)
  bool isolated = false;            ///< -I (refused)
  bool no_site = false;             ///< -S (refused)
};

/// An environment variable as it was before the options set it.
struct environment_change {
  std::string name;
  std::optional<std::string> before;
};

/// The message for an option that the embedded interpreter cannot honour, if any.
std::optional<std::string> refused_option(const python_options &options);

/// What python3 refuses to start with in its environment (a PYTHONUTF8 that
/// is neither 0 nor 1), as its message says it; nothing when all is well.
std::optional<std::string> invalid_python_environment();

/// Sets the environment variables that stand for the options, before Python
/// starts; returns what to put back once it runs (so that child processes
/// see the environment as python3 would leave it).
std::vector<environment_change> apply_python_options(const python_options &options);

/// Asks the extension to leave Python's logging as python3 has it: no log
/// bridge on the root logger, and `logging` not imported for it. For the
/// runner's modes without --host-log; call it before the extension starts
/// (the extension takes the request out of the environment).
void leave_python_logging_alone();

} // namespace sarvode
