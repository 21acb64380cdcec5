#pragma once
// Python type stubs (.pyi) of the host modules that Python code imports
// ("kest", "kest.*"), so that editors and type checkers know their classes and
// functions as scripts see them.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sarvode {

/// What writing the stubs gave: the files written, or why it stopped.
struct stub_result {
  std::vector<std::filesystem::path> files;
  std::optional<std::string> error;
};

/// Writes one stub per importable host module under `folder`: "kest.demo"
/// becomes kest/demo.pyi, or kest/demo/__init__.pyi when it has sub-modules.
stub_result write_stubs(const std::filesystem::path &folder);

} // namespace sarvode
