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

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <map>
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

/// True for the text of a free-threading build's Py_GetVersion.
bool is_free_threading(const char *text) { return text && std::string_view(text).find("free-threading") != std::string_view::npos; }

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

/// "3.11" for the build's Python; empty when the build names none.
std::string build_python_version() {
#if defined(SARVODE_DEFAULT_PYTHON_VERSION)
  return SARVODE_DEFAULT_PYTHON_VERSION;
#else
  return {};
#endif
}

/// The settings of the virtual environment whose program is `executable`
/// (pyvenv.cfg beside it or one folder up; keys in lower case, as Python reads
/// them); empty when the program is in none.
std::map<std::string, std::string> venv_settings(const fs::path &executable) {
  std::map<std::string, std::string> settings;
  for (const auto &folder : {executable.parent_path(), executable.parent_path().parent_path()}) {
    std::ifstream config(folder / "pyvenv.cfg");
    if (!config)
      continue;
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
      std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
      settings.emplace(key, value);
    }
    break;
  }
  return settings;
}

/// True when `executable` runs the build's Python: the same program, or a
/// virtual environment made from it (its home holds the build's program and
/// it names the build's version: a folder may hold several Pythons).
bool is_build_python(const fs::path &executable, const resolved_python &build) {
  if (build.executable.empty())
    return false;
  const auto target = real(build.executable);
  if (real(executable) == target)
    return true;
  const auto settings = venv_settings(executable);
  const auto home = settings.find("home");
  const auto version = settings.find(settings.count("version_info") ? "version_info" : "version");
  if (home == settings.end() || version == settings.end())
    return false;
  const auto named = parse_version(version->second);
  const auto built = parse_version(build_python_version());
  if (!named || !built || named->major != built->major || named->minor != built->minor)
    return false;
  for (const auto &name : platform::python_program_names())
    if (real(fs::path(home->second) / name) == target)
      return true;
  return false;
}

Error free_threading_refused(const std::string &version, const fs::path &where) {
  return Error(String::fromUtf8("Python " + version + " (" + where.string() +
                                ") is a free-threading build, which the stable ABI of this build does not serve."));
}

/// Asks a Python program for its version and library.
Result<None> ask(const fs::path &executable, const std::string &origin, resolved_python &out) {
  // One line with no double quotes: it passes through any command line.
  const auto run = platform::run_program(
      executable, {"-I", "-c",
                   "import sys, sysconfig; v = sysconfig.get_config_var; "
                   "print('%d.%d.%d' % sys.version_info[:3]); "
                   "print('\\n'.join(str(v(n) or '') for n in ('LIBDIR', 'MULTIARCH', 'INSTSONAME', 'LDLIBRARY', "
                   "'Py_ENABLE_SHARED', 'Py_GIL_DISABLED'))); print(sys.base_prefix)"});
  const auto not_python = [&] {
    return Error(String::fromUtf8(origin + " " + executable.string() + " is not a Python 3 program or library: " +
                                  (run.started ? "it did not answer as Python does." : "it could not be run.")));
  };
  if (!run.started || run.status != 0)
    return not_python();
  std::istringstream lines(run.output);
  std::string version, libdir, multiarch, soname, ldlibrary, shared, free_threaded, base_prefix;
  for (auto *line : {&version, &libdir, &multiarch, &soname, &ldlibrary, &shared, &free_threaded, &base_prefix})
    if (!std::getline(lines, *line))
      return not_python();
  const auto number = parse_version(version);
  if (!number)
    return not_python();
  if (number->below_floor())
    return Error(String::fromUtf8("Python " + version + " (" + executable.string() + ") is older than " +
                                  oldest_python() + ", the oldest Python this build serves."));
  if (free_threaded == "1")
    return free_threading_refused(version, executable);
  const auto no_library = [&] {
    return Error(String::fromUtf8(
        "Python " + version + " (" + executable.string() + ") has no shared library (" +
        platform::python_library_names(number->major, number->minor).front() +
        "): it must be built with --enable-shared."));
  };
  if (shared != "1" && shared != "True")
    return no_library();
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
    if (platform::looks_like_library(candidate) && fs::is_regular_file(candidate, ec)) {
      out = {candidate, executable};
      return None();
    }
  }
  return no_library();
}

/// The program of the installation a library belongs to, for sys.executable.
fs::path program_beside(const fs::path &library) {
  const auto name = library.filename().string();
  const auto at = name.find("python");
  if (at == std::string::npos)
    return {};
  const auto number = parse_version(std::string_view(name).substr(at + 6)); // "3.12.so.1.0"
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
    return Error(String::fromUtf8(origin + " " + chosen +
                                  (fs::is_symlink(path, ec) ? " is a link to nothing." : " does not exist.")));
  if (fs::is_directory(path, ec))
    return Error(String::fromUtf8(origin + " " + chosen +
                                  " is a folder: name the Python program in it (a virtual environment's " +
                                  platform::venv_program("").string() + ")."));
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
Result<None> name_the_program(void *library, const fs::path &executable) {
  if (executable.empty())
    return None();
  using is_initialized_fn = int (*)();
  using decode_fn = wchar_t *(*)(const char *, std::size_t *);
  using set_name_fn = void (*)(const wchar_t *);
  auto is_initialized = reinterpret_cast<is_initialized_fn>(platform::find_symbol(library, "Py_IsInitialized"));
  auto decode = reinterpret_cast<decode_fn>(platform::find_symbol(library, "Py_DecodeLocale"));
  // Deprecated in favour of PyConfig, which the stable ABI lacks; looked up
  // by name so that a Python without it still starts (with its own default).
  auto set_name = reinterpret_cast<set_name_fn>(platform::find_symbol(library, "Py_SetProgramName"));
  if (!is_initialized || !decode || is_initialized())
    return None();
  if (!set_name) {
    if (venv_settings(executable).empty())
      return None(); // sys.executable is then the runner's choice of the installation's program
    return Error(String::fromUtf8("This Python has no Py_SetProgramName, which a virtual environment needs: " +
                                  executable.string() + " cannot be run as its environment's program."));
  }
  // Python keeps the pointer: the text lives as long as the process, held here.
  static wchar_t *program_name = nullptr;
  if ((program_name = decode(executable.string().c_str(), nullptr)))
    set_name(program_name);
  return None();
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
    if (is_free_threading(own()))
      return free_threading_refused(version, platform::library_of(reinterpret_cast<const void *>(own)));
    s.running = {version, platform::library_of(reinterpret_cast<const void *>(own)).string(), ""};
    s.loaded = true;
    return None();
  }
  std::string chosen = python, origin(named_as);
  if (chosen.empty() && !(chosen = environment("SARVODE_PYTHON")).empty())
    origin = "SARVODE_PYTHON";
  if (chosen.empty() && !environment("VIRTUAL_ENV").empty()) {
    chosen = platform::venv_program(environment("VIRTUAL_ENV")).string();
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
  // A refused library is closed again, so that it is not taken later for a
  // Python the host loaded itself.
  const auto refuse = [&](Error why_not) {
    platform::close(library);
    return why_not;
  };
  auto version_of = reinterpret_cast<version_fn>(platform::find_symbol(library, "Py_GetVersion"));
  if (!version_of)
    return refuse(Error(String::fromUtf8(target.library.string() + " is not a Python library.")));
  const auto version = version_word(version_of());
  const auto number = parse_version(version);
  if (!number || number->below_floor())
    return refuse(Error(String::fromUtf8("Python " + version + " (" + target.library.string() + ") is older than " +
                                         oldest_python() + ", the oldest Python this build serves.")));
  if (is_free_threading(version_of()))
    return refuse(free_threading_refused(version, target.library));
  if (auto named = name_the_program(library, target.executable); named.isError())
    return refuse(named.as<Error>());
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
