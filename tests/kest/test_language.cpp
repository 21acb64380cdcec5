// Scripting languages: evaluation scopes, language names, the language
// registry, and a declared language class reached through the interface.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace kest;
using namespace kest_test;

namespace {

/// A language that echoes the code it is given, with the scope's display text.
Class_Generic echo_language() {
  static const Class_Generic cls = declare(
      {S("EchoLanguage"), B::module_entry(S("tlang")), B::base_entry(PythonLanguage::getClass()),
       B::method_entry(meta_method_untyped("evaluate"), make_method([](Any, String code, Any scope) {
                         return "ran " + code.toUtf8() + " in " + display(scope).toUtf8();
                       }))});
  return cls;
}

Any new_instance(const Class_Generic &cls) {
  auto r = cls.allocateInstance();
  if (r.isError())
    throw std::runtime_error("allocation failed: " + error_text(r));
  return unwrapped(r);
}

} // namespace

TEST(EvaluationScopes, KeepSelfGlobalsLocalsAndOutLocals) {
  HashMap globals_map, locals_map, out;
  ASSERT_FALSE(globals_map.setChecked(S("g"), Integer(1)).isError());
  EvaluationScope scope(S("self value"), I_Map::unsafeFrom(globals_map), I_Map::unsafeFrom(locals_map),
                        I_MutableMap::unsafeFrom(out));
  EXPECT_EQ(text_of(scope.self()), "self value");
  ASSERT_TRUE(scope.globals().is<I_Map>());
  EXPECT_TRUE(scope.globals().isSame(globals_map));
  EXPECT_TRUE(scope.locals().isSame(locals_map));
  EXPECT_TRUE(scope.outLocals().isSame(out));
  EXPECT_TRUE(EvaluationScope::isInstance(scope));

  EvaluationScope bare{Any(), None(), None(), None()};
  EXPECT_TRUE(is_none(bare.self()));
  EXPECT_TRUE(bare.globals().is<None>());
  EXPECT_TRUE(bare.locals().is<None>());
  EXPECT_TRUE(bare.outLocals().is<None>());
}

TEST(Languages, HaveFixedNames) {
  EXPECT_EQ(internal::language_name_python().toUtf8(), "python");
  EXPECT_EQ(internal::language_name_js().toUtf8(), "js");
  EXPECT_EQ(internal::language_name_cpp().toUtf8(), "cpp");
}

TEST(LanguageRegistry, FirstRegistrationWins) {
  auto first = new_instance(echo_language());
  auto second = new_instance(echo_language());
  EXPECT_TRUE(find_language(S("tlang_echo")).is<None>());
  EXPECT_TRUE(internal::register_language(S("tlang_echo"), first));
  EXPECT_FALSE(internal::register_language(S("tlang_echo"), second));
  auto found = find_language(S("tlang_echo"));
  ASSERT_TRUE(found.is<I_Language>());
  EXPECT_TRUE(found.as<I_Language>().isSame(first));
}

TEST(LanguageRegistry, ValueThatIsNoLanguageIsNotFound) {
  EXPECT_TRUE(internal::register_language(S("tlang_not_a_language"), Integer(1)));
  EXPECT_TRUE(find_language(S("tlang_not_a_language")).is<None>());
  EXPECT_TRUE(find_language(S("tlang_never_registered")).is<None>());
}

TEST(DeclaredLanguage, EvaluateIsReachedThroughTheInterface) {
  auto cls = echo_language();
  EXPECT_TRUE(cls.derivesFrom(PythonLanguage::getClass()));
  EXPECT_TRUE(cls.derivesFrom(I_Language::getClass()));
  auto obj = new_instance(cls);
  ASSERT_TRUE(I_Language::isInstance(obj));
  ASSERT_TRUE(PythonLanguage::isInstance(obj));
  auto language = I_Language::unsafeFrom(obj);
  EXPECT_EQ(text_of(language.evaluate(S("1 + 1"))), "ran 1 + 1 in None");
  EXPECT_EQ(text_of(language.evaluate(S("x"), Integer(5))), "ran x in 5");

  ASSERT_TRUE(internal::register_language(S("tlang_declared"), obj));
  auto found = find_language(S("tlang_declared"));
  ASSERT_TRUE(found.is<I_Language>());
  EXPECT_EQ(text_of(found.as<I_Language>().evaluate(S("print()"))), "ran print() in None");
}

TEST(DeclaredLanguage, UndeclaredOperationIsAnError) {
  auto language = I_Language::unsafeFrom(new_instance(echo_language()));
  auto r = language.evaluateExpression(S("1"));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Method 'evaluateExpression' not found in 'tlang.EchoLanguage'.");
  auto sandbox = PythonLanguage::unsafeFrom(language).evaluateInSandbox(S("1"));
  ASSERT_TRUE(sandbox.isError());
  EXPECT_EQ(error_text(sandbox), "Method 'evaluateInSandbox' not found in 'tlang.EchoLanguage'.");
}

TEST(DeclaredLanguage, InheritsToCodeAndName) {
  auto language = I_Language::unsafeFrom(new_instance(echo_language()));
  EXPECT_EQ(text_of(language.toCode(List{Integer(1), S("a"), Any()})), "[1, 'a', None]");
  EXPECT_EQ(text_of(language.propertyValue(meta_property_untyped("$$name"))), "Python");
}

TEST(DeclaredLanguage, CanEvaluateReadsTheMetaProperty) {
  auto plain = I_Language::unsafeFrom(new_instance(echo_language()));
  EXPECT_FALSE(plain.canEvaluate());

  internal::property_builder_base can(S("$$canEvaluate"));
  can.assign_getter_value(Boolean(true));
  auto able = declare({S("AbleLanguage"), B::base_entry(echo_language()), B::property_entry(can)});
  auto language = I_Language::unsafeFrom(new_instance(able));
  EXPECT_TRUE(language.canEvaluate());
  EXPECT_EQ(text_of(language.evaluate(S("2"))), "ran 2 in None");
}

namespace {
/// A language class of its own whose "evaluate" answers `answer`.
Class_Generic answering_language(const char *name, const char *answer) {
  const std::string reply = answer;
  return declare({S(name), B::module_entry(S("tlang")), B::base_entry(PythonLanguage::getClass()),
                  B::method_entry(meta_method_untyped("evaluate"),
                                  make_method([reply](Any, String, Any) { return reply; }))});
}
} // namespace

// A language method found once is called again without a lookup on this
// thread; every change that could make the name mean another method is seen.
TEST(DeclaredLanguage, RepeatedCallsSeeAMethodReplacedOnTheClass) {
  auto cls = answering_language("ReplacedLanguage", "first");
  auto language = I_Language::unsafeFrom(new_instance(cls));
  EXPECT_EQ(text_of(language.evaluate(S("x"))), "first");
  EXPECT_EQ(text_of(language.evaluate(S("x"))), "first");
  cls->add_method(meta_method_untyped("evaluate"), make_method([](Any, String, Any) { return std::string("second"); }));
  EXPECT_EQ(text_of(language.evaluate(S("x"))), "second");
}

TEST(DeclaredLanguage, RepeatedCallsSeeAMethodInsertedOnTheInstance) {
  auto cls = answering_language("InsertedLanguage", "class");
  auto plain = I_Language::unsafeFrom(new_instance(cls));
  auto own = I_Language::unsafeFrom(new_instance(cls));
  EXPECT_EQ(text_of(own.evaluate(S("x"))), "class");
  ASSERT_FALSE(insert_method(own, meta_method_untyped("evaluate"),
                             make_method([](Any, String, Any) { return std::string("own"); }))
                   .isError());
  EXPECT_EQ(text_of(own.evaluate(S("x"))), "own");
  EXPECT_EQ(text_of(plain.evaluate(S("x"))), "class");
  EXPECT_EQ(text_of(own.evaluate(S("x"))), "own");
}

TEST(DeclaredLanguage, RepeatedCallsOnTwoClassesInTurnReachEachOwnMethod) {
  auto a = I_Language::unsafeFrom(new_instance(answering_language("TurnLanguageA", "a")));
  auto b = I_Language::unsafeFrom(new_instance(answering_language("TurnLanguageB", "b")));
  std::string answers;
  for (int i = 0; i < 3; ++i)
    answers += text_of(a.evaluate(S("x"))) + text_of(b.evaluate(S("x")));
  EXPECT_EQ(answers, "ababab");
}

TEST(DeclaredLanguage, RepeatedCallsFillInDefaultsEachTime) {
  using namespace kest::literals;
  auto cls = kest::class_(kest::module_("tlang"), "DefaultsLanguage")
                 .base(PythonLanguage::getClass())
                 .def("evaluate", [](const Any &, String code, Any, Any extra) {
                        return code.toUtf8() + " " + display(extra).toUtf8();
                      }, "code"_a, "scope"_a, "extra"_a = 7)
                 .declare();
  auto language = I_Language::unsafeFrom(new_instance(cls));
  EXPECT_EQ(text_of(language.evaluate(S("x"))), "x 7");
  EXPECT_EQ(text_of(language.evaluate(S("y"))), "y 7");
}

TEST(DeclaredLanguage, RepeatedCallsOnAnotherThreadFindTheMethodThemselves) {
  auto language = I_Language::unsafeFrom(new_instance(answering_language("ThreadLanguage", "same")));
  EXPECT_EQ(text_of(language.evaluate(S("x"))), "same");
  std::string there;
  std::thread([&] { there = text_of(language.evaluate(S("x"))) + text_of(language.evaluate(S("x"))); }).join();
  EXPECT_EQ(there, "samesame");
}
