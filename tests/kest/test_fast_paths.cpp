// The library's fast paths keep its behaviour: names written in the source are
// interned once, interning a known name allocates nothing, member lookups
// remembered per thread follow every change of a class, and scalars made on
// one thread and dropped on another are counted and freed exactly.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

using namespace kest;
using namespace kest::literals;
using B = kest::internal::class_builder_base;

namespace {
// Counts the allocations of the whole process while `counting` is set (not
// under AddressSanitizer, which keeps its own allocator).
std::atomic<bool> counting{false};
std::atomic<std::int64_t> allocations{0};

Class_Generic point_class(const char *name) {
  auto made = internal::defclass_impl({B::name_entry(String::fromUtf8(name)), B::module_entry(String(u"tfast")),
                                       B::field_entry(String(u"x"), 0, &Integer::getType),
                                       B::field_entry(String(u"$_y"), 0, &Float::getType)});
  return made.as<Class_Generic>();
}

Any point(const Class_Generic &cls) { return internal::result_unwrap_lazy(cls.allocateInstance()); }
} // namespace

#if !defined(__SANITIZE_ADDRESS__)
// The replacement pair allocates with malloc and frees with free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void *operator new(std::size_t size) {
  if (counting.load(std::memory_order_relaxed))
    allocations.fetch_add(1, std::memory_order_relaxed);
  if (void *p = std::malloc(size ? size : 1))
    return p;
  throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

TEST(FastPaths, InterningAKnownNameAllocatesNothing) {
  const meta_property_untyped first("someKnownName");
  const String text(u"someKnownName");
  allocations = 0;
  counting = true;
  const meta_property_untyped again("someKnownName");
  const meta_property_untyped from_utf16(u"someKnownName");
  const meta_method_untyped from_string(text);
  counting = false;
  EXPECT_EQ(allocations.load(), 0);
  EXPECT_EQ(again.info(), first.info());
  EXPECT_EQ(from_utf16.info(), first.info());
  EXPECT_EQ(from_string.info(), first.info());
}

TEST(FastPaths, ReadingAFieldByANameWrittenInTheSourceAllocatesNothing) {
  auto cls = point_class("Quiet");
  auto p = point(cls);
  ASSERT_FALSE(p.setFieldValue("x"_field, Integer(5)).isError());
  (void)p.fieldValue("x"_field); // the first use interns and remembers
  allocations = 0;
  counting = true;
  auto value = p.fieldValue("x"_field);
  counting = false;
  EXPECT_EQ(allocations.load(), 0);
  EXPECT_EQ(Integer::unsafeFrom(internal::result_unwrap_lazy(value)).value(), 5);
}
#endif

TEST(FastPaths, AFieldReadOfAValueWithoutFieldsIsAnErrorNamingTheField) {
  for (const Any &value : {Any(Integer(3)), Any(String(u"text")), Any(), Any(point_class("NoSuchField"))}) {
    auto read = internal::result_unwrap_lazy(value.fieldValue("x"_field));
    ASSERT_TRUE(Error::isInstance(read)) << display(value).toUtf8();
    EXPECT_NE(Error::unsafeFrom(read).message().toUtf8().find("Field 'x' not found"), std::string::npos)
        << Error::unsafeFrom(read).message().toUtf8();
  }
}

TEST(FastPaths, AMethodOrPropertyOfTheNameIsNotReadAsAField) {
  auto cls = internal::defclass_impl({B::name_entry(String(u"MembersNotFields")), B::module_entry(String(u"tfast")),
                                      B::field_entry(String(u"x"), 0, &Integer::getType)})
                 .as<Class_Generic>();
  auto derived = kest::class_(kest::module_("tfast"), "MembersNotFieldsToo")
                     .base(cls)
                     .def("size", [](const Any &) { return 1; })
                     .property("area", [](const Any &) { return 2; })
                     .declare();
  auto p = point(derived);
  ASSERT_FALSE(p.setFieldValue("x"_field, Integer(5)).isError());
  EXPECT_EQ(Integer::unsafeFrom(internal::result_unwrap_lazy(p.fieldValue("x"_field))).value(), 5);
  for (const auto *name : {"size", "area"}) {
    auto read = internal::result_unwrap_lazy(p.fieldValue(meta_field_untyped(name)));
    ASSERT_TRUE(Error::isInstance(read)) << name;
  }
}

TEST(FastPaths, NamesWrittenInTheSourceAreInternedOnce) {
  EXPECT_EQ(&"$_y"_field, &"$_y"_field);
  EXPECT_TRUE("$_y"_field.hidden());
  EXPECT_EQ("$_y"_field.info(), meta_field_untyped("$_y").info());
  EXPECT_EQ("size"_property.info(), meta_property_untyped("size").info());
  EXPECT_EQ("area"_method.utf8(), "area");
  auto cls = point_class("Literal");
  auto p = point(cls);
  ASSERT_FALSE(p.setFieldValue("$_y"_field, Integer(2)).isError()); // an integer widens to the float field
  EXPECT_EQ(Float::unsafeFrom(internal::result_unwrap_lazy(p.fieldValue("$_y"_field))).value(), 2.0);
  auto wrong = internal::result_unwrap_lazy(p.setFieldValue("x"_field, String(u"text")));
  ASSERT_TRUE(Error::isInstance(wrong));
  EXPECT_EQ(Error::unsafeFrom(wrong).message().toUtf8(), "The field 'x' takes 'kest.Integer', not 'kest.String'.");
}

TEST(FastPaths, RememberedLookupsFollowMethodsAddedReplacedAndRemoved) {
  auto cls = point_class("Changing");
  auto p = point(cls);
  const meta_method_untyped name("later");
  for (int i = 0; i < 2; ++i)
    EXPECT_FALSE(raw_method_of(p, name).is<I_Callable_Generic>());
  cls->add_method(name, make_method([](Any) { return std::int64_t{1}; }));
  auto call = [&] {
    auto m = raw_method_of(p, name);
    return m.is<I_Callable_Generic>() ? internal::result_unwrap_lazy(m.as<I_Callable_Generic>().callWith({p})) : Any();
  };
  EXPECT_EQ(display(call()).toUtf8(), "1");
  cls->add_method(name, make_method([](Any) { return std::int64_t{2}; }));
  EXPECT_EQ(display(call()).toUtf8(), "2");
  EXPECT_TRUE(cls->remove_method(name));
  EXPECT_TRUE(call().empty());
  EXPECT_FALSE(cls->remove_method(name));
}

TEST(FastPaths, RememberedLookupsSeeAFieldOfABaseAndOfTheClassItself) {
  auto base = point_class("BaseOfDerived");
  auto derived = internal::defclass_impl({B::name_entry(String(u"Derived")), B::module_entry(String(u"tfast")),
                                          B::base_entry(base), B::field_entry(String(u"z"), 0, &Integer::getType)})
                     .as<Class_Generic>();
  auto d = point(derived);
  auto b = point(base);
  ASSERT_FALSE(d.setFieldValue("x"_field, Integer(1)).isError());
  ASSERT_FALSE(d.setFieldValue("z"_field, Integer(3)).isError());
  ASSERT_FALSE(b.setFieldValue("x"_field, Integer(7)).isError());
  EXPECT_EQ(display(internal::result_unwrap_lazy(d.fieldValue("x"_field))).toUtf8(), "1");
  EXPECT_EQ(display(internal::result_unwrap_lazy(d.fieldValue("z"_field))).toUtf8(), "3");
  EXPECT_EQ(display(internal::result_unwrap_lazy(b.fieldValue("x"_field))).toUtf8(), "7");
  auto missing = internal::result_unwrap_lazy(b.fieldValue("z"_field));
  ASSERT_TRUE(Error::isInstance(missing));
  EXPECT_EQ(Error::unsafeFrom(missing).message().toUtf8(), "Field 'z' not found in 'tfast.BaseOfDerived'.");
}

TEST(FastPaths, ScalarsMadeOnOneThreadAndDroppedOnAnotherAreCountedAndFreed) {
  (void)Integer::getClass();
  (void)String::getClass();
  (void)Float::getClass();
  const auto before = internal::object_value::live_count();
  constexpr int threads = 8, per_thread = 10'000;
  std::vector<std::vector<Any>> made(threads);
  {
    std::vector<std::thread> makers;
    for (int t = 0; t < threads; ++t)
      makers.emplace_back([&made, t] {
        for (int i = 0; i < per_thread; ++i) {
          made[t].push_back(Integer(t * per_thread + i));
          if (i % 3 == 0)
            made[t].push_back(String::fromUtf8("text " + std::to_string(i)));
          if (i % 5 == 0)
            made[t].push_back(Float(i * 0.5));
          Integer dropped(i); // made and dropped on this thread
        }
      });
    for (auto &m : makers)
      m.join();
  }
  std::int64_t expected_count = 0;
  for (auto &v : made)
    expected_count += static_cast<std::int64_t>(v.size());
  EXPECT_EQ(internal::object_value::live_count(), before + expected_count);
  // Each thread drops what another made, checking the values on the way.
  std::atomic<int> wrong{0};
  {
    std::vector<std::thread> droppers;
    for (int t = 0; t < threads; ++t)
      droppers.emplace_back([&made, &wrong, t] {
        auto &values = made[(t + 1) % threads];
        const int owner = (t + 1) % threads;
        int next = 0;
        for (auto &v : values)
          if (Integer::isInstance(v) && Integer::unsafeFrom(v).value() != owner * per_thread + next++)
            wrong.fetch_add(1);
        values.clear();
      });
    for (auto &d : droppers)
      d.join();
  }
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(internal::object_value::live_count(), before);
}

TEST(FastPaths, EightThreadsCallOneMethodThroughRememberedLookups) {
  std::atomic<std::int64_t> total{0};
  auto cls = point_class("Busy");
  cls->add_method(meta_method_untyped("add"), make_method([&total](Any self, std::int64_t n) {
                    auto x = Integer::unsafeFrom(internal::result_unwrap_lazy(self.fieldValue("x"_field))).value();
                    total.fetch_add(n + x);
                  }));
  auto p = point(cls);
  ASSERT_FALSE(p.setFieldValue("x"_field, Integer(0)).isError());
  constexpr int threads = 8, calls = 10'000;
  std::vector<std::thread> workers;
  std::atomic<int> failures{0};
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&] {
      for (int i = 0; i < calls; ++i) {
        auto m = raw_method_of(p, meta_method_untyped("add"));
        if (!m.is<I_Callable_Generic>() ||
            Error::isInstance(internal::result_unwrap_lazy(m.as<I_Callable_Generic>().callWith({p, Integer(1)}))))
          failures.fetch_add(1);
      }
    });
  for (auto &w : workers)
    w.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(total.load(), threads * calls);
}

#if defined(__SANITIZE_ADDRESS__)
// A scalar's block waits in its thread's pool after the scalar goes; reading
// it then is still reported, as a read of poisoned memory.
TEST(FastPathsDeathTest, AReadOfAPooledBlockIsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        const internal::object_value *gone = nullptr;
        {
          Integer value(12345);
          gone = value.get();
        }
        std::fprintf(stderr, "%d\n", static_cast<int>(gone->kind()));
      },
      "use-after-poison");
}
#endif

TEST(FastPaths, AnIntegerOnlyItsSlotHoldsTakesANewValueInPlace) {
  Any slot = Integer(1);
  const auto *first = slot.get();
  internal::assign_integer(slot, -5);
  EXPECT_EQ(slot.get(), first); // nobody else could see it
  EXPECT_EQ(Integer::unsafeFrom(slot).value(), -5);
  EXPECT_TRUE(Integer::unsafeFrom(slot).isSigned());
  // An unsigned Integer refilled becomes a signed one.
  Any unsigned_slot = Integer::fromUnsigned(~0ull);
  internal::assign_integer(unsigned_slot, 3);
  EXPECT_TRUE(Integer::unsafeFrom(unsigned_slot).isSigned());
  EXPECT_EQ(Integer::unsafeFrom(unsigned_slot).value(), 3);
}

TEST(FastPaths, AnIntegerSomebodyElseHoldsOrWeaklyRefersToIsNeverChanged) {
  Any slot = Integer(7);
  const Any kept = slot; // another reference
  internal::assign_integer(slot, 8);
  EXPECT_FALSE(slot.isSame(kept));
  EXPECT_EQ(Integer::unsafeFrom(kept).value(), 7);
  EXPECT_EQ(Integer::unsafeFrom(slot).value(), 8);

  Any watched = Integer(9);
  const WeakReference weak(watched);
  internal::assign_integer(watched, 10);
  EXPECT_EQ(Integer::unsafeFrom(watched).value(), 10);
  // The weak reference still sees 9 or nothing, never the new value.
  const auto target = internal::weak_ref_builtin::resolve(weak);
  EXPECT_TRUE(target.empty() || Integer::unsafeFrom(target).value() == 9);
  EXPECT_FALSE(target.isSame(watched));

  Any other = String(u"not an integer");
  internal::assign_integer(other, 11);
  EXPECT_EQ(Integer::unsafeFrom(other).value(), 11);
}
