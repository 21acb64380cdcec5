// The extension's exported entry points.

#include "platform/platform.hpp"
#include "runtime/python_version.hpp"
#include "runtime/search_paths.hpp"

#include <kest/log.hpp>

#define SARVODE_EXPORT extern "C" __attribute__((visibility("default")))

/// Does nothing: the extension needs no table of host functions.
SARVODE_EXPORT void sarvode_extension_bind_api() {}

/// Finds the extension's folder and queues the search paths; never starts Python.
SARVODE_EXPORT void sarvode_extension_init() {
  // The interpreter that the extension starts cannot be stopped while host
  // threads may still run Python, nor started again; so the extension's code
  // stays mapped until the process ends, even if the host unloads it.
  sarvode::platform::keep_loaded();
  if (const auto &refused = sarvode::pythonRefusal(); !refused.empty()) {
    kest::get_logger().log(kest::LogRecord(40, kest::String::fromUtf8(refused)));
    return; // its handlers register nothing
  }
  try {
    sarvode::setupSearchPaths(sarvode::platform::extension_directory());
    sarvode::addUserPythonDirectory();
  } catch (...) {
    // Start-up work reports nothing to the host.
  }
}
