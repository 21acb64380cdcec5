// The extension's search paths and the per-user folder.

#include "runtime/search_paths.hpp"

#include "platform/platform.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace sarvode {

namespace {
void add(const std::string &path) { (void)addSysPath(kest::String::fromUtf8(path)); }

/// Queues every regular file with the extension ".zip" (exactly) in `folder`,
/// in the order the file system lists them. Any failure ends the scan quietly.
void add_archives(const std::string &folder) {
  try {
    for (const auto &entry : fs::directory_iterator(fs::path(folder))) {
      if (entry.is_regular_file() && entry.path().extension().string() == ".zip")
        add(entry.path().string());
    }
  } catch (...) {
    // A missing or unreadable folder has no archives.
  }
}
} // namespace

void setupSearchPaths(const std::string &dir) {
  add_archives(dir + "/site-packages");
  add(dir + "/site-packages");
  add_archives(dir + "/python3/lib");
}

std::string pythonVersionFolder() {
  const unsigned long major = (Py_Version >> 24) & 0xFF;
  const unsigned long minor = (Py_Version >> 16) & 0xFF;
  return "Python" + std::to_string(major) + std::to_string(minor);
}

std::string userPythonDirectory() {
  fs::path folder;
  if (auto local = platform::environment("LOCALAPPDATA"); local && !local->empty())
    folder = fs::path(*local) / "Sarvode" / pythonVersionFolder();
  else if (auto profile = platform::environment("USERPROFILE"); profile && !profile->empty())
    folder = fs::path(*profile) / "AppData" / "Local" / "Sarvode" / pythonVersionFolder();
  else if (auto data = platform::user_data_fallback(); !data.empty())
    folder = fs::path(data) / "Sarvode" / pythonVersionFolder();
  return folder.string();
}

void addUserPythonDirectory() {
  try {
    const auto folder = userPythonDirectory();
    if (folder.empty())
      return;
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    add(folder); // also when creating it failed
  } catch (...) {
    // Nothing here is reported.
  }
}

} // namespace sarvode
