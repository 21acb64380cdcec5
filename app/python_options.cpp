// python3's options through the interpreter's environment variables.

#include "python_options.hpp"

#include <cstdlib>
#include <string_view>

namespace sarvode {

namespace {
/// The variable that python3 reads for an -X option (NAME or NAME=VALUE) and
/// the value that stands for it; empty when the option has none, in which
/// case it only reaches sys._xoptions.
std::pair<const char *, std::string> variable_for_x(std::string_view option) {
  const auto equals = option.find('=');
  const auto name = option.substr(0, equals);
  const std::string value = equals == std::string_view::npos ? "1" : std::string(option.substr(equals + 1));
  struct entry {
    std::string_view option;
    const char *variable;
  };
  static constexpr entry table[] = {
      {"dev", "PYTHONDEVMODE"},
      {"utf8", "PYTHONUTF8"},
      {"faulthandler", "PYTHONFAULTHANDLER"},
      {"tracemalloc", "PYTHONTRACEMALLOC"},
      {"importtime", "PYTHONPROFILEIMPORTTIME"},
      {"warn_default_encoding", "PYTHONWARNDEFAULTENCODING"},
      {"pycache_prefix", "PYTHONPYCACHEPREFIX"},
      {"no_debug_ranges", "PYTHONNODEBUGRANGES"},
      {"int_max_str_digits", "PYTHONINTMAXSTRDIGITS"},
  };
  for (const auto &e : table)
    if (e.option == name)
      return {e.variable, value};
  return {nullptr, {}};
}

void set(std::vector<environment_change> &changes, const char *name, const std::string &value) {
  const char *before = std::getenv(name);
  bool recorded = false;
  for (const auto &change : changes)
    recorded = recorded || change.name == name;
  if (!recorded)
    changes.push_back({name, before ? std::optional<std::string>(before) : std::nullopt});
#ifdef _WIN32
  (void)_putenv_s(name, value.c_str());
#else
  (void)setenv(name, value.c_str(), 1);
#endif
}
} // namespace

std::optional<std::string> refused_option(const python_options &options) {
  const char *why = "the embedded interpreter has read its environment and imported site before sarvode can act";
  if (options.ignore_environment)
    return std::string("-E is not supported: ") + why;
  if (options.isolated)
    return std::string("-I is not supported: ") + why;
  if (options.no_site)
    return std::string("-S is not supported: ") + why;
  return std::nullopt;
}

std::optional<std::string> invalid_python_environment() {
  const char *utf8 = std::getenv("PYTHONUTF8");
  if (utf8 && *utf8 && std::string_view(utf8) != "0" && std::string_view(utf8) != "1")
    return std::string("invalid PYTHONUTF8 environment variable value");
  return std::nullopt;
}

std::vector<environment_change> apply_python_options(const python_options &options) {
  std::vector<environment_change> changes;
  if (options.unbuffered)
    set(changes, "PYTHONUNBUFFERED", "1");
  if (options.no_bytecode)
    set(changes, "PYTHONDONTWRITEBYTECODE", "1");
  if (options.optimize > 0)
    set(changes, "PYTHONOPTIMIZE", std::to_string(options.optimize));
  if (options.no_user_site)
    set(changes, "PYTHONNOUSERSITE", "1");
  if (!options.warnings.empty()) {
    // python3 puts the -W options after PYTHONWARNINGS, so that they win.
    const char *before = std::getenv("PYTHONWARNINGS");
    std::string value = before && *before ? before : "";
    for (const auto &warning : options.warnings)
      value += (value.empty() ? "" : ",") + warning;
    set(changes, "PYTHONWARNINGS", value);
  }
  for (const auto &option : options.x_options)
    if (auto [variable, value] = variable_for_x(option); variable)
      set(changes, variable, value);
  return changes;
}

void leave_python_logging_alone() {
#ifdef _WIN32
  (void)_putenv_s("SARVODE_PYTHON_LOG_BRIDGE", "0");
#else
  (void)setenv("SARVODE_PYTHON_LOG_BRIDGE", "0", 1);
#endif
}

} // namespace sarvode
