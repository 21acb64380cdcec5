#pragma once
// The log bridge: records of Python's `logging` package reach the host log.

#include <kest/string.hpp>

namespace sarvode {

/// The Python script that puts one `KestLogHandler` on the root logger. It does
/// not import "kest": `emit` finds that name in the globals that the host's
/// statement evaluation fills from the host modules.
const kest::String &logBridgeScript();

/// The level-3 start-up handler: starts the interpreter, then runs the script
/// through the host's statement evaluation. A failing script leaves Python
/// logging without the bridge and is not reported.
void startPythonWithLogBridge();

} // namespace sarvode
