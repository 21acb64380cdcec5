// Choosing and loading the Python library, before the extension that uses it.
//
// The extension links no Python library: its Python symbols come from the
// library loaded here. The choice, first that applies: the caller's path, then
// SARVODE_PYTHON, then the activated virtual environment (VIRTUAL_ENV), then
// the Python the build was made with. A Python program is asked once for its
// library; the build's own Python, and a virtual environment made from it,
// need no asking.

#include <kest/python.hpp>

#include "platform/loader.hpp"

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <system_error>

namespace kest::python {

namespace {
namespace fs = std::filesystem;

constexpr int floor_major = 3;
constexpr int floor_minor = 11;

struct version_number {
  int major = 0, minor = 0;
  [[nodiscard]] bool below_floor() const { return major < floor_major || (major == floor_major && minor < floor_minor); }
};

/// "3.12.1 (main, ...)" or "3.12.1": the first two numbers.
std::optional<version_number> parse_version(std::string_view text) {
  version_number v;
  const char *end = text.data() + text.size();
  auto [dot, e1] = std::from_chars(text.data(), end, v.major);
  if (e1 != std::errc() || dot == end || *dot != '.')
    return std::nullopt;
  auto [rest, e2] = std::from_chars(dot + 1, end, v.minor);
  if (e2 != std::errc())
    return std::nullopt;
  (void)rest;
  return v;
}

/// The first word of Py_GetVersion's text ("3.12.1").
std::string version_word(const char *text) {
  std::string word(text ? text : "");
  return word.substr(0, word.find(' '));
}

std::string environment(const char *name) {
  const char *value = std::getenv(name);
  return value ? value : "";
}

std::string real(const fs::path &path) {
  std::error_code ec;
  auto resolved = fs::weakly_canonical(path, ec);
  return ec ? path.string() : resolved.string();
}

/// What a chosen path turned into: the library to load, and the program
/// Python takes as sys.executable (empty when there is none).
struct resolved_python {
  fs::path library;
  fs::path executable;
};

/// The build's Python; empty for a build that names none.
resolved_python build_python() {
#if defined(SARVODE_DEFAULT_PYTHON_LIBRARY) && defined(SARVODE_DEFAULT_PYTHON_EXECUTABLE)
  return {SARVODE_DEFAULT_PYTHON_LIBRARY, SARVODE_DEFAULT_PYTHON_EXECUTABLE};
#else
  return {};
#endif
}

/// The `home` of a virtual environment whose program is `executable`, from
/// its pyvenv.cfg; empty when the program is in none.
fs::path venv_home(const fs::path &executable) {
  for (const auto &folder : {executable.parent_path(), executable.parent_path().parent_path()}) {
    std::ifstream config(folder / "pyvenv.cfg");
    std::string line;
    while (std::getline(config, line)) {
      const auto equals = line.find('=');
      if (equals == std::string::npos)
        continue;
      auto key = line.substr(0, equals);
      auto value = line.substr(equals + 1);
      const auto trim = [](std::string &s) {
        s.erase(0, s.find_first_not_of(" \t\r"));
        s.erase(s.find_last_not_of(" \t\r") + 1);
      };
      trim(key);
      trim(value);
      if (key == "home")
        return value;
    }
  }
  return {};
}

/// True when `executable` runs the build's Python: the same program, or a
/// virtual environment made from it.
bool is_build_python(const fs::path &executable, const resolved_python &build) {
  if (build.executable.empty())
    return false;
  const auto target = real(build.executable);
  if (real(executable) == target)
    return true;
  const auto home = venv_home(executable);
  if (home.empty())
    return false;
  for (const char *name : {"python3", "python"})
    if (real(home / name) == target)
      return true;
  return false;
}

/// Asks a Python program for its version and library.
Result<None> ask(const fs::path &executable, const std::string &origin, resolved_python &out) {
  const auto run = platform::run_program(executable, {"-I", "-c", R"(import sys, sysconfig
v = sysconfig.get_config_var
print("%d.%d.%d" % sys.version_info[:3])
for name in ("LIBDIR", "MULTIARCH", "INSTSONAME", "LDLIBRARY"):
    print(v(name) or "")
print(sys.base_prefix))"});
  const auto not_python = [&] {
    return Error(String::fromUtf8(origin + " " + executable.string() + " is not a Python 3 program or library: " +
                                  (run.started ? "it did not answer as Python does." : "it could not be run.")));
  };
  if (!run.started || run.status != 0)
    return not_python();
  std::istringstream lines(run.output);
  std::string version, libdir, multiarch, soname, ldlibrary, base_prefix;
  if (!std::getline(lines, version) || !std::getline(lines, libdir) || !std::getline(lines, multiarch) ||
      !std::getline(lines, soname) || !std::getline(lines, ldlibrary) || !std::getline(lines, base_prefix))
    return not_python();
  const auto number = parse_version(version);
  if (!number)
    return not_python();
  if (number->below_floor())
    return Error(String::fromUtf8("Python " + version + " (" + executable.string() + ") is older than " +
                                  oldest_python() + ", the oldest Python this build serves."));
  std::vector<fs::path> candidates;
  for (const auto &name : {soname, ldlibrary})
    if (!name.empty()) {
      candidates.push_back(fs::path(libdir) / name);
      if (!multiarch.empty())
        candidates.push_back(fs::path(libdir) / multiarch / name);
    }
  for (const auto &name : platform::python_library_names(number->major, number->minor)) {
    candidates.push_back(fs::path(libdir) / name);
    candidates.push_back(fs::path(base_prefix) / name); // Windows: beside python.exe
  }
  for (const auto &candidate : candidates) {
    std::error_code ec;
    if (!candidate.empty() && fs::is_regular_file(candidate, ec)) {
      out = {candidate, executable};
      return None();
    }
  }
  return Error(String::fromUtf8("Python " + version + " (" + executable.string() +
                                ") has no shared library (" + platform::python_library_names(number->major,
                                                                                             number->minor).front() +
                                "): it must be built with --enable-shared."));
}

/// The program of the installation a library belongs to, for sys.executable.
fs::path program_beside(const fs::path &library) {
  const auto name = library.filename().string();
  auto version = name.substr(name.find("python") + 6); // "3.12.so.1.0"
  const auto number = parse_version(version);
  if (!number)
    return {};
  const auto program = "python" + std::to_string(number->major) + "." + std::to_string(number->minor);
  for (const auto &folder : {library.parent_path().parent_path(), library.parent_path().parent_path().parent_path()}) {
    std::error_code ec;
    if (fs::is_regular_file(folder / "bin" / program, ec))
      return folder / "bin" / program;
  }
  return {};
}

Result<None> resolve(const std::string &chosen, const std::string &origin, resolved_python &out) {
  const fs::path path = chosen;
  std::error_code ec;
  if (!fs::exists(path, ec))
    return Error(String::fromUtf8(origin + " " + chosen + " does not exist."));
  if (platform::looks_like_library(path)) {
    out = {path, program_beside(fs::absolute(path))};
    return None();
  }
  const auto program = fs::absolute(path).lexically_normal(); // not resolved: a venv's link is the venv
  const auto build = build_python();
  if (is_build_python(program, build)) {
    out = {build.library, program};
    return None();
  }
  return ask(program, origin, out);
}

struct loaded_state {
  std::mutex lock;
  bool loaded = false;
  interpreter running;
};

loaded_state &state() {
  static loaded_state s;
  return s;
}

/// Hands the chosen program to Python before it starts, so that sys.executable,
/// sys.prefix and a virtual environment's site-packages are as under that program.
void name_the_program(void *library, const fs::path &executable) {
  if (executable.empty())
    return;
  using is_initialized_fn = int (*)();
  using decode_fn = wchar_t *(*)(const char *, std::size_t *);
  using set_name_fn = void (*)(const wchar_t *);
  auto is_initialized = reinterpret_cast<is_initialized_fn>(platform::find_symbol(library, "Py_IsInitialized"));
  auto decode = reinterpret_cast<decode_fn>(platform::find_symbol(library, "Py_DecodeLocale"));
  // Deprecated in favour of PyConfig, which the stable ABI lacks; looked up
  // by name so that a Python without it still starts (with its own default).
  auto set_name = reinterpret_cast<set_name_fn>(platform::find_symbol(library, "Py_SetProgramName"));
  if (!is_initialized || !decode || !set_name || is_initialized())
    return;
  if (wchar_t *name = decode(executable.string().c_str(), nullptr))
    set_name(name); // Python keeps the pointer: the text lives as long as the process
}
} // namespace

const char *oldest_python() noexcept { return "3.11"; }

Result<None> load_interpreter(const std::string &python, std::string_view named_as) {
  auto &s = state();
  std::lock_guard guard(s.lock);
  if (s.loaded)
    return None();
  using version_fn = const char *(*)();
  // A host that has loaded Python itself is served with that Python.
  if (auto *own = reinterpret_cast<version_fn>(platform::find_loaded_symbol("Py_GetVersion"))) {
    const auto version = version_word(own());
    const auto number = parse_version(version);
    if (!number || number->below_floor())
      return Error(String::fromUtf8("The process runs Python " + version + ", older than " + oldest_python() +
                                    ", the oldest Python this build serves."));
    s.running = {version, platform::library_of(reinterpret_cast<const void *>(own)).string(), ""};
    s.loaded = true;
    return None();
  }
  std::string chosen = python, origin(named_as);
  if (chosen.empty() && !(chosen = environment("SARVODE_PYTHON")).empty())
    origin = "SARVODE_PYTHON";
  if (chosen.empty() && !environment("VIRTUAL_ENV").empty()) {
    chosen = (fs::path(environment("VIRTUAL_ENV")) / "bin" / "python").string();
    origin = "VIRTUAL_ENV";
  }
  resolved_python target;
  if (chosen.empty()) {
    target = build_python();
    if (target.library.empty())
      return Error(String(u"No Python was chosen and this build names none: pass one, or set SARVODE_PYTHON."));
    std::error_code ec;
    if (!fs::is_regular_file(target.library, ec))
      return Error(String::fromUtf8("The Python this build was made with (" + target.library.string() +
                                    ") is not installed here: choose one with --python or SARVODE_PYTHON."));
  } else {
    auto resolved = resolve(chosen, origin, target);
    if (resolved.isError())
      return resolved;
  }
  std::string why;
  void *library = platform::open_global(target.library, why);
  if (!library)
    return Error(String::fromUtf8("Unable to load the Python library " + target.library.string() + ": " + why));
  auto version_of = reinterpret_cast<version_fn>(platform::find_symbol(library, "Py_GetVersion"));
  if (!version_of)
    return Error(String::fromUtf8(target.library.string() + " is not a Python library."));
  const auto version = version_word(version_of());
  const auto number = parse_version(version);
  if (!number || number->below_floor())
    return Error(String::fromUtf8("Python " + version + " (" + target.library.string() + ") is older than " +
                                  oldest_python() + ", the oldest Python this build serves."));
  name_the_program(library, target.executable);
  s.running = {version, target.library.string(), target.executable.string()};
  s.loaded = true;
  return None();
}

interpreter loaded_interpreter() {
  auto &s = state();
  std::lock_guard guard(s.lock);
  return s.running;
}

} // namespace kest::python
