#pragma once
// The host module "python": the language's documentation and icon.

namespace sarvode {

/// Sets the documentation and the "icon" meta-property of the host module
/// "python". Called once, after the interpreter started.
void fillPythonModule();

} // namespace sarvode
