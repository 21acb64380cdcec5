#pragma once
// The Python modules of the command line (app/python/*.py), compiled in as text.

#include <string_view>
#include <vector>

namespace sarvode {

struct python_module {
  std::string_view name;   ///< the name in sys.modules
  std::string_view source; ///< the module's Python text
  std::string_view digest; ///< 16 hex digits of the text's SHA-256: names its compiled form
};

/// The modules, in the order they are to be made.
const std::vector<python_module> &python_modules();

} // namespace sarvode
