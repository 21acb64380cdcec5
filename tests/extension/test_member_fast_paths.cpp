// Attribute access and method calls on host objects after the first look at
// a name: members that a class gains or loses later, members inserted into
// one object, a name that is several members at once, names beginning with
// "_", keyword arguments and defaults, method objects handed out again, and
// calls from many threads at once.

#include "host_object_test_support.hpp"

#include "pyobject/type_for_class.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
constexpr const char *module_name = "tfp";

kest::I_Callable_Generic answer_method(std::int64_t answer) {
  return kest::make_method([answer](kest::Any) { return answer; });
}

/// A class with a field "count", a method "bump(n)" adding to it, a property
/// "twice", and a method "scaled(n, factor=10)".
kest::Class_Generic counter_class(const char *name) {
  return declare_class(
      {S(name), B::module_entry(S(module_name)), B::field_entry(S("count"), 0, &kest::Integer::getType),
       method_entry("bump", kest::make_method([](kest::Any self, std::int64_t n) {
                      auto now = kest::Integer::unsafeFrom(field_of(self, "count")).value();
                      set_field(self, "count", kest::Integer(now + n));
                      return now + n;
                    }),
                    "n"),
       property_entry("twice", kest::make_method([](kest::Any self) {
                        return kest::Integer::unsafeFrom(field_of(self, "count")).value() * 2;
                      })),
       [] {
         kest::internal::method_builder_base b{S("scaled")};
         b.assign_func(kest::make_method([](kest::Any, std::int64_t n, std::int64_t factor) { return n * factor; }));
         b.signature(S("n, factor"));
         b.assign_defaults({kest::Integer(10)});
         return B::method_entry(b);
       }()});
}

kest::Any counter(const kest::Class_Generic &cls) {
  auto made = make_instance(cls);
  set_field(made, "count", kest::Integer(0));
  return made;
}

class MemberFastPaths : public ::testing::Test {
protected:
  void SetUp() override { ensurePythonReady(); }
};
} // namespace

TEST_F(MemberFastPaths, AMethodAddedAfterTheNameWasMissingIsSeenAtOnce) {
  auto cls = counter_class("Grows");
  py::gil lock;
  py_namespace ns;
  ns.set("c", counter(cls));
  auto before = ns.run_raising("c.later()");
  EXPECT_TRUE(before.is_a(PyExc_AttributeError)) << before.message();
  cls->add_method(kest::meta_method_untyped("later"), answer_method(42));
  EXPECT_EQ(ns.text("c.later()"), "42");
  EXPECT_TRUE(cls->remove_method(kest::meta_method_untyped("later")));
  auto after = ns.run_raising("c.later()");
  EXPECT_TRUE(after.is_a(PyExc_AttributeError)) << after.message();
  EXPECT_EQ(after.message(), "'<class tfp.Grows>' object has no attribute 'later'");
}

TEST_F(MemberFastPaths, APropertyAddedOrRemovedAfterUseIsSeenAtOnce) {
  auto cls = counter_class("Changes");
  py::gil lock;
  py_namespace ns;
  ns.set("c", counter(cls));
  ASSERT_TRUE(ns.run("c.bump(3)"));
  EXPECT_EQ(ns.text("c.twice"), "6");
  // A property of the same name as a field or method comes first.
  cls->add_property(kest::meta_property_untyped("count"),
                    kest::Property(S("count"), kest::make_method([](kest::Any) { return std::int64_t{-1}; })));
  EXPECT_EQ(ns.text("c.count"), "-1");
  cls->add_property(kest::meta_property_untyped("bump"),
                    kest::Property(S("bump"), kest::make_method([](kest::Any) { return std::string("shadowed"); })));
  EXPECT_EQ(ns.text("c.bump"), "shadowed");
  EXPECT_TRUE(cls->remove_property(kest::meta_property_untyped("count")));
  EXPECT_TRUE(cls->remove_property(kest::meta_property_untyped("bump")));
  EXPECT_FALSE(cls->remove_property(kest::meta_property_untyped("bump")));
  EXPECT_EQ(ns.text("c.count"), "3");
  EXPECT_EQ(ns.text("c.bump(1)"), "4");
  EXPECT_TRUE(cls->remove_property(kest::meta_property_untyped("twice")));
  auto gone = ns.run_raising("c.twice");
  EXPECT_TRUE(gone.is_a(PyExc_AttributeError)) << gone.message();
}

TEST_F(MemberFastPaths, AMemberInsertedIntoOneObjectShadowsTheClassMember) {
  auto cls = counter_class("Shadowed");
  py::gil lock;
  py_namespace ns;
  auto one = counter(cls);
  ns.set("one", one);
  ns.set("other", counter(cls));
  EXPECT_EQ(ns.text("one.twice"), "0");
  ASSERT_TRUE(ns.run("one.bump(1)"));
  ASSERT_FALSE(kest::insert_property_value(one, kest::meta_property_untyped("twice"), kest::Integer(99)).isError());
  ASSERT_FALSE(kest::insert_method(one, kest::meta_method_untyped("bump"), answer_method(7)).isError());
  EXPECT_EQ(ns.text("one.twice"), "99");
  EXPECT_EQ(ns.text("one.bump()"), "7");
  // The other object of the class keeps the class's members.
  EXPECT_EQ(ns.text("other.twice"), "0");
  EXPECT_EQ(ns.text("other.bump(5)"), "5");
  // Assignment from Python inserts a property into that object alone.
  ASSERT_TRUE(ns.run("other.extra = 'mine'"));
  EXPECT_EQ(ns.text("other.extra"), "mine");
  EXPECT_TRUE(ns.run_raising("one.extra").is_a(PyExc_AttributeError));
}

TEST_F(MemberFastPaths, ANameThatIsAPropertyAndAMethodIsTheProperty) {
  auto cls = declare_class({S("Both"), B::module_entry(S(module_name)),
                            method_entry("size", kest::make_method([](kest::Any) { return std::string("method"); })),
                            property_entry("size", kest::make_method([](kest::Any) { return std::string("property"); }))});
  py::gil lock;
  py_namespace ns;
  ns.set("b", make_instance(cls));
  for (int i = 0; i < 3; ++i) // the first look and the remembered ones agree
    EXPECT_EQ(ns.text("b.size"), "property");
}

TEST_F(MemberFastPaths, NamesBeginningWithAnUnderscoreStayUnreachable) {
  auto cls = declare_class({S("Private"), B::module_entry(S(module_name)),
                            method_entry("_secret", answer_method(1)),
                            property_entry("_hidden", kest::make_method([](kest::Any) { return std::int64_t{2}; })),
                            method_entry("open", answer_method(3))});
  py::gil lock;
  py_namespace ns;
  ns.set("p", make_instance(cls));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(ns.run_raising("p._secret()").is_a(PyExc_AttributeError));
    EXPECT_TRUE(ns.run_raising("p._hidden").is_a(PyExc_AttributeError));
    EXPECT_EQ(ns.text("p.open()"), "3");
  }
  EXPECT_TRUE(ns.truth("p.__doc__ is None or isinstance(p.__doc__, str)"));
}

TEST_F(MemberFastPaths, KeywordArgumentsDefaultsAndWrongCountsBehaveAsBefore) {
  auto cls = counter_class("Keywords");
  py::gil lock;
  py_namespace ns;
  ns.set("c", counter(cls));
  EXPECT_EQ(ns.text("c.scaled(2)"), "20");
  EXPECT_EQ(ns.text("c.scaled(2, 3)"), "6");
  EXPECT_EQ(ns.text("c.scaled(2, factor=4)"), "8");
  EXPECT_EQ(ns.text("c.scaled(n=5)"), "50");
  EXPECT_EQ(ns.text("c.bump(n=2)"), "2");
  // Host errors reach Python with the host error attached.
  auto host_message = [&ns](const std::string &call) {
    EXPECT_TRUE(ns.run("try:\n    " + call + "\n    message = None\nexcept Exception as e:\n    message = e.kest.message\n"));
    return ns.text("message");
  };
  // Arguments are counted as the method counts them, the instance first.
  EXPECT_EQ(host_message("c.bump(1, 2)"), "Too many arguments for tfp.Keywords.bump: it takes 1, 2 given.");
  EXPECT_EQ(host_message("c.bump('x')"), "Argument 2 (n) must be kest.Integer, not kest.String.");
  EXPECT_EQ(host_message("c.scaled()"), "Missing argument 'n' for tfp.Keywords.scaled.");
}

TEST_F(MemberFastPaths, MethodObjectsAreHandedOutAgainOnlyWhenNobodyHoldsThem) {
  auto cls = counter_class("Handed");
  py::gil lock;
  py_namespace ns;
  ns.set("c", counter(cls));
  ASSERT_TRUE(ns.run("held = c.bump\n"
                     "again = c.bump\n"
                     "scaled = c.scaled\n"));
  EXPECT_TRUE(ns.truth("held is not again"));
  EXPECT_TRUE(ns.truth("held(1) == 1 and again(2) == 3 and scaled(1) == 10"));
  EXPECT_EQ(ns.text("held.__name__"), "bump");
  EXPECT_EQ(ns.text("scaled.__name__"), "scaled");
  // Alternating methods, and one object held across other calls.
  ASSERT_TRUE(ns.run("results = []\n"
                     "for i in range(5):\n"
                     "    results.append(c.bump(1))\n"
                     "    results.append(c.scaled(i))\n"
                     "    results.append(held(0))\n"));
  EXPECT_EQ(ns.text("results"), "[4, 0, 4, 5, 10, 5, 6, 20, 6, 7, 30, 7, 8, 40, 8]");
  // A method object given to the host is the bound method.
  ASSERT_TRUE(ns.run("m = c.bump"));
  auto as_host = fromPython(ns.get("m").get());
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(as_host));
  auto result = kest::internal::result_unwrap_lazy(kest::I_Callable_Generic::unsafeFrom(as_host).callWith({kest::Integer(2)}));
  EXPECT_EQ(shown(result), "10");
}

TEST_F(MemberFastPaths, ClassesSeenThroughTheirTypeStillOfferDescriptors) {
  auto cls = counter_class("Described");
  py::gil lock;
  py_namespace ns;
  ns.set("C", cls);
  ns.set("c", counter(cls));
  ASSERT_TRUE(ns.run("d = C.bump"));
  EXPECT_TRUE(ns.truth("d(c, 4) == 4"));
  EXPECT_EQ(ns.text("c.count"), "4");
}

TEST_F(MemberFastPaths, EightThreadsCallOneObjectAtOnce) {
  std::atomic<std::int64_t> total{0};
  auto cls = declare_class({S("Shared"), B::module_entry(S(module_name)),
                            method_entry("add", kest::make_method([&total](kest::Any, std::int64_t n) {
                              total.fetch_add(n);
                              return n;
                            }),
                                         "n"),
                            property_entry("seen", kest::make_method([&total](kest::Any) { return total.load(); }))});
  auto shared = make_instance(cls);
  py::object globals;
  {
    py::gil lock;
    py_namespace ns;
    ns.set("shared", shared);
    ASSERT_TRUE(ns.run("def work(n):\n"
                       "    for i in range(n):\n"
                       "        shared.add(1)\n"
                       "        shared.seen\n"));
    globals = py::object::borrow(ns.dict());
  }
  constexpr int threads = 8, calls = 10'000;
  std::atomic<int> failures{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&] {
      py::gil lock;
      auto work = py::object::borrow(PyDict_GetItemString(globals.get(), "work"));
      auto r = py::object::steal(PyObject_CallFunction(work.get(), "i", calls));
      if (!r) {
        PyErr_Print();
        failures.fetch_add(1);
      }
    });
  for (auto &w : workers)
    w.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(total.load(), threads * calls);
  py::gil lock;
  globals = py::object();
}

TEST_F(MemberFastPaths, AMethodOfAnotherClassRefusesTheReceiverOnEveryCall) {
  auto owner = counter_class("Owner");
  auto borrower = declare_class({S("Borrower"), B::module_entry(S(module_name)),
                                 B::field_entry(S("count"), 0, &kest::Integer::getType)});
  auto bump = owner.definedMethod(kest::meta_method_untyped("bump")).as<kest::I_Callable_Generic>();
  borrower->add_method(kest::meta_method_untyped("bump"), bump);
  auto b = counter(borrower);
  const auto refusal = kest::internal::result_unwrap_lazy(bump.callWith({b, kest::Integer(1)}));
  ASSERT_TRUE(kest::Error::isInstance(refusal));
  const auto expected = kest::Error::unsafeFrom(refusal).message().toUtf8();
  py::gil lock;
  py_namespace ns;
  ns.set("b", b);
  ns.set("a", counter(owner));
  auto host_message = [&ns](const std::string &call) {
    EXPECT_TRUE(ns.run("try:\n    " + call + "\n    message = None\nexcept Exception as e:\n    message = e.kest.message\n"));
    return ns.text("message");
  };
  for (int i = 0; i < 3; ++i) { // the first look and the remembered ones agree
    EXPECT_EQ(host_message("b.bump(1)"), expected);
    EXPECT_EQ(ns.text("a.bump(1)"), std::to_string(i + 1));
  }
  EXPECT_EQ(shown(field_of(b, "count")), "0");
}

TEST_F(MemberFastPaths, AMethodObjectHeldAcrossAChangeOfItsClassChecksItsReceiverAgain) {
  auto owner = counter_class("Mover");
  auto other = declare_class({S("Destination"), B::module_entry(S(module_name)),
                              B::field_entry(S("count"), 0, &kest::Integer::getType)});
  auto bump = owner.definedMethod(kest::meta_method_untyped("bump")).as<kest::I_Callable_Generic>();
  py::gil lock;
  py_namespace ns;
  ns.set("a", counter(owner));
  ASSERT_TRUE(ns.run("held = a.bump"));
  EXPECT_EQ(ns.text("held(2)"), "2");
  // The method now belongs to another class: the instance it was bound to is
  // no longer one it applies to.
  bump.setDeclaringContext(other);
  EXPECT_TRUE(ns.run("try:\n    held(1)\n    message = None\nexcept Exception as e:\n    message = e.kest.message\n"));
  EXPECT_NE(ns.text("message"), "None");
  EXPECT_NE(ns.text("message").find("applies to"), std::string::npos);
  bump.setDeclaringContext(owner);
  EXPECT_EQ(ns.text("held(3)"), "5");
  EXPECT_EQ(ns.text("a.bump(1)"), "6");
}

TEST_F(MemberFastPaths, IntegersAMethodKeepsAreNeverChangedByLaterCalls) {
  auto kept = std::make_shared<std::vector<kest::Any>>();
  auto watched = std::make_shared<std::vector<kest::WeakReference>>();
  auto cls = declare_class({S("Keeper"), B::module_entry(S(module_name)),
                            method_entry("keep", kest::make_method([kept](kest::Any, kest::Any n) {
                              kept->push_back(n);
                              return std::int64_t{0};
                            }),
                                         "n"),
                            method_entry("watch", kest::make_method([watched](kest::Any, kest::Any n) {
                              watched->emplace_back(n);
                              return std::int64_t{0};
                            }),
                                         "n"),
                            method_entry("twice", kest::make_method([](kest::Any, std::int64_t n) { return 2 * n; }),
                                         "n")});
  py::gil lock;
  py_namespace ns;
  ns.set("k", make_instance(cls));
  ASSERT_TRUE(ns.run("results = []\n"
                     "for i in range(5):\n"
                     "    k.keep(i * 10)\n"
                     "    k.watch(i * 100)\n"
                     "    results.append(k.twice(i))\n"));
  EXPECT_EQ(ns.text("results"), "[0, 2, 4, 6, 8]");
  ASSERT_EQ(kept->size(), 5u);
  for (std::size_t i = 0; i < kept->size(); ++i)
    EXPECT_EQ(shown((*kept)[i]), std::to_string(i * 10));
  ASSERT_EQ(watched->size(), 5u);
  for (std::size_t i = 0; i < watched->size(); ++i) {
    // A weakly watched argument is gone or still its own value, never a later one.
    auto target = kest::internal::weak_ref_builtin::resolve((*watched)[i]);
    EXPECT_TRUE(target.empty() || shown(target) == std::to_string(i * 100));
  }
  // Too large for the host's integers: an error, and the next call is right again.
  EXPECT_TRUE(ns.run("try:\n    k.twice(2 ** 70)\n    big = 'no error'\nexcept Exception as e:\n    big = 'error'\n"));
  EXPECT_EQ(ns.text("big"), "error");
  EXPECT_EQ(ns.text("k.twice(21)"), "42");
}
