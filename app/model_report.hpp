#pragma once
// Prints what the object model holds: modules, their classes and callables.

#include <ostream>

namespace sarvode {

/// Writes every registered module with its documentation, classes and callables.
void print_model(std::ostream &out);

} // namespace sarvode
