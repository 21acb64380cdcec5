#pragma once
// The per-user folder of sarvode, where the console keeps its history.

#include <string>

namespace sarvode {

/// The per-user folder, by the extension's rule: %LOCALAPPDATA%\Sarvode,
/// else %USERPROFILE%\AppData\Local\Sarvode, else (posix) $XDG_DATA_HOME or
/// ~/.local/share joined with Sarvode. Empty when none can be found.
std::string user_folder();

/// The console's history file in the per-user folder (empty when there is none).
std::string console_history_file();

} // namespace sarvode
