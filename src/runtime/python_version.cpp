// The running Python's version against the stable ABI the extension was
// compiled for: an older library lacks functions and structure layouts the
// extension relies on, so it is refused before anything of it is used.

#include "runtime/python_version.hpp"

#include "runtime/python.hpp"

#include <charconv>
#include <string_view>

namespace sarvode {

namespace {
constexpr int floor_major = (Py_LIMITED_API >> 24) & 0xFF;
constexpr int floor_minor = (Py_LIMITED_API >> 16) & 0xFF;

std::string refusal() {
  const std::string_view text = Py_GetVersion(); // "3.12.1 (main, ...)", usable before start-up
  int major = 0, minor = 0;
  const char *end = text.data() + text.size();
  auto [dot, e1] = std::from_chars(text.data(), end, major);
  const bool parsed =
      e1 == std::errc() && dot != end && *dot == '.' && std::from_chars(dot + 1, end, minor).ec == std::errc();
  if (parsed && (major > floor_major || (major == floor_major && minor >= floor_minor)))
    return {};
  const auto version = text.substr(0, text.find(' '));
  return "Python " + std::string(version) + " is older than " + std::to_string(floor_major) + "." +
         std::to_string(floor_minor) + ", the oldest Python the extension serves: it does not start it.";
}
} // namespace

const std::string &pythonRefusal() {
  static const std::string why = refusal();
  return why;
}

} // namespace sarvode
