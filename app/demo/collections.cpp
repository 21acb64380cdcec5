// kest.demo.Drawing (a mutable sequence of shapes), Palette (a mutable map from
// names to colours) and Countdown (an iterator).

#include "demo_support.hpp"

#include <fmt/format.h>

namespace sarvode::demo {

namespace {
kest::List shapes(const kest::Any &drawing) { return field_as<kest::List>(drawing, "$_shapes"_field); }
kest::HashMap colours(const kest::Any &palette) { return field_as<kest::HashMap>(palette, "$_colours"_field); }

kest::Any new_drawing(const std::vector<kest::Any> &items) {
  auto d = kest::internal::result_unwrap_lazy(drawing_class().allocateInstance());
  set_field(d, "$_shapes"_field, kest::List(kest::Type(shape_class()), items));
  return d;
}

kest::Result<kest::None> add_shape(const kest::Any &drawing, const kest::Any &shape) {
  if (!is_a(shape, shape_class()))
    return kest::BadArgument(kest::String(u"A drawing holds shapes only."));
  return shapes(drawing).append(shape);
}

void build_drawing(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"Drawing")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"A mutable sequence of shapes: Drawing().")));
  b.add_entry(builder::base_entry(kest::I_MutableSequence::getClass()));
  b.add_entry(builder::field_entry(kest::String(u"$_shapes"), 0, &kest::List::getType));
  b.add_entry(method("$__init__", kest::make_function([] { return new_drawing({}); }), "", "An empty drawing."));
  b.add_entry(property("$$__len__", kest::make_method([](const kest::Any &self) { return shapes(self).length(); }),
                       "The number of shapes."));
  b.add_entry(method("at", kest::make_method([](const kest::Any &self, std::int64_t i) { return shapes(self).at(i); }), "index",
                     "The shape at an index."));
  b.add_entry(method("set", kest::make_method([](const kest::Any &self, std::int64_t i, kest::Any shape) -> kest::Result<kest::None> {
                       if (!is_a(shape, shape_class()))
                         return kest::BadArgument(kest::String(u"A drawing holds shapes only."));
                       return shapes(self).set(i, shape);
                     }),
                     "index, shape", "Replaces the shape at an index."));
  b.add_entry(method("append", kest::make_method([](const kest::Any &self, kest::Any shape) { return add_shape(self, shape); }),
                     "shape", "Adds a shape at the end."));
  b.add_entry(method("extend", kest::make_method([](const kest::Any &self, kest::Any items) -> kest::Result<kest::None> {
                       if (!kest::I_Iterable::isInstance(items))
                         return kest::BadArgument(kest::String(u"extend() needs an iterable of shapes."));
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
                     }),
                     "shapes", "Adds several shapes."));
  b.add_entry(method("concat", kest::make_method([](const kest::Any &self, kest::Any other) -> kest::Any {
                       if (!is_a(other, drawing_class()))
                         return kest::BadArgument(kest::String(u"A drawing concatenates with a drawing."));
                       auto items = shapes(self).copyItems();
                       for (auto &s : shapes(other).copyItems())
                         items.push_back(s);
                       return new_drawing(items);
                     }),
                     "other", "A new drawing with the shapes of both."));
  b.add_entry(method("removeAt", kest::make_method([](const kest::Any &self, std::int64_t i) { return shapes(self).removeAt(i); }),
                     "index", "Removes and returns the shape at an index."));
  b.add_entry(method("clear", kest::make_method([](const kest::Any &self) { shapes(self).clear(); }), "", "Removes every shape."));
  b.add_entry(method("iter", kest::make_method([](const kest::Any &self) { return kest::I_Iterable::unsafeFrom(shapes(self)).iter(); }),
                     "", "The shapes, in order."));
  b.add_entry(method("contains", kest::make_method([](const kest::Any &self, kest::Any shape) {
                       return kest::I_Iterable::unsafeFrom(shapes(self)).contains(shape);
                     }),
                     "shape", "Whether the drawing holds the shape."));
  b.add_entry(method("totalArea", kest::make_method([](const kest::Any &self) {
                       double total = 0;
                       for (auto &s : shapes(self).copyItems())
                         total += number(kest::internal::result_unwrap_lazy(
                             kest::I_Callable_Generic::unsafeFrom(s.boundMethod(kest::meta_method_untyped("area"))).callWith({})));
                       return total;
                     }),
                     "", "The sum of the shapes' areas."));
}

void build_palette(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"Palette")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"A mutable map from colour names to '#rrggbb' texts: Palette().")));
  b.add_entry(builder::base_entry(kest::I_MutableMap::getClass()));
  b.add_entry(builder::field_entry(kest::String(u"$_colours"), 0, &kest::HashMap::getType));
  b.add_entry(method("$__init__", kest::make_function([] {
                       auto p = kest::internal::result_unwrap_lazy(palette_class().allocateInstance());
                       kest::HashMap map(kest::String::getType(), kest::String::getType());
                       (void)map.setChecked(kest::String(u"black"), kest::String(u"#000000"));
                       (void)map.setChecked(kest::String(u"white"), kest::String(u"#ffffff"));
                       set_field(p, "$_colours"_field, map);
                       return p;
                     }),
                     "", "A palette holding black and white."));
  b.add_entry(property("$$__len__", kest::make_method([](const kest::Any &self) { return colours(self).length(); }),
                       "The number of colours."));
  b.add_entry(method("get", kest::make_method([](const kest::Any &self, kest::Any name) {
                       return kest::I_Map::unsafeFrom(colours(self)).get(name);
                     }),
                     "name", "The colour of a name."));
  b.add_entry(method("set", kest::make_method([](const kest::Any &self, kest::Any name, kest::Any colour) -> kest::Result<kest::None> {
                       if (!kest::String::isInstance(colour) || !kest::String::unsafeFrom(colour).startsWith(u"#") ||
                           kest::String::unsafeFrom(colour).length() != 7)
                         return kest::BadArgument(kest::String(u"A colour is written '#rrggbb'."));
                       return colours(self).setChecked(name, colour);
                     }),
                     "name, colour", "Sets the colour of a name."));
  b.add_entry(method("contains", kest::make_method([](const kest::Any &self, kest::Any name) { return colours(self).contains(name); }),
                     "name", "Whether the palette has the name."));
  b.add_entry(method("remove", kest::make_method([](const kest::Any &self, kest::Any name) { return colours(self).remove(name); }),
                     "name", "Removes a name."));
  b.add_entry(method("iter", kest::make_method([](const kest::Any &self) { return kest::I_Iterable::unsafeFrom(colours(self)).iter(); }),
                     "", "The names."));
  b.add_entry(property("$$keys", kest::make_method([](const kest::Any &self) { return kest::I_Map::unsafeFrom(colours(self)).keys(); }),
                       "The names."));
  b.add_entry(property("$$values", kest::make_method([](const kest::Any &self) { return kest::I_Map::unsafeFrom(colours(self)).values(); }),
                       "The colours."));
}

void build_countdown(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"Countdown")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"An iterator: Countdown(n) gives n, n-1, ..., 1 and then stops.")));
  b.add_entry(builder::base_entry(kest::I_Iterator::getClass()));
  b.add_entry(builder::field_entry(kest::String(u"$_next"), 0, &kest::Integer::getType));
  b.add_entry(method("$__init__", kest::make_function([](std::int64_t n) {
                       auto c = kest::internal::result_unwrap_lazy(countdown_class().allocateInstance());
                       set_field(c, "$_next"_field, kest::Integer(n));
                       return c;
                     }),
                     "n", "Counts down from n."));
  b.add_entry(method("next", kest::make_method([](const kest::Any &self) -> kest::Any {
                       const auto n = field_as<kest::Integer>(self, "$_next"_field).value();
                       if (n <= 0)
                         return kest::StopIteration();
                       set_field(self, "$_next"_field, kest::Integer(n - 1));
                       return kest::Integer(n);
                     }),
                     "", "The next number, or the end of the iteration."));
}

void build_scaler(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"Scaler")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"A callable object: Scaler(k)(x) is k * x.")));
  b.add_entry(builder::base_entry(kest::I_Callable_Generic::getClass()));
  b.add_entry(builder::field_entry(kest::String(u"$_factor"), 0, &kest::Float::getType));
  b.add_entry(method("$__init__", kest::make_function([](double k) {
                       auto s = kest::internal::result_unwrap_lazy(scaler_class().allocateInstance());
                       set_field(s, "$_factor"_field, kest::Float(k));
                       return s;
                     }),
                     "factor", "A scaler by a factor."));
  b.add_entry(method("$call", kest::make_method([](const kest::Any &self, kest::List args) -> kest::Any {
                       if (args.length() != 1)
                         return kest::BadArgument(kest::String(u"A scaler takes one number."));
                       return kest::Float(number(field(self, "$_factor"_field)) * number(kest::internal::result_unwrap_lazy(args.at(0))));
                     }),
                     "arguments", "Scales its one argument."));
}

void build_error(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"DemoError")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"The error of the demo module.")));
  b.add_entry(builder::base_entry(kest::Error::getClass()));
}

kest::internal::class_declaration g_drawing("Drawing", &build_drawing);
kest::internal::class_declaration g_palette("Palette", &build_palette);
kest::internal::class_declaration g_countdown("Countdown", &build_countdown);
kest::internal::class_declaration g_scaler("Scaler", &build_scaler);
kest::internal::class_declaration g_error("DemoError", &build_error);
} // namespace

kest::Class_Generic drawing_class() { return g_drawing.get(); }
kest::Class_Generic palette_class() { return g_palette.get(); }
kest::Class_Generic countdown_class() { return g_countdown.get(); }
kest::Class_Generic scaler_class() { return g_scaler.get(); }
kest::Class_Generic demo_error_class() { return g_error.get(); }

} // namespace sarvode::demo
