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
  // Host code using what Python hands it: a callable, any iterable, a mutable map.
  function("apply", kest::make_function([](kest::I_Callable_Generic fn, kest::I_Iterable values) -> kest::Any {
             kest::List results(kest::Type{});
             kest::internal::iterator_iterable it(values), end;
             for (; it != end; ++it) {
               auto r = kest::internal::result_unwrap_lazy(fn.callWith({*it}));
               if (kest::Error::isInstance(r))
                 return r;
               (void)results.append(r);
             }
             if (it.error())
               return it.error();
             return results;
           }),
           "fn, values", "A list of fn(value) for each of the values.");
  function("tally", kest::make_function([](kest::String text, kest::I_MutableMap counts) -> kest::Result<kest::None> {
             const auto map = kest::I_Map::unsafeFrom(counts); // every mutable map is a map
             for (auto &word : text.splitToVector(u" ")) {
               if (word.empty())
                 continue;
               std::int64_t seen = 0;
               auto present = kest::internal::result_unwrap_lazy(map.contains(word));
               if (kest::Boolean::isInstance(present) && kest::Boolean::unsafeFrom(present).value()) {
                 auto count = kest::Integer::checkedCast(kest::internal::result_unwrap_lazy(map.get(word)));
                 if (count.isError())
                   return kest::Error::unsafeFrom(count);
                 seen = count.as<kest::Integer>().value();
               }
               auto stored = counts.setChecked(word, kest::Integer(seen + 1));
               if (stored.isError())
                 return stored;
             }
             return kest::None();
           }),
           "text, counts", "Counts the words of the text into the map, in place.");
}
} // namespace

void register_demo_module() { kest::internal::add_init_handler(1, &declare); }

} // namespace sarvode::demo
