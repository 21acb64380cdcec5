// Tuple, List, HashMap, HashSet, their generic classes, and the container
// interfaces both on native containers and on a class declared at run time.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

using namespace kest;

namespace {

std::int64_t int_of(const Any &v) {
  EXPECT_TRUE(Integer::isInstance(v)) << display(v).toUtf8();
  return Integer::isInstance(v) ? Integer::unsafeFrom(v).value() : -999;
}

std::vector<std::int64_t> ints_of(const std::vector<Any> &items) {
  std::vector<std::int64_t> out;
  for (auto &item : items)
    out.push_back(int_of(item));
  return out;
}

std::string text_of(const Any &v) { return display(v).toUtf8(); }

std::string message_of(const Any &error) {
  EXPECT_TRUE(Error::isInstance(error)) << text_of(error);
  return Error::isInstance(error) ? Error::unsafeFrom(error).message().toUtf8() : std::string();
}

Any value_of(const Result<Any> &r) { return internal::result_unwrap_lazy(r); }

using Ints = std::vector<std::int64_t>;

// --- a sequence declared at run time ----------------------------------------------------
//
// CountingSequence(count, failAt): element i is i * 10. Its members are "__len__"
// (as the meta-property "$$__len__"), "at" and "iter"; "iter" returns a
// SequenceIterator whose "next" gives the elements, then a StopIteration error
// (or a plain error at position failAt).

std::atomic<int> g_next_calls{0};

const meta_field_untyped &f_count() {
  static const meta_field_untyped n("count");
  return n;
}
const meta_field_untyped &f_fail_at() {
  static const meta_field_untyped n("failAt");
  return n;
}
const meta_field_untyped &f_source() {
  static const meta_field_untyped n("source");
  return n;
}
const meta_field_untyped &f_position() {
  static const meta_field_untyped n("position");
  return n;
}

struct Declared {
  Class_Generic iterator;
  Class_Generic sequence;
  Class_Generic plain;    // no members at all
  Class_Generic mistyped; // elements declared as String, but it yields integers
};

Class_Generic declare(const std::vector<Any> &entries) {
  auto r = internal::defclass_impl(entries);
  EXPECT_FALSE(r.isError()) << (r.isError() ? r.as<Error>().message().toUtf8() : "");
  return r.as<Class_Generic>();
}

const Declared &declared() {
  using B = internal::class_builder_base;
  static const Declared *d = [] {
    auto iterator = declare({
        B::name_entry(String(u"SequenceIterator")),
        B::base_entry(I_Iterator::getClass()),
        B::field_entry(String(u"source"), 0, nullptr),
        B::field_entry(String(u"position"), 0, &Integer::getType),
        B::method_entry(meta_method_untyped("next"), make_method([](Any self) -> Result<Any> {
                          g_next_calls.fetch_add(1);
                          const auto source = value_of(self.fieldValue(f_source()));
                          const auto position = int_of(value_of(self.fieldValue(f_position())));
                          const auto failAt = value_of(source.fieldValue(f_fail_at()));
                          if (Integer::isInstance(failAt) && Integer::unsafeFrom(failAt).value() == position)
                            return Error("The iterator broke.");
                          const auto count = int_of(value_of(source.fieldValue(f_count())));
                          if (position >= count)
                            return StopIteration();
                          self.setFieldValue(f_position(), Integer(position + 1));
                          return Integer(position * 10);
                        })),
    });

    internal::property_builder_base length{String(u"$$__len__")};
    length.assign_getter(make_method([](Any self) -> Result<Any> { return self.fieldValue(f_count()); }));

    auto sequence = declare({
        B::name_entry(String(u"CountingSequence")),
        B::base_entry(I_Sequence::getClass()),
        B::field_entry(String(u"count"), 0, &Integer::getType),
        B::field_entry(String(u"failAt"), 0, nullptr),
        B::property_entry(length),
        B::method_entry(meta_method_untyped("at"), make_method([](Any self, std::int64_t index) -> Result<Any> {
                          const auto count = int_of(value_of(self.fieldValue(f_count())));
                          if (index < 0)
                            index += count;
                          if (index < 0 || index >= count)
                            return Error("CountingSequence index out of range.");
                          return Integer(index * 10);
                        })),
        B::method_entry(meta_method_untyped("iter"), make_method([iterator](Any self) -> Result<Any> {
                          auto it = iterator.allocateInstance();
                          if (it.isError())
                            return it;
                          Any instance = value_of(it);
                          instance.setFieldValue(f_source(), self);
                          instance.setFieldValue(f_position(), Integer(0));
                          return instance;
                        })),
    });

    auto plain = declare({B::name_entry(String(u"PlainThing"))});

    // The same sequence, but declared as an iterable of strings.
    auto mistyped = declare({B::name_entry(String(u"StringTypedSequence")), B::base_entry(sequence)});
    mistyped->generic_arguments = {String::getType()};
    return new Declared{iterator, sequence, plain, mistyped};
  }();
  return *d;
}

Any counting_sequence(std::int64_t count, Any failAt = {}, bool mistyped = false) {
  auto instance = value_of((mistyped ? declared().mistyped : declared().sequence).allocateInstance());
  EXPECT_FALSE(instance.setFieldValue(f_count(), Integer(count)).isError());
  if (failAt) {
    EXPECT_FALSE(instance.setFieldValue(f_fail_at(), failAt).isError());
  }
  return instance;
}

} // namespace

// --- Tuple -------------------------------------------------------------------------------

TEST(Tuple, KeepsItsItemsInOrder) {
  const Tuple t{Integer(1), String(u"two"), Float(3.0)};
  EXPECT_EQ(t.length(), 3);
  EXPECT_EQ(t.kind(), internal::ObjectType::Tuple);
  EXPECT_EQ(int_of(t.at(0)), 1);
  EXPECT_EQ(text_of(t.at(1)), "two");
  EXPECT_EQ(t.items().size(), 3u);
  EXPECT_TRUE(t.items()[2].isSame(t.at(2)));
}

TEST(Tuple, NegativeIndicesCountFromTheEnd) {
  const Tuple t{Integer(1), Integer(2), Integer(3)};
  EXPECT_EQ(int_of(t.at(-1)), 3);
  EXPECT_EQ(int_of(t.at(-3)), 1);
  EXPECT_TRUE(t.at(3).empty());
  EXPECT_TRUE(t.at(-4).empty());
}

TEST(Tuple, EmptyTupleHasNoItems) {
  const Tuple t;
  EXPECT_EQ(t.length(), 0);
  EXPECT_TRUE(t.items().empty());
  EXPECT_TRUE(t.at(0).empty());
  const Tuple fromVector(std::vector<Any>{});
  EXPECT_EQ(fromVector.length(), 0);
}

TEST(Tuple, IsAnImmutableSequence) {
  const Tuple t{Integer(1)};
  EXPECT_TRUE(I_Tuple::isInstance(t));
  EXPECT_TRUE(I_Sequence::isInstance(t));
  EXPECT_TRUE(I_Iterable::isInstance(t));
  EXPECT_TRUE(I_Immutable::isInstance(t));
  EXPECT_FALSE(I_MutableSequence::isInstance(t));
}

// --- List ---------------------------------------------------------------------------------

TEST(List, UntypedListTakesAnyValue) {
  const List l;
  EXPECT_TRUE(l.elementType().isUntyped());
  EXPECT_FALSE(l.append(Integer(1)).isError());
  EXPECT_FALSE(l.append(String(u"s")).isError());
  EXPECT_FALSE(l.append(Any()).isError());
  EXPECT_EQ(l.length(), 3);
  const List init{Integer(1), String(u"x")};
  EXPECT_EQ(init.length(), 2);
  EXPECT_TRUE(init.elementType().isUntyped());
}

TEST(List, AppendingAWrongTypeGivesABadArgumentAndLeavesTheListUnchanged) {
  const List l(Integer::getType());
  ASSERT_FALSE(l.append(Integer(1)).isError());
  auto r = l.append(String(u"not a number"));
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  const auto message = message_of(r);
  EXPECT_NE(message.find("kest.String"), std::string::npos) << message;
  EXPECT_NE(message.find("List<kest.Integer>"), std::string::npos) << message;
  EXPECT_EQ(l.length(), 1);
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{1}));
  EXPECT_TRUE(l.append(Float(1.0)).isError());
  EXPECT_TRUE(l.append(Any()).isError());
  EXPECT_EQ(l.length(), 1);
}

TEST(List, WrongTypesAreRejectedByInsertAndSetToo) {
  const List l(String::getType());
  ASSERT_FALSE(l.append(String(u"a")).isError());
  auto inserted = l.insert(0, Integer(1));
  EXPECT_TRUE(BadArgument::isInstance(inserted));
  auto set = l.set(0, Integer(1));
  EXPECT_TRUE(BadArgument::isInstance(set));
  ASSERT_EQ(l.length(), 1);
  EXPECT_EQ(text_of(value_of(l.at(0))), "a");
}

TEST(List, ElementTypeAcceptsDerivedClasses) {
  const List errors(Error::getType());
  EXPECT_FALSE(errors.append(BadArgument("x")).isError());
  EXPECT_FALSE(errors.append(StopIteration()).isError());
  EXPECT_TRUE(errors.append(String(u"x")).isError());
  EXPECT_EQ(errors.length(), 2);
}

TEST(List, AtCountsNegativeIndicesFromTheEnd) {
  const List l{Integer(10), Integer(20), Integer(30)};
  EXPECT_EQ(int_of(value_of(l.at(0))), 10);
  EXPECT_EQ(int_of(value_of(l.at(2))), 30);
  EXPECT_EQ(int_of(value_of(l.at(-1))), 30);
  EXPECT_EQ(int_of(value_of(l.at(-3))), 10);
}

TEST(List, AtOutOfRangeIsAnError) {
  const List l{Integer(10), Integer(20), Integer(30)};
  auto past = l.at(3);
  ASSERT_TRUE(past.isError());
  EXPECT_EQ(message_of(past), "Index 3 is out of range for a sequence of length 3.");
  auto before = l.at(-4);
  ASSERT_TRUE(before.isError());
  EXPECT_EQ(message_of(before), "Index -4 is out of range for a sequence of length 3.");
  EXPECT_TRUE(List().at(0).isError());
}

TEST(List, InsertPlacesValuesLikePython) {
  const List l{Integer(1), Integer(2), Integer(3)};
  ASSERT_FALSE(l.insert(0, Integer(0)).isError());
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{0, 1, 2, 3}));
  ASSERT_FALSE(l.insert(-1, Integer(9)).isError()); // before the last element
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{0, 1, 2, 9, 3}));
  ASSERT_FALSE(l.insert(100, Integer(7)).isError()); // past the end: appended
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{0, 1, 2, 9, 3, 7}));
  ASSERT_FALSE(l.insert(-100, Integer(-1)).isError()); // before the start: first
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{-1, 0, 1, 2, 9, 3, 7}));
  ASSERT_FALSE(l.insert(l.length(), Integer(8)).isError());
  EXPECT_EQ(int_of(value_of(l.at(-1))), 8);
}

TEST(List, SetReplacesAnElement) {
  const List l{Integer(1), Integer(2), Integer(3)};
  ASSERT_FALSE(l.set(1, Integer(20)).isError());
  ASSERT_FALSE(l.set(-1, Integer(30)).isError());
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{1, 20, 30}));
  auto r = l.set(3, Integer(4));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(message_of(r), "Index 3 is out of range for a sequence of length 3.");
  EXPECT_TRUE(l.set(-4, Integer(4)).isError());
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{1, 20, 30}));
}

TEST(List, SetReleasesTheReplacedValue) {
  auto old = String(u"old");
  WeakReference watch(old);
  const List l{old};
  old.reset();
  ASSERT_TRUE(watch.lock());
  ASSERT_FALSE(l.set(0, Integer(1)).isError());
  EXPECT_FALSE(watch.lock());
}

TEST(List, RemoveAtGivesTheRemovedValue) {
  const List l{Integer(1), Integer(2), Integer(3), Integer(4)};
  auto first = l.removeAt(0);
  ASSERT_FALSE(first.isError());
  EXPECT_EQ(int_of(value_of(first)), 1);
  auto last = l.removeAt(-1);
  EXPECT_EQ(int_of(value_of(last)), 4);
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{2, 3}));
  auto missing = l.removeAt(2);
  ASSERT_TRUE(missing.isError());
  EXPECT_EQ(message_of(missing), "Index 2 is out of range for a sequence of length 2.");
  EXPECT_TRUE(l.removeAt(-3).isError());
  EXPECT_EQ(l.length(), 2);
}

TEST(List, ClearEmptiesTheListAndReleasesTheElements) {
  auto element = String(u"element");
  WeakReference watch(element);
  const List l{element, Integer(2)};
  element.reset();
  l.clear();
  EXPECT_EQ(l.length(), 0);
  EXPECT_TRUE(l.copyItems().empty());
  EXPECT_FALSE(watch.lock());
  EXPECT_FALSE(l.append(Integer(1)).isError());
  EXPECT_EQ(l.length(), 1);
}

TEST(List, CopyItemsIsASnapshot) {
  const List l{Integer(1), Integer(2)};
  auto snapshot = l.copyItems();
  ASSERT_FALSE(l.append(Integer(3)).isError());
  l.removeAt(0);
  EXPECT_EQ(ints_of(snapshot), (Ints{1, 2}));
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{2, 3}));
  // Elements are shared, not copied.
  EXPECT_TRUE(snapshot[1].isSame(value_of(l.at(0))));
}

TEST(List, FourThreadsAppendingConcurrentlyLoseNothing) {
  const List shared(Integer::getType());
  constexpr int per_thread = 2000;
  std::latch start(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < per_thread; ++i)
        ASSERT_FALSE(shared.append(Integer(t * per_thread + i)).isError());
    });
  for (auto &t : threads)
    t.join();
  ASSERT_EQ(shared.length(), 4 * per_thread);
  std::vector<bool> seen(4 * per_thread, false);
  for (auto v : ints_of(shared.copyItems())) {
    ASSERT_GE(v, 0);
    ASSERT_LT(v, 4 * per_thread);
    EXPECT_FALSE(seen[static_cast<std::size_t>(v)]) << v;
    seen[static_cast<std::size_t>(v)] = true;
  }
}

TEST(List, ReadersAndWritersShareAListSafely) {
  const List shared;
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t)
    readers.emplace_back([&] {
      while (!done.load()) {
        auto items = shared.copyItems();
        for (auto &item : items)
          ASSERT_TRUE(Integer::isInstance(item));
        (void)display(shared);
      }
    });
  std::vector<std::thread> writers;
  for (int t = 0; t < 2; ++t)
    writers.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        ASSERT_FALSE(shared.append(Integer(i)).isError());
        if (i % 3 == 0)
          (void)shared.removeAt(0);
      }
    });
  for (auto &t : writers)
    t.join();
  done.store(true);
  for (auto &t : readers)
    t.join();
  EXPECT_EQ(shared.length(), 2 * (500 - 167));
}

// --- generic classes --------------------------------------------------------------------------

TEST(GenericClass, ListClassForAnElementTypeIsMadeOnce) {
  const auto a = List::genericInstance(Integer::getType());
  const auto b = List::genericInstance(Integer::getType());
  EXPECT_TRUE(a.isSame(b));
  EXPECT_TRUE(raw_class_of(List(Integer::getType())).isSame(a));
  EXPECT_FALSE(a.isSame(List::genericInstance(String::getType())));
  EXPECT_EQ(a.name().toUtf8(), "List<kest.Integer>");
  EXPECT_EQ(qualname(a).toUtf8(), "kest.List<kest.Integer>");
  EXPECT_TRUE(a.genericDefinition().isSame(List::getClass()));
  ASSERT_EQ(a.genericArguments().size(), 1u);
  EXPECT_TRUE(a.genericArguments()[0].isSame(Integer::getType()));
  EXPECT_TRUE(a.hasFlag(class_flags::generic_instance));
  EXPECT_FALSE(a.hasFlag(class_flags::generic_definition));
  EXPECT_TRUE(List::getClass().hasFlag(class_flags::generic_definition));
  EXPECT_TRUE(a.derivesFrom(List::getClass()));
  EXPECT_TRUE(List::isInstance(List(Integer::getType())));
}

TEST(GenericClass, MapAndSetClassesAreMadeOnce) {
  const auto m1 = HashMap::genericInstance(String::getType(), Integer::getType());
  const auto m2 = HashMap::genericInstance(String::getType(), Integer::getType());
  EXPECT_TRUE(m1.isSame(m2));
  EXPECT_FALSE(m1.isSame(HashMap::genericInstance(Integer::getType(), String::getType())));
  EXPECT_EQ(m1.name().toUtf8(), "HashMap<kest.String, kest.Integer>");
  EXPECT_TRUE(raw_class_of(HashMap(String::getType(), Integer::getType())).isSame(m1));
  EXPECT_TRUE(HashSet::genericInstance(Float::getType()).isSame(HashSet::genericInstance(Float::getType())));
  EXPECT_TRUE(raw_class_of(HashSet(Float::getType())).isSame(HashSet::genericInstance(Float::getType())));
}

TEST(GenericClass, InterfaceGenericInstancesAreMadeOnce) {
  EXPECT_TRUE(I_Sequence::genericInstance(Integer::getType()).isSame(I_Sequence::genericInstance(Integer::getType())));
  EXPECT_TRUE(I_Iterable::genericInstance(String::getType()).isSame(I_Iterable::genericInstance(String::getType())));
  EXPECT_TRUE(I_Map::genericInstance(String::getType(), Type())
                  .isSame(I_Map::genericInstance(String::getType(), Type())));
  EXPECT_TRUE(I_MutableSet::genericInstance(Integer::getType())
                  .isSame(I_MutableSet::genericInstance(Integer::getType())));
  EXPECT_TRUE(I_Sequence::genericInstance(Integer::getType()).derivesFrom(I_Sequence::getClass()));
}

TEST(GenericClass, FourThreadsAskingForANewInstantiationGetOneClass) {
  for (int round = 0; round < 10; ++round) {
    const auto element = Class_Generic::create(String::fromUtf8("Element" + std::to_string(round)), 0);
    std::latch start(4);
    std::vector<Class_Generic> seen(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        start.arrive_and_wait();
        seen[t] = List::genericInstance(Type(element));
      });
    for (auto &t : threads)
      t.join();
    for (auto &cls : seen)
      EXPECT_TRUE(cls.isSame(seen[0]));
    EXPECT_TRUE(List::genericInstance(Type(element)).isSame(seen[0]));
  }
}

// --- HashMap -----------------------------------------------------------------------------------

TEST(HashMap, KeepsInsertionOrder) {
  const HashMap m;
  for (auto name : {u"zeta", u"alpha", u"mid", u"beta"})
    ASSERT_FALSE(m.setChecked(String(name), Integer(String(name).length())).isError());
  std::vector<std::string> keys;
  for (auto &[k, v] : m.copyPairs())
    keys.push_back(text_of(k));
  EXPECT_EQ(keys, (std::vector<std::string>{"zeta", "alpha", "mid", "beta"}));
  EXPECT_EQ(m.length(), 4);
  EXPECT_EQ(m.copyKeys().size(), 4u);
  EXPECT_EQ(text_of(m.copyKeys()[2]), "mid");
}

TEST(HashMap, OverwritingKeepsThePositionAndRemovingThenAddingMovesToTheEnd) {
  const HashMap m;
  ASSERT_FALSE(m.setChecked(String(u"a"), Integer(1)).isError());
  ASSERT_FALSE(m.setChecked(String(u"b"), Integer(2)).isError());
  ASSERT_FALSE(m.setChecked(String(u"c"), Integer(3)).isError());
  ASSERT_FALSE(m.setChecked(String(u"a"), Integer(10)).isError());
  EXPECT_EQ(text_of(m), "{'a': 10, 'b': 2, 'c': 3}");
  EXPECT_TRUE(m.remove(String(u"a")));
  ASSERT_FALSE(m.setChecked(String(u"a"), Integer(100)).isError());
  EXPECT_EQ(text_of(m), "{'b': 2, 'c': 3, 'a': 100}");
  EXPECT_EQ(m.length(), 3);
}

TEST(HashMap, FindContainsRemoveAndClear) {
  const HashMap m;
  ASSERT_FALSE(m.setChecked(String(u"k"), String(u"v")).isError());
  ASSERT_FALSE(m.setChecked(Integer(1), Any()).isError()); // an empty value is still an entry
  EXPECT_EQ(text_of(m.find(String(u"k"))), "v");
  EXPECT_TRUE(m.find(String(u"missing")).empty());
  EXPECT_TRUE(m.contains(String(u"k")));
  EXPECT_TRUE(m.contains(Integer(1)));
  EXPECT_TRUE(m.find(Integer(1)).empty());
  EXPECT_FALSE(m.contains(String(u"missing")));
  EXPECT_TRUE(m.remove(String(u"k")));
  EXPECT_FALSE(m.remove(String(u"k")));
  EXPECT_FALSE(m.contains(String(u"k")));
  EXPECT_EQ(m.length(), 1);
  m.clear();
  EXPECT_EQ(m.length(), 0);
  EXPECT_TRUE(m.copyPairs().empty());
  EXPECT_FALSE(m.contains(Integer(1)));
  ASSERT_FALSE(m.setChecked(Integer(1), Integer(2)).isError());
  EXPECT_EQ(m.length(), 1);
}

TEST(HashMap, TypedKeysAndValuesAreChecked) {
  const HashMap m(String::getType(), Integer::getType());
  EXPECT_TRUE(m.keyType().isSame(String::getType()));
  EXPECT_TRUE(m.valueType().isSame(Integer::getType()));
  ASSERT_FALSE(m.setChecked(String(u"ok"), Integer(1)).isError());

  auto badKey = m.setChecked(Integer(1), Integer(1));
  ASSERT_TRUE(badKey.isError());
  EXPECT_TRUE(BadArgument::isInstance(badKey));
  EXPECT_NE(message_of(badKey).find("key"), std::string::npos) << message_of(badKey);
  EXPECT_NE(message_of(badKey).find("kest.Integer"), std::string::npos) << message_of(badKey);

  auto badValue = m.setChecked(String(u"x"), String(u"not a number"));
  ASSERT_TRUE(badValue.isError());
  EXPECT_TRUE(BadArgument::isInstance(badValue));
  EXPECT_NE(message_of(badValue).find("kest.String"), std::string::npos) << message_of(badValue);

  EXPECT_EQ(m.length(), 1);
  EXPECT_FALSE(m.contains(String(u"x")));
  EXPECT_EQ(int_of(m.find(String(u"ok"))), 1);
}

TEST(HashMap, EqualNumbersOfAnyKindAreTheSameKey) {
  const HashMap m;
  ASSERT_FALSE(m.setChecked(Integer(2), String(u"integer")).isError());
  ASSERT_FALSE(m.setChecked(Float(2.0), String(u"float")).isError());
  auto two = Decimal::fromString("2.00");
  ASSERT_TRUE(two.is<Decimal>());
  EXPECT_EQ(m.length(), 1);
  EXPECT_EQ(text_of(m.find(two)), "float");
  ASSERT_FALSE(m.setChecked(two, String(u"decimal")).isError());
  EXPECT_EQ(m.length(), 1);
  EXPECT_EQ(text_of(m.find(Integer(2))), "decimal");
  EXPECT_EQ(text_of(m.find(Integer::fromUnsigned(2))), "decimal");
  // The first key stays; only the value changes.
  ASSERT_EQ(m.copyKeys().size(), 1u);
  EXPECT_TRUE(Integer::isInstance(m.copyKeys()[0]));
  EXPECT_FALSE(m.contains(Float(2.5)));
  EXPECT_TRUE(m.remove(Float(2.0)));
  EXPECT_EQ(m.length(), 0);
}

TEST(HashMap, EqualStringsAndTuplesAreTheSameKey) {
  const HashMap m;
  ASSERT_FALSE(m.setChecked(String::fromUtf8("key"), Integer(1)).isError());
  ASSERT_FALSE(m.setChecked(String(u"key"), Integer(2)).isError());
  ASSERT_FALSE(m.setChecked(Tuple{Integer(1), String(u"a")}, Integer(3)).isError());
  EXPECT_EQ(m.length(), 2);
  EXPECT_EQ(int_of(m.find(String(u"key"))), 2);
  EXPECT_EQ(int_of(m.find(Tuple{Float(1.0), String(u"a")})), 3);
  EXPECT_TRUE(m.find(Tuple{Integer(1), String(u"b")}).empty());
}

TEST(HashMap, ManyRemovalsKeepOrderAndLookups) {
  const HashMap m;
  for (int i = 0; i < 40; ++i)
    ASSERT_FALSE(m.setChecked(Integer(i), Integer(i * i)).isError());
  for (int i = 0; i < 40; ++i)
    if (i % 4 != 0) {
      ASSERT_TRUE(m.remove(Integer(i)));
    }
  EXPECT_EQ(m.length(), 10);
  Ints keys;
  for (auto &[k, v] : m.copyPairs()) {
    keys.push_back(int_of(k));
    EXPECT_EQ(int_of(v), int_of(k) * int_of(k));
  }
  EXPECT_EQ(keys, (Ints{0, 4, 8, 12, 16, 20, 24, 28, 32, 36}));
  for (int i = 0; i < 40; ++i)
    EXPECT_EQ(m.contains(Integer(i)), i % 4 == 0) << i;
  ASSERT_FALSE(m.setChecked(Integer(1), Integer(-1)).isError());
  ASSERT_FALSE(m.setChecked(Integer(8), Integer(-8)).isError());
  EXPECT_EQ(int_of(m.copyKeys().back()), 1);
  EXPECT_EQ(int_of(m.find(Integer(8))), -8);
  EXPECT_EQ(m.length(), 11);
}

TEST(HashMap, MutableKeysAreMatchedByIdentity) {
  const HashMap m;
  const List a, b;
  ASSERT_FALSE(m.setChecked(a, Integer(1)).isError());
  ASSERT_FALSE(m.setChecked(b, Integer(2)).isError());
  EXPECT_EQ(m.length(), 2);
  EXPECT_EQ(int_of(m.find(a)), 1);
  EXPECT_EQ(int_of(m.find(b)), 2);
}

TEST(HashMap, FourThreadsWritingDistinctKeys) {
  const HashMap m(Integer::getType(), Integer::getType());
  std::latch start(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < 500; ++i)
        ASSERT_FALSE(m.setChecked(Integer(t * 1000 + i), Integer(t)).isError());
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(m.length(), 2000);
  EXPECT_EQ(int_of(m.find(Integer(3499))), 3);
}

// --- HashSet -----------------------------------------------------------------------------------

TEST(HashSet, InsertTellsWhetherTheValueWasNew) {
  const HashSet s;
  auto first = s.insert(String(u"x"));
  ASSERT_FALSE(first.isError());
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(first)).value());
  auto second = s.insert(String(u"x"));
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(second)).value());
  EXPECT_EQ(s.length(), 1);
}

TEST(HashSet, EqualNumbersAreOneElement) {
  const HashSet s;
  ASSERT_FALSE(s.insert(Integer(1)).isError());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(s.insert(Float(1.0)))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(s.insert(value_of(Decimal::fromString("1.000"))))).value());
  EXPECT_EQ(s.length(), 1);
  EXPECT_TRUE(s.contains(Float(1.0)));
}

TEST(HashSet, KeepsInsertionOrderAndSupportsRemoveAndClear) {
  const HashSet s;
  for (int i : {5, 3, 9, 1})
    ASSERT_FALSE(s.insert(Integer(i)).isError());
  EXPECT_EQ(ints_of(s.copyItems()), (Ints{5, 3, 9, 1}));
  EXPECT_TRUE(s.remove(Integer(3)));
  EXPECT_FALSE(s.remove(Integer(3)));
  EXPECT_FALSE(s.contains(Integer(3)));
  EXPECT_EQ(ints_of(s.copyItems()), (Ints{5, 9, 1}));
  s.clear();
  EXPECT_EQ(s.length(), 0);
  EXPECT_TRUE(s.copyItems().empty());
}

TEST(HashSet, TypedSetRejectsOtherValues) {
  const HashSet s(Integer::getType());
  EXPECT_TRUE(s.elementType().isSame(Integer::getType()));
  auto r = s.insert(String(u"x"));
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(s.length(), 0);
}

// --- interfaces on native containers ----------------------------------------------------------

TEST(NativeInterfaces, ContainersConformToTheirInterfaces) {
  EXPECT_TRUE(I_MutableSequence::isInstance(List()));
  EXPECT_TRUE(I_Sequence::isInstance(List()));
  EXPECT_TRUE(I_Iterable::isInstance(List()));
  EXPECT_TRUE(I_MutableMap::isInstance(HashMap()));
  EXPECT_TRUE(I_Map::isInstance(HashMap()));
  EXPECT_TRUE(I_Iterable::isInstance(HashMap()));
  EXPECT_FALSE(I_Sequence::isInstance(HashMap()));
  EXPECT_TRUE(I_MutableSet::isInstance(HashSet()));
  EXPECT_TRUE(I_Set::isInstance(HashSet()));
  EXPECT_FALSE(I_Map::isInstance(HashSet()));
  EXPECT_FALSE(I_Iterable::isInstance(Integer(1)));
  EXPECT_TRUE(List::getClass().hasFlag(class_flags::sequence));
  EXPECT_TRUE(HashMap::getClass().hasFlag(class_flags::map));
  EXPECT_TRUE(HashSet::getClass().hasFlag(class_flags::set));
}

TEST(NativeInterfaces, SequenceOperationsOnListsAndTuples) {
  const List l{Integer(1), Integer(2), Integer(3)};
  const Tuple t{Integer(1), Integer(2), Integer(3)};
  for (const Any &c : {Any(l), Any(t)}) {
    auto seq = I_Sequence::unsafeFrom(c);
    EXPECT_EQ(seq.length().as<Integer>().value(), 3);
    EXPECT_EQ(int_of(value_of(seq.at(-1))), 3);
    EXPECT_TRUE(seq.at(3).isError());
    EXPECT_EQ(int_of(value_of(seq.indexOf(Integer(2)))), 1);
    EXPECT_EQ(int_of(value_of(seq.indexOf(Float(3.0)))), 2);
    EXPECT_EQ(int_of(value_of(seq.indexOf(Integer(7)))), -1);
    Ints walked;
    for (auto v : seq)
      walked.push_back(int_of(v));
    EXPECT_EQ(walked, (Ints{1, 2, 3}));
  }
}

TEST(NativeInterfaces, SlicedKeepsTheContainerKind) {
  const List l(Integer::getType(), {Integer(1), Integer(2), Integer(3), Integer(4)});
  auto part = value_of(I_Sequence::unsafeFrom(l).sliced(1, 2));
  ASSERT_TRUE(List::isInstance(part));
  EXPECT_EQ(ints_of(List::unsafeFrom(part).copyItems()), (Ints{2, 3}));
  EXPECT_TRUE(List::unsafeFrom(part).elementType().isSame(Integer::getType()));
  auto tail = value_of(I_Sequence::unsafeFrom(l).sliced(-2));
  EXPECT_EQ(ints_of(List::unsafeFrom(tail).copyItems()), (Ints{3, 4}));
  const Tuple t{Integer(1), Integer(2), Integer(3)};
  auto tpart = value_of(I_Sequence::unsafeFrom(t).sliced(0, 100));
  ASSERT_TRUE(Tuple::isInstance(tpart));
  EXPECT_EQ(Tuple::unsafeFrom(tpart).length(), 3);
  auto empty = value_of(I_Sequence::unsafeFrom(t).sliced(5));
  EXPECT_EQ(Tuple::unsafeFrom(empty).length(), 0);
}

TEST(NativeInterfaces, MutableSequenceOperationsOnLists) {
  const List l(Integer::getType());
  auto seq = I_MutableSequence::unsafeFrom(l);
  ASSERT_FALSE(seq.append(Integer(1)).isError());
  ASSERT_FALSE(seq.appendAt(0, Integer(0)).isError());
  ASSERT_FALSE(seq.extend(Tuple{Integer(2), Integer(3)}).isError());
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{0, 1, 2, 3}));
  EXPECT_TRUE(BadArgument::isInstance(seq.append(String(u"x"))));
  EXPECT_TRUE(seq.extend(List{String(u"x")}).isError());
  ASSERT_FALSE(seq.set(0, Integer(10)).isError());
  EXPECT_EQ(int_of(value_of(seq.pop())), 3);
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(seq.removeOne(Integer(1)))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(seq.removeOne(Integer(1)))).value());
  EXPECT_EQ(int_of(value_of(seq.removeAt(0))), 10);
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{2}));
  ASSERT_FALSE(seq.clear().isError());
  EXPECT_EQ(l.length(), 0);
  EXPECT_TRUE(seq.pop().isError());
}

TEST(NativeInterfaces, MapOperationsOnHashMaps) {
  const HashMap m(String::getType(), Integer::getType());
  auto map = I_MutableMap::unsafeFrom(m);
  ASSERT_FALSE(map.set(String(u"a"), Integer(1)).isError());
  ASSERT_FALSE(map.setChecked(String(u"b"), Integer(2)).isError());
  EXPECT_TRUE(BadArgument::isInstance(map.setChecked(Integer(1), Integer(1))));
  auto imap = I_Map::unsafeFrom(m);
  EXPECT_EQ(int_of(value_of(imap.get(String(u"a")))), 1);
  auto missing = imap.get(String(u"zz"));
  ASSERT_TRUE(missing.isError());
  EXPECT_NE(message_of(missing).find("Key not found"), std::string::npos) << message_of(missing);
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(imap.contains(String(u"b")))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(imap.contains(String(u"c")))).value());
  EXPECT_EQ(imap.length().as<Integer>().value(), 2);
  EXPECT_TRUE(imap.keysType().isSame(String::getType()));
  EXPECT_TRUE(imap.valuesType().isSame(Integer::getType()));
  auto keys = List::unsafeFrom(value_of(imap.keys()));
  EXPECT_EQ(text_of(keys), "['a', 'b']");
  EXPECT_TRUE(keys.elementType().isSame(String::getType()));
  auto values = List::unsafeFrom(value_of(imap.values()));
  EXPECT_EQ(ints_of(values.copyItems()), (Ints{1, 2}));
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(map.remove(String(u"a")))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(map.remove(String(u"a")))).value());
  ASSERT_FALSE(map.clear().isError());
  EXPECT_EQ(m.length(), 0);
}

TEST(NativeInterfaces, CreateInstanceMakesAnEmptyTypedMap) {
  auto m = I_MutableMap::createInstance(String::getType(), Float::getType());
  EXPECT_TRUE(HashMap::isInstance(m));
  EXPECT_EQ(m.length(), 0);
  EXPECT_TRUE(m.keyType().isSame(String::getType()));
  EXPECT_TRUE(m.valueType().isSame(Float::getType()));
  EXPECT_TRUE(raw_class_of(m).isSame(HashMap::genericInstance(String::getType(), Float::getType())));
  EXPECT_TRUE(m.setChecked(String(u"k"), Integer(1)).isError());
  EXPECT_FALSE(m.setChecked(String(u"k"), Float(1.0)).isError());
  auto l = I_Iterable::createInstance(Integer::getType());
  EXPECT_TRUE(l.elementType().isSame(Integer::getType()));
  EXPECT_EQ(l.length(), 0);
}

TEST(NativeInterfaces, SetOperationsOnHashSets) {
  const HashSet s(Integer::getType());
  auto set = I_MutableSet::unsafeFrom(s);
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(set.insert(Integer(1)))).value());
  ASSERT_FALSE(set.extend(List{Integer(2), Integer(1), Integer(3)}).isError());
  EXPECT_EQ(ints_of(s.copyItems()), (Ints{1, 2, 3}));
  EXPECT_TRUE(set.extend(Tuple{String(u"x")}).isError());
  EXPECT_EQ(I_Set::unsafeFrom(s).length().as<Integer>().value(), 3);
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(I_Set::unsafeFrom(s).contains(Float(2.0)))).value());
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(set.remove(Integer(2)))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(set.remove(Integer(2)))).value());
  ASSERT_FALSE(set.clear().isError());
  EXPECT_EQ(s.length(), 0);
}

TEST(NativeInterfaces, IterationOverEveryContainer) {
  Ints fromList, fromTuple, fromMap, fromSet;
  for (auto &v : I_Iterable::unsafeFrom(List{Integer(1), Integer(2)}))
    fromList.push_back(int_of(v));
  for (auto &v : I_Iterable::unsafeFrom(Tuple{Integer(3), Integer(4)}))
    fromTuple.push_back(int_of(v));
  const HashMap m;
  ASSERT_FALSE(m.setChecked(Integer(5), String(u"five")).isError());
  ASSERT_FALSE(m.setChecked(Integer(6), String(u"six")).isError());
  for (auto &v : I_Iterable::unsafeFrom(m))
    fromMap.push_back(int_of(v)); // the keys
  const HashSet s;
  ASSERT_FALSE(s.insert(Integer(7)).isError());
  for (auto &v : I_Iterable::unsafeFrom(s))
    fromSet.push_back(int_of(v));
  EXPECT_EQ(fromList, (Ints{1, 2}));
  EXPECT_EQ(fromTuple, (Ints{3, 4}));
  EXPECT_EQ(fromMap, (Ints{5, 6}));
  EXPECT_EQ(fromSet, (Ints{7}));
  int count = 0;
  for (auto &v : I_Iterable::unsafeFrom(List())) {
    (void)v;
    ++count;
  }
  EXPECT_EQ(count, 0);
}

TEST(NativeInterfaces, IteratorEndsWithStopIteration) {
  auto it = value_of(I_Iterable::unsafeFrom(Tuple{Integer(1)}).iter());
  ASSERT_TRUE(I_Iterator::isInstance(it));
  EXPECT_EQ(int_of(value_of(I_Iterator::unsafeFrom(it).next())), 1);
  auto end = value_of(I_Iterator::unsafeFrom(it).next());
  EXPECT_TRUE(StopIteration::isInstance(end));
  EXPECT_TRUE(StopIteration::isInstance(value_of(I_Iterator::unsafeFrom(it).next())));
}

TEST(NativeInterfaces, ListIteratorSeesElementsAppendedDuringIteration) {
  const List l{Integer(1)};
  Ints seen;
  for (auto &v : I_Iterable::unsafeFrom(l)) {
    seen.push_back(int_of(v));
    if (seen.size() < 3) {
      ASSERT_FALSE(l.append(Integer(int_of(v) + 1)).isError());
    }
  }
  EXPECT_EQ(seen, (Ints{1, 2, 3}));
}

TEST(NativeInterfaces, MapIteratorWalksASnapshotOfTheKeys) {
  const HashMap m;
  ASSERT_FALSE(m.setChecked(Integer(1), Integer(1)).isError());
  ASSERT_FALSE(m.setChecked(Integer(2), Integer(2)).isError());
  Ints seen;
  for (auto &v : I_Iterable::unsafeFrom(m)) {
    seen.push_back(int_of(v));
    ASSERT_FALSE(m.setChecked(Integer(100 + int_of(v)), Integer(0)).isError());
  }
  EXPECT_EQ(seen, (Ints{1, 2}));
  EXPECT_EQ(m.length(), 4);
}

TEST(NativeInterfaces, ContainsComparesValues) {
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(I_Iterable::unsafeFrom(List{Integer(2)}).contains(Float(2.0)))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(I_Iterable::unsafeFrom(Tuple{Integer(2)}).contains(String(u"2")))).value());
  const HashMap m;
  ASSERT_FALSE(m.setChecked(String(u"k"), Integer(0)).isError());
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(I_Iterable::unsafeFrom(m).contains(String(u"k")))).value());
}

TEST(NativeInterfaces, CollectGathersTheElementsIntoANewList) {
  const List l{Integer(1), Integer(2)};
  auto copy = I_Iterable::unsafeFrom(l).collectImpl();
  ASSERT_TRUE(copy.is<List>());
  EXPECT_FALSE(copy.isSame(l));
  EXPECT_EQ(ints_of(copy.as<List>().copyItems()), (Ints{1, 2}));

  auto fromTuple = I_Iterable::unsafeFrom(Tuple{Integer(3)}).collectImpl();
  EXPECT_EQ(ints_of(fromTuple.as<List>().copyItems()), (Ints{3}));

  const HashMap m(String::getType(), Integer::getType());
  ASSERT_FALSE(m.setChecked(String(u"x"), Integer(1)).isError());
  auto keys = I_Iterable::unsafeFrom(m).collectImpl();
  ASSERT_TRUE(keys.is<List>());
  EXPECT_EQ(text_of(keys), "['x']");
  EXPECT_TRUE(keys.as<List>().elementType().isSame(String::getType()));
}

TEST(NativeInterfaces, CollectKeepsTheElementTypeOfEveryContainer) {
  const List l(Integer::getType(), {Integer(1)});
  auto fromList = I_Iterable::unsafeFrom(l).collectImpl();
  ASSERT_TRUE(fromList.is<List>());
  EXPECT_TRUE(fromList.as<List>().elementType().isSame(Integer::getType()));
  EXPECT_TRUE(fromList.as<List>().append(String(u"x")).isError());

  const HashSet s(Integer::getType());
  ASSERT_FALSE(s.insert(Integer(1)).isError());
  auto fromSet = I_Iterable::unsafeFrom(s).collectImpl();
  ASSERT_TRUE(fromSet.is<List>());
  EXPECT_TRUE(fromSet.as<List>().elementType().isSame(Integer::getType()));
}

TEST(NativeInterfaces, DeclaredMembersOfNativeContainersAgreeWithTheOperations) {
  const List l(Integer::getType());
  auto append = l.boundMethod(meta_method_untyped("append"));
  ASSERT_TRUE(I_Callable_Generic::isInstance(append));
  ASSERT_FALSE(I_Callable_Generic::unsafeFrom(append)(Integer(5)).isError());
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{5}));
  auto wrong = value_of(I_Callable_Generic::unsafeFrom(append)(String(u"x")));
  EXPECT_TRUE(BadArgument::isInstance(wrong));
  auto length = value_of(l.propertyValue(meta_property_untyped("$$__len__")));
  EXPECT_EQ(int_of(length), 1);
  auto at = l.boundMethod(meta_method_untyped("at"));
  EXPECT_EQ(int_of(value_of(I_Callable_Generic::unsafeFrom(at)(Integer(-1)))), 5);
}

// --- interfaces through a declared class ------------------------------------------------------------

TEST(DeclaredInterfaces, DeclaredSequenceConformsThroughItsBase) {
  auto seq = counting_sequence(3);
  EXPECT_TRUE(I_Sequence::isInstance(seq));
  EXPECT_TRUE(I_Iterable::isInstance(seq));
  EXPECT_FALSE(I_MutableSequence::isInstance(seq));
  EXPECT_TRUE(raw_class_of(seq).hasFlag(class_flags::sequence)); // inherited flag
  EXPECT_FALSE(I_Sequence::isInstance(value_of(declared().plain.allocateInstance())));
}

TEST(DeclaredInterfaces, LengthAndAtGoThroughTheMembers) {
  auto seq = I_Sequence::unsafeFrom(counting_sequence(4));
  auto length = seq.length();
  ASSERT_TRUE(length.is<Integer>());
  EXPECT_EQ(length.as<Integer>().value(), 4);
  EXPECT_EQ(int_of(value_of(seq.at(0))), 0);
  EXPECT_EQ(int_of(value_of(seq.at(3))), 30);
  EXPECT_EQ(int_of(value_of(seq.at(-1))), 30);
  auto out = seq.at(4);
  ASSERT_TRUE(out.isError());
  EXPECT_EQ(message_of(out), "CountingSequence index out of range.");
}

TEST(DeclaredInterfaces, RangeForOverTheSequenceUsesLengthAndAt) {
  Ints seen;
  for (auto v : I_Sequence::unsafeFrom(counting_sequence(3)))
    seen.push_back(int_of(v));
  EXPECT_EQ(seen, (Ints{0, 10, 20}));
}

TEST(DeclaredInterfaces, RangeForOverTheIterableUsesIterAndNext) {
  g_next_calls = 0;
  Ints seen;
  for (auto &v : I_Iterable::unsafeFrom(counting_sequence(3)))
    seen.push_back(int_of(v));
  EXPECT_EQ(seen, (Ints{0, 10, 20}));
  // Three elements, then one call that gave StopIteration and ended the loop.
  EXPECT_EQ(g_next_calls.load(), 4);
}

TEST(DeclaredInterfaces, IterationEndsOnStopIterationWithoutAnError) {
  internal::iterator_iterable it(counting_sequence(2)), end;
  Ints seen;
  for (; it != end; ++it)
    seen.push_back(int_of(*it));
  EXPECT_EQ(seen, (Ints{0, 10}));
  EXPECT_TRUE(it.error().empty());

  auto iterator = value_of(I_Iterable::unsafeFrom(counting_sequence(1)).iter());
  ASSERT_TRUE(I_Iterator::isInstance(iterator));
  EXPECT_EQ(int_of(value_of(I_Iterator::unsafeFrom(iterator).next())), 0);
  EXPECT_TRUE(StopIteration::isInstance(value_of(I_Iterator::unsafeFrom(iterator).next())));
}

TEST(DeclaredInterfaces, AnotherIterationErrorEndsTheLoopAndIsReported) {
  internal::iterator_iterable it(counting_sequence(5, Integer(2))), end;
  Ints seen;
  for (; it != end; ++it)
    seen.push_back(int_of(*it));
  EXPECT_EQ(seen, (Ints{0, 10}));
  ASSERT_FALSE(it.error().empty());
  EXPECT_FALSE(StopIteration::isInstance(it.error()));
  EXPECT_EQ(message_of(it.error()), "The iterator broke.");

  auto collected = I_Iterable::unsafeFrom(counting_sequence(5, Integer(2))).collectImpl();
  ASSERT_TRUE(collected.isError());
  EXPECT_EQ(message_of(collected), "The iterator broke.");
}

TEST(DeclaredInterfaces, CollectAndContainsWalkTheIterator) {
  auto seq = counting_sequence(4);
  auto collected = I_Iterable::unsafeFrom(seq).collectImpl();
  ASSERT_TRUE(collected.is<List>());
  EXPECT_EQ(ints_of(collected.as<List>().copyItems()), (Ints{0, 10, 20, 30}));
  EXPECT_TRUE(Boolean::unsafeFrom(value_of(I_Iterable::unsafeFrom(seq).contains(Integer(20)))).value());
  EXPECT_FALSE(Boolean::unsafeFrom(value_of(I_Iterable::unsafeFrom(seq).contains(Integer(25)))).value());
}

TEST(DeclaredInterfaces, CollectReportsElementsThatDoNotFitTheDeclaredType) {
  auto seq = counting_sequence(3, {}, true);
  EXPECT_TRUE(I_Iterable::unsafeFrom(seq).elementsType().isSame(String::getType()));
  auto collected = I_Iterable::unsafeFrom(seq).collectImpl();
  ASSERT_TRUE(collected.isError()) << text_of(collected); // not a silently emptied list
  EXPECT_TRUE(BadArgument::isInstance(collected));
  EXPECT_NE(message_of(collected).find("kest.Integer"), std::string::npos) << message_of(collected);
}

TEST(DeclaredInterfaces, ListCanBeExtendedFromADeclaredIterable) {
  const List l(Integer::getType());
  ASSERT_FALSE(I_MutableSequence::unsafeFrom(l).extend(counting_sequence(3)).isError());
  EXPECT_EQ(ints_of(l.copyItems()), (Ints{0, 10, 20}));
}

TEST(DeclaredInterfaces, AValueThatDoesNotConformGivesTheCastError) {
  // A handle made without a check over a value whose class does not derive from
  // the interface: no member of that name is looked up, the cast error names both classes.
  auto plain = value_of(declared().plain.allocateInstance());
  auto length = I_Sequence(internal::unchecked, plain).length();
  ASSERT_TRUE(length.isError());
  EXPECT_EQ(message_of(length), "Unable to cast a value of class 'PlainThing' to 'I_Sequence'.");
  auto at = I_Sequence(internal::unchecked, plain).at(0);
  ASSERT_TRUE(at.isError());
  EXPECT_EQ(message_of(at), "Unable to cast a value of class 'PlainThing' to 'I_Sequence'.");
  auto iter = I_Iterable(internal::unchecked, plain).iter();
  ASSERT_TRUE(iter.isError());
  EXPECT_EQ(message_of(iter), "Unable to cast a value of class 'PlainThing' to 'I_Iterable'.");
  internal::iterator_iterable it(plain), end;
  EXPECT_TRUE(it == end);
  EXPECT_EQ(message_of(it.error()), "Unable to cast a value of class 'PlainThing' to 'I_Iterable'.");
}

TEST(DeclaredInterfaces, MissingMembersGiveErrors) {
  auto indexOf = I_Sequence::unsafeFrom(counting_sequence(1)).indexOf(Integer(0));
  EXPECT_TRUE(indexOf.isError());
}

TEST(DeclaredInterfaces, DeclaredSequencesDoNotLeak) {
  auto work = [] {
    auto seq = counting_sequence(5);
    Ints seen;
    for (auto &v : I_Iterable::unsafeFrom(seq))
      seen.push_back(int_of(v));
    auto collected = I_Iterable::unsafeFrom(seq).collectImpl();
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(I_Sequence::unsafeFrom(seq).length().as<Integer>().value(), 5);
  };
  work(); // declares the classes and anything else made once
  const auto before = internal::object_value::live_count();
  work();
  EXPECT_EQ(internal::object_value::live_count(), before);
}

TEST(Containers, MakingAndDroppingContainersDoesNotLeak) {
  auto warm = [] {
    const List l(Integer::getType());
    const HashMap m(String::getType(), Integer::getType());
    const HashSet s(Integer::getType());
    for (int i = 0; i < 50; ++i) {
      (void)l.append(Integer(i));
      (void)m.setChecked(String::fromUtf8(std::to_string(i)), Integer(i));
      (void)s.insert(Integer(i % 7));
    }
    for (int i = 0; i < 50; i += 2)
      (void)m.remove(String::fromUtf8(std::to_string(i)));
    (void)l.removeAt(3);
    (void)display(Tuple{l, m, s});
    l.clear();
    s.clear();
  };
  warm();
  const auto before = internal::object_value::live_count();
  warm();
  EXPECT_EQ(internal::object_value::live_count(), before);
}
