// The module "kest.demo": its classes and functions, declared at start-up.

#include "demo_module.hpp"

#include "demo_support.hpp"

#include <fmt/format.h>

namespace sarvode::demo {

namespace {
void function(const char *name, kest::I_Callable_Generic fn, const char *params, const char *doc,
              std::vector<kest::Any> defaults = {}) {
  const auto text = kest::String::fromUtf8(name);
  (void)kest::internal::register_function(
      module_name, text,
      kest::internal::declared_function(text, std::move(fn), kest::String::fromUtf8(params), kest::String::fromUtf8(doc),
                                        std::move(defaults)));
}

void declare() {
  for (auto getter : {&vector_class, &shape_class, &drawing_class, &palette_class, &countdown_class, &scaler_class,
                      &demo_error_class})
    (void)getter();
  auto module = kest::get_module(module_name);
  if (module.is<kest::Module>())
    module.as<kest::Module>().setDoc(kest::String(u"A small object model for trying host objects from scripts."));
  function("greet", kest::make_function([](kest::String name, kest::String greeting) {
             return kest::String::fromUtf8(fmt::format("{}, {}!", greeting.toUtf8(), name.toUtf8()));
           }),
           "name, greeting", "A greeting; greeting defaults to 'Hello'.", {kest::String(u"Hello")});
  function("fail", kest::make_function([](kest::String message) { return kest::Error::create(demo_error_class(), message); }),
           "message", "Always fails with DemoError.");
  function("numbers", kest::make_function([](std::int64_t n) {
             kest::List list(kest::Integer::getType());
             for (std::int64_t i = 0; i < n; ++i)
               (void)list.append(kest::Integer(i));
             return list;
           }),
           "n", "A host list of the integers 0 to n - 1.");
}
} // namespace

void register_demo_module() { kest::internal::add_init_handler(1, &declare); }

} // namespace sarvode::demo
