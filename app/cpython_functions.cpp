// Finding the host functions of "kest.cpython".

#include "cpython_functions.hpp"

namespace sarvode {

std::optional<kest::I_Callable_Generic> cpython_function(const char16_t *name) {
  auto module = kest::find_module(kest::String(u"kest.cpython"));
  if (!module.is<kest::Module>())
    return std::nullopt;
  auto found = module.as<kest::Module>().callables().find(kest::String(name));
  if (!kest::I_Callable_Generic::isInstance(found))
    return std::nullopt;
  return kest::I_Callable_Generic::unsafeFrom(found);
}

void keep_standard_sleep() {
  if (auto keep = cpython_function(u"keep_standard_sleep"))
    (void)keep->callWith({kest::Boolean(true)});
}

} // namespace sarvode
