// kest.demo.Vector: an immutable 2-D vector with arithmetic and ordering; it is
// also a sequence of its two components.

#include "demo_support.hpp"

#include <cmath>
#include <fmt/format.h>

namespace sarvode::demo {

namespace {
using kest::Any;

double x_of(const Any &v) { return field_as<kest::Float>(v, "$_x"_field).value(); }
double y_of(const Any &v) { return field_as<kest::Float>(v, "$_y"_field).value(); }

Any vector_op(const Any &self, const Any &other, double sign, const char *op) {
  if (!is_a(other, vector_class()))
    return kest::BadArgument(kest::String::fromUtf8(fmt::format("Vector {} needs a Vector.", op)));
  return make_vector(x_of(self) + sign * x_of(other), y_of(self) + sign * y_of(other));
}

Any scale(const Any &self, const Any &factor, bool divide) {
  if (!kest::Integer::isInstance(factor) && !kest::Float::isInstance(factor))
    return kest::BadArgument(kest::String(u"A Vector scales by a number."));
  const double f = number(factor);
  if (divide && f == 0.0)
    return kest::Error(kest::String(u"Vector division by zero."));
  return divide ? make_vector(x_of(self) / f, y_of(self) / f) : make_vector(x_of(self) * f, y_of(self) * f);
}

void fill(const Any &self, double x, double y) {
  set_field(self, "$_x"_field, kest::Float(x));
  set_field(self, "$_y"_field, kest::Float(y));
}

kest::Class_Generic declare_vector() {
  kest::module_ demo(module_name);
  return kest::class_(demo, "Vector", "An immutable 2-D vector: Vector(x, y).")
      .base(kest::I_Sequence::getClass())
      .base(kest::I_Immutable::getClass())
      .field<kest::Float>("$_x", kest::field_flags::read_only)
      .field<kest::Float>("$_y", kest::field_flags::read_only)
      .init(&fill, "x"_a, "y"_a, "Makes a vector from its components.")
      .property("x", [](const Any &self) { return x_of(self); }, "The x component.")
      .property("y", [](const Any &self) { return y_of(self); }, "The y component.")
      .property("$$__len__", [](const Any &) { return std::int64_t{2}; }, "A vector has two components.")
      .def("at", [](const Any &self, std::int64_t i) -> Any {
             if (i == 0 || i == -2)
               return kest::Float(x_of(self));
             if (i == 1 || i == -1)
               return kest::Float(y_of(self));
             return kest::Error(kest::String::fromUtf8(fmt::format("Vector index {} out of range.", i)));
           }, "index"_a, "Component 0 (x) or 1 (y).")
      .def("iter", [](const Any &self) {
             return kest::I_Iterable::unsafeFrom(kest::Tuple{kest::Float(x_of(self)), kest::Float(y_of(self))}).iter();
           }, "The components.")
      .def("contains", [](const Any &self, Any v) {
             return kest::compare_objects(v, kest::Float(x_of(self))).value() == 0 ||
                    kest::compare_objects(v, kest::Float(y_of(self))).value() == 0;
           }, "value"_a, "Whether a component equals the value.")
      .def("norm", [](const Any &self) { return std::hypot(x_of(self), y_of(self)); }, "The length of the vector.")
      .def("$__add__", [](const Any &s, Any o) { return vector_op(s, o, 1, "addition"); }, "other"_a,
           "The sum of two vectors.")
      .def("$__sub__", [](const Any &s, Any o) { return vector_op(s, o, -1, "subtraction"); }, "other"_a,
           "The difference of two vectors.")
      .def("$__mul__", [](const Any &s, Any f) { return scale(s, f, false); }, "factor"_a, "The vector scaled by a number.")
      .def("$__div__", [](const Any &s, Any f) { return scale(s, f, true); }, "divisor"_a, "The vector divided by a number.")
      .def("$__not__", [](const Any &s) { return make_vector(-x_of(s), -y_of(s)); }, "The opposite vector.")
      .def("$__compare__", [](const Any &s, Any o) -> std::int64_t {
             if (!is_a(o, vector_class()))
               return 2; // unordered
             auto sign = [](double d) { return d < 0 ? -1 : d > 0 ? 1 : 0; };
             return x_of(s) != x_of(o) ? sign(x_of(s) - x_of(o)) : sign(y_of(s) - y_of(o));
           }, "other"_a, "Orders vectors by x, then y.")
      .def("$__hash__", [](const Any &s) { return kest::hash_of(kest::Tuple{kest::Float(x_of(s)), kest::Float(y_of(s))}); },
           "Equal vectors hash equal.")
      .def("$__display__", [](const Any &s) {
             return fmt::format("Vector({}, {})", kest::display(kest::Float(x_of(s))).toUtf8(),
                                kest::display(kest::Float(y_of(s))).toUtf8());
           }, "Vector(x, y).")
      .declare();
}
} // namespace

kest::Class_Generic vector_class() {
  static const kest::Class_Generic cls = declare_vector();
  return cls;
}

Any make_vector(double x, double y) {
  auto v = new_instance(vector_class());
  fill(v, x, y);
  return v;
}

} // namespace sarvode::demo
