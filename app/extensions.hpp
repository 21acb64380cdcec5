#pragma once
// Finding and loading the host's extensions.

#include <string>
#include <vector>

namespace sarvode {

/// The default extensions folder: lib/sarvode/extensions beside the
/// executable's bin folder (the same in a build tree and an install).
std::string default_extensions_directory();

struct load_result {
  std::vector<std::string> loaded; ///< file names, in load order
  std::string error;               ///< one line; empty on success
};

/// Loads every extension in `directory` (each file ending in the platform's
/// library suffix, by name), calls its `sarvode_extension_bind_api` and
/// `sarvode_extension_init`, and requires the Python extension among them.
load_result load_extensions(const std::string &directory);

} // namespace sarvode
