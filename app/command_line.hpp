#pragma once
// The part of the command line that belongs to the script: python3's rule
// that options end at "-c CODE", "-m MODULE", "-" or FILE, and what follows
// is sys.argv.

#include <optional>
#include <string>
#include <vector>

namespace sarvode {

struct script_target {
  enum class kind { module, command, standard_input } what;
  std::string name;              ///< the module name or the code of -c (empty for standard input)
  std::vector<std::string> args; ///< what follows it
};

/// Finds "-m MODULE" (or "-mMODULE"), "-c CODE" (or "-cCODE") or "-" among
/// sarvode's own options and cuts it and everything after it from `argv`.
/// Values of the options that take one (--exec, -e, --extensions, --timeout,
/// -W, -X) are never mistaken for either. An "-m" or "-c" without its value is
/// left in place, for the option parser to refuse.
std::optional<script_target> split_script_target(std::vector<std::string> &argv);

/// What python3 says of a FILE it cannot open (after its program name):
/// "can't open file '/absolute/path': [Errno 2] No such file or directory".
std::string cannot_open_message(const std::string &file, int error);

} // namespace sarvode
