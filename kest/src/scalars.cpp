// None, Undefined, Untyped, Boolean, Integer, Float and ByteArray.

#include "builtin.hpp"
#include "pool.hpp"

#include <kest/boolean.hpp>
#include <kest/bytearray.hpp>
#include <kest/float.hpp>
#include <kest/integer.hpp>
#include <kest/interfaces.hpp>

#include <cstring>
#include <vector>

namespace kest {
namespace internal {

namespace {
/// A statically allocated, immortal value of one kind.
template <ObjectType Kind, class_getter Getter> class static_value final : public object_value {
public:
  constexpr static_value() noexcept : object_value(immortal_tag{}) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return Kind; }
  [[nodiscard]] object_value_class *class_value() const noexcept override { return Getter().value(); }
};

/// Storage for a singleton that is made at compile time and never destroyed:
/// handles held by other statics are still released during static destruction,
/// and must find a live object then.
template <class T> union never_destroyed {
  constexpr never_destroyed() noexcept : value() {}
  ~never_destroyed() {}
  T value;
};

constinit never_destroyed<static_value<ObjectType::None, &None::getClass>> s_none;
constinit never_destroyed<static_value<ObjectType::NotImplemented, &Undefined::getClass>> s_not_implemented;
constinit never_destroyed<static_value<ObjectType::Boolean, &Boolean::getClass>> s_true;
constinit never_destroyed<static_value<ObjectType::Boolean, &Boolean::getClass>> s_false;
} // namespace

object_value *const g_value_none = &s_none.value;
object_value *const g_value_not_implemented = &s_not_implemented.value;
object_value *const g_value_boolean_true = &s_true.value;
object_value *const g_value_boolean_false = &s_false.value;

object_value_class *object_value_integer::class_value() const noexcept { return Integer::getClass().value(); }
void *object_value_integer::operator new(std::size_t size) { return pool_allocate(size); }
void object_value_integer::operator delete(void *p, std::size_t size) noexcept { pool_free(p, size); }

object_value_class *object_value_float::class_value() const noexcept { return Float::getClass().value(); }
void *object_value_float::operator new(std::size_t size) { return pool_allocate(size); }
void object_value_float::operator delete(void *p, std::size_t size) noexcept { pool_free(p, size); }

class object_value_bytes final : public object_value {
public:
  explicit object_value_bytes(std::vector<std::uint8_t> b) : bytes(std::move(b)) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::ByteArray; }
  [[nodiscard]] object_value_class *class_value() const noexcept override {
    return ByteArray::getClass().value();
  }
  const std::vector<std::uint8_t> bytes;
};

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(None, is_none(a), make_builtin_class("None", 0, {&I_Immutable::getClass}))
KEST_DEFINE_HANDLE(Undefined, a.kind() == ObjectType::NotImplemented,
                   make_builtin_class("Undefined", 0, {&I_Immutable::getClass}))
KEST_DEFINE_HANDLE(Untyped, ((void)a, true), make_builtin_class("Untyped", class_flags::top_type))
KEST_DEFINE_HANDLE(Boolean, a.kind() == ObjectType::Boolean,
                   make_builtin_class("Boolean", 0, {&I_Immutable::getClass}))
KEST_DEFINE_HANDLE_WITH_INLINE_CHECK(Integer, make_builtin_class("Integer", 0, {&I_Immutable::getClass}))
KEST_DEFINE_HANDLE_WITH_INLINE_CHECK(Float, make_builtin_class("Float", 0, {&I_Immutable::getClass}))
KEST_DEFINE_HANDLE(ByteArray, a.kind() == ObjectType::ByteArray,
                   make_builtin_class("ByteArray", 0, {&I_Immutable::getClass}))

Integer::Integer(std::int64_t v)
    : Any(unchecked, Any::adopt(new object_value_integer(static_cast<std::uint64_t>(v), true))) {}

Integer Integer::fromUnsigned(std::uint64_t v) {
  return Integer(unchecked, Any::adopt(new object_value_integer(v, false)));
}

Float::Float(double v) : Any(unchecked, Any::adopt(new object_value_float(v))) {}

namespace {
Any empty_bytes() {
  static object_value_bytes *e = [] {
    auto *p = new object_value_bytes({});
    p->make_immortal();
    return p;
  }();
  return Any(e);
}
} // namespace

ByteArray::ByteArray() : Any(unchecked, empty_bytes()) {}
ByteArray::ByteArray(std::span<const std::uint8_t> bytes)
    : Any(unchecked, Any(new object_value_bytes(std::vector<std::uint8_t>(bytes.begin(), bytes.end())))) {}
ByteArray::ByteArray(const void *data, std::size_t length)
    : ByteArray(std::span<const std::uint8_t>(static_cast<const std::uint8_t *>(data), length)) {}

// A handle made over a value of another class reads as empty bytes (as an
// Integer or Float handle reads as zero).
namespace {
const std::vector<std::uint8_t> &bytes_of(const Any &a) noexcept {
  static const std::vector<std::uint8_t> none;
  auto *b = native_if<object_value_bytes>(a, ObjectType::ByteArray);
  return b ? b->bytes : none;
}
} // namespace

const std::uint8_t *ByteArray::data() const noexcept { return bytes_of(*this).data(); }
std::int64_t ByteArray::length() const noexcept { return static_cast<std::int64_t>(bytes_of(*this).size()); }
std::string_view ByteArray::asChars() const noexcept {
  auto &b = bytes_of(*this);
  return {reinterpret_cast<const char *>(b.data()), b.size()};
}
std::span<const std::uint8_t> ByteArray::bytes() const noexcept { return bytes_of(*this); }

} // namespace kest
