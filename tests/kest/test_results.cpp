// Results: computed values, errors, external values, weak references and the
// helpers that look through them. Every test here also checks that the objects
// it made are gone when it ends.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace kest;

namespace {

/// Checks that a test gives back every object it made. Classes and other
/// once-only objects are made before the count is taken.
class Results : public ::testing::Test {
protected:
  void SetUp() override {
    for (auto cls : {Error::getClass(), BadArgument::getClass(), EvaluationError::getClass(),
                     StopIteration::getClass(), Computed_Generic::getClass(), External::getClass(),
                     WeakReference::getClass(), Integer::getClass(), String::getClass(), Float::getClass(),
                     List::getClass()})
      (void)cls;
    (void)List::genericInstance(Type());
    m_before = internal::object_value::live_count();
  }
  void TearDown() override { EXPECT_EQ(internal::object_value::live_count(), m_before) << "objects leaked"; }

private:
  std::int64_t m_before = 0;
};

std::string message_of(const Any &error) {
  EXPECT_TRUE(Error::isInstance(error));
  return Error::isInstance(error) ? Error::unsafeFrom(error).message().toUtf8() : std::string();
}

Any endless_external() { return External::fromLoader(&endless_external); }

} // namespace

// --- Computed -------------------------------------------------------------------------

TEST_F(Results, ComputedRunsItsProducerOnlyOnFirstRequest) {
  int calls = 0;
  auto c = Computed<Integer>::create([&] {
    ++calls;
    return Integer(7);
  });
  EXPECT_EQ(calls, 0);
  auto first = c.value();
  EXPECT_EQ(calls, 1);
  ASSERT_TRUE(first.is<Integer>());
  EXPECT_EQ(first.as<Integer>().value(), 7);
  auto second = c.value();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(second.isSame(first));
  EXPECT_TRUE(Computed<Integer>::isInstance(c));
  EXPECT_TRUE(Computed_Generic::isInstance(c));
  EXPECT_FALSE(Computed_Generic::isInstance(first));
}

TEST_F(Results, ComputedIsEvaluatedOnceWhenFourThreadsAskAtOnce) {
  for (int round = 0; round < 10; ++round) {
    std::atomic<int> calls{0};
    auto c = Computed<String>::create([&] {
      calls.fetch_add(1);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      return String::fromUtf8("computed " + std::to_string(round));
    });
    std::latch start(4);
    std::vector<Any> seen(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        start.arrive_and_wait();
        seen[t] = c.value();
      });
    for (auto &t : threads)
      t.join();
    EXPECT_EQ(calls.load(), 1);
    ASSERT_TRUE(String::isInstance(seen[0]));
    EXPECT_EQ(String::unsafeFrom(seen[0]).toUtf8(), "computed " + std::to_string(round));
    for (auto &v : seen)
      EXPECT_TRUE(v.isSame(seen[0]));
  }
}

TEST_F(Results, ComputedDropsWhatTheProducerCapturedAfterRunning) {
  auto captured = String(u"captured");
  WeakReference watch(captured);
  auto c = Computed<Integer>::create([keep = captured] { return Integer(keep.length()); });
  captured.reset();
  EXPECT_TRUE(watch.lock()); // the producer still holds it
  auto v = c.value();
  ASSERT_TRUE(v.is<Integer>());
  EXPECT_EQ(v.as<Integer>().value(), 8);
  EXPECT_FALSE(watch.lock()); // released once the value was computed
}

TEST_F(Results, ComputedProducerThatThrowsBecomesAnError) {
  int calls = 0;
  auto c = Computed<Integer>::create([&]() -> Result<Integer> {
    ++calls;
    throw std::runtime_error("producer failed");
  });
  auto r = c.value();
  ASSERT_TRUE(r.isError());
  EXPECT_FALSE(r.is<Integer>());
  EXPECT_EQ(message_of(r), "producer failed");
  auto cause = r.as<Error>().cause();
  ASSERT_TRUE(cause);
  try {
    std::rethrow_exception(cause);
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "producer failed");
  } catch (...) {
    ADD_FAILURE() << "the cause is not the thrown exception";
  }
  // The error is kept: a second request neither reruns nor changes it.
  auto again = c.value();
  EXPECT_TRUE(again.isSame(r));
  EXPECT_EQ(calls, 1);
}

TEST_F(Results, ComputedProducerThatThrowsANonStandardExceptionGivesTheUnknownError) {
  auto c = Computed<Integer>::create([]() -> Result<Integer> { throw 42; });
  auto r = c.value();
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(message_of(r), "Unknown error.");
  auto cause = r.as<Error>().cause();
  ASSERT_TRUE(cause);
  try {
    std::rethrow_exception(cause);
  } catch (int n) {
    EXPECT_EQ(n, 42);
  } catch (...) {
    ADD_FAILURE() << "the cause is not the thrown int";
  }
}

TEST_F(Results, ComputedProducerThatThrowsAKestExceptionGivesItsError) {
  BadArgument original("bad input");
  auto c = Computed<Integer>::create([original]() -> Result<Integer> { throw kest::exception(original); });
  auto r = c.value();
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(r.isSame(original));
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_FALSE(r.as<Error>().cause()); // the carried error needs no native cause
}

TEST_F(Results, ComputedProducerMayReturnAnError) {
  auto c = Computed<Integer>::create([]() -> Result<Integer> { return Error("plain failure"); });
  auto r = c.value();
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(message_of(r), "plain failure");
  EXPECT_FALSE(r.as<Error>().cause());
}

TEST_F(Results, ResultHoldsAValueAComputedOrAnError) {
  Result<Integer> value = Integer(1);
  Result<Integer> error = Error("no");
  Result<Integer> lazy = Computed<Integer>::create([] { return Integer(2); });
  EXPECT_TRUE(value.is<Integer>());
  EXPECT_FALSE(value.isError());
  EXPECT_TRUE(error.isError());
  EXPECT_TRUE(error.is<Error>());
  EXPECT_TRUE(lazy.is<Computed<Integer>>());
  EXPECT_FALSE(lazy.isError());
  EXPECT_FALSE(lazy.is<Integer>());
}

// --- result helpers ---------------------------------------------------------------------

TEST_F(Results, IsErrorResultDoesNotEvaluateComputedValues) {
  int calls = 0;
  auto failing = Computed<Integer>::create([&]() -> Result<Integer> {
    ++calls;
    return Error("later");
  });
  EXPECT_FALSE(internal::is_error_result(failing));
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(internal::is_error_result(Error("now")));
  EXPECT_TRUE(internal::is_error_result(StopIteration()));
  EXPECT_FALSE(internal::is_error_result(Integer(1)));
  EXPECT_FALSE(internal::is_error_result(Any()));
  EXPECT_FALSE(internal::is_error_result(Error::getClass())); // the class is no error
  EXPECT_TRUE(internal::is_error_result(internal::result_unwrap_lazy(failing)));
  EXPECT_EQ(calls, 1);
}

TEST_F(Results, UnwrapLazyFollowsNestedComputedValues) {
  int inner_calls = 0, outer_calls = 0;
  auto inner = Computed<Integer>::create([&] {
    ++inner_calls;
    return Integer(3);
  });
  auto outer = Computed_Generic(internal::unchecked, internal::create_computed([&, inner]() -> Any {
                                  ++outer_calls;
                                  return inner;
                                }));
  auto outermost = internal::create_computed([outer]() -> Any { return outer; });
  auto v = internal::result_unwrap_lazy(outermost);
  ASSERT_TRUE(Integer::isInstance(v));
  EXPECT_EQ(Integer::unsafeFrom(v).value(), 3);
  EXPECT_EQ(inner_calls, 1);
  EXPECT_EQ(outer_calls, 1);
  // Evaluating once more reuses the kept values.
  EXPECT_TRUE(internal::result_unwrap_lazy(outermost).isSame(v));
  EXPECT_EQ(inner_calls, 1);
}

TEST_F(Results, UnwrapLazyPassesOtherValuesThrough) {
  const Integer i(5);
  EXPECT_TRUE(internal::result_unwrap_lazy(i).isSame(i));
  const Error e("error");
  EXPECT_TRUE(internal::result_unwrap_lazy(e).isSame(e));
  EXPECT_TRUE(internal::result_unwrap_lazy(Any()).empty());
  // An external value is not computed: it stays as it is.
  auto ext = External::fromValue(Integer(1));
  EXPECT_TRUE(internal::result_unwrap_lazy(ext).isSame(ext));
}

TEST_F(Results, EvaluateComputedOfAPlainValueGivesTheValue) {
  const Float f(1.5);
  EXPECT_TRUE(internal::evaluate_computed(f).isSame(f));
}

TEST_F(Results, CastSourceErrorNamesTheSourceClassAndTheExpectedOne) {
  auto e = internal::result_error_cast_source(String(u"Integer"), String(u"text"));
  EXPECT_EQ(e.message().toUtf8(), "Unable to cast a value of class 'kest.String' to 'Integer'.");
  auto e2 = internal::result_error_cast_source(String(u"kest.Float"), List());
  EXPECT_NE(e2.message().toUtf8().find("kest.List<kest.Untyped>"), std::string::npos) << e2.message().toUtf8();
  EXPECT_NE(e2.message().toUtf8().find("kest.Float"), std::string::npos);
}

TEST_F(Results, NoErrorErrorHasAFixedMessage) {
  auto e = internal::result_error_no_error();
  EXPECT_TRUE(Error::isInstance(e));
  EXPECT_EQ(e.message().toUtf8(), "The operation failed without an error.");
  EXPECT_FALSE(e.isSame(internal::result_error_no_error()));
}

// --- External -----------------------------------------------------------------------------

TEST_F(Results, ExternalFromLoaderCallsTheLoaderOnEveryLoad) {
  int loads = 0;
  auto ext = External::fromLoader([&] { return Integer(++loads); });
  EXPECT_EQ(ext.kind(), internal::ObjectType::External);
  EXPECT_TRUE(External::isInstance(ext));
  EXPECT_EQ(loads, 0);
  EXPECT_EQ(Integer::unsafeFrom(ext.load()).value(), 1);
  EXPECT_EQ(Integer::unsafeFrom(ext.load()).value(), 2);
  EXPECT_EQ(Integer::unsafeFrom(internal::object_value_external::load(ext)).value(), 3);
  EXPECT_EQ(loads, 3);
}

TEST_F(Results, ExternalFromLoaderIgnoresStore) {
  auto ext = External::fromLoader([] { return String(u"from loader"); });
  ext.store(String(u"stored"));
  EXPECT_EQ(String::unsafeFrom(ext.load()).toUtf8(), "from loader");
}

TEST_F(Results, ExternalFromValueHoldsTheValueUntilStoredAgain) {
  const Integer first(1);
  auto ext = External::fromValue(first);
  EXPECT_TRUE(ext.load().isSame(first));
  EXPECT_TRUE(ext.load().isSame(first));
  const String second(u"second");
  ext.store(second);
  EXPECT_TRUE(ext.load().isSame(second));
  ext.store(Any());
  EXPECT_TRUE(ext.load().empty());
}

TEST_F(Results, ExternalStoreReleasesThePreviousValue) {
  auto held = String(u"held");
  WeakReference watch(held);
  auto ext = External::fromValue(held);
  held.reset();
  EXPECT_TRUE(watch.lock());
  ext.store(Integer(0));
  EXPECT_FALSE(watch.lock());
}

TEST_F(Results, ExternalLoadOfOtherValuesIsEmpty) {
  EXPECT_TRUE(internal::object_value_external::load(Integer(1)).empty());
  EXPECT_TRUE(internal::object_value_external::load(Any()).empty());
  EXPECT_FALSE(External::isInstance(Integer(1)));
}

TEST_F(Results, ExternalStoreAndLoadFromManyThreads) {
  auto ext = External::fromValue(Integer(0));
  std::vector<std::thread> threads;
  std::atomic<int> bad{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        if (t % 2 == 0)
          ext.store(Integer(i));
        else if (!Integer::isInstance(ext.load()))
          bad.fetch_add(1);
      }
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(Integer::unsafeFrom(ext.load()).value(), 1999);
}

// --- WeakReference ----------------------------------------------------------------------------

TEST_F(Results, WeakReferenceLocksWhileTheTargetLives) {
  auto target = String(u"target");
  WeakReference weak(target);
  EXPECT_EQ(weak.kind(), internal::ObjectType::WeakReference);
  EXPECT_TRUE(WeakReference::isInstance(weak));
  auto locked = weak.lock();
  EXPECT_TRUE(locked.isSame(target));
  EXPECT_EQ(target.get()->ref_count(), 2u); // the lock gave a strong reference, the weak one none
  locked.reset();
  EXPECT_EQ(target.get()->ref_count(), 1u);
  EXPECT_TRUE(internal::weak_ref_builtin::resolve(weak).isSame(target));
}

TEST_F(Results, WeakReferenceIsEmptyAfterTheTargetIsGone) {
  auto target = Integer(99);
  WeakReference weak(target);
  WeakReference second(target);
  target.reset();
  EXPECT_TRUE(weak.lock().empty());
  EXPECT_TRUE(second.lock().empty());
  EXPECT_TRUE(internal::weak_ref_builtin::resolve(weak).empty());
  // A value seen through a dead weak reference is None.
  EXPECT_TRUE(is_none(internal::unwrap(weak)));
}

TEST_F(Results, WeakReferenceToNothingIsEmpty) {
  WeakReference weak{Any()};
  EXPECT_TRUE(weak.lock().empty());
}

TEST_F(Results, WeakReferenceMayOutliveOrPrecedeItsTarget) {
  {
    auto target = Float(1.0);
    { WeakReference w(target); } // the weak reference goes first
    EXPECT_EQ(target.get()->ref_count(), 1u);
  }
  {
    Any weak;
    {
      auto target = Float(2.0);
      weak = WeakReference(target);
    } // the target goes first
    EXPECT_TRUE(WeakReference::unsafeFrom(weak).lock().empty());
  }
}

TEST_F(Results, ResolveOfOtherValuesIsEmpty) {
  EXPECT_TRUE(internal::weak_ref_builtin::resolve(Integer(1)).empty());
  EXPECT_TRUE(internal::weak_ref_builtin::resolve(Any()).empty());
}

TEST_F(Results, WeakReferencesToImmortalValuesAlwaysLock) {
  WeakReference weak{None()};
  EXPECT_TRUE(weak.lock().isSame(None()));
  WeakReference t{Boolean(true)};
  EXPECT_TRUE(t.lock().isSame(Boolean(true)));
}

TEST_F(Results, WeakReferencesLockFromManyThreadsWhileTheTargetLives) {
  auto target = String(u"shared target");
  WeakReference weak(target);
  std::atomic<int> misses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i)
        if (!weak.lock().isSame(target))
          misses.fetch_add(1);
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(misses.load(), 0);
  EXPECT_EQ(target.get()->ref_count(), 1u);
}

TEST_F(Results, WeakReferencesRaceWithTheTargetGoingAway) {
  for (int round = 0; round < 200; ++round) {
    auto target = Any(Integer(round));
    WeakReference weak(target);
    std::latch start(4);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
      threads.emplace_back([&] {
        start.arrive_and_wait();
        for (int i = 0; i < 50; ++i) {
          auto v = weak.lock();
          // Either the target, whole, or nothing.
          if (v && (!Integer::isInstance(v) || Integer::unsafeFrom(v).value() != round))
            wrong.fetch_add(1);
        }
      });
    threads.emplace_back([&] {
      start.arrive_and_wait();
      target.reset();
    });
    for (auto &t : threads)
      t.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_TRUE(weak.lock().empty());
  }
}

// --- unwrap -------------------------------------------------------------------------------------

TEST_F(Results, UnwrapFollowsComputedExternalAndWeakValues) {
  auto target = String(u"deep");
  WeakReference weak(target);
  auto computed = internal::create_computed([weak]() -> Any { return weak; });
  auto ext = External::fromValue(computed);
  EXPECT_TRUE(internal::unwrap(ext).isSame(target));
  EXPECT_TRUE(internal::unwrap(computed).isSame(target));
  EXPECT_TRUE(internal::unwrap(weak).isSame(target));
  EXPECT_TRUE(internal::unwrap(target).isSame(target));
  EXPECT_TRUE(internal::unwrap(Any()).empty());
}

TEST_F(Results, UnwrapOfAnEndlessChainStops) {
  auto start = endless_external();
  auto v = internal::unwrap(start);
  EXPECT_EQ(v.kind(), internal::ObjectType::External); // gave up after a fixed depth
}

TEST_F(Results, ClassOfLooksThroughWrappers) {
  auto ext = External::fromValue(Integer(1));
  EXPECT_TRUE(class_of(ext).isSame(Integer::getClass()));
  EXPECT_TRUE(raw_class_of(ext).isSame(External::getClass()));
}

// --- errors -------------------------------------------------------------------------------------

TEST_F(Results, ErrorKeepsItsMessage) {
  const Error e(String(u"message \u00E9"));
  EXPECT_EQ(e.message().toUtf8(), "message \xC3\xA9");
  const Error u8("utf-8 \xE2\x82\xAC");
  EXPECT_EQ(u8.message().view(), u"utf-8 \u20AC");
  EXPECT_TRUE(Error::isInstance(e));
  EXPECT_EQ(e.kind(), internal::ObjectType::Instance);
  EXPECT_TRUE(Error::getClass().hasFlag(class_flags::error));
  EXPECT_FALSE(e.cause());
  EXPECT_TRUE(e.stack().empty());
  EXPECT_TRUE(e.value().empty());
}

TEST_F(Results, ErrorSubclassesAreErrors) {
  const BadArgument bad("bad");
  const StopIteration stop;
  const EvaluationError eval(String(u"eval"), None(), None());
  for (const Error &e : {Error(bad), Error(stop), Error(eval)}) {
    EXPECT_TRUE(Error::isInstance(e));
    EXPECT_TRUE(raw_class_of(e).hasFlag(class_flags::error));
  }
  EXPECT_TRUE(BadArgument::isInstance(bad));
  EXPECT_FALSE(BadArgument::isInstance(stop));
  EXPECT_FALSE(BadArgument::isInstance(Error("plain")));
  EXPECT_TRUE(StopIteration::isInstance(stop));
  EXPECT_FALSE(StopIteration::isInstance(bad));
  EXPECT_TRUE(EvaluationError::isInstance(eval));
  EXPECT_EQ(qualname(raw_class_of(bad)).toUtf8(), "kest.BadArgument");
  EXPECT_EQ(bad.message().toUtf8(), "bad");
}

TEST_F(Results, StopIterationHasADefaultMessage) {
  EXPECT_EQ(StopIteration().message().toUtf8(), "Stop iteration.");
  EXPECT_EQ(StopIteration(String(u"done")).message().toUtf8(), "done");
}

TEST_F(Results, EvaluationErrorPositionsAreEachOptional) {
  const EvaluationError none(String(u"no position"), None(), None());
  EXPECT_FALSE(none.line());
  EXPECT_FALSE(none.column());
  EXPECT_FALSE(none.spanStart());
  EXPECT_FALSE(none.spanLength());

  const EvaluationError lineOnly(String(u"line"), Integer(12), None());
  EXPECT_EQ(lineOnly.line(), 12);
  EXPECT_FALSE(lineOnly.column());

  const EvaluationError columnOnly(String(u"column"), None(), Integer(0));
  EXPECT_FALSE(columnOnly.line());
  EXPECT_EQ(columnOnly.column(), 0);

  const EvaluationError all(String(u"all"), Integer(3), Integer(7), Integer(40), Integer(5));
  EXPECT_EQ(all.line(), 3);
  EXPECT_EQ(all.column(), 7);
  EXPECT_EQ(all.spanStart(), 40);
  EXPECT_EQ(all.spanLength(), 5);
  EXPECT_EQ(all.message().toUtf8(), "all");

  const EvaluationError spanOnly(String(u"span"), None(), None(), Integer(2), None());
  EXPECT_EQ(spanOnly.spanStart(), 2);
  EXPECT_FALSE(spanOnly.spanLength());
}

TEST_F(Results, AnyErrorCanCarryAPositionAndATypeName) {
  const BadArgument error(String(u"wrong"));
  EXPECT_FALSE(error.line());
  EXPECT_TRUE(error.typeName().empty());
  error.setPosition(4, 2);
  error.setTypeName(String(u"kest.BadArgument"));
  EXPECT_EQ(error.line(), 4);
  EXPECT_EQ(error.column(), 2);
  EXPECT_FALSE(error.spanStart());
  EXPECT_EQ(error.typeName().toUtf8(), "kest.BadArgument");
  EXPECT_TRUE(BadArgument::isInstance(error));
  EXPECT_FALSE(EvaluationError::isInstance(error));
}

TEST_F(Results, TheHeadlineNamesTheTypeAsPythonsLastTracebackLineDoes) {
  const Error plain(String(u"no type"));
  EXPECT_EQ(plain.headline().toUtf8(), "no type");
  EXPECT_EQ(display(plain).toUtf8(), "no type");

  const Error typed(String(u"'x'"));
  typed.setTypeName(String(u"KeyError"));
  EXPECT_EQ(typed.headline().toUtf8(), "KeyError: 'x'");
  EXPECT_EQ(display(typed).toUtf8(), "KeyError: 'x'");

  const Error empty(String(u""));
  empty.setTypeName(String(u"StopAsyncIteration"));
  EXPECT_EQ(empty.headline().toUtf8(), "StopAsyncIteration");

  // A syntax error's message is Python's rendering, which ends with that line already.
  const Error rendered(String(u"  File \"<string>\", line 1\n    x = = 1\n        ^\nSyntaxError: invalid syntax\n"));
  rendered.setTypeName(String(u"SyntaxError"));
  EXPECT_EQ(rendered.headline().toUtf8(), "SyntaxError: invalid syntax");
  EXPECT_EQ(display(rendered).toUtf8(), rendered.message().toUtf8());
}

TEST_F(Results, ACopyHasTheSameClassAndStateAndChangesAlone) {
  const EvaluationError original(String(u"at three"), Integer(3), Integer(1));
  original.setStack(String(u"the stack"));
  original.setTypeName(String(u"ValueError"));
  original.setValue(Integer(9));
  const auto copy = original.copy();
  EXPECT_FALSE(copy.isSame(original));
  EXPECT_TRUE(EvaluationError::isInstance(copy));
  EXPECT_EQ(copy.message().toUtf8(), "at three");
  EXPECT_EQ(copy.stack().toUtf8(), "the stack");
  EXPECT_EQ(copy.typeName().toUtf8(), "ValueError");
  EXPECT_EQ(copy.line(), 3);
  EXPECT_EQ(copy.column(), 1);
  EXPECT_EQ(Integer::unsafeFrom(copy.value()).value(), 9);
  copy.setPosition(8, std::nullopt);
  EXPECT_EQ(copy.line(), 8);
  EXPECT_EQ(original.line(), 3);

  const BadArgument bad(String(u"bad"));
  EXPECT_TRUE(BadArgument::isInstance(bad.copy()));
}

TEST_F(Results, UnknownErrorHasAFixedMessage) {
  auto e = Error::unknown();
  EXPECT_EQ(e.message().toUtf8(), "Unknown error.");
  EXPECT_FALSE(e.cause());
}

TEST_F(Results, ErrorStackAndValueCanBeSetAndReplaced) {
  const Error e("with extras");
  e.setStack(String(u"frame 1\nframe 2"));
  EXPECT_EQ(e.stack().toUtf8(), "frame 1\nframe 2");
  auto first = String(u"first value");
  WeakReference watch(first);
  e.setValue(first);
  EXPECT_TRUE(e.value().isSame(first));
  first.reset();
  EXPECT_TRUE(watch.lock()); // held by the error
  e.setValue(Integer(2));
  EXPECT_FALSE(watch.lock()); // released when replaced
  EXPECT_EQ(Integer::unsafeFrom(e.value()).value(), 2);
  e.setValue(Any());
  EXPECT_TRUE(e.value().empty());
}

TEST_F(Results, ErrorCauseCanBeSet) {
  const Error e("caused");
  e.setCause(std::make_exception_ptr(std::logic_error("root")));
  ASSERT_TRUE(e.cause());
  try {
    std::rethrow_exception(e.cause());
  } catch (const std::logic_error &x) {
    EXPECT_STREQ(x.what(), "root");
  }
  e.setCause(nullptr);
  EXPECT_FALSE(e.cause());
}

TEST_F(Results, ErrorCreateMakesAnInstanceOfTheGivenClass) {
  auto bad = Error::create(BadArgument::getClass(), String(u"made"));
  EXPECT_TRUE(BadArgument::isInstance(bad));
  EXPECT_EQ(bad.message().toUtf8(), "made");

  // A class declared at run time that derives from Error.
  {
    auto custom = Class_Generic::create(String(u"CustomError"), 0, {Error::getClass()});
    EXPECT_TRUE(custom.hasFlag(class_flags::error)); // inherited
    auto e = Error::create(custom, String(u"custom"));
    EXPECT_TRUE(Error::isInstance(e));
    EXPECT_TRUE(raw_class_of(e).isSame(custom));
    EXPECT_EQ(e.message().toUtf8(), "custom");
    e.setStack(String(u"s"));
    EXPECT_EQ(e.stack().toUtf8(), "s");
  }

  // A class that is no error class gives a plain error.
  auto plain = Error::create(Integer::getClass(), String(u"plain"));
  EXPECT_TRUE(raw_class_of(plain).isSame(Error::getClass()));
  EXPECT_EQ(plain.message().toUtf8(), "plain");
}

TEST_F(Results, FromCurrentExceptionKeepsTheStandardMessageAndCause) {
  Error e = Error::unknown();
  try {
    throw std::out_of_range("index 5 out of range");
  } catch (...) {
    e = Error::fromCurrentException();
  }
  EXPECT_EQ(e.message().toUtf8(), "index 5 out of range");
  ASSERT_TRUE(e.cause());
  try {
    std::rethrow_exception(e.cause());
  } catch (const std::out_of_range &x) {
    EXPECT_STREQ(x.what(), "index 5 out of range");
  } catch (...) {
    ADD_FAILURE() << "wrong cause";
  }
}

TEST_F(Results, KestExceptionCarriesAnErrorThroughFromCurrentException) {
  const EvaluationError original(String(u"bad syntax"), Integer(1), Integer(4));
  Error caught = Error::unknown();
  try {
    throw kest::exception(original);
  } catch (...) {
    caught = Error::fromCurrentException();
  }
  EXPECT_TRUE(caught.isSame(original));
  EXPECT_TRUE(EvaluationError::isInstance(caught));
  EXPECT_FALSE(caught.cause());
  EXPECT_EQ(EvaluationError::unsafeFrom(caught).line(), 1);
}

TEST_F(Results, KestExceptionIsARuntimeErrorWithTheMessage) {
  try {
    throw kest::exception(Error("as runtime_error"));
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "as runtime_error");
    auto *k = dynamic_cast<const kest::exception *>(&e);
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(k->error().message().toUtf8(), "as runtime_error");
  }
}

TEST_F(Results, ErrorsCanBeSharedBetweenThreads) {
  const Error e("shared");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([e, t] {
      for (int i = 0; i < 500; ++i) {
        e.setValue(Integer(t * 1000 + i));
        (void)e.value();
        (void)e.message();
      }
    });
  for (auto &t : threads)
    t.join();
  EXPECT_TRUE(Integer::isInstance(e.value()));
}
