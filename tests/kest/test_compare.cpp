// Host comparison, hashing, identity and coercion.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

using namespace kest;

namespace {

constexpr int less = -1, equal = 0, greater = 1, unordered = 2;

int cmp(const Any &a, const Any &b) { return compare_objects(a, b).value(); }

Decimal dec(const char *text) {
  auto r = Decimal::fromString(text);
  EXPECT_TRUE(r.is<Decimal>()) << text;
  return r.as<Decimal>();
}

std::string message_of(const Any &error) {
  EXPECT_TRUE(Error::isInstance(error));
  return Error::isInstance(error) ? Error::unsafeFrom(error).message().toUtf8() : std::string();
}

Any value_of(const Result<Any> &r) { return internal::result_unwrap_lazy(r); }

const double k_nan = std::numeric_limits<double>::quiet_NaN();
const double k_inf = std::numeric_limits<double>::infinity();

/// A plain class declared at run time, with no comparison of its own.
Class_Generic plain_class() {
  static const Class_Generic *cls = [] {
    auto r = internal::defclass_impl({internal::class_builder_base::name_entry(String(u"PlainComparable"))});
    EXPECT_FALSE(r.isError());
    return new Class_Generic(r.as<Class_Generic>());
  }();
  return *cls;
}

/// A class whose "$__compare__" orders instances by their field "rank", and
/// whose "$__hash__" hashes by it.
Class_Generic ranked_class() {
  using B = internal::class_builder_base;
  static const Class_Generic *cls = [] {
    auto rank = [](const Any &v) -> std::int64_t {
      auto r = internal::result_unwrap_lazy(v.fieldValue(meta_field_untyped("rank")));
      return Integer::isInstance(r) ? Integer::unsafeFrom(r).value() : 0;
    };
    auto r = internal::defclass_impl({
        B::name_entry(String(u"Ranked")),
        B::field_entry(String(u"rank"), 0, &Integer::getType),
        B::method_entry(meta_method_untyped("$__compare__"), make_method([rank](Any self, Any other) -> Result<Any> {
                          if (!other.fieldValue(meta_field_untyped("rank")).is<Integer>())
                            return Error("Ranked compares only with Ranked.");
                          const auto a = rank(self), b = rank(other);
                          return Integer(a < b ? -1 : a > b ? 1 : 0);
                        })),
        B::method_entry(meta_method_untyped("$__hash__"), make_method([rank](Any self) { return Integer(rank(self)); })),
    });
    EXPECT_FALSE(r.isError());
    return new Class_Generic(r.as<Class_Generic>());
  }();
  return *cls;
}

/// A class whose "$__compare__" also compares its "value" with plain integers.
Class_Generic number_like_class() {
  using B = internal::class_builder_base;
  static const Class_Generic *cls = [] {
    auto r = internal::defclass_impl({
        B::name_entry(String(u"NumberLike")),
        B::field_entry(String(u"value"), 0, &Integer::getType),
        B::method_entry(meta_method_untyped("$__compare__"), make_method([](Any self, Any other) -> Result<Any> {
                          auto mine = Integer::unsafeFrom(value_of(self.fieldValue(meta_field_untyped("value")))).value();
                          auto theirs = Integer::isInstance(other)
                                            ? Any(other)
                                            : value_of(other.fieldValue(meta_field_untyped("value")));
                          if (!Integer::isInstance(theirs))
                            return Integer(2);
                          const auto n = Integer::unsafeFrom(theirs).value();
                          return Integer(mine < n ? -1 : mine > n ? 1 : 0);
                        })),
    });
    EXPECT_FALSE(r.isError());
    return new Class_Generic(r.as<Class_Generic>());
  }();
  return *cls;
}

Any number_like(std::int64_t value) {
  auto instance = value_of(number_like_class().allocateInstance());
  EXPECT_FALSE(instance.setFieldValue(meta_field_untyped("value"), Integer(value)).isError());
  return instance;
}

Any ranked(std::int64_t rank) {
  auto instance = value_of(ranked_class().allocateInstance());
  EXPECT_FALSE(instance.setFieldValue(meta_field_untyped("rank"), Integer(rank)).isError());
  return instance;
}

} // namespace

// --- Ordering ----------------------------------------------------------------------------

TEST(Ordering, NamedOrderingsHaveTheirNumbers) {
  EXPECT_EQ(Ordering::less().value(), -1);
  EXPECT_EQ(Ordering::equal().value(), 0);
  EXPECT_EQ(Ordering::greater().value(), 1);
  EXPECT_EQ(Ordering::unordered().value(), 2);
  EXPECT_TRUE(Ordering::unordered().isUnordered());
  EXPECT_FALSE(Ordering::less().isUnordered());
  EXPECT_TRUE(Integer::isInstance(Ordering::greater()));
}

TEST(Ordering, FromSignMapsTheSign) {
  EXPECT_EQ(Ordering::fromSign(-5).value(), -1);
  EXPECT_EQ(Ordering::fromSign(-1).value(), -1);
  EXPECT_EQ(Ordering::fromSign(0).value(), 0);
  EXPECT_EQ(Ordering::fromSign(1).value(), 1);
  EXPECT_EQ(Ordering::fromSign(std::numeric_limits<std::int64_t>::max()).value(), 1);
  EXPECT_EQ(Ordering::fromSign(std::numeric_limits<std::int64_t>::min()).value(), -1);
  EXPECT_EQ(Ordering::fromSign(2).value(), 1); // never unordered
}

TEST(Ordering, IsAnIntegerFromMinusOneToTwo) {
  EXPECT_TRUE(Ordering::isInstance(Integer(-1)));
  EXPECT_TRUE(Ordering::isInstance(Integer(2)));
  EXPECT_FALSE(Ordering::isInstance(Integer(3)));
  EXPECT_FALSE(Ordering::isInstance(Integer(-2)));
  EXPECT_FALSE(Ordering::isInstance(Float(0.0)));
}

// --- basic comparisons -----------------------------------------------------------------------

TEST(Compare, IntegersLessEqualGreater) {
  EXPECT_EQ(cmp(Integer(1), Integer(2)), less);
  EXPECT_EQ(cmp(Integer(2), Integer(2)), equal);
  EXPECT_EQ(cmp(Integer(3), Integer(2)), greater);
  EXPECT_EQ(cmp(Integer(-5), Integer(3)), less);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::min()), Integer(std::numeric_limits<std::int64_t>::max())),
            less);
}

TEST(Compare, StringsCompareByCodeUnits) {
  EXPECT_EQ(cmp(String(u"apple"), String(u"banana")), less);
  EXPECT_EQ(cmp(String(u"same"), String::fromUtf8("same")), equal);
  EXPECT_EQ(cmp(String(u"b"), String(u"abc")), greater);
  EXPECT_EQ(cmp(String(u"ab"), String(u"abc")), less);
  EXPECT_EQ(cmp(String(), String(u"a")), less);
  EXPECT_EQ(cmp(String(u"Z"), String(u"a")), less);
}

TEST(Compare, BooleansAndByteArrays) {
  EXPECT_EQ(cmp(Boolean(false), Boolean(true)), less);
  EXPECT_EQ(cmp(Boolean(true), Boolean(true)), equal);
  EXPECT_EQ(cmp(ByteArray::fromChars("abc"), ByteArray::fromChars("abd")), less);
  EXPECT_EQ(cmp(ByteArray::fromChars("abc"), ByteArray::fromChars("abc")), equal);
  EXPECT_EQ(cmp(ByteArray::fromChars("b"), ByteArray::fromChars("abc")), greater);
  EXPECT_EQ(cmp(ByteArray(), ByteArray::fromChars(std::string_view("\0", 1))), less);
}

TEST(Compare, NoneEqualsNoneAndTheEmptyHandle) {
  EXPECT_EQ(cmp(None(), None()), equal);
  EXPECT_EQ(cmp(None(), Any()), equal);
  EXPECT_EQ(cmp(Any(), Any()), equal);
  EXPECT_EQ(cmp(None(), Integer(0)), unordered);
  EXPECT_EQ(cmp(Undefined(), Undefined()), equal);
}

TEST(Compare, DatesAndTimes) {
  EXPECT_EQ(cmp(Date(2024, 2, 28), Date(2024, 2, 29)), less);
  EXPECT_EQ(cmp(Date(2024, 2, 29), Date(2024, 2, 29)), equal);
  EXPECT_EQ(cmp(Time(10, 0, 0), Time(9, 59, 59, 999999)), greater);
  EXPECT_EQ(cmp(Time(10, 0, 0, 0, 3600, String()), Time(9, 0, 0, 0, 0, String())), equal);
  EXPECT_EQ(cmp(Time(10, 0, 0, 0, 3600, String()), Time(9, 30, 0, 0, 0, String())), less);
  EXPECT_EQ(cmp(DateTime(Date(2024, 1, 1), Time(0, 30, 0, 0, 3600, String())),
                DateTime(Date(2023, 12, 31), Time(23, 30, 0, 0, 0, String()))),
            equal);
  EXPECT_EQ(cmp(DateTime(Date(2024, 1, 2), Time(0, 0, 0)), DateTime(Date(2024, 1, 1), Time(23, 59, 59))), greater);
}

// --- unordered --------------------------------------------------------------------------------

TEST(Compare, NaNIsUnorderedAgainstAnything) {
  const Float a(k_nan), b(k_nan);
  EXPECT_EQ(cmp(a, b), unordered);
  EXPECT_EQ(cmp(a, Float(1.0)), unordered);
  EXPECT_EQ(cmp(Float(1.0), a), unordered);
  EXPECT_EQ(cmp(a, Float(k_inf)), unordered);
  EXPECT_EQ(cmp(a, Integer(0)), unordered);
  EXPECT_EQ(cmp(Integer(0), a), unordered);
  EXPECT_EQ(cmp(a, Integer::fromUnsigned(5)), unordered);
  EXPECT_EQ(cmp(a, dec("1")), unordered);
  EXPECT_EQ(cmp(dec("NaN"), Integer(1)), unordered);
  EXPECT_EQ(cmp(dec("NaN"), dec("NaN")), unordered);
  EXPECT_EQ(cmp(a, String(u"nan")), unordered);
}

TEST(Compare, ValuesOfDifferentKindsAreUnordered) {
  EXPECT_EQ(cmp(String(u"1"), Integer(1)), unordered);
  EXPECT_EQ(cmp(Integer(1), String(u"1")), unordered);
  EXPECT_EQ(cmp(Boolean(true), Integer(1)), unordered);
  EXPECT_EQ(cmp(List{Integer(1)}, Tuple{Integer(1)}), unordered);
  EXPECT_EQ(cmp(ByteArray::fromChars("a"), String(u"a")), unordered);
  EXPECT_EQ(cmp(Date(2024, 1, 1), Time(0, 0, 0)), unordered);
  EXPECT_EQ(cmp(Integer::getClass(), Float::getClass()), unordered);
}

TEST(Compare, NaiveAndAwareTimesAreUnordered) {
  const Time naive(10, 0, 0);
  const Time aware(10, 0, 0, 0, 0, String(u"UTC"));
  EXPECT_EQ(cmp(naive, aware), unordered);
  EXPECT_EQ(cmp(aware, naive), unordered);
  EXPECT_EQ(cmp(DateTime(Date(2024, 1, 1), naive), DateTime(Date(2024, 1, 1), aware)), unordered);
}

TEST(Compare, DistinctInstancesOfAPlainClassAreUnordered) {
  auto a = value_of(plain_class().allocateInstance());
  auto b = value_of(plain_class().allocateInstance());
  EXPECT_EQ(cmp(a, b), unordered);
  EXPECT_EQ(cmp(a, a), equal); // an object is equal to itself
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a == a);
}

TEST(Compare, AValueIsEqualToItselfByIdentity) {
  // Identity comes first, so one NaN object equals itself (as Python's
  // containers treat it), while two NaN objects are unordered.
  const Float n(k_nan);
  EXPECT_EQ(cmp(n, n), equal);
  EXPECT_EQ(cmp(n, Float(k_nan)), unordered);
}

// --- exact numeric comparison ----------------------------------------------------------------------

TEST(Compare, IntegerAndFloatAreComparedExactly) {
  const std::int64_t two53 = std::int64_t{1} << 53;
  // 2^53 + 1 has no double; converting it would round to 2^53 and compare equal.
  EXPECT_EQ(cmp(Integer(two53 + 1), Float(9007199254740992.0)), greater);
  EXPECT_EQ(cmp(Float(9007199254740992.0), Integer(two53 + 1)), less);
  EXPECT_EQ(cmp(Integer(two53), Float(9007199254740992.0)), equal);
  EXPECT_EQ(cmp(Integer(2), Float(2.0)), equal);
  EXPECT_EQ(cmp(Integer(2), Float(2.5)), less);
  EXPECT_EQ(cmp(Integer(2), Float(1.5)), greater);
  EXPECT_EQ(cmp(Integer(-2), Float(-2.5)), greater);
  EXPECT_EQ(cmp(Integer(-2), Float(-1.5)), less);
  EXPECT_EQ(cmp(Integer(0), Float(-0.0)), equal);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::max()), Float(9223372036854775808.0)), less);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::min()), Float(-9223372036854775808.0)), equal);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::min()), Float(-1e19)), greater);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::max()), Float(k_inf)), less);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::min()), Float(-k_inf)), greater);
}

TEST(Compare, UnsignedAndSignedIntegersAreComparedExactly) {
  const auto max = Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(cmp(max, Integer(-1)), greater);
  EXPECT_EQ(cmp(Integer(-1), max), less);
  EXPECT_EQ(cmp(Integer::fromUnsigned(5), Integer(5)), equal);
  EXPECT_EQ(cmp(Integer::fromUnsigned(1ull << 63), Integer(std::numeric_limits<std::int64_t>::max())), greater);
  EXPECT_EQ(cmp(Integer(std::numeric_limits<std::int64_t>::min()), Integer::fromUnsigned(0)), less);
  EXPECT_EQ(cmp(max, Float(18446744073709551616.0)), less);
  EXPECT_EQ(cmp(max, Float(1e19)), greater);
  EXPECT_EQ(cmp(Integer::fromUnsigned(3), Float(-0.5)), greater);
}

TEST(Compare, DecimalIsComparedExactly) {
  EXPECT_EQ(cmp(dec("1.10"), Float(1.1)), less); // the double 1.1 is a little above 1.1
  EXPECT_EQ(cmp(Float(1.1), dec("1.10")), greater);
  EXPECT_EQ(cmp(dec("1.5"), Float(1.5)), equal);
  EXPECT_EQ(cmp(dec("2.00"), Integer(2)), equal);
  EXPECT_EQ(cmp(Integer(2), dec("2.00")), equal);
  EXPECT_EQ(cmp(dec("2.01"), Integer(2)), greater);
  EXPECT_EQ(cmp(dec("1.10"), dec("1.1")), equal);
  EXPECT_EQ(cmp(dec("18446744073709551615"), Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())),
            equal);
  EXPECT_EQ(cmp(dec("18446744073709551616"), Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())),
            greater);
  EXPECT_EQ(cmp(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max()), dec("-1")), greater);
  EXPECT_EQ(cmp(dec("Infinity"), Float(k_inf)), equal);
  EXPECT_EQ(cmp(dec("-Infinity"), Integer(std::numeric_limits<std::int64_t>::min())), less);
}

// --- containers ---------------------------------------------------------------------------------

TEST(Compare, ListsAndTuplesCompareLexicographically) {
  EXPECT_EQ(cmp(List{Integer(1), Integer(2)}, List{Integer(1), Integer(3)}), less);
  EXPECT_EQ(cmp(List{Integer(1), Integer(2)}, List{Integer(1), Integer(2)}), equal);
  EXPECT_EQ(cmp(List{Integer(1), Integer(2)}, List{Integer(1)}), greater);
  EXPECT_EQ(cmp(List{}, List{Integer(0)}), less);
  EXPECT_EQ(cmp(List{Integer(2)}, List{Integer(1), Integer(9)}), greater);
  EXPECT_EQ(cmp(Tuple{Integer(1), String(u"b")}, Tuple{Integer(1), String(u"a")}), greater);
  EXPECT_EQ(cmp(Tuple{Integer(1), Float(2.0)}, Tuple{Float(1.0), Integer(2)}), equal);
  EXPECT_EQ(cmp(Tuple{}, Tuple{}), equal);
  EXPECT_EQ(cmp(Tuple{Tuple{Integer(1)}}, Tuple{Tuple{Integer(2)}}), less);
}

TEST(Compare, SequencesWithUnorderedElementsAreUnordered) {
  EXPECT_EQ(cmp(List{Integer(1), String(u"x")}, List{Integer(1), Integer(2)}), unordered);
  EXPECT_EQ(cmp(Tuple{Float(k_nan)}, Tuple{Float(k_nan)}), unordered);
  // An earlier difference decides before an unordered element is reached.
  EXPECT_EQ(cmp(List{Integer(0), String(u"x")}, List{Integer(1), Integer(2)}), less);
}

TEST(Compare, MapsAreEqualOrUnordered) {
  const HashMap a, b, c;
  ASSERT_FALSE(a.setChecked(String(u"x"), Integer(1)).isError());
  ASSERT_FALSE(a.setChecked(String(u"y"), Integer(2)).isError());
  ASSERT_FALSE(b.setChecked(String(u"y"), Float(2.0)).isError()); // other order, equal values
  ASSERT_FALSE(b.setChecked(String(u"x"), Integer(1)).isError());
  ASSERT_FALSE(c.setChecked(String(u"x"), Integer(1)).isError());
  EXPECT_EQ(cmp(a, b), equal);
  EXPECT_EQ(cmp(a, c), unordered);
  EXPECT_EQ(cmp(c, a), unordered);
  ASSERT_FALSE(c.setChecked(String(u"y"), Integer(3)).isError());
  EXPECT_EQ(cmp(a, c), unordered);
  EXPECT_EQ(cmp(HashMap(), HashMap()), equal);
}

TEST(Compare, SetsAreEqualOrUnordered) {
  const HashSet a, b, c;
  for (int i : {1, 2, 3})
    ASSERT_FALSE(a.insert(Integer(i)).isError());
  for (int i : {3, 2, 1})
    ASSERT_FALSE(b.insert(Integer(i)).isError());
  for (int i : {1, 2})
    ASSERT_FALSE(c.insert(Integer(i)).isError());
  EXPECT_EQ(cmp(a, b), equal);
  EXPECT_EQ(cmp(a, c), unordered); // a subset is not "greater"
  EXPECT_EQ(cmp(c, a), unordered);
  ASSERT_FALSE(c.insert(Integer(4)).isError());
  EXPECT_EQ(cmp(a, c), unordered);
}

// --- operators on Any ---------------------------------------------------------------------------

TEST(Compare, EqualityOperatorUsesTheHostComparison) {
  EXPECT_TRUE(Any(Integer(2)) == Any(Float(2.0)));
  EXPECT_FALSE(Any(Integer(2)) == Any(Integer(3)));
  EXPECT_FALSE(Any(Float(k_nan)) == Any(Float(k_nan)));
  EXPECT_TRUE(Any(String(u"a")) == Any(String(u"a")));
  EXPECT_FALSE(Any(String(u"1")) == Any(Integer(1)));
  EXPECT_TRUE(Any() == Any(None()));
}

TEST(Compare, ThreeWayOperatorGivesPartialOrdering) {
  EXPECT_EQ(Any(Integer(1)) <=> Any(Integer(2)), std::partial_ordering::less);
  EXPECT_EQ(Any(Integer(2)) <=> Any(Float(2.0)), std::partial_ordering::equivalent);
  EXPECT_EQ(Any(Float(3.0)) <=> Any(Integer(2)), std::partial_ordering::greater);
  EXPECT_EQ(Any(Float(k_nan)) <=> Any(Integer(2)), std::partial_ordering::unordered);
  EXPECT_EQ(Any(String(u"a")) <=> Any(Integer(2)), std::partial_ordering::unordered);
  EXPECT_TRUE(Any(Integer(1)) < Any(Integer(2)));
  EXPECT_TRUE(Any(Integer(3)) >= Any(Float(3.0)));
  EXPECT_FALSE(Any(Float(k_nan)) < Any(Integer(2)));
  EXPECT_FALSE(Any(Float(k_nan)) >= Any(Integer(2)));
}

TEST(Compare, ComputedAndExternalValuesAreComparedByWhatTheyHold) {
  auto lazy = Computed<Integer>::create([] { return Integer(5); });
  EXPECT_EQ(cmp(lazy, Integer(5)), equal);
  EXPECT_EQ(cmp(External::fromValue(String(u"b")), String(u"a")), greater);
}

// --- declared comparison ------------------------------------------------------------------------

TEST(Compare, DeclaredCompareHookOrdersInstances) {
  EXPECT_EQ(cmp(ranked(1), ranked(2)), less);
  EXPECT_EQ(cmp(ranked(2), ranked(2)), equal);
  EXPECT_EQ(cmp(ranked(3), ranked(2)), greater);
  EXPECT_TRUE(ranked(4) == ranked(4));
}

TEST(Compare, AFailingCompareHookIsUnorderedButKeepsItsError) {
  auto r = internal::compare_objects_value(ranked(1), Integer(1));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(message_of(r), "Ranked compares only with Ranked.");
  EXPECT_EQ(cmp(ranked(1), Integer(1)), unordered);
  // Inside a sequence the error is kept too.
  auto inList = internal::compare_objects_value(List{ranked(1)}, List{Integer(1)});
  ASSERT_TRUE(inList.isError());
  EXPECT_EQ(message_of(inList), "Ranked compares only with Ranked.");
}

TEST(Compare, AHookOnTheRightOperandIsUsedReversed) {
  EXPECT_EQ(cmp(number_like(5), Integer(3)), greater);
  EXPECT_EQ(cmp(Integer(3), number_like(5)), less);
  EXPECT_EQ(cmp(Integer(5), number_like(5)), equal);
  EXPECT_EQ(cmp(Integer(7), number_like(5)), greater);
  EXPECT_EQ(cmp(String(u"x"), number_like(5)), unordered);
  EXPECT_TRUE(Any(Integer(3)) < number_like(5));
  // Only the left hook is asked when both operands have one.
  EXPECT_EQ(cmp(number_like(1), number_like(2)), less);
  EXPECT_EQ(cmp(number_like(2), number_like(1)), greater);
  // A failing hook on the right keeps its error too.
  auto r = internal::compare_objects_value(Integer(1), ranked(1));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(message_of(r), "Ranked compares only with Ranked.");
}

// --- hashing -----------------------------------------------------------------------------------

TEST(Hash, EqualNumbersOfAnyKindHashEqual) {
  const auto h = hash_of(Integer(2));
  EXPECT_EQ(hash_of(Float(2.0)), h);
  EXPECT_EQ(hash_of(dec("2.00")), h);
  EXPECT_EQ(hash_of(dec("2")), h);
  EXPECT_EQ(hash_of(dec("0.2E1")), h);
  EXPECT_EQ(hash_of(Integer::fromUnsigned(2)), h);
  EXPECT_EQ(hash_of(Float(0.5)), hash_of(dec("0.500")));
  EXPECT_EQ(hash_of(Float(-1.25)), hash_of(dec("-1.25")));
  EXPECT_EQ(hash_of(Integer(-7)), hash_of(Float(-7.0)));
  EXPECT_EQ(hash_of(Integer(0)), hash_of(Float(-0.0)));
  EXPECT_EQ(hash_of(Float(1e20)), hash_of(dec("1E+20")));
  EXPECT_EQ(hash_of(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())),
            hash_of(dec("18446744073709551615")));
  EXPECT_NE(hash_of(Integer(2)), hash_of(Integer(3)));
}

TEST(Hash, NumbersHashLikePython) {
  // hash() in CPython on 64-bit platforms.
  EXPECT_EQ(hash_of(Integer(1)), 1);
  EXPECT_EQ(hash_of(Integer(-1)), -2);
  EXPECT_EQ(hash_of(Float(0.5)), 1152921504606846976);
  EXPECT_EQ(hash_of(Float(k_inf)), 314159);
  EXPECT_EQ(hash_of(Float(-k_inf)), -314159);
  EXPECT_EQ(hash_of(Integer(std::int64_t{1} << 61)), 1); // 2^61 mod (2^61 - 1)
}

TEST(Hash, EqualStringsAndTuplesHashEqual) {
  EXPECT_EQ(hash_of(String(u"text")), hash_of(String::fromUtf8("text")));
  EXPECT_EQ(hash_of(ByteArray::fromChars("b")), hash_of(ByteArray::fromChars("b")));
  EXPECT_EQ(hash_of(Tuple{Integer(1), String(u"a")}), hash_of(Tuple{Float(1.0), String(u"a")}));
  EXPECT_NE(hash_of(Tuple{Integer(1), Integer(2)}), hash_of(Tuple{Integer(2), Integer(1)}));
  EXPECT_EQ(hash_of(Tuple{}), hash_of(Tuple{}));
  EXPECT_EQ(hash_of(None()), hash_of(Any()));
  EXPECT_NE(hash_of(Boolean(true)), hash_of(Boolean(false)));
}

TEST(Hash, EqualDatesAndTimesHashEqual) {
  EXPECT_EQ(hash_of(Date(2024, 2, 29)), hash_of(Date(2024, 2, 29)));
  EXPECT_NE(hash_of(Date(2024, 2, 29)), hash_of(Date(2024, 3, 1)));
  const Time a(10, 0, 0, 0, 3600, String(u"CET"));
  const Time b(9, 0, 0, 0, 0, String(u"UTC"));
  ASSERT_EQ(cmp(a, b), equal);
  EXPECT_EQ(hash_of(a), hash_of(b));
  const DateTime x(Date(2024, 1, 1), Time(0, 30, 0, 0, 3600, String()));
  const DateTime y(Date(2023, 12, 31), Time(23, 30, 0, 0, 0, String()));
  ASSERT_EQ(cmp(x, y), equal);
  EXPECT_EQ(hash_of(x), hash_of(y));
}

TEST(Hash, MutableObjectsHashByIdentity) {
  const List a, b;
  ASSERT_EQ(cmp(a, b), equal);
  EXPECT_NE(hash_of(a), hash_of(b));
  EXPECT_EQ(hash_of(a), object_id(a));
  EXPECT_EQ(hash_of(a), hash_of(Any(a)));
  const HashMap m;
  EXPECT_EQ(hash_of(m), object_id(m));
  auto instance = value_of(plain_class().allocateInstance());
  EXPECT_EQ(hash_of(instance), object_id(instance));
}

TEST(Hash, DeclaredHashHookIsUsed) {
  EXPECT_EQ(hash_of(ranked(17)), 17);
  EXPECT_EQ(hash_of(ranked(17)), hash_of(ranked(17)));
}

TEST(Hash, StdHashOfAnyAgreesWithHashOf) {
  EXPECT_EQ(std::hash<Any>()(Integer(2)), std::hash<Any>()(Float(2.0)));
  EXPECT_EQ(std::hash<Any>()(String(u"s")), static_cast<std::size_t>(hash_of(String(u"s"))));
}

TEST(Hash, ObjectIdIsTheAddress) {
  const Integer i(1);
  const Any copy = i;
  EXPECT_EQ(object_id(i), object_id(copy));
  EXPECT_EQ(object_id(i), static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(i.get())));
  EXPECT_NE(object_id(Integer(1)), object_id(i));
  EXPECT_EQ(object_id(Any()), 0);
}

// --- coercion ----------------------------------------------------------------------------------

TEST(Coerce, AValueOfTheTargetTypeIsReturnedAsItIs) {
  const Integer i(5);
  auto r = coerce(i, Integer::getType());
  ASSERT_FALSE(r.isError());
  EXPECT_TRUE(r.isSame(i));
  EXPECT_TRUE(coerce(i, Type()).isSame(i));
  const BadArgument bad("x");
  EXPECT_TRUE(coerce(bad, Error::getType()).isSame(bad));
}

TEST(Coerce, IntegerAndFloatConvertBothWays) {
  auto f = coerce(Integer(3), Float::getType());
  ASSERT_TRUE(Float::isInstance(f));
  EXPECT_EQ(Float::unsafeFrom(f).value(), 3.0);
  auto big = coerce(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max()), Float::getType());
  EXPECT_EQ(Float::unsafeFrom(big).value(), 18446744073709551616.0);
  auto i = coerce(Float(4.0), Integer::getType());
  ASSERT_TRUE(Integer::isInstance(i));
  EXPECT_EQ(Integer::unsafeFrom(i).value(), 4);
  EXPECT_EQ(Integer::unsafeFrom(coerce(Float(-0.0), Integer::getType())).value(), 0);
  // A fraction, an infinity or a NaN has no integer.
  EXPECT_TRUE(coerce(Float(4.5), Integer::getType()).isError());
  EXPECT_TRUE(coerce(Float(k_inf), Integer::getType()).isError());
  EXPECT_TRUE(coerce(Float(k_nan), Integer::getType()).isError());
  EXPECT_TRUE(coerce(Float(1e19), Integer::getType()).isError());
  EXPECT_EQ(Integer::unsafeFrom(coerce(Float(-9223372036854775808.0), Integer::getType())).value(),
            std::numeric_limits<std::int64_t>::min());
}

TEST(Coerce, StringsParseAsNumbers) {
  auto i = coerce(String(u"42"), Integer::getType());
  ASSERT_TRUE(Integer::isInstance(i));
  EXPECT_EQ(Integer::unsafeFrom(i).value(), 42);
  EXPECT_EQ(Integer::unsafeFrom(coerce(String(u" -17 "), Integer::getType())).value(), -17);
  auto f = coerce(String(u"2.5"), Float::getType());
  ASSERT_TRUE(Float::isInstance(f));
  EXPECT_EQ(Float::unsafeFrom(f).value(), 2.5);
  auto d = coerce(String(u"1.10"), Decimal::getType());
  ASSERT_TRUE(Decimal::isInstance(d));
  EXPECT_EQ(Decimal::unsafeFrom(d).toUtf8(), "1.10");
}

TEST(Coerce, TextThatIsNoNumberIsABadArgument) {
  auto r = coerce(String(u"x"), Integer::getType());
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(message_of(r), "Unable to coerce a value of class 'kest.String' to 'kest.Integer'.");
  EXPECT_TRUE(coerce(String(u""), Integer::getType()).isError());
  EXPECT_TRUE(coerce(String(u"12abc"), Integer::getType()).isError());
  EXPECT_TRUE(coerce(String(u"99999999999999999999"), Integer::getType()).isError());
  EXPECT_TRUE(coerce(String(u"1.5"), Integer::getType()).isError());
  EXPECT_TRUE(coerce(String(u"abc"), Float::getType()).isError());
  EXPECT_TRUE(coerce(String(u"abc"), Decimal::getType()).isError());
}

TEST(Coerce, NumbersAndDatesBecomeText) {
  auto text = [](const Any &v) {
    auto r = coerce(v, String::getType());
    EXPECT_TRUE(String::isInstance(r)) << display(v).toUtf8();
    return String::isInstance(r) ? String::unsafeFrom(r).toUtf8() : std::string();
  };
  EXPECT_EQ(text(Integer(42)), "42");
  EXPECT_EQ(text(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
  EXPECT_EQ(text(Float(2.0)), "2.0");
  EXPECT_EQ(text(Float(0.1)), "0.1");
  EXPECT_EQ(text(Boolean(true)), "true");
  EXPECT_EQ(text(dec("1.10")), "1.10");
  EXPECT_EQ(text(Date(2024, 2, 29)), "2024-02-29");
  EXPECT_EQ(text(Time(8, 5, 3)), "08:05:03");
  EXPECT_EQ(text(DateTime(Date(2024, 2, 29), Time(8, 5, 3))), "2024-02-29 08:05:03");
  // Containers have no text form by coercion.
  EXPECT_TRUE(coerce(List(), String::getType()).isError());
}

TEST(Coerce, BooleansFromNumbersAndNumbersFromBooleans) {
  EXPECT_TRUE(Boolean::unsafeFrom(coerce(Integer(3), Boolean::getType())).value());
  EXPECT_FALSE(Boolean::unsafeFrom(coerce(Float(0.0), Boolean::getType())).value());
  EXPECT_FALSE(Boolean::unsafeFrom(coerce(dec("0.0"), Boolean::getType())).value());
  EXPECT_TRUE(coerce(String(u"true"), Boolean::getType()).isError());
  EXPECT_EQ(Integer::unsafeFrom(coerce(Boolean(true), Integer::getType())).value(), 1);
  EXPECT_EQ(Float::unsafeFrom(coerce(Boolean(false), Float::getType())).value(), 0.0);
}

TEST(Coerce, DecimalsAndOtherNumbers) {
  auto fromInt = coerce(Integer(-12), Decimal::getType());
  ASSERT_TRUE(Decimal::isInstance(fromInt));
  EXPECT_EQ(Decimal::unsafeFrom(fromInt).toUtf8(), "-12");
  auto fromUnsigned = coerce(Integer::fromUnsigned(std::numeric_limits<std::uint64_t>::max()), Decimal::getType());
  ASSERT_TRUE(Decimal::isInstance(fromUnsigned));
  EXPECT_EQ(Decimal::unsafeFrom(fromUnsigned).toUtf8(), "18446744073709551615");
  auto fromBoolean = coerce(Boolean(true), Decimal::getType());
  ASSERT_TRUE(Decimal::isInstance(fromBoolean));
  EXPECT_EQ(Decimal::unsafeFrom(fromBoolean).toUtf8(), "1");
  auto fromFloat = coerce(Float(2.5), Decimal::getType());
  ASSERT_TRUE(Decimal::isInstance(fromFloat));
  EXPECT_EQ(cmp(fromFloat, Float(2.5)), equal);
  // A float becomes the decimal of its shortest text, as Decimal(repr(x)) in Python.
  auto fromRound = coerce(Float(100000.0), Decimal::getType());
  ASSERT_TRUE(Decimal::isInstance(fromRound));
  EXPECT_EQ(Decimal::unsafeFrom(fromRound).toUtf8(), "100000.0");
  auto fromTenth = coerce(Float(0.1), Decimal::getType());
  EXPECT_EQ(Decimal::unsafeFrom(fromTenth).toUtf8(), "0.1");
  auto toInt = coerce(dec("7.000"), Integer::getType());
  ASSERT_TRUE(Integer::isInstance(toInt));
  EXPECT_EQ(Integer::unsafeFrom(toInt).value(), 7);
  EXPECT_TRUE(coerce(dec("7.5"), Integer::getType()).isError());
  auto toFloat = coerce(dec("0.25"), Float::getType());
  EXPECT_EQ(Float::unsafeFrom(toFloat).value(), 0.25);
}

TEST(Coerce, UnionTypesTryEachAlternative) {
  const auto intOrString = internal::type_union_of_unsafe({Integer::getType(), String::getType()});
  EXPECT_EQ(intOrString.name().toUtf8(), "kest.Integer | kest.String");
  // Values of an alternative pass unchanged.
  const String s(u"keep");
  EXPECT_TRUE(coerce(s, intOrString).isSame(s));
  const Integer i(1);
  EXPECT_TRUE(coerce(i, intOrString).isSame(i));
  // Otherwise the first alternative that accepts the value wins.
  auto fromFloat = coerce(Float(3.0), intOrString);
  ASSERT_TRUE(Integer::isInstance(fromFloat));
  EXPECT_EQ(Integer::unsafeFrom(fromFloat).value(), 3);
  auto fromFraction = coerce(Float(3.5), intOrString);
  ASSERT_TRUE(String::isInstance(fromFraction));
  EXPECT_EQ(String::unsafeFrom(fromFraction).toUtf8(), "3.5");
  auto none = coerce(List(), intOrString);
  ASSERT_TRUE(none.isError());
  EXPECT_NE(message_of(none).find("kest.Integer | kest.String"), std::string::npos) << message_of(none);
}

TEST(Coerce, ListsAreMadeFromOtherIterables) {
  auto untyped = coerce(Tuple{Integer(1), String(u"a")}, List::getType());
  ASSERT_TRUE(List::isInstance(untyped));
  EXPECT_EQ(display(untyped).toUtf8(), "[1, 'a']");

  const auto intList = Type(List::genericInstance(Integer::getType()));
  auto typed = coerce(Tuple{Integer(1), Integer(2)}, intList);
  ASSERT_TRUE(List::isInstance(typed));
  EXPECT_TRUE(List::unsafeFrom(typed).elementType().isSame(Integer::getType()));
  EXPECT_EQ(display(typed).toUtf8(), "[1, 2]");

  auto wrong = coerce(Tuple{Integer(1), String(u"a")}, intList);
  ASSERT_TRUE(wrong.isError());
  EXPECT_TRUE(BadArgument::isInstance(wrong));

  const HashSet set;
  ASSERT_FALSE(set.insert(Integer(9)).isError());
  auto fromSet = coerce(set, intList);
  ASSERT_TRUE(List::isInstance(fromSet));
  EXPECT_EQ(display(fromSet).toUtf8(), "[9]");

  EXPECT_TRUE(coerce(Integer(1), List::getType()).isError());
}

TEST(Coerce, ThroughTheClassHandle) {
  auto r = Float::getClass().coerce(Integer(2));
  ASSERT_TRUE(Float::isInstance(r));
  EXPECT_EQ(Float::unsafeFrom(r).value(), 2.0);
  auto cast = internal::cast_object(String(u"8"), Integer::getType());
  EXPECT_EQ(Integer::unsafeFrom(cast).value(), 8);
}

TEST(Coerce, LooksThroughComputedValues) {
  auto lazy = Computed<String>::create([] { return String(u"12"); });
  auto r = coerce(lazy, Integer::getType());
  ASSERT_TRUE(Integer::isInstance(r));
  EXPECT_EQ(Integer::unsafeFrom(r).value(), 12);
}

TEST(Compare, ComparingHashingAndCoercingDoNotLeak) {
  auto work = [] {
    const HashMap m;
    EXPECT_FALSE(m.setChecked(String(u"k"), List{Integer(1), dec("2.5")}).isError());
    const HashSet s;
    EXPECT_FALSE(s.insert(Tuple{Integer(1), Float(2.0)}).isError());
    (void)cmp(m, HashMap());
    (void)cmp(s, s);
    (void)cmp(List{Integer(1), String(u"a")}, List{Integer(1), String(u"b")});
    (void)cmp(ranked(1), Integer(1));
    (void)hash_of(Tuple{String(u"x"), dec("1.10"), Time(1, 0, 0, 0, 60, String())});
    (void)coerce(Tuple{Integer(1)}, Type(List::genericInstance(Integer::getType())));
    (void)coerce(String(u"x"), Integer::getType());
    (void)coerce(Float(3.5), internal::type_union_of_unsafe({Integer::getType(), String::getType()}));
  };
  work();
  const auto before = internal::object_value::live_count();
  work();
  EXPECT_EQ(internal::object_value::live_count(), before);
}
