#pragma once
// Running a program's main code as python3 runs a script: from the host, with
// no Python frame beneath it, so that the code sees the stack, the recursion
// depth and warnings' stack levels as it would under python3.

#include <kest/any.hpp>
#include <kest/string.hpp>

namespace sarvode {

/// Runs what the Python module `holder` (in sys.modules) staged in its
/// attribute "main_target": a code object runs in __main__'s namespace, a
/// (source, filename) pair is compiled (as compile(source, filename, "exec",
/// dont_inherit=True) would) and runs the same way, a (callable, arguments)
/// pair is called with the arguments, and any other object is called with no
/// arguments (runpy's entry for -m). The
/// attribute is emptied; the exception the code raised, with its traceback,
/// is kept in the holder's "main_error" (None when it ended normally) for
/// the holder to report. In the sandbox when `sandboxed`. Returns None, or an
/// Error when nothing was staged or Python has ended.
kest::Any runStagedMain(const kest::String &holder, bool sandboxed);

} // namespace sarvode
