#pragma once
// The host module "kest.demo": a small object model that shows scripts every
// protocol of host objects (attributes, calls, sequences, maps, iterators,
// operators and errors).

namespace sarvode::demo {

/// Registers the module's start-up handler (it declares the classes and functions).
void register_demo_module();

} // namespace sarvode::demo
