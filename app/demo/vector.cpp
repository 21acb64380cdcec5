// kest.demo.Vector: an immutable 2-D vector with arithmetic and ordering; it is
// also a sequence of its two components.

#include "demo_support.hpp"

#include <cmath>
#include <fmt/format.h>

namespace sarvode::demo {

namespace {
double x_of(const kest::Any &v) { return field_as<kest::Float>(v, "$_x"_field).value(); }
double y_of(const kest::Any &v) { return field_as<kest::Float>(v, "$_y"_field).value(); }

kest::Any vector_op(const kest::Any &self, const kest::Any &other, double sign, const char *op) {
  if (!is_a(other, vector_class()))
    return kest::BadArgument(kest::String::fromUtf8(fmt::format("Vector {} needs a Vector.", op)));
  return make_vector(x_of(self) + sign * x_of(other), y_of(self) + sign * y_of(other));
}

kest::Any scale(const kest::Any &self, const kest::Any &factor, bool divide) {
  if (!kest::Integer::isInstance(factor) && !kest::Float::isInstance(factor))
    return kest::BadArgument(kest::String(u"A Vector scales by a number."));
  const double f = number(factor);
  if (divide && f == 0.0)
    return kest::Error(kest::String(u"Vector division by zero."));
  return divide ? make_vector(x_of(self) / f, y_of(self) / f) : make_vector(x_of(self) * f, y_of(self) * f);
}

void build(builder &b) {
  b.add_entry(builder::name_entry(kest::String(u"Vector")));
  b.add_entry(builder::module_entry(module_name));
  b.add_entry(builder::doc_entry(kest::String(u"An immutable 2-D vector: Vector(x, y).")));
  b.add_entry(builder::base_entry(kest::I_Sequence::getClass()));
  b.add_entry(builder::base_entry(kest::I_Immutable::getClass()));
  b.add_entry(builder::field_entry(kest::String(u"$_x"), kest::field_flags::read_only, &kest::Float::getType));
  b.add_entry(builder::field_entry(kest::String(u"$_y"), kest::field_flags::read_only, &kest::Float::getType));
  b.add_entry(method("$__init__", kest::make_function([](double x, double y) { return make_vector(x, y); }), "x, y",
                     "Makes a vector from its components."));
  b.add_entry(property("x", kest::make_method([](const kest::Any &self) { return x_of(self); }), "The x component."));
  b.add_entry(property("y", kest::make_method([](const kest::Any &self) { return y_of(self); }), "The y component."));
  b.add_entry(property("$$__len__", kest::make_method([](kest::Any) { return std::int64_t{2}; }),
                       "A vector has two components."));
  b.add_entry(method("at", kest::make_method([](const kest::Any &self, std::int64_t i) -> kest::Any {
                       if (i == 0 || i == -2)
                         return kest::Float(x_of(self));
                       if (i == 1 || i == -1)
                         return kest::Float(y_of(self));
                       return kest::Error(kest::String::fromUtf8(fmt::format("Vector index {} out of range.", i)));
                     }),
                     "index", "Component 0 (x) or 1 (y)."));
  b.add_entry(method("iter", kest::make_method([](const kest::Any &self) {
                       return kest::I_Iterable::unsafeFrom(kest::Tuple{kest::Float(x_of(self)), kest::Float(y_of(self))}).iter();
                     }),
                     "", "The components."));
  b.add_entry(method("contains", kest::make_method([](const kest::Any &self, kest::Any v) {
                       return kest::compare_objects(v, kest::Float(x_of(self))).value() == 0 ||
                              kest::compare_objects(v, kest::Float(y_of(self))).value() == 0;
                     }),
                     "value", "Whether a component equals the value."));
  b.add_entry(method("norm", kest::make_method([](const kest::Any &self) { return std::hypot(x_of(self), y_of(self)); }), "",
                     "The length of the vector."));
  b.add_entry(method("$__add__", kest::make_method([](kest::Any s, kest::Any o) { return vector_op(s, o, 1, "addition"); }),
                     "other", "The sum of two vectors."));
  b.add_entry(method("$__sub__", kest::make_method([](kest::Any s, kest::Any o) { return vector_op(s, o, -1, "subtraction"); }),
                     "other", "The difference of two vectors."));
  b.add_entry(method("$__mul__", kest::make_method([](kest::Any s, kest::Any f) { return scale(s, f, false); }), "factor",
                     "The vector scaled by a number."));
  b.add_entry(method("$__div__", kest::make_method([](kest::Any s, kest::Any f) { return scale(s, f, true); }), "divisor",
                     "The vector divided by a number."));
  b.add_entry(method("$__not__", kest::make_method([](kest::Any s) { return make_vector(-x_of(s), -y_of(s)); }), "",
                     "The opposite vector."));
  b.add_entry(method("$__compare__", kest::make_method([](kest::Any s, kest::Any o) -> std::int64_t {
                       if (!is_a(o, vector_class()))
                         return 2; // unordered
                       auto sign = [](double d) { return d < 0 ? -1 : d > 0 ? 1 : 0; };
                       if (x_of(s) != x_of(o))
                         return sign(x_of(s) - x_of(o));
                       return sign(y_of(s) - y_of(o));
                     }),
                     "other", "Orders vectors by x, then y."));
  b.add_entry(method("$__hash__", kest::make_method([](kest::Any s) {
                       return kest::hash_of(kest::Tuple{kest::Float(x_of(s)), kest::Float(y_of(s))});
                     }),
                     "", "Equal vectors hash equal."));
  b.add_entry(method("$__display__", kest::make_method([](kest::Any s) {
                       return kest::String::fromUtf8(fmt::format("Vector({}, {})", kest::display(kest::Float(x_of(s))).toUtf8(),
                                                                 kest::display(kest::Float(y_of(s))).toUtf8()));
                     }),
                     "", "Vector(x, y)."));
}

kest::internal::class_declaration g_vector("Vector", &build);
} // namespace

kest::Class_Generic vector_class() { return g_vector.get(); }

kest::Any make_vector(double x, double y) {
  auto v = kest::internal::result_unwrap_lazy(vector_class().allocateInstance());
  set_field(v, "$_x"_field, kest::Float(x));
  set_field(v, "$_y"_field, kest::Float(y));
  return v;
}

} // namespace sarvode::demo
