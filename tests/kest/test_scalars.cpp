// None, Undefined, Untyped, Boolean, Integer, Float, ByteArray; kind codes and casts.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

using namespace kest;
using internal::ObjectType;

namespace {
int code(ObjectType t) { return static_cast<int>(t); }
} // namespace

// --- None, Undefined, Untyped ---------------------------------------------------------

TEST(None, IsTheSharedNoneObject) {
  const None a, b;
  EXPECT_TRUE(a.isSame(b));
  EXPECT_EQ(a.get(), internal::g_value_none);
  EXPECT_EQ(a.kind(), ObjectType::None);
  EXPECT_TRUE(is_none(a));
  EXPECT_TRUE(None::isInstance(a));
  EXPECT_FALSE(a.empty());
}

TEST(None, EmptyHandleCountsAsNone) {
  const Any empty;
  EXPECT_TRUE(is_none(empty));
  EXPECT_TRUE(None::isInstance(empty));
  EXPECT_TRUE(None::getType().matches(empty));
  EXPECT_FALSE(Integer::getType().matches(empty));
}

TEST(None, OtherValuesAreNotNone) {
  EXPECT_FALSE(is_none(Integer(0)));
  EXPECT_FALSE(is_none(Boolean(false)));
  EXPECT_FALSE(is_none(String()));
  EXPECT_FALSE(is_none(Undefined()));
  EXPECT_FALSE(None::isInstance(Undefined()));
}

TEST(None, SurvivesAnyNumberOfHandles) {
  const auto before = internal::g_value_none->ref_count();
  {
    std::vector<Any> many(1000, None());
    EXPECT_EQ(internal::g_value_none->ref_count(), before + 1000);
  }
  EXPECT_EQ(internal::g_value_none->ref_count(), before);
  EXPECT_GE(before, 1u << 29); // immortal: far from ever reaching zero
}

TEST(Undefined, IsTheNotImplementedMarker) {
  const Undefined u;
  EXPECT_EQ(u.get(), internal::g_value_not_implemented);
  EXPECT_EQ(u.kind(), ObjectType::NotImplemented);
  EXPECT_TRUE(Undefined::isInstance(u));
  EXPECT_TRUE(not_implemented().isSame(u));
  EXPECT_FALSE(Undefined::isInstance(None()));
  EXPECT_FALSE(Undefined::isInstance(Any()));
}

TEST(Untyped, HoldsAnyValueOrNothing) {
  const Untyped nothing;
  EXPECT_TRUE(nothing.empty());
  const Untyped some(Integer(5));
  EXPECT_EQ(some.kind(), ObjectType::Integer);
  EXPECT_TRUE(Untyped::isInstance(Any()));
  EXPECT_TRUE(Untyped::isInstance(String(u"x")));
  EXPECT_TRUE(Untyped::getType().isUntyped());
  EXPECT_TRUE(Type().isUntyped());
  EXPECT_TRUE(Type().matches(Any()));
  EXPECT_TRUE(Type().matches(Float(1.0)));
}

// --- Boolean ---------------------------------------------------------------------------

TEST(Boolean, TrueAndFalseAreSingletons) {
  EXPECT_EQ(Boolean(true).get(), internal::g_value_boolean_true);
  EXPECT_EQ(Boolean(false).get(), internal::g_value_boolean_false);
  EXPECT_TRUE(Boolean(true).isSame(Boolean(true)));
  EXPECT_FALSE(Boolean(true).isSame(Boolean(false)));
  EXPECT_TRUE(Boolean(true).value());
  EXPECT_FALSE(Boolean(false).value());
  EXPECT_EQ(Boolean(true).kind(), ObjectType::Boolean);
  EXPECT_TRUE(Boolean::isInstance(Boolean(false)));
  EXPECT_FALSE(Boolean::isInstance(Integer(1)));
}

TEST(Boolean, FromGivesFalseForEmptyAndZeroValues) {
  EXPECT_FALSE(Boolean::from(Any()).value());
  EXPECT_FALSE(Boolean::from(None()).value());
  EXPECT_FALSE(Boolean::from(Undefined()).value());
  EXPECT_FALSE(Boolean::from(Boolean(false)).value());
  EXPECT_FALSE(Boolean::from(Integer(0)).value());
  EXPECT_FALSE(Boolean::from(Integer::fromUnsigned(0)).value());
  EXPECT_FALSE(Boolean::from(Float(0.0)).value());
  EXPECT_FALSE(Boolean::from(Float(-0.0)).value());
  EXPECT_FALSE(Boolean::from(String()).value());
  EXPECT_FALSE(Boolean::from(ByteArray()).value());
  EXPECT_FALSE(Boolean::from(Tuple()).value());
  EXPECT_FALSE(Boolean::from(List()).value());
  EXPECT_FALSE(Boolean::from(HashMap()).value());
  EXPECT_FALSE(Boolean::from(HashSet()).value());
  EXPECT_FALSE(Boolean::from(Decimal()).value());
  auto zero = Decimal::fromString("-0.000");
  ASSERT_TRUE(zero.is<Decimal>());
  EXPECT_FALSE(Boolean::from(zero).value());
}

TEST(Boolean, FromGivesTrueForEverythingElse) {
  EXPECT_TRUE(Boolean::from(Boolean(true)).value());
  EXPECT_TRUE(Boolean::from(Integer(-1)).value());
  EXPECT_TRUE(Boolean::from(Integer(std::numeric_limits<std::int64_t>::min())).value());
  EXPECT_TRUE(Boolean::from(Integer::fromUnsigned(1ull << 63)).value());
  EXPECT_TRUE(Boolean::from(Float(1e-300)).value());
  EXPECT_TRUE(Boolean::from(Float(std::nan(""))).value());
  EXPECT_TRUE(Boolean::from(Float(-std::numeric_limits<double>::infinity())).value());
  EXPECT_TRUE(Boolean::from(String(u" ")).value());
  EXPECT_TRUE(Boolean::from(ByteArray::fromChars(std::string_view("\0", 1))).value());
  EXPECT_TRUE(Boolean::from(Tuple{None()}).value());
  EXPECT_TRUE(Boolean::from(List{Integer(0)}).value());
  EXPECT_TRUE(Boolean::from(Decimal(1)).value());
  auto nan = Decimal::fromString("NaN");
  ASSERT_TRUE(nan.is<Decimal>());
  EXPECT_TRUE(Boolean::from(nan).value());
  EXPECT_TRUE(Boolean::from(Integer::getClass()).value());
  EXPECT_TRUE(Boolean::from(Error("e")).value());
  EXPECT_TRUE(Boolean::from(Date(2024, 1, 1)).value());
}

TEST(Boolean, FromLooksThroughComputedAndExternalValues) {
  auto zero = Computed<Integer>::create([] { return Integer(0); });
  auto one = Computed<Integer>::create([] { return Integer(1); });
  EXPECT_FALSE(Boolean::from(zero).value());
  EXPECT_TRUE(Boolean::from(one).value());
  EXPECT_FALSE(Boolean::from(External::fromValue(String())).value());
  EXPECT_TRUE(Boolean::from(External::fromValue(String(u"x"))).value());
}

TEST(Boolean, FromHashMapAndSetWithContent) {
  HashMap map;
  ASSERT_FALSE(map.setChecked(Integer(1), Integer(2)).isError());
  EXPECT_TRUE(Boolean::from(map).value());
  HashSet set;
  ASSERT_FALSE(set.insert(Integer(0)).isError());
  EXPECT_TRUE(Boolean::from(set).value());
}

// --- Integer ----------------------------------------------------------------------------

TEST(Integer, KeepsSignedValues) {
  const Integer i(42);
  EXPECT_TRUE(i.isSigned());
  EXPECT_EQ(i.value(), 42);
  EXPECT_EQ(i.unsignedValue(), 42u);
  EXPECT_EQ(i.kind(), ObjectType::Integer);
  EXPECT_TRUE(Integer::isInstance(i));
}

TEST(Integer, LargestUnsignedValueStaysUnsigned) {
  const auto max = std::numeric_limits<std::uint64_t>::max();
  const auto u = Integer::fromUnsigned(max);
  EXPECT_FALSE(u.isSigned());
  EXPECT_EQ(u.unsignedValue(), max);
  EXPECT_EQ(u.value(), -1); // the signed view wraps
}

TEST(Integer, MinusOneIsSignedAndWrapsAsUnsigned) {
  const Integer m(-1);
  EXPECT_TRUE(m.isSigned());
  EXPECT_EQ(m.value(), -1);
  EXPECT_EQ(m.unsignedValue(), std::numeric_limits<std::uint64_t>::max());
}

TEST(Integer, SignedLimitsAreExact) {
  const Integer lo(std::numeric_limits<std::int64_t>::min());
  const Integer hi(std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(lo.value(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(hi.value(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(lo.unsignedValue(), 1ull << 63);
  EXPECT_TRUE(lo.isSigned());
}

TEST(Integer, SmallUnsignedValuesReadTheSameBothWays) {
  const auto u = Integer::fromUnsigned(7);
  EXPECT_FALSE(u.isSigned());
  EXPECT_EQ(u.value(), 7);
  EXPECT_EQ(u.unsignedValue(), 7u);
  EXPECT_EQ(Integer(int{-3}).value(), -3);
}

TEST(Integer, EachValueIsItsOwnObject) {
  const Integer a(5), b(5);
  EXPECT_FALSE(a.isSame(b));
  EXPECT_EQ(compare_objects(a, b).value(), 0);
}

// --- Float -------------------------------------------------------------------------------

TEST(Float, KeepsFiniteValuesExactly) {
  EXPECT_EQ(Float(0.1).value(), 0.1);
  EXPECT_EQ(Float(-2.5).value(), -2.5);
  EXPECT_EQ(Float(std::numeric_limits<double>::max()).value(), std::numeric_limits<double>::max());
  EXPECT_EQ(Float(std::numeric_limits<double>::denorm_min()).value(), std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(Float(1.0).kind(), ObjectType::Float);
  EXPECT_TRUE(Float::isInstance(Float(1.0)));
  EXPECT_FALSE(Float::isInstance(Integer(1)));
}

TEST(Float, KeepsNaNInfinityAndNegativeZero) {
  EXPECT_TRUE(std::isnan(Float(std::numeric_limits<double>::quiet_NaN()).value()));
  EXPECT_EQ(Float(std::numeric_limits<double>::infinity()).value(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(Float(-std::numeric_limits<double>::infinity()).value(), -std::numeric_limits<double>::infinity());
  const double nz = Float(-0.0).value();
  EXPECT_EQ(nz, 0.0);
  EXPECT_TRUE(std::signbit(nz));
}

// --- ByteArray ---------------------------------------------------------------------------

TEST(ByteArray, EmptyByteArraysHaveLengthZero) {
  const ByteArray a;
  EXPECT_EQ(a.length(), 0);
  EXPECT_TRUE(a.bytes().empty());
  EXPECT_TRUE(a.asChars().empty());
  EXPECT_EQ(a.kind(), ObjectType::ByteArray);
  const ByteArray b(nullptr, 0);
  EXPECT_EQ(b.length(), 0);
  const ByteArray c(std::span<const std::uint8_t>{});
  EXPECT_EQ(c.length(), 0);
  EXPECT_EQ(ByteArray::fromChars("").length(), 0);
}

TEST(ByteArray, KeepsBinaryBytes) {
  const std::uint8_t raw[] = {0x00, 0xFF, 0x7F, 0x80, 0x0A, 0x00};
  const ByteArray a(raw, sizeof raw);
  ASSERT_EQ(a.length(), 6);
  EXPECT_EQ(std::memcmp(a.data(), raw, sizeof raw), 0);
  EXPECT_EQ(a.bytes()[1], 0xFF);
  EXPECT_EQ(a.bytes()[5], 0x00);
  EXPECT_EQ(a.asChars(), std::string_view(reinterpret_cast<const char *>(raw), sizeof raw));
}

TEST(ByteArray, CopiesTheSourceBytes) {
  std::vector<std::uint8_t> source = {1, 2, 3};
  const ByteArray a(source);
  source[0] = 99;
  source.clear();
  ASSERT_EQ(a.length(), 3);
  EXPECT_EQ(a.bytes()[0], 1);
  EXPECT_EQ(a.bytes()[2], 3);
}

TEST(ByteArray, FromCharsKeepsEmbeddedNul) {
  const auto a = ByteArray::fromChars(std::string_view("a\0b", 3));
  EXPECT_EQ(a.length(), 3);
  EXPECT_EQ(a.asChars(), std::string_view("a\0b", 3));
}

// --- kind codes --------------------------------------------------------------------------

TEST(ObjectKind, CodesAreFixed) {
  EXPECT_EQ(code(ObjectType::Boolean), 0);
  EXPECT_EQ(code(ObjectType::ByteArray), 1);
  EXPECT_EQ(code(ObjectType::Callable), 2);
  EXPECT_EQ(code(ObjectType::Class), 3);
  EXPECT_EQ(code(ObjectType::Float), 4);
  EXPECT_EQ(code(ObjectType::List), 5);
  EXPECT_EQ(code(ObjectType::HashMap), 6);
  EXPECT_EQ(code(ObjectType::Instance), 7);
  EXPECT_EQ(code(ObjectType::Integer), 8);
  EXPECT_EQ(code(ObjectType::HashSet), 9);
  EXPECT_EQ(code(ObjectType::String), 10);
  EXPECT_EQ(code(ObjectType::Tuple), 11);
  EXPECT_EQ(code(ObjectType::Multimethod), 12);
  EXPECT_EQ(code(ObjectType::Computed), 13);
  EXPECT_EQ(code(ObjectType::External), 14);
  EXPECT_EQ(code(ObjectType::WeakReference), 15);
  EXPECT_EQ(code(ObjectType::None), 16);
  EXPECT_EQ(code(ObjectType::NotImplemented), 17);
}

TEST(ObjectKind, ValuesReportTheirCodes) {
  const Integer target(1);
  EXPECT_EQ(code(Boolean(true).kind()), 0);
  EXPECT_EQ(code(ByteArray::fromChars("x").kind()), 1);
  EXPECT_EQ(code(make_function([] { return 1; }).kind()), 2);
  EXPECT_EQ(code(Integer::getClass().kind()), 3);
  EXPECT_EQ(code(Float(1.5).kind()), 4);
  EXPECT_EQ(code(List().kind()), 5);
  EXPECT_EQ(code(HashMap().kind()), 6);
  EXPECT_EQ(code(Error("e").kind()), 7);
  EXPECT_EQ(code(Date(2000, 1, 1).kind()), 7);
  EXPECT_EQ(code(Integer(3).kind()), 8);
  EXPECT_EQ(code(HashSet().kind()), 9);
  EXPECT_EQ(code(String(u"s").kind()), 10);
  EXPECT_EQ(code(Tuple{}.kind()), 11);
  EXPECT_EQ(code(Computed<Integer>::create([] { return Integer(1); }).kind()), 13);
  EXPECT_EQ(code(External::fromValue(Integer(1)).kind()), 14);
  EXPECT_EQ(code(WeakReference(target).kind()), 15);
  EXPECT_EQ(code(None().kind()), 16);
  EXPECT_EQ(code(Any().kind()), 16);
  EXPECT_EQ(code(Undefined().kind()), 17);
}

// --- classes, cast and checkedCast ----------------------------------------------------------

TEST(ScalarClass, ClassesAreNamedInTheKestModule) {
  EXPECT_EQ(Integer::getClass().name().toUtf8(), "Integer");
  EXPECT_EQ(qualname(Integer::getClass()).toUtf8(), "kest.Integer");
  EXPECT_EQ(qualname(Float::getClass()).toUtf8(), "kest.Float");
  EXPECT_EQ(qualname(Boolean::getClass()).toUtf8(), "kest.Boolean");
  EXPECT_EQ(qualname(ByteArray::getClass()).toUtf8(), "kest.ByteArray");
  EXPECT_EQ(qualname(None::getClass()).toUtf8(), "kest.None");
  EXPECT_EQ(qualname(Undefined::getClass()).toUtf8(), "kest.Undefined");
  EXPECT_TRUE(Integer::getClass().isSame(Integer::getClass()));
  EXPECT_TRUE(raw_class_of(Integer(1)).isSame(Integer::getClass()));
  EXPECT_TRUE(raw_class_of(Any()).isSame(None::getClass()));
  EXPECT_TRUE(Integer(1).getType().isSame(Integer::getType()));
}

TEST(ScalarClass, ScalarsAreImmutable) {
  EXPECT_TRUE(I_Immutable::isInstance(Integer(1)));
  EXPECT_TRUE(I_Immutable::isInstance(Float(1.0)));
  EXPECT_TRUE(I_Immutable::isInstance(Boolean(true)));
  EXPECT_TRUE(I_Immutable::isInstance(ByteArray()));
  EXPECT_TRUE(I_Immutable::isInstance(None()));
  EXPECT_FALSE(I_Immutable::isInstance(List()));
}

TEST(Cast, CastGivesTheHandleOrNone) {
  const Any i = Integer(9);
  auto ok = Integer::cast(i);
  ASSERT_TRUE(ok.is<Integer>());
  EXPECT_EQ(ok.as<Integer>().value(), 9);
  EXPECT_TRUE(ok.isSame(i));

  auto wrong = Integer::cast(String(u"9"));
  EXPECT_FALSE(wrong.is<Integer>());
  EXPECT_TRUE(wrong.is<None>());
  EXPECT_FALSE(wrong.isError());

  EXPECT_TRUE(Float::cast(Integer(1)).is<None>());
  EXPECT_TRUE(String::cast(String(u"s")).is<String>());
}

TEST(Cast, CheckedCastOfTheRightClassGivesTheValue) {
  const Any f = Float(2.5);
  auto r = Float::checkedCast(f);
  ASSERT_TRUE(r.is<Float>());
  EXPECT_FALSE(r.isError());
  EXPECT_EQ(r.as<Float>().value(), 2.5);
  EXPECT_TRUE(r.isSame(f));
}

TEST(Cast, CheckedCastOfAWrongClassNamesBothClasses) {
  auto r = Integer::checkedCast(String(u"42"));
  ASSERT_TRUE(r.isError());
  EXPECT_FALSE(r.is<Integer>());
  const auto message = r.as<Error>().message().toUtf8();
  EXPECT_NE(message.find("kest.String"), std::string::npos) << message;
  EXPECT_NE(message.find("Integer"), std::string::npos) << message;
  EXPECT_EQ(message, "Unable to cast a value of class 'kest.String' to 'Integer'.");

  auto r2 = ByteArray::checkedCast(Float(1.0));
  ASSERT_TRUE(r2.isError());
  const auto message2 = r2.as<Error>().message().toUtf8();
  EXPECT_NE(message2.find("kest.Float"), std::string::npos) << message2;
  EXPECT_NE(message2.find("ByteArray"), std::string::npos) << message2;
}

TEST(Cast, CheckedCastOfNothingNamesNone) {
  auto r = Integer::checkedCast(Any());
  ASSERT_TRUE(r.isError());
  EXPECT_NE(r.as<Error>().message().toUtf8().find("kest.None"), std::string::npos);
}

TEST(Cast, UnionGetGivesAnOptional) {
  Union<Integer, String> u = String(u"text");
  EXPECT_TRUE(u.is<String>());
  EXPECT_FALSE(u.is<Integer>());
  EXPECT_FALSE(u.get<Integer>().has_value());
  ASSERT_TRUE(u.get<String>().has_value());
  EXPECT_EQ(u.get<String>()->toUtf8(), "text");
  EXPECT_TRUE(u.is<Any>());
}

TEST(Scalars, MakingAndDroppingValuesDoesNotLeak) {
  (void)Integer::getClass();
  (void)Float::getClass();
  (void)ByteArray::getClass();
  const auto before = internal::object_value::live_count();
  {
    std::vector<Any> values;
    for (int i = 0; i < 100; ++i) {
      values.push_back(Integer(i));
      values.push_back(Integer::fromUnsigned(static_cast<std::uint64_t>(i)));
      values.push_back(Float(i * 0.5));
      values.push_back(ByteArray::fromChars("bytes"));
      values.push_back(Boolean(i % 2 == 0));
      values.push_back(None());
    }
    EXPECT_EQ(internal::object_value::live_count(), before + 400);
  }
  EXPECT_EQ(internal::object_value::live_count(), before);
}
