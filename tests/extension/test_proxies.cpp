// The live proxies of Python containers and iterables: which wrapper a Python
// object becomes, and the mapping, sequence, set, iterable and iterator
// proxies used through the host's generic interfaces, with their failures.

#include "python_objects_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
host_map as_map(const kest::Any& value) {
  return host_map(value);
}
host_sequence as_sequence(const kest::Any& value) {
  return host_sequence(value);
}
host_set as_set(const kest::Any& value) {
  return host_set(value);
}

/// The message of an error result; no Python error may be pending after it.
std::string failure_of(const kest::Any& result, const std::string& member) {
  expect_no_python_error(member);
  EXPECT_TRUE(kest::Error::isInstance(result))
      << member << " did not fail: " << class_name_of(result);
  return message_of(result);
}

/// The str() of what `code` raises in Python, to compare a converted error with.
std::string python_error_text(python_scope& py, const std::string& code) {
  py.run("try:\n    " + code +
         "\n    caught = None\nexcept Exception as e:\n    caught = str(e)\n");
  return py.text("caught");
}
} // namespace

// --- Which wrapper a Python object becomes ---------------------------------------

TEST(PythonWrappers, AFrozensetBecomesAnIterableProxy) {
  python_scope py;
  auto value = py.host("frozenset({1, 2})");
  EXPECT_TRUE(is_of_class(value, cpythonProxyIterableClass())) << class_name_of(value);
  EXPECT_FALSE(kest::I_Set::isInstance(value));
  EXPECT_TRUE(kest::I_Iterable::isInstance(value));
}

TEST(PythonWrappers, ASetBecomesASetProxy) {
  python_scope py;
  auto value = py.host("{1, 2}");
  EXPECT_TRUE(is_of_class(value, cpythonProxySetClass())) << class_name_of(value);
  EXPECT_TRUE(kest::I_MutableSet::isInstance(value));
  auto subclass = py.host("type('MySet', (set,), {})([1])");
  EXPECT_TRUE(is_of_class(subclass, cpythonProxySetClass())) << class_name_of(subclass);
}

TEST(PythonWrappers, ADictBecomesAMappingProxyNeverASequenceProxy) {
  python_scope py;
  for (const char* expression : {"{'a': 1}", "{}", "type('MyDict', (dict,), {})(a=1)",
                                 "__import__('collections').OrderedDict(a=1)"}) {
    SCOPED_TRACE(expression);
    auto value = py.host(expression);
    EXPECT_TRUE(is_of_class(value, cpythonProxyMappingClass())) << class_name_of(value);
    EXPECT_TRUE(kest::I_MutableMap::isInstance(value));
    EXPECT_FALSE(kest::I_Sequence::isInstance(value));
  }
}

TEST(PythonWrappers, AListOrTupleBecomesASequenceProxy) {
  python_scope py;
  for (const char* expression : {"[1, 2]", "[]", "(1, 2)", "()"}) {
    SCOPED_TRACE(expression);
    auto value = py.host(expression);
    EXPECT_TRUE(is_of_class(value, cpythonProxySequenceClass())) << class_name_of(value);
    EXPECT_TRUE(kest::I_MutableSequence::isInstance(value));
  }
}

TEST(PythonWrappers, AGeneratorBecomesAnIterableProxyAndAPlainInstanceACPythonObject) {
  python_scope py;
  py.run("def gen():\n    yield 1\nclass Thing:\n    pass\n");
  auto generator = py.host("gen()");
  EXPECT_TRUE(is_of_class(generator, cpythonProxyIterableClass())) << class_name_of(generator);
  auto thing = py.host("Thing()");
  EXPECT_TRUE(kest::raw_class_of(thing).isSame(cpythonObjectClass())) << class_name_of(thing);
  auto function = py.host("gen");
  EXPECT_TRUE(is_of_class(function, cpythonFunctionClass())) << class_name_of(function);
}

TEST(PythonWrappers, ToPythonGivesBackTheVeryObjectOfEveryWrapper) {
  python_scope py;
  py.run("def gen():\n    yield 1\nclass Thing:\n    pass\n"
         "objects = [{'a': 1}, [1], (1,), {1}, frozenset({1}), gen(), Thing(), gen, len, "
         "iter([1])]\n");
  for (int i = 0; i < 10; ++i) {
    SCOPED_TRACE(i);
    auto object = py.object("objects[" + std::to_string(i) + "]");
    auto value = py.host("objects[" + std::to_string(i) + "]");
    ASSERT_TRUE(isPythonBacked(value)) << class_name_of(value);
    auto back = py::object::steal(toPython(value));
    EXPECT_EQ(back.get(), object.get());
  }
  // and the iterator a proxy makes
  auto iterator = value_of(kest::I_Iterable::unsafeFrom(py.host("objects[1]")).iter());
  ASSERT_TRUE(is_of_class(iterator, cpythonProxyIteratorClass())) << class_name_of(iterator);
  auto back = py::object::steal(toPython(iterator));
  py.set("it", iterator);
  EXPECT_TRUE(py.truth("type(it).__name__ == 'list_iterator'"));
  EXPECT_EQ(back.get(), py.object("it").get());
}

TEST(PythonWrappers, TheCodeOfAWrapperIsPythonsRepr) {
  python_scope py;
  auto language = python_language_of_host();
  for (const char* expression :
       {"{'a': [1, 'x', None]}", "[1, 'a', None]", "(1,)", "{3}", "frozenset({3})", "range(3)"}) {
    SCOPED_TRACE(expression);
    auto code = value_of(language.toCode(py.host(expression)));
    EXPECT_EQ(host_text(code), py.repr(expression));
  }
}

// --- CPythonProxyMapping -----------------------------------------------------------

TEST(ProxyMapping, KeysAndValuesTypesAreUntypedWhateverTheContents) {
  python_scope py;
  for (const char* expression : {"{}", "{'a': 1, 'b': 2}", "{1: 'x'}", "{(1, 2): [3]}"}) {
    SCOPED_TRACE(expression);
    auto map = as_map(py.host(expression));
    EXPECT_TRUE(map.keysType().isUntyped()) << map.keysType().name().toUtf8();
    EXPECT_TRUE(map.valuesType().isUntyped()) << map.valuesType().name().toUtf8();
  }
}

TEST(ProxyMapping, KeysKeepPythonsInsertionOrder) {
  python_scope py;
  py.run("d = {}\nd['b'] = 1\nd['a'] = 2\nd['c'] = 3\n");
  auto map = as_map(py.host("d"));
  EXPECT_EQ(host_texts(value_of(map.keys())), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(host_integers(value_of(map.values())), (std::vector<std::int64_t>{1, 2, 3}));
}

TEST(ProxyMapping, LengthReflectsAKeySetFromTheHostAtOnce) {
  python_scope py;
  py.run("d = {'a': 1}\n");
  auto map = as_map(py.host("d"));
  EXPECT_EQ(host_integer(value_of(map.length())), 1);
  ASSERT_FALSE(map.setChecked(kest::String(u"b"), kest::Integer(2)).isError());
  EXPECT_EQ(host_integer(value_of(map.length())), 2);
  EXPECT_EQ(py.integer("len(d)"), 2);
}

TEST(ProxyMapping, AMappingWithoutClearFailsClearWithTheMethodMissingErrorAndKeepsItsContents) {
  python_scope py;
  py.run("class Table:\n"
         "    def __init__(self):\n        self.data = {'a': 1}\n"
         "    def __getitem__(self, k):\n        return self.data[k]\n"
         "    def __setitem__(self, k, v):\n        self.data[k] = v\n"
         "    def __len__(self):\n        return len(self.data)\n"
         "    def __contains__(self, k):\n        return k in self.data\n"
         "    def keys(self):\n        return self.data.keys()\n"
         "    def values(self):\n        return self.data.values()\n"
         "    def __repr__(self):\n        return 'Table()'\n"
         "t = Table()\n");
  auto map = as_map(wrapper_over(cpythonProxyMappingClass(), py.object("t")));
  auto cleared = map.clear();
  EXPECT_EQ(failure_of(cleared, "clear"), "The method is missing: clear, target object: Table().");
  EXPECT_EQ(host_integer(value_of(map.length())), 1);
  EXPECT_EQ(py.integer("len(t.data)"), 1);
  EXPECT_EQ(host_integer(value_of(map.get(kest::String(u"a")))), 1);
}

TEST(ProxyMapping, GetOfAMissingKeyIsPythonsKeyError) {
  python_scope py;
  py.run("d = {'a': 1}\n");
  auto map = as_map(py.host("d"));
  auto missing = value_of(map.get(kest::String(u"zz")));
  EXPECT_EQ(failure_of(missing, "get"), python_error_text(py, "d['zz']"));
  EXPECT_EQ(message_of(missing), "'zz'");
}

TEST(ProxyMapping, RemoveGivesTheRemovedValueAndAMissingKeyIsPythonsKeyError) {
  python_scope py;
  py.run("d = {'a': 1, 'b': 2}\n");
  auto map = as_map(py.host("d"));
  EXPECT_EQ(host_integer(value_of(map.remove(kest::String(u"a")))), 1);
  EXPECT_TRUE(py.truth("d == {'b': 2}"));
  auto missing = value_of(map.remove(kest::String(u"a")));
  EXPECT_EQ(failure_of(missing, "remove"), "'a'");
  EXPECT_TRUE(py.truth("d == {'b': 2}"));
}

TEST(ProxyMapping, ContainsAndClearForwardToTheDict) {
  python_scope py;
  py.run("d = {'a': 1, 2: 'b'}\n");
  auto map = as_map(py.host("d"));
  EXPECT_TRUE(host_boolean(value_of(map.contains(kest::String(u"a")))));
  EXPECT_TRUE(host_boolean(value_of(map.contains(kest::Integer(2)))));
  EXPECT_FALSE(host_boolean(value_of(map.contains(kest::String(u"b")))));
  ASSERT_FALSE(map.clear().isError());
  EXPECT_TRUE(py.truth("d == {}"));
}

TEST(ProxyMapping, AContainsThatAnswersANonBooleanGivesTheCastError) {
  python_scope py;
  py.run("class Odd(dict):\n    def __contains__(self, k):\n        return 'yes'\n");
  auto map = as_map(py.host("Odd(a=1)"));
  auto r = value_of(map.contains(kest::String(u"a")));
  EXPECT_FALSE(failure_of(r, "contains").empty());
}

TEST(ProxyMapping, KeysAndValuesAreSnapshots) {
  python_scope py;
  py.run("d = {'a': 1}\n");
  auto map = as_map(py.host("d"));
  auto keys = value_of(map.keys());
  auto values = value_of(map.values());
  py.run("d['b'] = 2\n");
  EXPECT_EQ(host_texts(keys), (std::vector<std::string>{"a"}));
  EXPECT_EQ(host_integers(values), (std::vector<std::int64_t>{1}));
  EXPECT_EQ(host_texts(value_of(map.keys())), (std::vector<std::string>{"a", "b"}));
}

TEST(ProxyMapping, AnArgumentThatDoesNotConvertGivesTheConversionError) {
  python_scope py;
  py.run("d = {}\n");
  auto map = as_map(py.host("d"));
  auto hollow = empty_wrapper(cpythonObjectClass()); // converts to nothing, without a Python error
  auto r = value_of(map.setChecked(kest::String(u"k"), hollow));
  EXPECT_EQ(failure_of(r, "set"),
            "Unable to convert an argument: " + kest::display(hollow).toUtf8() + ".");
  EXPECT_TRUE(py.truth("d == {}"));
}

TEST(ProxyMapping, AHostErrorAsAnArgumentGivesThePythonErrorItRaised) {
  python_scope py;
  py.run("d = {}\n");
  auto map = as_map(py.host("d"));
  auto r = value_of(map.setChecked(kest::String(u"k"), kest::Error(kest::String(u"not a value"))));
  EXPECT_EQ(failure_of(r, "set"), "not a value");
  EXPECT_TRUE(py.truth("d == {}"));
}

// --- A dict from the host, live both ways -------------------------------------------

TEST(ProxyMapping, AChangeThroughTheHostMapShowsInPythonAtOnce) {
  python_scope py;
  py.run("settings = {'size': 1}\n");
  auto map = as_map(py.host("settings"));
  ASSERT_FALSE(map.setChecked(kest::String(u"size"), kest::Integer(5)).isError());
  EXPECT_EQ(py.integer("settings['size']"), 5);
  ASSERT_FALSE(map.setChecked(kest::String(u"name"), kest::String(u"ada")).isError());
  EXPECT_TRUE(py.truth("settings == {'size': 5, 'name': 'ada'}"));
  EXPECT_EQ(host_integer(value_of(map.remove(kest::String(u"size")))), 5);
  EXPECT_TRUE(py.truth("settings == {'name': 'ada'}"));
}

TEST(ProxyMapping, AChangeInPythonShowsThroughTheHostMapAtOnce) {
  python_scope py;
  py.run("settings = {'size': 1}\n");
  auto map = as_map(py.host("settings"));
  py.run("settings['size'] = 7\nsettings['colour'] = 'red'\n");
  EXPECT_EQ(host_integer(value_of(map.get(kest::String(u"size")))), 7);
  EXPECT_EQ(host_text(value_of(map.get(kest::String(u"colour")))), "red");
  EXPECT_EQ(host_integer(value_of(map.length())), 2);
  py.run("del settings['size']\n");
  EXPECT_FALSE(host_boolean(value_of(map.contains(kest::String(u"size")))));
}

TEST(ProxyMapping, AHostValuePutIntoTheDictComesBackAsItself) {
  python_scope py;
  py.run("d = {}\n");
  auto map = as_map(py.host("d"));
  kest::List list(kest::Type(), {kest::Integer(1)});
  ASSERT_FALSE(map.setChecked(kest::String(u"list"), list).isError());
  EXPECT_TRUE(value_of(map.get(kest::String(u"list"))).isSame(list));
}

TEST(ProxyMapping, ARangeLoopGoesOverTheKeys) {
  python_scope py;
  auto map = py.host("{'x': 1, 'y': 2}");
  std::vector<std::string> keys;
  for (const auto& key : kest::I_Iterable::unsafeFrom(map))
    keys.push_back(host_text(key));
  EXPECT_EQ(keys, (std::vector<std::string>{"x", "y"}));
}

// --- CPythonProxySequence -----------------------------------------------------------

TEST(ProxySequence, RemoveOneOfAnAbsentValueIsFalseAndLeavesNoPythonError) {
  python_scope py;
  py.run("items = [1, 2, 1]\n");
  auto sequence = as_sequence(py.host("items"));
  auto absent = value_of(sequence.removeOne(kest::Integer(9)));
  expect_no_python_error("removeOne");
  EXPECT_FALSE(host_boolean(absent));
  EXPECT_TRUE(py.truth("items == [1, 2, 1]"));
  EXPECT_TRUE(host_boolean(value_of(sequence.removeOne(kest::Integer(1)))));
  EXPECT_TRUE(py.truth("items == [2, 1]"));
}

TEST(ProxySequence, IndexOfAMissingValueIsMinusOne) {
  python_scope py;
  auto sequence = as_sequence(py.host("['a', 'b']"));
  EXPECT_EQ(host_integer(value_of(sequence.indexOf(kest::String(u"z")))), -1);
  expect_no_python_error("indexOf");
  EXPECT_EQ(host_integer(value_of(sequence.indexOf(kest::String(u"b")))), 1);
}

TEST(ProxySequence, IndexOfFromAStartFindsOnlyOccurrencesAtOrAfterIt) {
  python_scope py;
  auto sequence = py.host("[5, 6, 7, 5, 6]");
  EXPECT_EQ(host_integer(call_member(sequence, "indexOf", {kest::Integer(5), kest::Integer(2)})),
            3);
  EXPECT_EQ(host_integer(call_member(sequence, "indexOf", {kest::Integer(6), kest::Integer(2)})),
            4);
  EXPECT_EQ(host_integer(call_member(sequence, "indexOf", {kest::Integer(7), kest::Integer(3)})),
            -1);
  expect_no_python_error("indexOf");
  EXPECT_EQ(host_integer(call_member(sequence, "indexOf", {kest::Integer(5)})), 0);
}

TEST(ProxySequence, AtMinusOneIsTheLastElement) {
  python_scope py;
  auto sequence = as_sequence(py.host("[10, 20, 30]"));
  EXPECT_EQ(host_integer(value_of(sequence.at(-1))), 30);
  EXPECT_EQ(host_integer(value_of(sequence.at(0))), 10);
}

TEST(ProxySequence, AtTheLengthIsPythonsIndexError) {
  python_scope py;
  py.run("items = [10, 20, 30]\n");
  auto sequence = as_sequence(py.host("items"));
  auto r = value_of(sequence.at(3));
  EXPECT_EQ(failure_of(r, "at"), python_error_text(py, "items[3]"));
  EXPECT_EQ(message_of(r), "list index out of range");
}

TEST(ProxySequence, AtOrOfTheLengthGivesTheFallback) {
  python_scope py;
  auto sequence = py.host("[10, 20, 30]");
  auto r = call_member(sequence, "atOr", {kest::Integer(3), kest::String(u"none")});
  expect_no_python_error("atOr");
  EXPECT_EQ(host_text(r), "none");
  EXPECT_EQ(host_integer(call_member(sequence, "atOr", {kest::Integer(1), kest::String(u"none")})),
            20);
}

TEST(ProxySequence, EditsThroughTheHostShowInPython) {
  python_scope py;
  py.run("items = [1, 2, 3]\n");
  auto sequence = as_sequence(py.host("items"));
  ASSERT_FALSE(sequence.append(kest::Integer(4)).isError());
  ASSERT_FALSE(sequence.appendAt(0, kest::Integer(0)).isError());
  ASSERT_FALSE(sequence.set(-1, kest::Integer(40)).isError());
  EXPECT_TRUE(py.truth("items == [0, 1, 2, 3, 40]"));
  EXPECT_EQ(host_integer(value_of(sequence.pop())), 40);
  ASSERT_FALSE(sequence.removeAt(0).isError());
  EXPECT_TRUE(py.truth("items == [1, 2, 3]"));
  ASSERT_FALSE(
      sequence.extend(kest::List(kest::Type(), {kest::Integer(8), kest::Integer(9)})).isError());
  EXPECT_TRUE(py.truth("items == [1, 2, 3, 8, 9]"));
  EXPECT_EQ(host_integer(value_of(sequence.length())), 5);
  EXPECT_TRUE(host_boolean(value_of(sequence.contains(kest::Integer(8)))));
  ASSERT_FALSE(sequence.clear().isError());
  EXPECT_TRUE(py.truth("items == []"));
}

TEST(ProxySequence, ATupleFailsEditsWithTheMethodMissingError) {
  python_scope py;
  auto sequence = as_sequence(py.host("(1, 2)"));
  EXPECT_EQ(failure_of(sequence.append(kest::Integer(3)), "append"),
            "The method is missing: append, target object: (1, 2).");
  EXPECT_EQ(host_integer(value_of(sequence.length())), 2);
  EXPECT_EQ(host_integer(value_of(sequence.at(1))), 2);
}

TEST(ProxySequence, ARangeLoopWalksTheList) {
  python_scope py;
  auto sequence = py.host("[3, 1, 2]");
  std::vector<std::int64_t> seen;
  for (const auto& item : kest::I_Iterable::unsafeFrom(sequence))
    seen.push_back(host_integer(item));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{3, 1, 2}));
}

// --- CPythonProxySet ----------------------------------------------------------------

TEST(ProxySet, RemovingAnAbsentValueIsFalseAndLeavesNoPythonError) {
  python_scope py;
  py.run("s = {1, 2}\n");
  auto set = as_set(py.host("s"));
  auto absent = value_of(set.remove(kest::Integer(9)));
  expect_no_python_error("remove");
  EXPECT_FALSE(host_boolean(absent));
  EXPECT_TRUE(host_boolean(value_of(set.remove(kest::Integer(1)))));
  EXPECT_TRUE(py.truth("s == {2}"));
}

TEST(ProxySet, RemovingFromAFrozenSetIsTheMethodMissingError) {
  python_scope py;
  auto frozen = py.object("frozenset({1})");
  auto set = as_set(wrapper_over(cpythonProxySetClass(), frozen));
  auto r = value_of(set.remove(kest::Integer(1)));
  EXPECT_EQ(failure_of(r, "remove"), "The method is missing in frozenset({1}).");
}

TEST(ProxySet, InsertExtendAndClearReachTheSet) {
  python_scope py;
  py.run("s = set()\n");
  auto set = as_set(py.host("s"));
  ASSERT_FALSE(set.insert(kest::Integer(1)).isError());
  ASSERT_FALSE(
      set.extend(kest::List(kest::Type(), {kest::Integer(2), kest::Integer(3)})).isError());
  EXPECT_TRUE(py.truth("s == {1, 2, 3}"));
  EXPECT_EQ(host_integer(value_of(set.length())), 3);
  EXPECT_TRUE(host_boolean(value_of(set.contains(kest::Integer(2)))));
  ASSERT_FALSE(set.clear().isError());
  EXPECT_TRUE(py.truth("s == set()"));
}

TEST(ProxySet, ExtendStopsAtTheFirstFailureKeepingWhatWasAdded) {
  python_scope py;
  py.run("s = set()\n");
  auto set = as_set(py.host("s"));
  // A Python list does not hash: the second add raises.
  auto unhashable = py.host("[1]");
  auto r = set.extend(kest::List(kest::Type(), {kest::Integer(1), unhashable, kest::Integer(3)}));
  EXPECT_EQ(failure_of(r, "extend"), "unhashable type: 'list'");
  EXPECT_TRUE(py.truth("s == {1}"));
}

// --- CPythonProxyIterable and CPythonProxyIterator ------------------------------------

TEST(ProxyIterable, AGeneratorYieldsItsValuesInOrderThenTheEnd) {
  python_scope py;
  py.run("def count():\n    yield 1\n    yield 2\n    yield 3\n");
  auto iterable = kest::I_Iterable::unsafeFrom(py.host("count()"));
  auto iterator = value_of(iterable.iter());
  ASSERT_TRUE(kest::I_Iterator::isInstance(iterator)) << message_of(iterator);
  EXPECT_TRUE(is_of_class(iterator, cpythonProxyIteratorClass()));
  auto it = kest::I_Iterator::unsafeFrom(iterator);
  for (std::int64_t expected : {1, 2, 3})
    EXPECT_EQ(host_integer(value_of(it.next())), expected);
  auto end = value_of(it.next());
  EXPECT_TRUE(kest::StopIteration::isInstance(end)) << class_name_of(end);
  expect_no_python_error("next at the end");
  EXPECT_TRUE(kest::StopIteration::isInstance(value_of(it.next())));
}

TEST(ProxyIterable, AGeneratorThatRaisesMidwayYieldsTheErrorAtThatPoint) {
  python_scope py;
  py.run("def broken():\n    yield 1\n    raise ValueError('broken at two')\n");
  auto it = kest::I_Iterator::unsafeFrom(
      value_of(kest::I_Iterable::unsafeFrom(py.host("broken()")).iter()));
  EXPECT_EQ(host_integer(value_of(it.next())), 1);
  auto error = value_of(it.next());
  EXPECT_EQ(failure_of(error, "next"), "broken at two");
  EXPECT_FALSE(kest::StopIteration::isInstance(error));
}

TEST(ProxyIterable, ARangeLoopOverAGeneratorStopsAtTheErrorAndKeepsIt) {
  python_scope py;
  py.run("def broken():\n    yield 1\n    yield 2\n    raise ValueError('no third')\n");
  auto iterable = py.host("broken()");
  std::vector<std::int64_t> seen;
  kest::internal::iterator_iterable it(iterable), end;
  for (; it != end; ++it)
    seen.push_back(host_integer(*it));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2}));
  EXPECT_EQ(failure_of(it.error(), "next"), "no third");
}

TEST(ProxyIterable, IteratingTwiceOverAGeneratorSharesItsElements) {
  python_scope py;
  py.run("def count():\n    yield from range(4)\n");
  auto iterable = kest::I_Iterable::unsafeFrom(py.host("count()"));
  auto first = kest::I_Iterator::unsafeFrom(value_of(iterable.iter()));
  auto second = kest::I_Iterator::unsafeFrom(value_of(iterable.iter()));
  EXPECT_FALSE(first.isSame(second));
  EXPECT_EQ(held_by(first), held_by(second));
  EXPECT_EQ(host_integer(value_of(first.next())), 0);
  EXPECT_EQ(host_integer(value_of(second.next())), 1);
  EXPECT_EQ(host_integer(value_of(first.next())), 2);
  EXPECT_EQ(host_integer(value_of(second.next())), 3);
  EXPECT_TRUE(kest::StopIteration::isInstance(value_of(first.next())));
}

TEST(ProxyIterable, IteratingTwiceOverAListGivesIndependentIterators) {
  python_scope py;
  auto iterable = kest::I_Iterable::unsafeFrom(py.host("[7, 8]"));
  auto first = kest::I_Iterator::unsafeFrom(value_of(iterable.iter()));
  auto second = kest::I_Iterator::unsafeFrom(value_of(iterable.iter()));
  EXPECT_EQ(host_integer(value_of(first.next())), 7);
  EXPECT_EQ(host_integer(value_of(second.next())), 7);
}

TEST(ProxyIterable, AnIterWhoseDunderIterIsNotCallableIsMissing) {
  python_scope py;
  // __getitem__ makes it a sequence; its __iter__ is a number.
  py.run("class Odd:\n    __iter__ = 5\n    def __getitem__(self, i):\n        return i\n");
  auto odd = py.host("Odd()");
  ASSERT_TRUE(kest::I_Iterable::isInstance(odd)) << class_name_of(odd);
  auto r = value_of(kest::I_Iterable::unsafeFrom(odd).iter());
  EXPECT_EQ(failure_of(r, "iter"), "Missing '__iter__' method.");
  // and an iterable proxy over an object that has no __iter__ at all
  auto bare = wrapper_over(cpythonProxyIterableClass(), py.object("object()"));
  EXPECT_EQ(failure_of(value_of(kest::I_Iterable::unsafeFrom(bare).iter()), "iter"),
            "Missing '__iter__' method.");
}

TEST(ProxyIterable, AnIterThatRaisesGivesPythonsError) {
  python_scope py;
  py.run("class Refusing:\n    def __iter__(self):\n        raise TypeError('not today')\n");
  auto refusing = wrapper_over(cpythonProxyIterableClass(), py.object("Refusing()"));
  EXPECT_EQ(failure_of(value_of(kest::I_Iterable::unsafeFrom(refusing).iter()), "iter"),
            "not today");
}

TEST(ProxyIterable, AProxyWithoutAnObjectIsInvalid) {
  ensurePythonReady();
  auto hollow = empty_wrapper(cpythonProxyIterableClass());
  EXPECT_EQ(failure_of(value_of(kest::I_Iterable::unsafeFrom(hollow).iter()), "iter"),
            "Invalid object.");
}

TEST(ProxyIterable, AnIteratorWithoutAnObjectIsAtItsEnd) {
  ensurePythonReady();
  auto hollow = empty_wrapper(cpythonProxyIteratorClass());
  auto r = value_of(kest::I_Iterator::unsafeFrom(hollow).next());
  expect_no_python_error("next");
  EXPECT_TRUE(kest::StopIteration::isInstance(r)) << class_name_of(r);
}

TEST(ProxyIterable, ContainsForwardsToPython) {
  python_scope py;
  auto iterable = kest::I_Iterable::unsafeFrom(py.host("frozenset({1, 'a'})"));
  EXPECT_TRUE(host_boolean(value_of(iterable.contains(kest::String(u"a")))));
  EXPECT_FALSE(host_boolean(value_of(iterable.contains(kest::Integer(2)))));
}

TEST(ProxyIterable, AGeneratorIteratedWithTheHostsRangeLoop) {
  python_scope py;
  py.run("def squares(n):\n    for i in range(n):\n        yield i * i\n");
  auto generator = py.host("squares(5)");
  std::vector<std::int64_t> seen;
  for (const auto& value : kest::I_Iterable::unsafeFrom(generator))
    seen.push_back(host_integer(value));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{0, 1, 4, 9, 16}));
  // the generator is spent in Python too
  py.set("g", generator);
  EXPECT_TRUE(py.truth("list(g) == []"));
}

// --- Members of a proxy without an object ---------------------------------------------

TEST(ProxyFailures, EveryForwardedMemberOfAHollowProxyIsTheNullObjectError) {
  ensurePythonReady();
  auto map = as_map(empty_wrapper(cpythonProxyMappingClass()));
  auto sequence = as_sequence(empty_wrapper(cpythonProxySequenceClass()));
  auto set = as_set(empty_wrapper(cpythonProxySetClass()));
  const std::string null = "The object is null.";
  EXPECT_EQ(failure_of(value_of(map.get(kest::Integer(1))), "get"), null);
  EXPECT_EQ(failure_of(map.setChecked(kest::Integer(1), kest::Integer(2)), "set"), null);
  EXPECT_EQ(failure_of(value_of(map.length()), "__len__"), null);
  EXPECT_EQ(failure_of(value_of(map.keys()), "keys"), null);
  EXPECT_EQ(failure_of(value_of(sequence.at(0)), "at"), null);
  EXPECT_EQ(failure_of(value_of(sequence.indexOf(kest::Integer(0))), "indexOf"), null);
  EXPECT_EQ(failure_of(value_of(sequence.removeOne(kest::Integer(0))), "removeOne"), null);
  EXPECT_EQ(failure_of(value_of(set.remove(kest::Integer(0))), "remove"), null);
  EXPECT_EQ(failure_of(value_of(set.length()), "__len__"), null);
}

TEST(ProxyFailures, NoPythonErrorIsPendingAfterAnyFailingMember) {
  python_scope py;
  py.run("d = {}\nt = (1,)\ns = {1}\n"
         "def broken():\n    raise KeyError('k')\n    yield 1\n");
  auto map = as_map(py.host("d"));
  auto tuple = as_sequence(py.host("t"));
  auto set = as_set(py.host("s"));
  auto generator = kest::I_Iterator::unsafeFrom(
      value_of(kest::I_Iterable::unsafeFrom(py.host("broken()")).iter()));
  // Each is called and checked on its own, so that an error one of them left
  // pending cannot be blamed on the next.
  const std::vector<std::pair<std::string, std::function<kest::Any()>>> failures{
      {"map get", [&] { return value_of(map.get(kest::Integer(1))); }},
      {"map remove", [&] { return value_of(map.remove(kest::Integer(1))); }},
      {"map set of an unhashable key",
       [&] { return kest::Any(map.setChecked(py.host("[1]"), kest::Integer(1))); }},
      {"tuple append", [&] { return kest::Any(tuple.append(kest::Integer(1))); }},
      {"tuple at", [&] { return value_of(tuple.at(5)); }},
      {"tuple pop", [&] { return value_of(tuple.pop()); }},
      {"tuple set", [&] { return kest::Any(tuple.set(0, kest::Integer(1))); }},
      {"set insert of an unhashable value", [&] { return value_of(set.insert(py.host("[1]"))); }},
      {"generator next", [&] { return value_of(generator.next()); }},
  };
  for (const auto& [what, call] : failures) {
    SCOPED_TRACE(what);
    auto result = call();
    EXPECT_FALSE(failure_of(result, what).empty());
  }
}
