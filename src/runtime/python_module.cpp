// The host module "python".

#include "runtime/python_module.hpp"

#include "runtime/python.hpp"

#include <kest/module.hpp>
#include <kest/reflection.hpp>

namespace sarvode {

namespace {
constexpr const char *language_description =
    "Python is an easy to learn, powerful programming language. It has efficient high-level data structures "
    "and a simple but effective approach to object-oriented programming. Python\u2019s elegant syntax and "
    "dynamic typing, together with its interpreted nature, make it an ideal language for scripting and rapid "
    "application development in many areas on most platforms.";
} // namespace

void fillPythonModule() {
  py::gil lock;
  auto module = kest::get_module(kest::String(u"python"));
  if (module.isError())
    return;
  auto python = module.unsafeAs<kest::Module>();
  python.setDoc(kest::String::fromUtf8(language_description));
  (void)kest::insert_property_value(python, kest::meta_property_untyped("$$icon"),
                                    kest::String(u":/kest/icons/py.svg"));
}

} // namespace sarvode
