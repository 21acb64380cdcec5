// The part of the command line that belongs to the script.

#include "command_line.hpp"

#include <fmt/format.h>

#include <cstring>
#include <filesystem>

namespace sarvode {

std::optional<script_target> split_script_target(std::vector<std::string> &argv) {
  for (std::size_t i = 1; i < argv.size(); ++i) {
    const auto &arg = argv[i];
    if (arg == "--exec" || arg == "-e" || arg == "--extensions" || arg == "--timeout" || arg == "-W" || arg == "-X") {
      ++i; // its value
      continue;
    }
    if (arg == "--")
      return std::nullopt;
    if (arg.empty() || arg[0] != '-')
      return std::nullopt; // FILE: the option parser keeps what follows for it
    std::optional<script_target> target;
    std::size_t cut = i;
    if (arg == "-") {
      target = script_target{script_target::kind::standard_input, {}, {argv.begin() + static_cast<long>(i) + 1, argv.end()}};
    } else if (arg == "-m" && i + 1 < argv.size()) {
      target = script_target{script_target::kind::module, argv[i + 1], {argv.begin() + static_cast<long>(i) + 2, argv.end()}};
    } else if (arg.size() > 2 && arg.compare(0, 2, "-m") == 0) {
      target = script_target{script_target::kind::module, arg.substr(2), {argv.begin() + static_cast<long>(i) + 1, argv.end()}};
    } else if (arg == "-c" && i + 1 < argv.size()) {
      target = script_target{script_target::kind::command, argv[i + 1], {argv.begin() + static_cast<long>(i) + 2, argv.end()}};
    } else if (arg.size() > 2 && arg.compare(0, 2, "-c") == 0) {
      target = script_target{script_target::kind::command, arg.substr(2), {argv.begin() + static_cast<long>(i) + 1, argv.end()}};
    }
    if (target) {
      argv.resize(cut);
      return target;
    }
  }
  return std::nullopt;
}

std::string cannot_open_message(const std::string &file, int error) {
  // python3 names the file by its absolute path, the current folder joined
  // as it stands (nothing normalised).
  std::string path = file;
  std::error_code failed;
  if (!file.empty() && file.front() != '/')
    if (const auto here = std::filesystem::current_path(failed); !failed)
      path = here.string() + "/" + file;
  return fmt::format("can't open file '{}': [Errno {}] {}", path, error, std::strerror(error));
}

} // namespace sarvode
