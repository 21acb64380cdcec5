// kest.demo.Drawing (a mutable sequence of shapes), Palette (a mutable map from
// names to colours), Countdown (an iterator), Scaler (a callable object) and
// DemoError.

#include "demo_support.hpp"

#include <fmt/format.h>

namespace sarvode::demo {

namespace {
using kest::Any;
using kest::String;

kest::List shapes(const Any &drawing) { return field_as<kest::List>(drawing, "$_shapes"_field); }
kest::HashMap colours(const Any &palette) { return field_as<kest::HashMap>(palette, "$_colours"_field); }

Any fill_drawing(const Any &drawing, const std::vector<Any> &items) {
  set_field(drawing, "$_shapes"_field, kest::List(kest::Type(shape_class()), items));
  return drawing;
}

kest::Result<kest::None> add_shape(const Any &drawing, const Any &shape) {
  if (!is_a(shape, shape_class()))
    return kest::BadArgument(String(u"A drawing holds shapes only."));
  return shapes(drawing).append(shape);
}

kest::Result<kest::None> extend(const Any &self, const Any &items) {
  if (!kest::I_Iterable::isInstance(items))
    return kest::BadArgument(String(u"extend() needs an iterable of shapes."));
  // A snapshot first: extending a drawing with itself doubles it once.
  auto snapshot = kest::I_Iterable::unsafeFrom(items).collectImpl();
  if (snapshot.isError())
    return kest::Error::unsafeFrom(snapshot);
  for (const auto &item : snapshot.as<kest::List>().copyItems()) {
    auto r = add_shape(self, item);
    if (r.isError())
      return r;
  }
  return kest::None();
}

Any concat(const Any &self, const Any &other) {
  if (!is_a(other, drawing_class()))
    return kest::BadArgument(String(u"A drawing concatenates with a drawing."));
  auto items = shapes(self).copyItems();
  for (auto &s : shapes(other).copyItems())
    items.push_back(s);
  return fill_drawing(new_instance(drawing_class()), items);
}

double total_area(const Any &self) {
  double total = 0;
  for (auto &s : shapes(self).copyItems())
    total += number(kest::I_Callable_Generic::unsafeFrom(s.boundMethod(kest::meta_method_untyped("area")))().as<Any>());
  return total;
}

kest::Class_Generic declare_drawing() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "Drawing", "A mutable sequence of shapes: Drawing().")
      .base(kest::I_MutableSequence::getClass())
      .field<kest::List>("$_shapes")
      .init([](const Any &self) { return fill_drawing(self, {}); }, "An empty drawing.")
      .property("$$__len__", [](const Any &self) { return shapes(self).length(); }, "The number of shapes.")
      .def("at", [](const Any &self, std::int64_t i) { return shapes(self).at(i); }, "index"_a, "The shape at an index.")
      .def("set", [](const Any &self, std::int64_t i, Any shape) -> kest::Result<kest::None> {
             if (!is_a(shape, shape_class()))
               return kest::BadArgument(String(u"A drawing holds shapes only."));
             return shapes(self).set(i, shape);
           }, "index"_a, "shape"_a, "Replaces the shape at an index.")
      .def("append", [](const Any &self, Any shape) { return add_shape(self, shape); }, "shape"_a, "Adds a shape at the end.")
      .def("extend", [](const Any &self, Any items) { return extend(self, items); }, "shapes"_a, "Adds several shapes.")
      .def("concat", [](const Any &self, Any other) { return concat(self, other); }, "other"_a,
           "A new drawing with the shapes of both.")
      .def("removeAt", [](const Any &self, std::int64_t i) { return shapes(self).removeAt(i); }, "index"_a,
           "Removes and returns the shape at an index.")
      .def("clear", [](const Any &self) { shapes(self).clear(); }, "Removes every shape.")
      .def("iter", [](const Any &self) { return kest::I_Iterable::unsafeFrom(shapes(self)).iter(); }, "The shapes, in order.")
      .def("contains", [](const Any &self, Any shape) { return kest::I_Iterable::unsafeFrom(shapes(self)).contains(shape); },
           "shape"_a, "Whether the drawing holds the shape.")
      .def("totalArea", [](const Any &self) { return total_area(self); }, "The sum of the shapes' areas.")
      .declare();
}

kest::Class_Generic declare_palette() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "Palette", "A mutable map from colour names to '#rrggbb' texts: Palette().")
      .base(kest::I_MutableMap::getClass())
      .field<kest::HashMap>("$_colours")
      .init([](const Any &self) {
              kest::HashMap map(String::getType(), String::getType());
              (void)map.setChecked(String(u"black"), String(u"#000000"));
              (void)map.setChecked(String(u"white"), String(u"#ffffff"));
              set_field(self, "$_colours"_field, map);
            }, "A palette holding black and white.")
      .property("$$__len__", [](const Any &self) { return colours(self).length(); }, "The number of colours.")
      .def("get", [](const Any &self, Any name) { return kest::I_Map::unsafeFrom(colours(self)).get(name); }, "name"_a,
           "The colour of a name.")
      .def("set", [](const Any &self, Any name, Any colour) -> kest::Result<kest::None> {
             if (!String::isInstance(colour) || !String::unsafeFrom(colour).startsWith(u"#") ||
                 String::unsafeFrom(colour).length() != 7)
               return kest::BadArgument(String(u"A colour is written '#rrggbb'."));
             return colours(self).setChecked(name, colour);
           }, "name"_a, "colour"_a, "Sets the colour of a name.")
      .def("contains", [](const Any &self, Any name) { return colours(self).contains(name); }, "name"_a,
           "Whether the palette has the name.")
      .def("remove", [](const Any &self, Any name) { return colours(self).remove(name); }, "name"_a, "Removes a name.")
      .def("iter", [](const Any &self) { return kest::I_Iterable::unsafeFrom(colours(self)).iter(); }, "The names.")
      .property("$$keys", [](const Any &self) { return kest::I_Map::unsafeFrom(colours(self)).keys(); }, "The names.")
      .property("$$values", [](const Any &self) { return kest::I_Map::unsafeFrom(colours(self)).values(); }, "The colours.")
      .declare();
}

kest::Class_Generic declare_countdown() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "Countdown", "An iterator: Countdown(n) gives n, n-1, ..., 1 and then stops.")
      .base(kest::I_Iterator::getClass())
      .field<kest::Integer>("$_next")
      .init([](const Any &self, std::int64_t n) { set_field(self, "$_next"_field, kest::Integer(n)); }, "n"_a,
            "Counts down from n.")
      .def("next", [](const Any &self) -> Any {
             const auto n = field_as<kest::Integer>(self, "$_next"_field).value();
             if (n <= 0)
               return kest::StopIteration();
             set_field(self, "$_next"_field, kest::Integer(n - 1));
             return kest::Integer(n);
           }, "The next number, or the end of the iteration.")
      .declare();
}

kest::Class_Generic declare_scaler() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "Scaler", "A callable object: Scaler(k)(x) is k * x.")
      .base(kest::I_Callable_Generic::getClass())
      .field<kest::Float>("$_factor")
      .init([](const Any &self, double k) { set_field(self, "$_factor"_field, kest::Float(k)); }, "factor"_a,
            "A scaler by a factor.")
      .def("$call", [](const Any &self, kest::List args) -> Any {
             if (args.length() != 1)
               return kest::BadArgument(String(u"A scaler takes one number."));
             return kest::Float(number(field(self, "$_factor"_field)) * number(args.at(0).as<Any>()));
           }, "arguments"_a, "Scales its one argument.")
      .declare();
}

kest::Class_Generic declare_error() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "DemoError", "The error of the demo module.").base(kest::Error::getClass()).declare();
}
} // namespace

kest::Class_Generic drawing_class() {
  static const kest::Class_Generic cls = declare_drawing();
  return cls;
}
kest::Class_Generic palette_class() {
  static const kest::Class_Generic cls = declare_palette();
  return cls;
}
kest::Class_Generic countdown_class() {
  static const kest::Class_Generic cls = declare_countdown();
  return cls;
}
kest::Class_Generic scaler_class() {
  static const kest::Class_Generic cls = declare_scaler();
  return cls;
}
kest::Class_Generic demo_error_class() {
  static const kest::Class_Generic cls = declare_error();
  return cls;
}

} // namespace sarvode::demo
