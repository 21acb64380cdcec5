#pragma once
// The name objects of the extension's own members.

#include <kest/name.hpp>

namespace sarvode::names {

/// Hidden field holding the address of a wrapped Python object.
const kest::meta_field_untyped &pyobj();
/// Hidden field marking a wrapped Python object that sandboxed code handed over.
const kest::meta_field_untyped &sandboxed();
/// Meta-property with the default values of a function's parameters.
const kest::meta_property_untyped &defaults();
/// Hidden field with a function's declared result type.
const kest::meta_field_untyped &result_type();
/// Hidden field with a function's signature.
const kest::meta_field_untyped &sign();
/// The method that imports every standard Python module.
const kest::meta_method_untyped &import_all_modules();

} // namespace sarvode::names
