// kest.demo.Shape: a read-only property, a writable property, a field, and
// methods with default and keyword arguments; one method fails with DemoError.

#include "demo_support.hpp"

#include <fmt/format.h>

namespace sarvode::demo {

namespace {
constexpr double pi = 3.14159265358979323846;

kest::Any make_shape(const kest::String &kind, double size, const kest::String &name) {
  auto s = kest::internal::result_unwrap_lazy(shape_class().allocateInstance());
  set_field(s, "$_kind"_field, kind);
  set_field(s, "$_name"_field, name);
  set_field(s, "size"_field, kest::Float(size));
  set_field(s, "position"_field, make_vector(0, 0));
  return s;
}

double area(const kest::Any &self) {
  const auto kind = field_as<kest::String>(self, "$_kind"_field);
  const double size = number(field(self, "size"_field));
  if (kind.view() == u"circle")
    return pi * size * size;
  if (kind.view() == u"triangle")
    return size * size * 0.4330127018922193;
  return size * size;
}

void build(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"Shape")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"A shape: Shape(kind, size, name='shape'); kind is square, circle or triangle.")));
  b.add_entry(builder::field_entry(kest::String(u"$_kind"), kest::field_flags::read_only, &kest::String::getType));
  b.add_entry(builder::field_entry(kest::String(u"$_name"), 0, &kest::String::getType));
  b.add_entry(builder::field_entry(kest::String(u"size"), 0, &kest::Float::getType));
  b.add_entry(builder::field_entry(kest::String(u"position"), 0, &vector_class_type));
  b.add_entry(method("$__init__",
                     kest::make_function([](kest::String kind, double size, kest::String name) -> kest::Any {
                       const auto k = kind.toUtf8();
                       if (k != "square" && k != "circle" && k != "triangle")
                         return kest::BadArgument(kest::String::fromUtf8(fmt::format("Unknown shape kind: {}.", k)));
                       return make_shape(kind, size, name);
                     }),
                     "kind, size, name", "Makes a shape.", {kest::String(u"shape")}));
  b.add_entry(property("kind", kest::make_method([](const kest::Any &self) { return field(self, "$_kind"_field); }),
                       "What kind of shape it is (read-only)."));
  b.add_entry(property("name", kest::make_method([](const kest::Any &self) { return field(self, "$_name"_field); }),
                       "The shape's name.", kest::make_method([](const kest::Any &self, kest::String name) {
                         set_field(self, "$_name"_field, name);
                       })));
  b.add_entry(method("area", kest::make_method([](const kest::Any &self) { return area(self); }), "", "The area."));
  b.add_entry(method("moved",
                     kest::make_method([](const kest::Any &self, double dx, double dy) {
                       auto copy = make_shape(field_as<kest::String>(self, "$_kind"_field), number(field(self, "size"_field)),
                                              field_as<kest::String>(self, "$_name"_field));
                       auto p = field(self, "position"_field);
                       set_field(copy, "position"_field,
                                 make_vector(number(kest::internal::result_unwrap_lazy(p.propertyValue(kest::meta_property_untyped("x")))) + dx,
                                             number(kest::internal::result_unwrap_lazy(p.propertyValue(kest::meta_property_untyped("y")))) + dy));
                       return copy;
                     }),
                     "dx, dy", "A copy moved by (dx, dy); dy defaults to 0.", {kest::Float(0.0)}));
  b.add_entry(method("describe",
                     kest::make_method([](const kest::Any &self, kest::String prefix, kest::String suffix) {
                       return kest::String::fromUtf8(fmt::format("{}{} {}{}", prefix.toUtf8(),
                                                                 field_as<kest::String>(self, "$_kind"_field).toUtf8(),
                                                                 field_as<kest::String>(self, "$_name"_field).toUtf8(),
                                                                 suffix.toUtf8()));
                     }),
                     "prefix, suffix", "A sentence about the shape.", {kest::String(u"a "), kest::String(u"")}));
  b.add_entry(method("explode",
                     kest::make_method([](const kest::Any &self) {
                       return kest::Error::create(demo_error_class(),
                                                  kest::String::fromUtf8(fmt::format(
                                                      "The shape '{}' exploded.",
                                                      field_as<kest::String>(self, "$_name"_field).toUtf8())));
                     }),
                     "", "Always fails with DemoError."));
  b.add_entry(method("$__display__", kest::make_method([](const kest::Any &self) {
                       return kest::String::fromUtf8(fmt::format("<{} {}>", field_as<kest::String>(self, "$_kind"_field).toUtf8(),
                                                                 field_as<kest::String>(self, "$_name"_field).toUtf8()));
                     }),
                     "", "<kind name>"));
}

kest::internal::class_declaration g_shape("Shape", &build);
} // namespace

kest::Type vector_class_type() { return kest::Type(vector_class()); }
kest::Class_Generic shape_class() { return g_shape.get(); }

} // namespace sarvode::demo
