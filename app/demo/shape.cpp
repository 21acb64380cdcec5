// kest.demo.Shape: a read-only property, a writable property, a field, and
// methods with default and keyword arguments; one method fails with DemoError.

#include "demo_support.hpp"

#include <fmt/format.h>

#include <string_view>

namespace sarvode::demo {

namespace {
using kest::Any;
using kest::String;
using namespace std::string_view_literals;

constexpr double pi = 3.14159265358979323846;

String kind_of(const Any &self) { return field_as<String>(self, "$_kind"_field); }
String name_of(const Any &self) { return field_as<String>(self, "$_name"_field); }

Any fill(const Any &self, const String &kind, double size, const String &name) {
  set_field(self, "$_kind"_field, kind);
  set_field(self, "$_name"_field, name);
  set_field(self, "size"_field, kest::Float(size));
  set_field(self, "position"_field, make_vector(0, 0));
  return self;
}

double area(const Any &self) {
  const auto kind = kind_of(self);
  const double size = number(field(self, "size"_field));
  const std::u16string_view k = kind.view();
  if (k == u"circle"sv)
    return pi * size * size;
  if (k == u"triangle"sv)
    return size * size * 0.4330127018922193;
  return size * size;
}

Any moved(const Any &self, double dx, double dy) {
  auto copy = fill(new_instance(shape_class()), kind_of(self), number(field(self, "size"_field)), name_of(self));
  const auto p = field(self, "position"_field);
  set_field(copy, "position"_field,
            make_vector(number(p.propertyValue("x"_property).as<Any>()) + dx,
                        number(p.propertyValue("y"_property).as<Any>()) + dy));
  return copy;
}

kest::Class_Generic declare_shape() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "Shape", "A shape: Shape(kind, size, name='shape'); kind is square, circle or triangle.")
      .field<String>("$_kind", kest::field_flags::read_only)
      .field<String>("$_name")
      .field<kest::Float>("size")
      .field("position", &vector_class_type)
      .init([](const Any &self, String kind, double size, String name) -> Any {
              const auto k = kind.toUtf8();
              if (k != "square" && k != "circle" && k != "triangle")
                return kest::BadArgument(String::fromUtf8(fmt::format("Unknown shape kind: {}.", k)));
              return fill(self, kind, size, name);
            }, "kind"_a, "size"_a, "name"_a = "shape", "Makes a shape.")
      .property("kind", [](const Any &self) { return kind_of(self); }, "What kind of shape it is (read-only).")
      .property("name", [](const Any &self) { return name_of(self); },
                [](const Any &self, String name) { set_field(self, "$_name"_field, name); }, "The shape's name.")
      .def("area", [](const Any &self) { return area(self); }, "The area.")
      .def("moved", &moved, "dx"_a, "dy"_a = 0.0, "A copy moved by (dx, dy); dy defaults to 0.")
      .def("describe", [](const Any &self, String prefix, String suffix) {
             return fmt::format("{}{} {}{}", prefix.toUtf8(), kind_of(self).toUtf8(), name_of(self).toUtf8(),
                                suffix.toUtf8());
           }, "prefix"_a = "a ", "suffix"_a = "", "A sentence about the shape.")
      .def("explode", [](const Any &self) {
             return kest::Error::create(demo_error_class(),
                                        String::fromUtf8(fmt::format("The shape '{}' exploded.", name_of(self).toUtf8())));
           }, "Always fails with DemoError.")
      .def("$__display__", [](const Any &self) {
             return fmt::format("<{} {}>", kind_of(self).toUtf8(), name_of(self).toUtf8());
           }, "<kind name>")
      .declare();
}
} // namespace

kest::Type vector_class_type() { return kest::Type(vector_class()); }

kest::Class_Generic shape_class() {
  static const kest::Class_Generic cls = declare_shape();
  return cls;
}

} // namespace sarvode::demo
