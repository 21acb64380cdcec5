#pragma once
// Renaming the function that holds a text's statements to the module level.

#include "runtime/python.hpp"

#include <string_view>

namespace sarvode {

/// `code` (the compiled text of a module that defines the function
/// `function_name`) with that function's code named "<module>", and every code
/// object inside it named as it would be had Python's exec run the statements
/// ("f", "E", not "<function_name>.<locals>.f"): tracebacks, inspect and pdb
/// then see the user's module level. A class body stores its own qualified
/// name as a constant, which is renamed with it. When a code object cannot be
/// remade, `code` is given back as it is, with no error pending. The caller
/// holds the interpreter lock.
py::object asModuleLevel(py::object code, std::string_view function_name);

} // namespace sarvode
