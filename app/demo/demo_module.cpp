// The module "kest.demo": its classes and functions, declared at start-up.

#include "demo_module.hpp"

#include "demo_support.hpp"

#include <fmt/format.h>

namespace sarvode::demo {

namespace {
using kest::Any;
using kest::String;

/// Host code using what Python hands it: a callable and any iterable.
Any apply(kest::I_Callable_Generic fn, kest::I_Iterable values) {
  kest::List results(kest::Type{});
  auto iterator = values.iter();
  if (iterator.isError())
    return kest::Error::unsafeFrom(iterator);
  const auto it = iterator.as<kest::I_Iterator>();
  for (;;) {
    auto next = it.next().as<Any>();
    if (kest::StopIteration::isInstance(next))
      return results;
    if (kest::Error::isInstance(next))
      return next;
    auto r = fn(next).as<Any>();
    if (kest::Error::isInstance(r))
      return r;
    (void)results.append(r);
  }
}

/// Host code changing a map that Python hands it, in place.
kest::Result<kest::None> tally(String text, kest::I_MutableMap counts) {
  const auto map = kest::I_Map::unsafeFrom(counts); // every mutable map is a map
  for (auto &word : text.splitToVector(u" ")) {
    if (word.empty())
      continue;
    std::int64_t seen = 0;
    if (kest::to<bool>(map.contains(word))) {
      auto count = kest::Integer::checkedCast(map.get(word).as<Any>());
      if (count.isError())
        return count.as<kest::Error>();
      seen = count.as<kest::Integer>().value();
    }
    auto stored = counts.setChecked(word, kest::Integer(seen + 1));
    if (stored.isError())
      return stored;
  }
  return kest::None();
}

void declare() {
  for (auto getter : {&vector_class, &shape_class, &drawing_class, &palette_class, &countdown_class, &scaler_class,
                      &demo_error_class})
    (void)getter();
  kest::module_(module_name, "A small object model for trying host objects from scripts.")
      .def("greet", [](String name, String greeting) { return fmt::format("{}, {}!", greeting.toUtf8(), name.toUtf8()); },
           "name"_a, "greeting"_a = "Hello", "A greeting; greeting defaults to 'Hello'.")
      .def("fail", [](String message) { return kest::Error::create(demo_error_class(), message); }, "message"_a,
           "Always fails with DemoError.")
      .def("numbers", [](std::int64_t n) {
             kest::List list(kest::Integer::getType());
             for (std::int64_t i = 0; i < n; ++i)
               (void)list.append(kest::Integer(i));
             return list;
           }, "n"_a, "A host list of the integers 0 to n - 1.")
      .def("apply", &apply, "fn"_a, "values"_a, "A list of fn(value) for each of the values.")
      .def("tally", &tally, "text"_a, "counts"_a, "Counts the words of the text into the map, in place.");
}
} // namespace

void register_demo_module() { kest::on_startup(&declare); }

} // namespace sarvode::demo
