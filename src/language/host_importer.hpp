#pragma once
// Importing host modules from Python: `import kest`, `import kest.cpython`.

namespace sarvode {

/// Installs the importer of host modules at the front of sys.meta_path. A
/// failure of its script is not reported. Takes the interpreter lock.
void installHostImporter();

} // namespace sarvode
