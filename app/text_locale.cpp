// python3's coercion of the C locale.

#include "text_locale.hpp"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace sarvode {

void coerce_c_locale() {
#ifndef _WIN32
  const char *all = std::getenv("LC_ALL");
  if (all && *all)
    return;
  const char *setting = std::getenv("PYTHONCOERCECLOCALE");
  const std::string_view asked = setting ? setting : "";
  if (asked == "0")
    return;
  const char *current = std::setlocale(LC_CTYPE, "");
  if (!current)
    current = std::setlocale(LC_CTYPE, nullptr); // an unknown locale leaves the C one
  if (!current || std::string_view(current) != "C")
    return;
  for (const char *target : {"C.UTF-8", "C.utf8", "UTF-8"}) {
    if (!std::setlocale(LC_CTYPE, target))
      continue;
    (void)setenv("LC_CTYPE", target, 1);
    // The extension reads (and removes) this before Python starts: the locale was C.
    (void)setenv("SARVODE_PYTHON_UTF8_MODE", "1", 1);
    if (asked == "warn")
      std::fprintf(stderr,
                   "Python detected LC_CTYPE=C: LC_CTYPE coerced to %s (set another locale or "
                   "PYTHONCOERCECLOCALE=0 to disable this locale coercion behavior).\n",
                   target);
    return;
  }
#endif
}

} // namespace sarvode
