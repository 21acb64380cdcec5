// The log bridge: a handler on Python's root logger that formats each record
// and hands it, with its level number unchanged, to the host logger.

#include "runtime/log_bridge.hpp"

#include "language/evaluation.hpp"
#include "platform/platform.hpp"
#include "runtime/python_ready.hpp"

#include <kest/none.hpp>

namespace sarvode {

const kest::String &logBridgeScript() {
  // Indented with spaces: the statement evaluation puts a tab in front of every
  // line, which Python accepts as long as every line starts with that tab.
  static const kest::String script(u"\n"
                                   u"import logging\n"
                                   u"\n"
                                   u"class KestLogHandler(logging.Handler):\n"
                                   u"    def emit(self, record):\n"
                                   u"        msg = self.format(record)\n"
                                   u"        kest.get_logger().log(\n"
                                   u"            kest.LogRecord(record.levelno, msg)\n"
                                   u"        )\n"
                                   u"\n"
                                   u"root = logging.getLogger()\n"
                                   u"root.setLevel(logging.INFO)\n"
                                   u"root.addHandler(KestLogHandler())\n");
  return script;
}

namespace {
/// A host that wants Python's logging as python3 has it (no handler on the
/// root logger) sets this to 0 before the extension starts; taken out of the
/// environment then, so that child processes do not see it. Leaving the
/// bridge out also leaves `logging` unimported until a script imports it.
constexpr const char *log_bridge_variable = "SARVODE_PYTHON_LOG_BRIDGE";

bool log_bridge_wanted() {
  const auto value = platform::environment(log_bridge_variable);
  if (!value)
    return true;
  platform::unset_environment(log_bridge_variable);
  return *value != "0";
}
} // namespace

void startPythonWithLogBridge() {
  const bool bridge = log_bridge_wanted();
  ensurePythonReady();
  if (!bridge)
    return;
  // No scope: the globals come from the host modules and the host's global
  // table. The result (None, or an Error when the script failed) is dropped.
  (void)runStatements(logBridgeScript(), kest::Any(), kest::None(), kest::None(), kest::None());
}

} // namespace sarvode
