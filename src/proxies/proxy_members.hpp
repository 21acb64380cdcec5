#pragma once
// What the proxy classes share: members that forward to one Python method of
// the wrapped object, and the casts of their results.

#include "proxies/python_call.hpp"

#include <kest/kest.hpp>

#include <string>
#include <vector>

namespace sarvode::proxy {

using builder = kest::internal::class_builder_base;

/// What a forwarded member makes of the Python result.
enum class result_as { any, none, boolean, integer };

/// The result cast to what the member declares; errors pass through.
kest::Any cast_result(const kest::Any &result, result_as as);

/// A method entry named `name` (parameters named by `params`, the instance
/// first) whose call forwards its arguments to the Python method `python`.
kest::Any forwarding_method(const char *name, const char *python, const char *params, result_as as,
                            std::vector<kest::Any> defaults = {});

/// A method entry over a host function of (self, arguments...).
kest::Any method(const char *name, kest::I_Callable_Generic fn, const char *params, std::vector<kest::Any> defaults = {});

/// A read-only property entry over a getter of (self).
kest::Any property(const char *name, kest::I_Callable_Generic getter);

/// The entries every proxy class starts with: name, module, documentation and
/// its bases (CPythonObject first, then the given interfaces).
std::vector<kest::Any> class_head(const char *name, const char *doc, std::vector<kest::Class_Generic> interfaces);

/// A member "iter" that iterates the Python object: a CPythonProxyIterator
/// over what its __iter__ returns.
kest::Any iter_method();

/// The list of the items of the view returned by the Python method `python`
/// (a snapshot), or the Python error.
kest::Any listed_view(const kest::Any &self, const char *python);

} // namespace sarvode::proxy
