#pragma once
// The text locale that python3 gives itself before Python starts.

namespace sarvode {

/// PEP 538, as python3 applies it: when the text locale (LC_CTYPE) that the
/// environment selects is the plain C locale and LC_ALL is unset, it becomes
/// C.UTF-8 (or the first of its spellings that the system has), in the
/// process and in the environment, so that child processes inherit it;
/// PYTHONCOERCECLOCALE=0 keeps the C locale and PYTHONCOERCECLOCALE=warn says
/// so on standard error. The extension is then told that Python starts in
/// UTF-8 mode, as python3 does under the C locale (PEP 540). Call it before
/// the interpreter starts. Does nothing on Windows.
void coerce_c_locale();

} // namespace sarvode
