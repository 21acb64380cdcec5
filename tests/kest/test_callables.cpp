// Callables: typed adapters, argument completion and checking, named
// arguments, bound methods, signatures, decoration, constructors and the
// conversion of C++ exceptions into error results.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace kest;
using namespace kest_test;

namespace {

std::vector<std::string> parameter_names(const I_Callable_Generic &c) {
  std::vector<std::string> out;
  for (auto &p : c.signature().parameters())
    out.push_back(p.name().toUtf8());
  return out;
}

HashMap named(std::initializer_list<std::pair<const char *, Any>> pairs) {
  HashMap map(String::getType(), Type());
  for (auto &[k, v] : pairs)
    if (map.setChecked(S(k), v).isError())
      throw std::runtime_error("named argument not stored");
  return map;
}

/// "scaled(x, factor = 10)": x * factor.
I_Callable_Generic scaled() {
  internal::method_builder_base builder(S("scaled"));
  builder.assign_func(make_function([](std::int64_t x, std::int64_t factor) { return x * factor; }));
  builder.signature(S("x, factor"));
  builder.assign_defaults({Integer(10)});
  return builder.callable();
}

} // namespace

// --- typed adapters -----------------------------------------------------------------

TEST(TypedAdapters, ConvertArgumentsAndResult) {
  auto add = make_function([](std::int64_t a, std::int64_t b) { return a + b; });
  EXPECT_EQ(int_of(add(Integer(2), Integer(3))), 5);
  EXPECT_TRUE(add.isIndependent());
  EXPECT_EQ(add.parameterCount(), 2);
  EXPECT_EQ(add.requiredParameterCount(), 2);
  EXPECT_TRUE(add.resultType().isSame(Integer::getClass()));
  EXPECT_EQ(parameter_names(add), (std::vector<std::string>{"arg0", "arg1"}));

  auto concat = make_function([](std::string a, const std::string &b) { return a + b; });
  EXPECT_EQ(text_of(concat(S("ab"), S("cd"))), "abcd");
  EXPECT_TRUE(concat.resultType().isSame(String::getClass()));

  auto half = make_function([](double d) { return d / 2; });
  auto r = unwrapped(half(Integer(3))); // an Integer fits a double parameter
  ASSERT_TRUE(Float::isInstance(r));
  EXPECT_DOUBLE_EQ(Float::unsafeFrom(r).value(), 1.5);

  auto negate = make_function([](bool b) { return !b; });
  auto n = unwrapped(negate(Boolean(true)));
  ASSERT_TRUE(Boolean::isInstance(n));
  EXPECT_FALSE(Boolean::unsafeFrom(n).value());

  auto length = make_function([](String s) { return s.length(); });
  EXPECT_EQ(int_of(length(S("four"))), 4);
  EXPECT_TRUE(length.signature().parameters()[0].type().isSame(String::getClass()));
}

TEST(TypedAdapters, ArgumentOfTheWrongClassIsABadArgumentNamingItsNumber) {
  auto called = std::make_shared<bool>(false);
  auto add = make_function([called](std::int64_t a, std::int64_t b) {
    *called = true;
    return a + b;
  });
  auto first = add(S("two"), Integer(3));
  ASSERT_TRUE(first.isError());
  EXPECT_TRUE(BadArgument::isInstance(first));
  EXPECT_EQ(error_text(first), "Argument 1 must be kest.Integer, not kest.String.");
  auto second = add(Integer(2), Float(1.0));
  ASSERT_TRUE(second.isError());
  EXPECT_EQ(error_text(second), "Argument 2 must be kest.Integer, not kest.Float.");
  EXPECT_FALSE(*called);

  auto text = make_function([](std::string s) { return s; });
  EXPECT_EQ(error_text(text(Integer(1))), "Argument 1 must be kest.String, not kest.Integer.");
  auto flag = make_function([](bool b) { return b; });
  EXPECT_EQ(error_text(flag(Any())), "Argument 1 must be kest.Boolean, not kest.None.");
}

TEST(TypedAdapters, VoidFunctionReturnsNone) {
  auto seen = std::make_shared<std::int64_t>(0);
  auto sink = make_function([seen](std::int64_t v) { *seen = v; });
  auto r = sink(Integer(12));
  EXPECT_FALSE(r.isError());
  EXPECT_TRUE(None::isInstance(unwrapped(r)));
  EXPECT_FALSE(unwrapped(r).empty());
  EXPECT_EQ(*seen, 12);
  EXPECT_TRUE(sink.resultType().isSame(None::getClass()));
}

TEST(TypedAdapters, MakeMethodTakesTheInstanceFirst) {
  auto method = make_method([](Any self, std::int64_t k) { return display(self).toUtf8() + "/" + std::to_string(k); });
  EXPECT_FALSE(method.isIndependent());
  EXPECT_EQ(method.parameterCount(), 2);
  EXPECT_EQ(text_of(method(S("me"), Integer(4))), "me/4");
}

// --- argument completion -------------------------------------------------------------

TEST(CallArguments, DefaultsFillMissingTrailingArguments) {
  auto f = scaled();
  EXPECT_EQ(f.parameterCount(), 2);
  EXPECT_EQ(f.requiredParameterCount(), 1);
  ASSERT_EQ(f.defaults().size(), 1u);
  EXPECT_EQ(int_of(f.defaults()[0]), 10);
  EXPECT_EQ(int_of(f(Integer(3))), 30);
  EXPECT_EQ(int_of(f(Integer(3), Integer(2))), 6);
}

TEST(CallArguments, MissingRequiredArgumentIsNamed) {
  auto f = scaled();
  auto r = f.callWith({});
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(error_text(r), "Missing argument 'x' for scaled.");

  auto plain = make_function([](std::int64_t a, std::int64_t b) { return a - b; });
  auto r2 = plain(Integer(1));
  ASSERT_TRUE(r2.isError());
  EXPECT_EQ(error_text(r2), "Missing argument 'arg1' for <function>.");
}

TEST(CallArguments, TooManyArgumentsIsAnError) {
  auto f = scaled();
  auto r = f(Integer(1), Integer(2), Integer(3));
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(error_text(r), "Too many arguments for scaled: it takes 2, 3 given.");
}

TEST(CallArguments, SurplusDefaultsAlignWithTheLastParameters) {
  internal::method_builder_base builder(S("digits"));
  builder.assign_func(make_function([](std::int64_t a, std::int64_t b) { return a * 10 + b; }));
  builder.assign_defaults({Integer(1), Integer(2), Integer(3)});
  auto f = builder.callable();
  EXPECT_EQ(f.requiredParameterCount(), 0);
  EXPECT_EQ(int_of(f.callWith({})), 23);
  EXPECT_EQ(int_of(f(Integer(5))), 53);
  EXPECT_EQ(int_of(f(Integer(5), Integer(6))), 56);
}

TEST(CallArguments, VariadicCallableAcceptsExtraArguments) {
  auto count = internal::make_callable(
      [](std::span<const Any> args) -> Any { return Integer(static_cast<std::int64_t>(args.size())); },
      Signature({Parameter(S("first"), Type())}, Integer::getType(), 1, true), true);
  EXPECT_TRUE(count.hasVariadicParameters());
  EXPECT_EQ(int_of(count(Integer(1), Integer(2), Integer(3))), 3);
  EXPECT_EQ(int_of(count(Integer(1))), 1);
  EXPECT_EQ(error_text(count.callWith({})), "Missing argument 'first' for <function>.");
}

TEST(CallArguments, CallWithSequenceSpreadsAList) {
  auto f = scaled();
  EXPECT_EQ(int_of(f.callWithSequence(List{Integer(4), Integer(5)})), 20);
  EXPECT_EQ(int_of(f.callWithSequence(List{Integer(4)})), 40);
}

// --- named arguments --------------------------------------------------------------------

TEST(NamedArguments, AreMatchedByParameterName) {
  auto f = scaled();
  std::vector<Any> three{Integer(3)};
  EXPECT_EQ(int_of(f.callWithNamed(three, named({{"factor", Integer(4)}}))), 12);
  EXPECT_EQ(int_of(f.callWithNamed({}, named({{"x", Integer(5)}}))), 50);
  EXPECT_EQ(int_of(f.callWithNamed({}, named({{"factor", Integer(2)}, {"x", Integer(7)}}))), 14);
  EXPECT_EQ(int_of(f.callWithNamed(three, HashMap())), 30);
}

TEST(NamedArguments, UnknownNameIsAnError) {
  auto f = scaled();
  auto r = f.callWithNamed({}, named({{"x", Integer(1)}, {"zz", Integer(2)}}));
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(error_text(r), "Unknown argument 'zz' for scaled.");
}

TEST(NamedArguments, ArgumentGivenTwiceIsAnError) {
  auto f = scaled();
  std::vector<Any> positional{Integer(3)};
  auto r = f.callWithNamed(positional, named({{"x", Integer(4)}}));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Argument 'x' given twice for scaled.");
}

TEST(NamedArguments, MissingRequiredArgumentIsNamed) {
  auto f = scaled();
  auto r = f.callWithNamed({}, named({{"factor", Integer(4)}}));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Missing argument 'x' for scaled.");
}

TEST(NamedArguments, AConstructibleClassPassesThemToItsConstructor) {
  auto cls = declare({S("NamedCtor"), B::method_entry(meta_method_untyped("$__init__"),
                                                     make_function([](std::int64_t v) { return v * 10; }))});
  auto r = I_Callable_Generic::unsafeFrom(cls).callWithNamed({}, named({{"arg0", Integer(1)}}));
  ASSERT_TRUE(r.is<Integer>());
  EXPECT_EQ(r.as<Integer>().value(), 10);
  auto wrong = I_Callable_Generic::unsafeFrom(cls).callWithNamed({}, named({{"nope", Integer(1)}}));
  ASSERT_TRUE(wrong.isError());
  EXPECT_EQ(error_text(wrong), "Unknown argument 'nope' for NamedCtor.__init__.");
}

// --- binding ---------------------------------------------------------------------------

TEST(BoundMethods, HaveOneParameterFewerAndPassTheInstance) {
  internal::method_builder_base builder(S("describe"));
  builder.assign_func(make_method([](Any self, std::string prefix, std::int64_t times) {
    std::string out;
    for (std::int64_t i = 0; i < times; ++i)
      out += prefix + display(self).toUtf8();
    return out;
  }));
  builder.signature(S("prefix, times"));
  builder.assign_defaults({Integer(1)});
  auto method = builder.callable();
  EXPECT_EQ(method.parameterCount(), 3);
  EXPECT_EQ(method.requiredParameterCount(), 2);

  auto bound = method.bindInstance(S("obj"));
  EXPECT_FALSE(bound.isSame(method));
  EXPECT_TRUE(bound.isIndependent());
  EXPECT_EQ(bound.parameterCount(), 2);
  EXPECT_EQ(bound.requiredParameterCount(), 1);
  EXPECT_EQ(parameter_names(bound), (std::vector<std::string>{"prefix", "times"}));
  EXPECT_EQ(bound.name().toUtf8(), "describe");
  EXPECT_TRUE(bound.resultType().isSame(String::getClass()));
  EXPECT_EQ(text_of(bound(S("<"), Integer(2))), "<obj<obj");
  EXPECT_EQ(text_of(bound(S(">"))), ">obj"); // the default still fills the last parameter
  EXPECT_EQ(error_text(bound(Integer(1))), "Argument 2 (prefix) must be kest.String, not kest.Integer.");
  EXPECT_EQ(error_text(bound.callWith({})), "Missing argument 'prefix' for describe.");
}

TEST(BoundMethods, IndependentCallableIsReturnedAsItIs) {
  auto f = make_function([](std::int64_t a) { return a; });
  EXPECT_TRUE(f.bindInstance(S("ignored")).isSame(f));
}

TEST(BoundMethods, NamedArgumentsReachTheBoundCallable) {
  internal::method_builder_base builder(S("offset"));
  builder.assign_func(make_method([](Any self, std::int64_t by) { return Integer::unsafeFrom(self).value() + by; }));
  builder.signature(S("by"));
  auto bound = builder.callable().bindInstance(Integer(40));
  EXPECT_EQ(int_of(bound.callWithNamed({}, named({{"by", Integer(2)}}))), 42);
}

// --- independence ----------------------------------------------------------------------

TEST(Independence, CanBeChangedAfterCreation) {
  auto method = make_method([](Any v) { return v; });
  EXPECT_FALSE(method.isIndependent());
  method.setIndependent(true);
  EXPECT_TRUE(method.isIndependent());
  EXPECT_TRUE(method.bindInstance(S("x")).isSame(method));
  method.setIndependent(false);
  EXPECT_FALSE(method.isIndependent());
  EXPECT_FALSE(method.bindInstance(S("x")).isSame(method));
}

TEST(Independence, PropertyCallsAnIndependentGetterWithoutTheInstance) {
  auto getter = make_function([](Any v) { return is_none(v) ? std::string("no instance") : display(v).toUtf8(); });
  getter.setIndependent(false);
  Property p(S("p"), getter);
  EXPECT_EQ(text_of(p.get(S("me"))), "me");
  auto zero = make_function([] { return std::string("independent"); });
  Property q(S("q"), zero);
  EXPECT_EQ(text_of(q.get(S("me"))), "independent");
}

// --- signatures ------------------------------------------------------------------------

TEST(Signatures, ReportParametersCountsAndResult) {
  Signature sig({Parameter(S("a"), Integer::getType()), Parameter(S("b"), String::getType())},
                Boolean::getType(), 1);
  auto params = sig.parameters();
  ASSERT_EQ(params.size(), 2u);
  EXPECT_EQ(params[0].name().toUtf8(), "a");
  EXPECT_TRUE(params[0].type().isSame(Integer::getClass()));
  EXPECT_EQ(params[1].name().toUtf8(), "b");
  EXPECT_EQ(sig.parameterCount(), 2);
  EXPECT_EQ(sig.requiredParameterCount(), 1);
  EXPECT_FALSE(sig.hasVariadicParameters());
  EXPECT_TRUE(sig.resultType().isSame(Boolean::getClass()));
  EXPECT_EQ(sig.toString().toUtf8(), "(a: Integer, b: String) -> Boolean");
}

TEST(Signatures, VariadicAndEmptySignaturesHaveText) {
  Signature variadic({Parameter(S("f"), Type())}, Type(), 1, true);
  EXPECT_TRUE(variadic.hasVariadicParameters());
  EXPECT_EQ(variadic.toString().toUtf8(), "(f: Untyped, ...) -> Untyped");
  Signature only_rest({}, None::getType(), 0, true);
  EXPECT_EQ(only_rest.toString().toUtf8(), "(...) -> None");
  Signature empty({}, Integer::getType(), 0);
  EXPECT_EQ(empty.parameterCount(), 0);
  EXPECT_EQ(empty.toString().toUtf8(), "() -> Integer");
}

TEST(Signatures, RequiredCountNeverExceedsTheParameters) {
  Signature sig({Parameter(S("only"), Type())}, Type(), 5);
  EXPECT_EQ(sig.requiredParameterCount(), 1);
}

TEST(Signatures, TypesMayBeResolvedLazily) {
  Signature sig({Parameter(S("lazy"), &Float::getType)}, &Decimal::getType, 1);
  EXPECT_TRUE(sig.parameters()[0].type().isSame(Float::getClass()));
  EXPECT_TRUE(sig.resultType().isSame(Decimal::getClass()));
  EXPECT_EQ(sig.toString().toUtf8(), "(lazy: Float) -> Decimal");
}

TEST(Signatures, TypedAdapterSignatureText) {
  auto f = make_function([](std::int64_t, std::string) { return 1.5; });
  EXPECT_EQ(f.signature().toString().toUtf8(), "(arg0: Integer, arg1: String) -> Float");
}

// --- decoration ------------------------------------------------------------------------

TEST(Decoration, SetsNameDocAndParameterNamesAfterTheInstance) {
  internal::method_builder_base builder(S("evaluate"));
  builder.signature(S("code, scope"));
  builder.assign_doc(S("Runs code in a scope."));
  auto method = builder.decorate(make_method([](Any, String code, Any) { return code; }));
  EXPECT_EQ(method.name().toUtf8(), "evaluate");
  EXPECT_EQ(method.doc().toUtf8(), "Runs code in a scope.");
  EXPECT_EQ(parameter_names(method), (std::vector<std::string>{"self", "code", "scope"}));
  EXPECT_TRUE(method.signature().parameters()[1].type().isSame(String::getClass()));
  EXPECT_EQ(method.requiredParameterCount(), 3);

  auto function = builder.decorate(make_function([](String code, Any) { return code; }));
  EXPECT_EQ(parameter_names(function), (std::vector<std::string>{"code", "scope"}));
  EXPECT_EQ(builder.name().utf8(), "evaluate");
}

TEST(Decoration, SignatureTextIsTrimmedAndMayBeShorter) {
  internal::method_builder_base builder(S("partial"));
  builder.signature(S("  first ,second  "));
  auto f = builder.decorate(make_function([](std::int64_t, std::int64_t, std::int64_t) { return 0; }));
  EXPECT_EQ(parameter_names(f), (std::vector<std::string>{"first", "second", "arg2"}));
}

TEST(Decoration, ResultTypeGetterReplacesTheResultType) {
  internal::method_builder_base builder(S("typed"));
  builder.assign_type_getter(&Decimal::getType);
  auto f = builder.decorate(make_function([]() -> Any { return None(); }));
  EXPECT_TRUE(f.resultType().isSame(Decimal::getClass()));
}

TEST(Decoration, NonNativeCallableIsReturnedUnchanged) {
  auto cls = declare({S("DecoratedCtor"), B::method_entry(meta_method_untyped("$__init__"),
                                                         make_function([] { return 1; }))});
  internal::method_builder_base builder(S("renamed"));
  auto same = builder.decorate(I_Callable_Generic::unsafeFrom(cls));
  EXPECT_TRUE(same.isSame(cls));
  EXPECT_EQ(cls.name().toUtf8(), "DecoratedCtor");
}

TEST(Decoration, AbstractFunctionFailsWhenCalled) {
  internal::method_builder_base builder(S("todo"));
  builder.signature(S("a, b"));
  auto f = builder.create_abstract_function(&Integer::getType);
  EXPECT_EQ(f.parameterCount(), 2);
  EXPECT_EQ(parameter_names(f), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(f.resultType().isSame(Integer::getClass()));
  auto r = f(Integer(1), Integer(2));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "The function 'todo' is not bound.");

  // A builder without a function gives the decorated abstract function.
  auto fallback = builder.callable();
  EXPECT_EQ(fallback.name().toUtf8(), "todo");
  EXPECT_EQ(error_text(fallback(Integer(1), Integer(2))), "The function 'todo' is not bound.");
  EXPECT_TRUE(internal::method_builder_base(S("untyped")).create_abstract_function(nullptr).resultType().isUntyped());
}

// --- classes as constructors -------------------------------------------------------------

namespace {
Class_Generic point_class() {
  static const Class_Generic cls = declare(
      {S("Point"), B::module_entry(S("tcall_geometry")), B::field_entry(S("x"), 0, &Integer::getType),
       B::field_entry(S("y"), 0, &Integer::getType),
       B::method_entry(meta_method_untyped("$__init__"), make_method([](Any self, std::int64_t x, std::int64_t y) -> Any {
                         auto r = self.setFieldValue(meta_field_untyped("x"), Integer(x));
                         if (r.isError())
                           return r;
                         return self.setFieldValue(meta_field_untyped("y"), Integer(y));
                       }))});
  return cls;
}
} // namespace

TEST(Constructors, ClassWithInitIsCallableAndCallingConstructs) {
  auto cls = point_class();
  EXPECT_TRUE(I_Callable_Generic::isInstance(cls));
  EXPECT_FALSE(I_Callable_Generic::isInstance(Class_Generic::create(S("NotConstructible"))));

  auto ctor = I_Callable_Generic::unsafeFrom(cls);
  auto r = ctor(Integer(3), Integer(4));
  ASSERT_FALSE(r.isError()) << error_text(r);
  auto point = unwrapped(r);
  EXPECT_TRUE(raw_class_of(point).isSame(cls));
  EXPECT_EQ(int_of(point.fieldValue(meta_field_untyped("x"))), 3);
  EXPECT_EQ(int_of(point.fieldValue(meta_field_untyped("y"))), 4);

  auto sig = ctor.signature();
  EXPECT_EQ(sig.parameterCount(), 2);
  EXPECT_TRUE(sig.resultType().isSame(cls));
}

TEST(Constructors, ClassCalledAsAFunctionIsNamedAfterTheClass) {
  auto ctor = I_Callable_Generic::unsafeFrom(point_class());
  EXPECT_EQ(ctor.name().toUtf8(), "Point");
  EXPECT_EQ(qualname(ctor).toUtf8(), "tcall_geometry.Point");
  auto init = point_class().definedMethod(meta_method_untyped("$__init__"));
  ASSERT_TRUE(init.is<I_Callable_Generic>());
  EXPECT_EQ(qualname(init.as<I_Callable_Generic>()).toUtf8(), "tcall_geometry.Point.__init__");
  auto r = ctor(Integer(3));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Missing argument 'arg2' for tcall_geometry.Point.__init__.");
}

TEST(Constructors, BadConstructorArgumentsGiveAnError) {
  auto ctor = I_Callable_Generic::unsafeFrom(point_class());
  auto r = ctor(S("three"), Integer(4));
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(BadArgument::isInstance(r));
  EXPECT_EQ(error_text(r), "Argument 2 must be kest.Integer, not kest.String.");
}

TEST(Constructors, DerivedClassInheritsTheConstructor) {
  auto derived = declare({S("Point3"), B::base_entry(point_class())});
  ASSERT_TRUE(I_Callable_Generic::isInstance(derived));
  auto r = I_Callable_Generic::unsafeFrom(derived)(Integer(1), Integer(2));
  ASSERT_FALSE(r.isError()) << error_text(r);
  EXPECT_TRUE(raw_class_of(unwrapped(r)).isSame(derived));
}

TEST(Constructors, IndependentInitIsAFactory) {
  auto cls = declare({S("Factory"), B::method_entry(meta_method_untyped("$__init__"),
                                                   make_function([](std::int64_t v) { return v * 2; }))});
  EXPECT_EQ(int_of(I_Callable_Generic::unsafeFrom(cls)(Integer(21))), 42);
}

TEST(Constructors, AbstractClassWithInitCannotBeConstructed) {
  auto cls = declare({S("AbstractCtor"), B::flags_entry(class_flags::abstract),
                      B::method_entry(meta_method_untyped("$__init__"), make_method([](Any) {}))});
  auto r = I_Callable_Generic::unsafeFrom(cls).callWith({});
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Unable to create an instance of the abstract class AbstractCtor.");
}

TEST(Constructors, NonCallableValueGivesAnError) {
  auto r = I_Callable_Generic(internal::unchecked, Integer(5)).callWith({}); // a handle made without a check
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Non-callable object: 5");
  EXPECT_FALSE(I_Callable_Generic::isInstance(Integer(5)));
}

TEST(Constructors, InstanceWithCallMethodIsCalledWithAListOfArguments) {
  auto cls = declare({S("CallableObject"), B::base_entry(I_Callable_Generic::getClass()),
                      B::method_entry(meta_method_untyped("$call"), make_method([](Any, List args) {
                                        return args.length();
                                      }))});
  auto obj = unwrapped(cls.allocateInstance());
  ASSERT_TRUE(I_Callable_Generic::isInstance(obj));
  EXPECT_EQ(int_of(I_Callable_Generic::unsafeFrom(obj)(Integer(1), Integer(2), Integer(3))), 3);
}

// --- C++ exceptions ----------------------------------------------------------------------

TEST(Exceptions, StandardExceptionBecomesAnErrorResult) {
  auto f = make_function([]() -> std::int64_t { throw std::runtime_error("boom"); });
  Result<Any> r;
  EXPECT_NO_THROW(r = f());
  ASSERT_TRUE(r.isError());
  auto e = Error::unsafeFrom(r);
  EXPECT_EQ(e.message().toUtf8(), "boom");
  ASSERT_TRUE(e.cause() != nullptr);
  EXPECT_THROW(std::rethrow_exception(e.cause()), std::runtime_error);
}

TEST(Exceptions, UnknownExceptionBecomesTheUnknownError) {
  auto f = make_function([]() -> std::int64_t { throw 42; });
  Result<Any> r;
  EXPECT_NO_THROW(r = f());
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Unknown error.");
}

TEST(Exceptions, CarriedHostErrorIsReturnedItself) {
  auto carried = BadArgument(S("carried"));
  auto f = make_function([carried]() -> std::int64_t { throw kest::exception(carried); });
  auto r = f();
  ASSERT_TRUE(r.isError());
  EXPECT_TRUE(r.isSame(carried));
}

TEST(Exceptions, ExceptionsInGettersConstructorsAndBoundMethodsBecomeErrors) {
  auto throwing_method = make_method([](Any) -> std::int64_t { throw std::logic_error("in method"); });
  Property p(S("p"), throwing_method);
  EXPECT_EQ(error_text(p.get(S("self"))), "in method");
  EXPECT_EQ(error_text(throwing_method.bindInstance(S("self")).callWith({})), "in method");

  auto cls = declare({S("ThrowingCtor"), B::method_entry(meta_method_untyped("$__init__"),
                                                        make_method([](Any) { throw std::runtime_error("in init"); }))});
  Result<Any> r;
  EXPECT_NO_THROW(r = I_Callable_Generic::unsafeFrom(cls).callWith({}));
  EXPECT_EQ(error_text(r), "in init");
}

// --- qualified names ---------------------------------------------------------------------

TEST(CallableNames, RegisteredModuleFunctionIsQualifiedWithTheModule) {
  internal::method_builder_base builder(S("twice"));
  builder.assign_func(make_function([](std::int64_t v) { return v * 2; }));
  auto f = builder.callable();
  EXPECT_EQ(qualname(f).toUtf8(), "twice");
  ASSERT_FALSE(internal::register_function(S("tcall_mod"), S("twice"), f).isError());
  EXPECT_EQ(qualname(f).toUtf8(), "tcall_mod.twice");
  auto context = f.declaringContext();
  ASSERT_TRUE(Module::isInstance(context));
  EXPECT_EQ(Module::unsafeFrom(context).name().toUtf8(), "tcall_mod");
  EXPECT_EQ(display(f).toUtf8(), "<function tcall_mod.twice(arg0: Integer) -> Integer>");
}

TEST(CallableNames, FunctionRegisteredWithoutANameTakesTheRegisteredName) {
  auto f = make_function([](std::int64_t v) { return v * 3; });
  EXPECT_EQ(f.name().toUtf8(), "");
  ASSERT_FALSE(internal::register_function(S("tcall_mod"), S("thrice"), f).isError());
  EXPECT_EQ(qualname(f).toUtf8(), "tcall_mod.thrice");
}

TEST(CallableNames, MethodOfADeclaredClassIsQualifiedWithTheClass) {
  auto cls = declare({S("Named"), B::module_entry(S("tcall_names")),
                      B::method_entry(meta_method_untyped("act"), make_method([](Any) { return 1; }))});
  auto m = cls.definedMethod(meta_method_untyped("act"));
  ASSERT_TRUE(m.is<I_Callable_Generic>());
  EXPECT_TRUE(m.as<I_Callable_Generic>().declaringContext().isSame(cls));
  // A method entry made from an anonymous callable names it after the entry.
  EXPECT_EQ(m.as<I_Callable_Generic>().name().toUtf8(), "act");
  EXPECT_EQ(qualname(m.as<I_Callable_Generic>()).toUtf8(), "tcall_names.Named.act");

  internal::method_builder_base builder(S("run"));
  builder.assign_func(make_method([](Any) { return 2; }));
  auto cls2 = declare({S("Named2"), B::module_entry(S("tcall_names")), B::method_entry(builder)});
  auto run = cls2.definedMethod(meta_method_untyped("run"));
  ASSERT_TRUE(run.is<I_Callable_Generic>());
  EXPECT_EQ(qualname(run.as<I_Callable_Generic>()).toUtf8(), "tcall_names.Named2.run");
}

TEST(CallableNames, AnonymousFunctionDisplaysAsAnonymous) {
  auto f = make_function([](std::int64_t v) { return v; });
  EXPECT_EQ(display(f).toUtf8(), "<function <anonymous>(arg0: Integer) -> Integer>");
}
