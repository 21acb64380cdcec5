// Finding and loading the host's extensions.

#include "extensions.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace sarvode {

namespace {
#if defined(_WIN32)
constexpr const char *library_suffix = ".dll";
std::string executable_path() {
  char buffer[MAX_PATH];
  const auto n = GetModuleFileNameA(nullptr, buffer, MAX_PATH);
  return std::string(buffer, n);
}
void *open_library(const std::string &path, std::string &error) {
  HMODULE m = LoadLibraryA(path.c_str());
  if (!m)
    error = fmt::format("error {}", GetLastError());
  return reinterpret_cast<void *>(m);
}
void *find_symbol(void *library, const char *name) {
  return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(library), name));
}
#else
constexpr const char *library_suffix = ".so";
std::string executable_path() {
  std::error_code ec;
  auto path = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : path.string();
}
void *open_library(const std::string &path, std::string &error) {
  // Local scope, as any third-party host would load us.
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library)
    error = dlerror();
  return library;
}
void *find_symbol(void *library, const char *name) { return dlsym(library, name); }
#endif

constexpr const char *python_extension = "sarvode_python";
} // namespace

std::string default_extensions_directory() {
  const fs::path exe = executable_path();
  return (exe.parent_path().parent_path() / "lib" / "sarvode" / "extensions").lexically_normal().string();
}

load_result load_extensions(const std::string &directory) {
  load_result result;
  std::vector<fs::path> files;
  std::error_code ec;
  for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file() && it->path().extension() == library_suffix)
      files.push_back(it->path());
  if (ec) {
    result.error = fmt::format("cannot read the extensions folder {}: {}", directory, ec.message());
    return result;
  }
  std::sort(files.begin(), files.end());
  const auto python = std::string(python_extension) + library_suffix;
  if (std::none_of(files.begin(), files.end(), [&](const fs::path &p) { return p.filename() == python; })) {
    result.error = fmt::format("the Python extension {} is missing from {}", python, directory);
    return result;
  }
  for (const auto &file : files) {
    std::string error;
    void *library = open_library(file.string(), error);
    if (!library) {
      result.error = fmt::format("cannot load the extension {}: {}", file.string(), error);
      return result;
    }
    using entry = void (*)();
    auto bind = reinterpret_cast<entry>(find_symbol(library, "sarvode_extension_bind_api"));
    auto init = reinterpret_cast<entry>(find_symbol(library, "sarvode_extension_init"));
    if (!bind || !init) {
      result.error = fmt::format("{} is not an extension: it lacks sarvode_extension_bind_api or "
                                 "sarvode_extension_init", file.string());
      return result;
    }
    bind();
    init();
    result.loaded.push_back(file.filename().string());
  }
  return result;
}

} // namespace sarvode
