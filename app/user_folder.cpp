// The per-user folder of sarvode.

#include "user_folder.hpp"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace sarvode {

namespace {
std::string variable(const char *name) {
  const char *value = std::getenv(name);
  return value ? std::string(value) : std::string();
}
} // namespace

std::string user_folder() {
  if (auto local = variable("LOCALAPPDATA"); !local.empty())
    return (fs::path(local) / "Sarvode").string();
  if (auto profile = variable("USERPROFILE"); !profile.empty())
    return (fs::path(profile) / "AppData" / "Local" / "Sarvode").string();
  if (auto data = variable("XDG_DATA_HOME"); !data.empty())
    return (fs::path(data) / "Sarvode").string();
  if (auto home = variable("HOME"); !home.empty())
    return (fs::path(home) / ".local" / "share" / "Sarvode").string();
  return {};
}

std::string console_history_file() {
  const auto folder = user_folder();
  return folder.empty() ? std::string() : (fs::path(folder) / "console_history").string();
}

} // namespace sarvode
