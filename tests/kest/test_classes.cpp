// Classes: bases and flags, qualified names, types and unions, instances and
// their fields, per-object members, member lookup with fallback hooks and
// object hooks overridden by meta-methods.

#include "kest_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace kest;
using namespace kest_test;

namespace {

Any make_instance(const Class_Generic &cls) {
  auto r = cls.allocateInstance();
  if (r.isError())
    throw std::runtime_error("allocation failed: " + Error::unsafeFrom(r).message().toUtf8());
  return unwrapped(r);
}

Any value_property(const char *name, const Any &value) {
  return B::property_entry(meta_property_untyped(name), Property::fromValue(S(name), value));
}

} // namespace

// --- bases, flags and names ------------------------------------------------------

TEST(ClassHierarchy, DerivedClassDerivesFromEveryAncestorButNotTheReverse) {
  auto a = Class_Generic::create(S("HierA"));
  auto b = Class_Generic::create(S("HierB"), 0, {a});
  auto c = Class_Generic::create(S("HierC"), 0, {b});
  auto unrelated = Class_Generic::create(S("HierUnrelated"));

  EXPECT_TRUE(c.derivesFrom(c));
  EXPECT_TRUE(c.derivesFrom(b));
  EXPECT_TRUE(c.derivesFrom(a));
  EXPECT_FALSE(a.derivesFrom(b));
  EXPECT_FALSE(b.derivesFrom(c));
  EXPECT_FALSE(c.derivesFrom(unrelated));
  EXPECT_FALSE(c.derivesFrom(Class_Generic()));

  ASSERT_EQ(c.bases().size(), 1u);
  EXPECT_TRUE(c.bases()[0].isSame(b));
  EXPECT_EQ(c->ancestors.size(), 3u);
  EXPECT_EQ(c->ancestors.count(a.value()), 1u);
  EXPECT_EQ(c->ancestors.count(b.value()), 1u);
  EXPECT_EQ(c->ancestors.count(c.value()), 1u);
  EXPECT_EQ(a->ancestors.size(), 1u);
}

TEST(ClassHierarchy, ClassWithSeveralBasesDerivesFromEach) {
  auto left = Class_Generic::create(S("HierLeft"));
  auto right = Class_Generic::create(S("HierRight"));
  auto both = Class_Generic::create(S("HierBoth"), 0, {left, right});
  EXPECT_TRUE(both.derivesFrom(left));
  EXPECT_TRUE(both.derivesFrom(right));
  ASSERT_EQ(both.bases().size(), 2u);
  EXPECT_TRUE(both.bases()[0].isSame(left));
  EXPECT_TRUE(both.bases()[1].isSame(right));
}

TEST(ClassHierarchy, InheritedFlagsPassToDerivedClassesOthersDoNot) {
  auto seq = Class_Generic::create(S("FlagSeq"), class_flags::sequence | class_flags::interface | class_flags::abstract);
  auto map = Class_Generic::create(S("FlagMap"), class_flags::map | class_flags::callable);
  auto derived = Class_Generic::create(S("FlagDerived"), class_flags::set, {seq, map});
  auto grandchild = Class_Generic::create(S("FlagGrandchild"), 0, {derived});

  EXPECT_TRUE(derived.hasFlag(class_flags::sequence));
  EXPECT_TRUE(derived.hasFlag(class_flags::map));
  EXPECT_TRUE(derived.hasFlag(class_flags::callable));
  EXPECT_TRUE(derived.hasFlag(class_flags::set));
  EXPECT_FALSE(derived.hasFlag(class_flags::interface));
  EXPECT_FALSE(derived.hasFlag(class_flags::abstract));

  EXPECT_TRUE(grandchild.hasFlag(class_flags::sequence));
  EXPECT_TRUE(grandchild.hasFlag(class_flags::set));
  EXPECT_EQ(grandchild.flags() & ~class_flags::inherited, 0u);

  auto error_like = Class_Generic::create(S("FlagErrorLike"), 0, {Error::getClass()});
  EXPECT_TRUE(error_like.hasFlag(class_flags::error));

  auto plain = Class_Generic::create(S("FlagPlain"));
  EXPECT_EQ(plain.flags(), 0u);
  plain.addFlags(class_flags::abstract);
  EXPECT_TRUE(plain.hasFlag(class_flags::abstract));
}

TEST(ClassNames, BuiltinClassesAreQualifiedWithTheKestModule) {
  EXPECT_EQ(qualname(String::getClass()).toUtf8(), "kest.String");
  EXPECT_EQ(qualname(Integer::getClass()).toUtf8(), "kest.Integer");
  EXPECT_EQ(String::getClass().name().toUtf8(), "String");
  EXPECT_EQ(String::getType().name().toUtf8(), "kest.String");
  auto module = String::getClass().declaringContext();
  ASSERT_TRUE(Module::isInstance(module));
  EXPECT_EQ(Module::unsafeFrom(module).name().toUtf8(), "kest");
}

TEST(ClassNames, DeclaredClassWithModuleIsQualifiedWithTheModule) {
  auto cls = declare({S("Gadget"), B::module_entry(S("tcls_names"))});
  EXPECT_EQ(cls.name().toUtf8(), "Gadget");
  EXPECT_EQ(qualname(cls).toUtf8(), "tcls_names.Gadget");
  auto context = cls.declaringContext();
  ASSERT_TRUE(Module::isInstance(context));
  EXPECT_EQ(Module::unsafeFrom(context).name().toUtf8(), "tcls_names");
}

TEST(ClassNames, ClassWithoutModuleHasItsBareName) {
  auto created = Class_Generic::create(S("LooseClass"));
  EXPECT_EQ(qualname(created).toUtf8(), "LooseClass");
  EXPECT_TRUE(is_none(created.declaringContext()));
  auto declared = declare({S("LooseDeclared")});
  EXPECT_EQ(qualname(declared).toUtf8(), "LooseDeclared");
  EXPECT_EQ(qualname(Class_Generic()).toUtf8(), "");
}

TEST(ClassNames, FindTypeResolvesBuiltinAndDeclaredClasses) {
  auto builtin = find_type(S("kest.String"));
  ASSERT_TRUE(builtin.is<Type>());
  EXPECT_TRUE(builtin.as<Type>().isSame(String::getClass()));

  auto cls = declare({S("Locatable"), B::module_entry(S("tcls_find"))});
  auto found = find_type(S("tcls_find.Locatable"));
  ASSERT_TRUE(found.is<Type>());
  EXPECT_TRUE(found.as<Type>().isSame(cls));
  EXPECT_TRUE(found.as<Type>().toClass().isSame(cls));

  EXPECT_TRUE(find_type(S("tcls_find.Missing")).is<None>());
  EXPECT_TRUE(find_type(S("Locatable")).is<None>());
  EXPECT_TRUE(find_type(S("String")).is<None>());
}

// --- types and unions -----------------------------------------------------------

TEST(Types, ClassTypeMatchesInstancesOfItsClassAndDerivedClasses) {
  auto base = declare({S("TypeBase")});
  auto derived = declare({S("TypeDerived"), B::base_entry(base)});
  Type base_type(base);
  auto b = make_instance(base);
  auto d = make_instance(derived);

  EXPECT_TRUE(base_type.matches(b));
  EXPECT_TRUE(base_type.matches(d));
  EXPECT_FALSE(Type(derived).matches(b));
  EXPECT_FALSE(base_type.matches(Integer(1)));
  EXPECT_FALSE(base_type.matches(Any()));

  EXPECT_TRUE(Integer::getType().matches(Integer(3)));
  EXPECT_FALSE(Integer::getType().matches(String(u"3")));
  EXPECT_TRUE(None::getType().matches(Any()));
  EXPECT_TRUE(None::getType().matches(None()));
}

TEST(Types, UntypedMatchesEverythingAndEverythingConformsToIt) {
  Type top;
  EXPECT_TRUE(top.isUntyped());
  EXPECT_TRUE(top.matches(Any()));
  EXPECT_TRUE(top.matches(Integer(1)));
  EXPECT_TRUE(top.matches(String(u"x")));
  EXPECT_TRUE(Integer::getType().conformsTo(top));
  EXPECT_FALSE(top.conformsTo(Integer::getType()));
  EXPECT_FALSE(Integer::getType().isUntyped());
  EXPECT_TRUE(Type(Class_Generic()).isUntyped());
}

TEST(Types, ConformsToFollowsDerivation) {
  auto base = Class_Generic::create(S("ConformBase"));
  auto derived = Class_Generic::create(S("ConformDerived"), 0, {base});
  EXPECT_TRUE(Type(derived).conformsTo(Type(base)));
  EXPECT_TRUE(Type(base).conformsTo(Type(base)));
  EXPECT_FALSE(Type(base).conformsTo(Type(derived)));
  EXPECT_FALSE(Integer::getType().conformsTo(String::getType()));
}

TEST(Types, ToClassGivesTheClassOfAClassType) {
  auto cls = Class_Generic::create(S("ToClassTarget"));
  EXPECT_TRUE(Type(cls).toClass().isSame(cls));
  EXPECT_TRUE(Type().toClass().isSame(Untyped::getClass()));
  EXPECT_TRUE(Integer(5).getType().toClass().isSame(Integer::getClass()));
}

TEST(Types, UnionMatchesAnyAlternativeOnly) {
  auto u = internal::type_union_of_unsafe({Integer::getType(), String::getType()});
  EXPECT_TRUE(u.toClass().isSame(Untyped::getClass()));
  EXPECT_TRUE(Class_Generic::unsafeFrom(u).hasFlag(class_flags::union_type));
  EXPECT_EQ(u.name().toUtf8(), "kest.Integer | kest.String");
  EXPECT_TRUE(u.matches(Integer(1)));
  EXPECT_TRUE(u.matches(String(u"one")));
  EXPECT_FALSE(u.matches(Float(1.5)));
  EXPECT_FALSE(u.matches(Any()));
  EXPECT_FALSE(u.isUntyped());

  auto optional = internal::type_union_of_unsafe({Integer::getType(), None::getType()});
  EXPECT_TRUE(optional.matches(Any()));
  EXPECT_TRUE(optional.matches(Integer(0)));
}

TEST(Types, UnionConformsWhenEveryAlternativeConforms) {
  auto int_or_string = internal::type_union_of_unsafe({Integer::getType(), String::getType()});
  auto wider = internal::type_union_of_unsafe({Integer::getType(), String::getType(), Float::getType()});
  EXPECT_TRUE(int_or_string.conformsTo(wider));
  EXPECT_FALSE(wider.conformsTo(int_or_string));
  EXPECT_TRUE(Integer::getType().conformsTo(int_or_string));
  EXPECT_FALSE(Float::getType().conformsTo(int_or_string));
  EXPECT_FALSE(int_or_string.conformsTo(Integer::getType()));
  EXPECT_TRUE(int_or_string.conformsTo(Type()));
  // A union does not claim to derive from its members.
  auto cls = Class_Generic::unsafeFrom(int_or_string);
  EXPECT_FALSE(cls.derivesFrom(Integer::getClass()));
}

TEST(Types, UnionCannotBeInstantiated) {
  auto u = internal::type_union_of_unsafe({Integer::getType(), String::getType()});
  auto r = Class_Generic::unsafeFrom(u).allocateInstance();
  EXPECT_TRUE(r.isError());
}

// --- instances ---------------------------------------------------------------------

TEST(Instances, AllocateInstanceGivesAnInstanceOfTheClass) {
  auto cls = Class_Generic::create(S("Allocatable"));
  auto r = cls.allocateInstance();
  ASSERT_FALSE(r.isError());
  Any obj = unwrapped(r);
  EXPECT_EQ(obj.kind(), internal::ObjectType::Instance);
  EXPECT_TRUE(raw_class_of(obj).isSame(cls));
  EXPECT_TRUE(class_of(obj).isSame(cls));
  EXPECT_TRUE(obj.getType().toClass().isSame(cls));
  EXPECT_TRUE(Type(cls).matches(obj));
  EXPECT_EQ(display(obj).toUtf8(), "<Allocatable object>");
}

TEST(Instances, AllocatingAnInterfaceOrAbstractClassIsAnError) {
  auto iface = Class_Generic::create(S("NoInstancesInterface"), class_flags::interface);
  auto abstract = declare({S("NoInstancesAbstract"), B::module_entry(S("tcls_alloc")),
                           B::flags_entry(class_flags::abstract)});
  auto r1 = iface.allocateInstance();
  ASSERT_TRUE(r1.isError());
  EXPECT_EQ(error_text(r1), "Unable to create an instance of the abstract class NoInstancesInterface.");
  auto r2 = abstract.allocateInstance();
  ASSERT_TRUE(r2.isError());
  EXPECT_EQ(error_text(r2), "Unable to create an instance of the abstract class tcls_alloc.NoInstancesAbstract.");
  EXPECT_TRUE(Untyped::getClass().allocateInstance().isError());

  // A class derived from an abstract one may have instances.
  auto concrete = Class_Generic::create(S("ConcreteFromAbstract"), 0, {abstract});
  EXPECT_FALSE(concrete.allocateInstance().isError());
}

TEST(Instances, CustomAllocatorIsUsedByDerivedClassesToo) {
  auto calls = std::make_shared<int>(0);
  auto base = Class_Generic::create(S("AllocatorBase"));
  base.setAllocator([calls](const Class_Generic &cls) {
    ++*calls;
    return Any(new internal::object_value_instance(cls));
  });
  auto derived = Class_Generic::create(S("AllocatorDerived"), 0, {base});
  auto obj = make_instance(derived);
  EXPECT_EQ(*calls, 1);
  EXPECT_TRUE(raw_class_of(obj).isSame(derived));
}

// --- fields --------------------------------------------------------------------

TEST(InstanceFields, DollarPrefixIsNotPartOfTheRegisteredName) {
  meta_field_untyped hidden("$_tcls_hidden_x");
  meta_field_untyped plain("_tcls_hidden_x");
  EXPECT_EQ(hidden.info(), plain.info());
  EXPECT_TRUE(hidden == plain);
  EXPECT_TRUE(hidden.hidden());
  EXPECT_FALSE(plain.hidden());
  EXPECT_EQ(hidden.utf8(), "_tcls_hidden_x");
  EXPECT_EQ(internal::find_interned_name(u"_tcls_hidden_x"), hidden.info());
  EXPECT_EQ(internal::find_interned_name(u"$_tcls_hidden_x"), nullptr);
  EXPECT_EQ(internal::find_interned_name(u"tcls_never_interned_anywhere"), nullptr);
}

TEST(InstanceFields, FieldWrittenWithDollarNameIsReadByItsBareName) {
  auto cls = declare({S("FieldHolder"), B::field_entry(S("$_x"), 0, &Integer::getType),
                      B::field_entry(S("label"), 0, nullptr)});
  auto x = cls.definedField(meta_field_untyped("_x"));
  ASSERT_TRUE(x.is<Field>());
  EXPECT_EQ(x.as<Field>().name().toUtf8(), "_x");
  EXPECT_NE(x.as<Field>().flags() & field_flags::hidden, 0u);
  EXPECT_TRUE(x.as<Field>().type().isSame(Integer::getClass()));
  EXPECT_EQ(cls->field_count, 2u);
  EXPECT_EQ(cls.definedFields().size(), 2u);

  auto obj = make_instance(cls);
  EXPECT_TRUE(unwrapped(obj.fieldValue(meta_field_untyped("_x"))).empty()); // fields start empty
  auto set = obj.setFieldValue(meta_field_untyped("$_x"), Integer(41));
  EXPECT_FALSE(set.isError());
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("_x"))), 41);
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("$_x"))), 41);

  EXPECT_FALSE(obj.setFieldValue(meta_field_untyped("label"), String(u"anything")).isError());
  EXPECT_EQ(text_of(obj.fieldValue(meta_field_untyped("label"))), "anything");
  EXPECT_FALSE(obj.setFieldValue(meta_field_untyped("label"), Integer(3)).isError());
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("label"))), 3);
}

TEST(InstanceFields, WritesAreTypeChecked) {
  auto cls = declare({S("TypedFields"), B::field_entry(S("count"), 0, &Integer::getType)});
  auto obj = make_instance(cls);
  ASSERT_FALSE(obj.setFieldValue(meta_field_untyped("count"), Integer(5)).isError());
  auto bad = obj.setFieldValue(meta_field_untyped("count"), String(u"five"));
  ASSERT_TRUE(bad.isError());
  EXPECT_TRUE(BadArgument::isInstance(bad));
  EXPECT_EQ(error_text(bad), "The field 'count' takes 'kest.Integer', not 'kest.String'.");
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("count"))), 5); // unchanged
  // Clearing a field (the empty value) is always allowed.
  EXPECT_FALSE(obj.setFieldValue(meta_field_untyped("count"), Any()).isError());
  EXPECT_TRUE(unwrapped(obj.fieldValue(meta_field_untyped("count"))).empty());
}

TEST(InstanceFields, UnknownFieldOrNonInstanceIsAnError) {
  auto cls = declare({S("FieldLess"), B::module_entry(S("tcls_fields"))});
  auto obj = make_instance(cls);
  auto r = obj.fieldValue(meta_field_untyped("nope"));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Field 'nope' not found in 'tcls_fields.FieldLess'.");
  auto w = obj.setFieldValue(meta_field_untyped("nope"), Integer(1));
  ASSERT_TRUE(w.isError());
  EXPECT_EQ(error_text(w), "Field 'nope' not found in 'tcls_fields.FieldLess'.");
  EXPECT_TRUE(Integer(1).fieldValue(meta_field_untyped("nope")).isError());
}

TEST(InstanceFields, DerivedClassKeepsBaseFieldsAndAddsItsOwn) {
  auto base = declare({S("FieldBase"), B::field_entry(S("a"), 0, nullptr)});
  auto derived = declare({S("FieldDerived"), B::base_entry(base), B::field_entry(S("b"), 0, nullptr)});
  EXPECT_EQ(derived->field_count, 2u);
  auto obj = make_instance(derived);
  ASSERT_FALSE(obj.setFieldValue(meta_field_untyped("a"), Integer(1)).isError());
  ASSERT_FALSE(obj.setFieldValue(meta_field_untyped("b"), Integer(2)).isError());
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("a"))), 1);
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("b"))), 2);
  auto a = base.definedField(meta_field_untyped("a")).as<Field>();
  auto b = derived.definedField(meta_field_untyped("b")).as<Field>();
  EXPECT_NE(a.index(), b.index());
}

TEST(InstanceFields, DeclarationTakingFieldsFromTwoBasesIsAnError) {
  auto one = declare({S("FieldsOne"), B::field_entry(S("a"), 0, nullptr)});
  auto two = declare({S("FieldsTwo"), B::field_entry(S("b"), 0, nullptr)});
  auto r = internal::defclass_impl({S("FieldsBoth"), B::base_entry(one), B::base_entry(two)});
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "The class 'FieldsBoth' takes fields from more than one base.");
}

TEST(InstanceFields, FieldAddedAfterAnInstanceWasMadeIsAnErrorOnThatInstance) {
  auto cls = declare({S("GrowingFields"), B::module_entry(S("tcls_fields")), B::field_entry(S("a"), 0, nullptr)});
  auto old = make_instance(cls);
  Field late(S("late"), 0, Type());
  cls->add_field(meta_field_untyped("late"), late);
  EXPECT_EQ(late.index(), 1u);

  auto w = old.setFieldValue(meta_field_untyped("late"), Integer(5));
  ASSERT_TRUE(w.isError()); // not silently lost
  EXPECT_EQ(error_text(w), "The field 'late' was added to 'tcls_fields.GrowingFields' after this instance was made.");
  EXPECT_EQ(error_text(old.fieldValue(meta_field_untyped("late"))),
            "The field 'late' was added to 'tcls_fields.GrowingFields' after this instance was made.");
  EXPECT_FALSE(old.setFieldValue(meta_field_untyped("a"), Integer(1)).isError());

  auto fresh = make_instance(cls);
  ASSERT_FALSE(fresh.setFieldValue(meta_field_untyped("late"), Integer(6)).isError());
  EXPECT_EQ(int_of(fresh.fieldValue(meta_field_untyped("late"))), 6);
}

TEST(InstanceFields, FieldsWrittenFromFourThreadsKeepEveryLastWrite) {
  std::vector<Any> entries{S("ConcurrentFields"), B::field_entry(S("shared"), 0, nullptr)};
  for (int t = 0; t < 4; ++t)
    entries.push_back(B::field_entry(S("own" + std::to_string(t)), 0, &Integer::getType));
  auto cls = declare(entries);
  auto obj = make_instance(cls);
  constexpr int rounds = 5000;
  std::atomic<int> errors{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      meta_field_untyped own(S("own" + std::to_string(t)));
      meta_field_untyped shared("shared");
      String mine = S("thread" + std::to_string(t));
      for (int i = 0; i < rounds; ++i) {
        if (obj.setFieldValue(own, Integer(i)).isError())
          ++errors;
        if (obj.setFieldValue(shared, mine).isError())
          ++errors;
        auto seen = unwrapped(obj.fieldValue(shared));
        if (!String::isInstance(seen) || !String::unsafeFrom(seen).startsWith(u"thread"))
          ++errors;
      }
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(errors.load(), 0);
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped(S("own" + std::to_string(t))))), rounds - 1);
  auto last = text_of(obj.fieldValue(meta_field_untyped("shared")));
  EXPECT_EQ(last.rfind("thread", 0), 0u);
}

TEST(InstanceFields, FieldWriteWaitsForTheInstanceLock) {
  auto cls = declare({S("LockedFields"), B::field_entry(S("v"), 0, nullptr)});
  auto obj = make_instance(cls);
  auto *inst = internal::instance_of(obj);
  ASSERT_NE(inst, nullptr);
  std::atomic<bool> written{false};
  inst->lock().lock();
  std::thread writer([&] {
    (void)obj.setFieldValue(meta_field_untyped("v"), Integer(9));
    written = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(written.load()); // the writer cannot pass the held lock
  EXPECT_FALSE(inst->lock().try_lock());
  inst->lock().unlock();
  writer.join();
  EXPECT_TRUE(written.load());
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("v"))), 9);
}

// --- per-object members -----------------------------------------------------------

TEST(ObjectMembers, InsertedPropertyBelongsToOneObjectOnly) {
  auto cls = declare({S("Decorated"), value_property("shade", S("class shade"))});
  auto a = make_instance(cls);
  auto b = make_instance(cls);
  ASSERT_FALSE(insert_property_value(a, meta_property_untyped("colour"), S("red")).isError());

  auto p = property_of(a, meta_property_untyped("colour"));
  ASSERT_TRUE(p.is<Property>());
  EXPECT_EQ(p.as<Property>().name().toUtf8(), "colour");
  EXPECT_EQ(text_of(p.as<Property>().get(a)), "red");
  EXPECT_EQ(text_of(a.propertyValue(meta_property_untyped("colour"))), "red");
  EXPECT_TRUE(property_of(b, meta_property_untyped("colour")).is<None>());
  EXPECT_TRUE(b.propertyValue(meta_property_untyped("colour")).isError());

  auto own = own_properties_of(a);
  ASSERT_EQ(own.size(), 1u);
  EXPECT_EQ(own[0].name().toUtf8(), "colour");
  EXPECT_TRUE(own_properties_of(b).empty());
  EXPECT_TRUE(cls.definedProperty(meta_property_untyped("colour")).is<None>());
}

TEST(ObjectMembers, InsertedPropertyReplacesByNameAndShadowsTheClass) {
  auto cls = declare({S("Shadowed"), value_property("shade", S("class shade"))});
  auto a = make_instance(cls);
  ASSERT_FALSE(insert_property_value(a, meta_property_untyped("shade"), S("own shade")).isError());
  EXPECT_EQ(text_of(a.propertyValue(meta_property_untyped("shade"))), "own shade");
  ASSERT_FALSE(insert_property_value(a, meta_property_untyped("shade"), S("newer shade")).isError());
  EXPECT_EQ(text_of(a.propertyValue(meta_property_untyped("shade"))), "newer shade");
  EXPECT_EQ(own_properties_of(a).size(), 1u);
  auto other = make_instance(cls);
  EXPECT_EQ(text_of(other.propertyValue(meta_property_untyped("shade"))), "class shade");
}

TEST(ObjectMembers, InsertingIntoANonInstanceIsAnError) {
  auto r = insert_property_value(Integer(1), meta_property_untyped("colour"), S("red"));
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "Unable to insert the property 'colour' into a value of class 'kest.Integer'.");
  auto m = insert_method(String(u"s"), meta_method_untyped("greet"), make_method([](Any) { return 1; }));
  ASSERT_TRUE(m.isError());
  EXPECT_EQ(error_text(m), "Unable to insert the method 'greet' into a value of class 'kest.String'.");
  EXPECT_TRUE(own_properties_of(Integer(1)).empty());
  EXPECT_TRUE(own_methods_of(Integer(1)).empty());
}

TEST(ObjectMembers, InsertedMethodBelongsToOneObjectOnly) {
  auto cls = declare({S("WithOwnMethods"), B::field_entry(S("n"), 0, nullptr)});
  auto a = make_instance(cls);
  auto b = make_instance(cls);
  ASSERT_FALSE(a.setFieldValue(meta_field_untyped("n"), Integer(20)).isError());
  auto method = make_method([](Any self, std::int64_t k) {
    return Integer::unsafeFrom(unwrapped(self.fieldValue(meta_field_untyped("n")))).value() + k;
  });
  ASSERT_FALSE(insert_method(a, meta_method_untyped("plus"), method).isError());

  auto found = method_of(a, meta_method_untyped("plus"));
  ASSERT_TRUE(found.is<I_Callable_Generic>());
  EXPECT_TRUE(found.as<I_Callable_Generic>().isSame(method));
  EXPECT_TRUE(raw_method_of(a, meta_method_untyped("plus")).is<I_Callable_Generic>());
  EXPECT_TRUE(method_of(b, meta_method_untyped("plus")).is<None>());
  auto own = own_methods_of(a);
  ASSERT_EQ(own.size(), 1u);
  EXPECT_TRUE(own[0].isSame(method));
  EXPECT_TRUE(own_methods_of(b).empty());

  auto bound = a.boundMethod(meta_method_untyped("plus"));
  ASSERT_TRUE(I_Callable_Generic::isInstance(bound));
  EXPECT_EQ(int_of(I_Callable_Generic::unsafeFrom(bound)(Integer(2))), 22);
  EXPECT_TRUE(is_none(b.boundMethod(meta_method_untyped("plus"))));
}

TEST(ObjectMembers, BoundMethodPassesTheInstanceToADeclaredMethod) {
  auto cls = declare({S("Greeter"), B::field_entry(S("who"), 0, nullptr),
                      B::method_entry(meta_method_untyped("greet"), make_method([](Any self, std::string greeting) {
                                        return greeting + ", " +
                                               String::unsafeFrom(unwrapped(self.fieldValue(meta_field_untyped("who")))).toUtf8();
                                      }))});
  auto obj = make_instance(cls);
  ASSERT_FALSE(obj.setFieldValue(meta_field_untyped("who"), S("world")).isError());
  auto bound = obj.boundMethod(meta_method_untyped("greet"));
  ASSERT_TRUE(I_Callable_Generic::isInstance(bound));
  auto callable = I_Callable_Generic::unsafeFrom(bound);
  EXPECT_EQ(callable.parameterCount(), 1);
  EXPECT_EQ(text_of(callable(S("hello"))), "hello, world");
  EXPECT_TRUE(is_none(obj.boundMethod(meta_method_untyped("missing"))));
}

// --- finalisers ------------------------------------------------------------------

TEST(Finalisers, RunOnceWhenTheLastHandleGoesWithFieldsStillReadable) {
  auto runs = std::make_shared<int>(0);
  auto seen = std::make_shared<std::int64_t>(0);
  auto cls = declare({S("Finalised"), B::field_entry(S("v"), 0, nullptr),
                      B::finaliser_entry([runs, seen](internal::object_value_instance &inst) {
                        ++*runs;
                        auto v = inst.field(0);
                        if (Integer::isInstance(v))
                          *seen = Integer::unsafeFrom(v).value();
                      })});
  {
    Any obj = make_instance(cls);
    ASSERT_FALSE(obj.setFieldValue(meta_field_untyped("v"), Integer(77)).isError());
    Any copy = obj;
    obj.reset();
    EXPECT_EQ(*runs, 0);
    {
      Any third = copy;
      EXPECT_EQ(*runs, 0);
    }
    EXPECT_EQ(*runs, 0);
  }
  EXPECT_EQ(*runs, 1);
  EXPECT_EQ(*seen, 77);
}

TEST(Finalisers, DerivedAndBaseFinalisersEachRunOnce) {
  auto order = std::make_shared<std::vector<std::string>>();
  auto base = Class_Generic::create(S("FinalBase"));
  base.setFinaliser([order](internal::object_value_instance &) { order->push_back("base"); });
  auto derived = Class_Generic::create(S("FinalDerived"), 0, {base});
  derived.setFinaliser([order](internal::object_value_instance &) { order->push_back("derived"); });
  auto inherits = Class_Generic::create(S("FinalInherits"), 0, {base});
  { auto obj = make_instance(derived); }
  EXPECT_EQ(*order, (std::vector<std::string>{"derived", "base"}));
  order->clear();
  { auto obj = make_instance(inherits); }
  EXPECT_EQ(*order, (std::vector<std::string>{"base"}));
}

TEST(Finalisers, FollowThePrimaryBaseChainOnly) {
  auto order = std::make_shared<std::vector<std::string>>();
  auto primary = Class_Generic::create(S("FinalPrimary"));
  primary.setFinaliser([order](internal::object_value_instance &) { order->push_back("primary"); });
  auto secondary = Class_Generic::create(S("FinalSecondary"));
  secondary.setFinaliser([order](internal::object_value_instance &) { order->push_back("secondary"); });
  auto both = Class_Generic::create(S("FinalBoth"), 0, {primary, secondary});
  { auto obj = make_instance(both); }
  EXPECT_EQ(*order, (std::vector<std::string>{"primary"}));
}

TEST(Finalisers, ThrowingFinaliserIsReportedAndDoesNotEscape) {
  auto cls = Class_Generic::create(S("FinalThrows"));
  cls.setFinaliser([](internal::object_value_instance &) { throw std::runtime_error("finaliser failure"); });
  log_capture capture;
  EXPECT_NO_THROW({ auto obj = make_instance(cls); });
  EXPECT_TRUE(capture.contains(S("[object_value_instance] A finaliser threw an exception.")));
}

// --- fallback hooks ------------------------------------------------------------------

namespace {
Class_Generic class_with_declared_members(const char *name) {
  internal::property_builder_base rw(S("level"));
  rw.assign_getter(make_method([](Any self) { return unwrapped(self.fieldValue(meta_field_untyped("_level"))); }));
  rw.assign_setter(make_method([](Any self, Any v) { return self.setFieldValue(meta_field_untyped("_level"), v); }));
  return declare({S(name), B::field_entry(S("$_level"), 0, nullptr), value_property("declared", S("declared value")),
                  B::property_entry(rw),
                  B::method_entry(meta_method_untyped("declaredMethod"), make_method([](Any) { return 5; }))});
}
} // namespace

TEST(FallbackHooks, MethodLookupHookIsAskedOnlyForUndeclaredNames) {
  auto cls = class_with_declared_members("MethodHooked");
  auto calls = std::make_shared<int>(0);
  auto names = std::make_shared<std::vector<std::string>>();
  cls.setMethodLookupHook([calls, names](const Any &, const meta_method_untyped &name) -> Any {
    ++*calls;
    names->push_back(name.utf8());
    if (name.utf8() == "dynamic")
      return make_method([](Any) { return 99; });
    return None();
  });
  auto obj = make_instance(cls);

  auto declared = method_of(obj, meta_method_untyped("declaredMethod"));
  ASSERT_TRUE(declared.is<I_Callable_Generic>());
  EXPECT_EQ(int_of(declared.as<I_Callable_Generic>()(obj)), 5);
  EXPECT_EQ(*calls, 0);

  ASSERT_FALSE(insert_method(obj, meta_method_untyped("inserted"), make_method([](Any) { return 1; })).isError());
  EXPECT_TRUE(method_of(obj, meta_method_untyped("inserted")).is<I_Callable_Generic>());
  EXPECT_EQ(*calls, 0);

  auto dynamic = method_of(obj, meta_method_untyped("dynamic"));
  ASSERT_TRUE(dynamic.is<I_Callable_Generic>());
  EXPECT_EQ(*calls, 1);
  EXPECT_EQ(int_of(dynamic.as<I_Callable_Generic>()(obj)), 99);

  EXPECT_TRUE(method_of(obj, meta_method_untyped("unknown")).is<None>());
  EXPECT_EQ(*calls, 2);
  EXPECT_EQ(*names, (std::vector<std::string>{"dynamic", "unknown"}));

  auto bound = obj.boundMethod(meta_method_untyped("dynamic"));
  ASSERT_TRUE(I_Callable_Generic::isInstance(bound));
  EXPECT_EQ(int_of(I_Callable_Generic::unsafeFrom(bound)()), 99);
  EXPECT_EQ(*calls, 3);

  // The raw lookup never asks the hook.
  EXPECT_TRUE(raw_method_of(obj, meta_method_untyped("dynamic")).is<None>());
  EXPECT_EQ(*calls, 3);
}

TEST(FallbackHooks, PropertyGetterHookIsAskedOnlyForUndeclaredNames) {
  auto cls = class_with_declared_members("GetterHooked");
  auto calls = std::make_shared<int>(0);
  cls.setPropertyGetterHook([calls](const Any &, const meta_property_untyped &name) -> Any {
    ++*calls;
    return S("hooked " + name.utf8());
  });
  auto obj = make_instance(cls);

  EXPECT_EQ(text_of(obj.propertyValue(meta_property_untyped("declared"))), "declared value");
  ASSERT_FALSE(obj.setPropertyValue(meta_property_untyped("level"), Integer(3)).isError());
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("level"))), 3);
  ASSERT_FALSE(insert_property_value(obj, meta_property_untyped("own"), Integer(8)).isError());
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("own"))), 8);
  EXPECT_EQ(*calls, 0);

  EXPECT_EQ(text_of(obj.propertyValue(meta_property_untyped("elsewhere"))), "hooked elsewhere");
  EXPECT_EQ(*calls, 1);
}

TEST(FallbackHooks, PropertySetterHookIsAskedOnlyForUndeclaredNames) {
  auto cls = class_with_declared_members("SetterHooked");
  auto calls = std::make_shared<int>(0);
  auto received = std::make_shared<Any>();
  cls.setPropertySetterHook([calls, received](const Any &, const meta_property_untyped &name, const Any &value) -> Any {
    ++*calls;
    *received = value;
    if (name.utf8() == "refused")
      return Error(S("refused by the hook"));
    return None();
  });
  auto obj = make_instance(cls);

  ASSERT_FALSE(obj.setPropertyValue(meta_property_untyped("level"), Integer(11)).isError());
  EXPECT_EQ(int_of(obj.fieldValue(meta_field_untyped("_level"))), 11);
  EXPECT_EQ(*calls, 0);
  // A declared read-only property refuses the write without asking the hook.
  auto ro = obj.setPropertyValue(meta_property_untyped("declared"), Integer(1));
  EXPECT_TRUE(ro.isError());
  EXPECT_EQ(*calls, 0);

  EXPECT_FALSE(obj.setPropertyValue(meta_property_untyped("undeclared"), Integer(12)).isError());
  EXPECT_EQ(*calls, 1);
  EXPECT_EQ(int_of(*received), 12);
  auto refused = obj.setPropertyValue(meta_property_untyped("refused"), Integer(13));
  ASSERT_TRUE(refused.isError());
  EXPECT_EQ(error_text(refused), "refused by the hook");
  EXPECT_EQ(*calls, 2);
}

TEST(FallbackHooks, WithoutHooksUnknownMembersAreErrors) {
  auto cls = class_with_declared_members("NotHooked");
  auto obj = make_instance(cls);
  auto get = obj.propertyValue(meta_property_untyped("missing"));
  ASSERT_TRUE(get.isError());
  EXPECT_EQ(error_text(get), "Property 'missing' not found in 'NotHooked'.");
  auto set = obj.setPropertyValue(meta_property_untyped("missing"), Integer(1));
  ASSERT_TRUE(set.isError());
  EXPECT_EQ(error_text(set), "Property 'missing' not found in 'NotHooked'.");
  EXPECT_TRUE(method_of(obj, meta_method_untyped("missing")).is<None>());
}

TEST(FallbackHooks, HookOfABaseServesDerivedClassesButNotTheirDeclaredMembers) {
  auto base = Class_Generic::create(S("HookBase"));
  auto calls = std::make_shared<int>(0);
  base.setPropertyGetterHook([calls](const Any &, const meta_property_untyped &) -> Any {
    ++*calls;
    return Integer(-1);
  });
  auto derived = declare({S("HookDerived"), B::base_entry(base), value_property("own", Integer(1))});
  auto obj = make_instance(derived);
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("own"))), 1);
  EXPECT_EQ(*calls, 0);
  EXPECT_EQ(int_of(obj.propertyValue(meta_property_untyped("other"))), -1);
  EXPECT_EQ(*calls, 1);
}

// --- object hooks overridden by meta-methods ------------------------------------------

TEST(ObjectHooks, DisplayMetaMethodChangesDisplay) {
  auto plain = declare({S("PlainShown")});
  auto shown = declare({S("CustomShown"), B::field_entry(S("v"), 0, nullptr),
                        B::method_entry(meta_method_untyped("$__display__"), make_method([](Any self) {
                                          return "Shown(" + display(unwrapped(self.fieldValue(meta_field_untyped("v")))).toUtf8() + ")";
                                        }))});
  EXPECT_EQ(display(make_instance(plain)).toUtf8(), "<PlainShown object>");
  auto obj = make_instance(shown);
  ASSERT_FALSE(obj.setFieldValue(meta_field_untyped("v"), Integer(4)).isError());
  EXPECT_EQ(display(obj).toUtf8(), "Shown(4)");
  // Derived classes use the inherited override.
  auto derived = declare({S("CustomShownDerived"), B::base_entry(shown)});
  auto d = make_instance(derived);
  ASSERT_FALSE(d.setFieldValue(meta_field_untyped("v"), Integer(5)).isError());
  EXPECT_EQ(display(d).toUtf8(), "Shown(5)");
}

TEST(ObjectHooks, DisplayMetaMethodAddedLaterIsSeen) {
  auto cls = declare({S("LateShown")});
  auto obj = make_instance(cls);
  EXPECT_EQ(display(obj).toUtf8(), "<LateShown object>");
  cls->add_method(meta_method_untyped("$__display__"), make_method([](Any) { return std::string("late"); }));
  EXPECT_EQ(display(obj).toUtf8(), "late");
}

namespace {
Class_Generic ranked_class(const char *name) {
  return declare({S(name), B::field_entry(S("rank"), 0, &Integer::getType),
                  B::method_entry(meta_method_untyped("$__compare__"), make_method([](Any a, Any b) -> std::int64_t {
                                    auto ra = Integer::unsafeFrom(unwrapped(a.fieldValue(meta_field_untyped("rank")))).value();
                                    auto rb = unwrapped(b.fieldValue(meta_field_untyped("rank")));
                                    if (!Integer::isInstance(rb))
                                      return 2;
                                    auto r = Integer::unsafeFrom(rb).value();
                                    return ra < r ? -1 : ra > r ? 1 : 0;
                                  })),
                  B::method_entry(meta_method_untyped("$__hash__"), make_method([](Any self) -> std::int64_t {
                                    return 1000 + Integer::unsafeFrom(unwrapped(self.fieldValue(meta_field_untyped("rank")))).value();
                                  }))});
}
Any ranked(const Class_Generic &cls, std::int64_t rank) {
  auto obj = make_instance(cls);
  if (obj.setFieldValue(meta_field_untyped("rank"), Integer(rank)).isError())
    throw std::runtime_error("rank not set");
  return obj;
}
} // namespace

TEST(ObjectHooks, CompareMetaMethodChangesComparison) {
  auto cls = ranked_class("Ranked");
  auto low = ranked(cls, 1);
  auto high = ranked(cls, 2);
  auto also_low = ranked(cls, 1);
  EXPECT_EQ(compare_objects(low, high).value(), -1);
  EXPECT_EQ(compare_objects(high, low).value(), 1);
  EXPECT_EQ(compare_objects(low, also_low).value(), 0);
  EXPECT_TRUE(low == also_low);
  EXPECT_TRUE(low < high);
  EXPECT_TRUE(compare_objects(low, Integer(1)).isUnordered());

  auto plain = declare({S("Unranked")});
  auto p1 = make_instance(plain);
  auto p2 = make_instance(plain);
  EXPECT_TRUE(compare_objects(p1, p2).isUnordered());
  EXPECT_EQ(compare_objects(p1, p1).value(), 0);
}

TEST(ObjectHooks, FailingCompareMetaMethodGivesAnErrorOrUnordered) {
  auto cls = declare({S("BadCompare"), B::method_entry(meta_method_untyped("$__compare__"),
                                                     make_method([](Any, Any) -> Any { return Error(S("cannot compare")); }))});
  auto a = make_instance(cls);
  auto b = make_instance(cls);
  auto r = internal::compare_objects_value(a, b);
  ASSERT_TRUE(r.isError());
  EXPECT_EQ(error_text(r), "cannot compare");
  EXPECT_TRUE(compare_objects(a, b).isUnordered());
}

TEST(ObjectHooks, HashMetaMethodChangesHash) {
  auto cls = ranked_class("Hashed");
  auto obj = ranked(cls, 234);
  EXPECT_EQ(hash_of(obj), 1234);
  auto plain = make_instance(declare({S("Unhashed")}));
  EXPECT_EQ(hash_of(plain), object_id(plain));
  EXPECT_NE(object_id(plain), 0);
  EXPECT_EQ(object_id(Any()), 0);
}

TEST(ObjectHooks, PropertyMetaMethodOverridesPropertyLookup) {
  auto cls = declare({S("PropertyRouted"), value_property("declared", S("declared")),
                      B::method_entry(meta_method_untyped("$__property__"), make_method([](Any, String name) -> Any {
                                        if (name.toUtf8() == "alias")
                                          return Property::fromValue(S("alias"), Integer(7));
                                        return None();
                                      }))});
  auto obj = make_instance(cls);
  auto alias = property_of(obj, meta_property_untyped("alias"));
  ASSERT_TRUE(alias.is<Property>());
  EXPECT_EQ(int_of(alias.as<Property>().get(obj)), 7);
  EXPECT_TRUE(raw_property_of(obj, meta_property_untyped("alias")).is<None>());

  EXPECT_TRUE(property_of(obj, meta_property_untyped("declared")).is<None>());
  auto raw = raw_property_of(obj, meta_property_untyped("declared"));
  ASSERT_TRUE(raw.is<Property>());
  EXPECT_EQ(text_of(raw.as<Property>().get(obj)), "declared");
}

TEST(ObjectHooks, MethodMetaMethodOverridesMethodLookup) {
  auto hook_calls = std::make_shared<int>(0);
  auto cls = declare({S("MethodRouted"),
                      B::method_entry(meta_method_untyped("declared"), make_method([](Any) { return 1; })),
                      B::method_entry(meta_method_untyped("$__method__"), make_method([](Any, String name) -> Any {
                                        if (name.toUtf8() == "routed")
                                          return make_method([](Any) { return 2; });
                                        return None();
                                      }))});
  cls.setMethodLookupHook([hook_calls](const Any &, const meta_method_untyped &) -> Any {
    ++*hook_calls;
    return None();
  });
  auto obj = make_instance(cls);
  auto routed = method_of(obj, meta_method_untyped("routed"));
  ASSERT_TRUE(routed.is<I_Callable_Generic>());
  EXPECT_EQ(int_of(routed.as<I_Callable_Generic>()(obj)), 2);
  EXPECT_TRUE(raw_method_of(obj, meta_method_untyped("routed")).is<None>());

  EXPECT_TRUE(method_of(obj, meta_method_untyped("declared")).is<None>());
  EXPECT_TRUE(raw_method_of(obj, meta_method_untyped("declared")).is<I_Callable_Generic>());
  EXPECT_EQ(*hook_calls, 0);
}

TEST(ObjectHooks, WithoutMetaMethodsPropertyOfAndRawPropertyOfAgree) {
  auto cls = declare({S("NotRouted"), value_property("p", Integer(1)),
                      B::method_entry(meta_method_untyped("m"), make_method([](Any) { return 1; }))});
  auto obj = make_instance(cls);
  auto p = property_of(obj, meta_property_untyped("p"));
  auto raw = raw_property_of(obj, meta_property_untyped("p"));
  ASSERT_TRUE(p.is<Property>());
  EXPECT_TRUE(p.isSame(raw));
  auto m = method_of(obj, meta_method_untyped("m"));
  ASSERT_TRUE(m.is<I_Callable_Generic>());
  EXPECT_TRUE(m.isSame(raw_method_of(obj, meta_method_untyped("m"))));
}

TEST(ObjectHooks, ClassValueOffersItsStaticMembers) {
  auto cls = declare({S("WithStatics"), value_property("version", Integer(3)),
                      B::method_entry(meta_method_untyped("make"), make_function([] { return 4; }))});
  auto p = property_of(cls, meta_property_untyped("version"));
  ASSERT_TRUE(p.is<Property>());
  EXPECT_EQ(int_of(cls.propertyValue(meta_property_untyped("version"))), 3);
  auto m = method_of(cls, meta_method_untyped("make"));
  ASSERT_TRUE(m.is<I_Callable_Generic>());
  EXPECT_EQ(int_of(m.as<I_Callable_Generic>()()), 4);
}

// --- member lookup at scale ---------------------------------------------------------

TEST(MemberLookup, TenThousandPropertiesAreEachFoundByName) {
  constexpr int count = 10000;
  std::vector<meta_property_untyped> names;
  names.reserve(count);
  std::vector<Any> entries{S("ManyProperties")};
  for (int i = 0; i < count; ++i) {
    names.emplace_back(S("many_p" + std::to_string(i)));
    entries.push_back(B::property_entry(names.back(), Property::fromValue(names.back().string(), Integer(i))));
  }
  auto cls = declare(entries);
  auto obj = make_instance(cls);

  int wrong = 0;
  for (int i = 0; i < count; ++i) {
    auto p = property_of(obj, names[static_cast<std::size_t>(i)]);
    if (!p.is<Property>() || p.as<Property>().name().toUtf8() != "many_p" + std::to_string(i) ||
        int_of(p.as<Property>().get(obj)) != i)
      ++wrong;
    auto d = cls.definedProperty(names[static_cast<std::size_t>(i)]);
    if (!d.is<Property>() || !d.isSame(p))
      ++wrong;
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(property_of(obj, meta_property_untyped("many_p10000")).is<None>());

  auto all = cls.ownDefinedProperties();
  ASSERT_EQ(all.size(), static_cast<std::size_t>(count));
  EXPECT_EQ(all.front().name().toUtf8(), "many_p0");
  EXPECT_EQ(all.back().name().toUtf8(), "many_p9999");
  EXPECT_EQ(cls.definedProperties().size(), static_cast<std::size_t>(count));
}

TEST(MemberLookup, RedeclaringAMemberKeepsItsPositionAndReplacesIt) {
  auto cls = declare({S("Redeclared"), value_property("a", Integer(1)), value_property("b", Integer(2)),
                      value_property("a", Integer(3))});
  auto all = cls.ownDefinedProperties();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].name().toUtf8(), "a");
  EXPECT_EQ(int_of(all[0].storedValue()), 3);
  EXPECT_EQ(all[1].name().toUtf8(), "b");
}

TEST(MemberLookup, RemovingAnInsertedMemberKeepsTheOthersFindable) {
  auto obj = make_instance(Class_Generic::create(S("ManyInserted")));
  auto *inst = internal::instance_of(obj);
  ASSERT_NE(inst, nullptr);
  std::vector<meta_property_untyped> names;
  for (int i = 0; i < 1000; ++i) {
    names.emplace_back(S("inserted_p" + std::to_string(i)));
    ASSERT_FALSE(insert_property_value(obj, names.back(), Integer(i)).isError());
  }
  EXPECT_TRUE(inst->remove_property(names[500].info()));
  EXPECT_FALSE(inst->remove_property(names[500].info()));
  EXPECT_TRUE(property_of(obj, names[500]).is<None>());
  int wrong = 0;
  for (int i = 0; i < 1000; ++i) {
    if (i == 500)
      continue;
    auto p = property_of(obj, names[static_cast<std::size_t>(i)]);
    if (!p.is<Property>() || int_of(p.as<Property>().get(obj)) != i)
      ++wrong;
  }
  EXPECT_EQ(wrong, 0);
  auto own = own_properties_of(obj);
  ASSERT_EQ(own.size(), 999u);
  EXPECT_EQ(own[500].name().toUtf8(), "inserted_p501");

  ASSERT_FALSE(insert_method(obj, meta_method_untyped("m"), make_method([](Any) { return 1; })).isError());
  EXPECT_TRUE(inst->remove_method(meta_method_untyped("m").info()));
  EXPECT_TRUE(method_of(obj, meta_method_untyped("m")).is<None>());
  EXPECT_TRUE(own_methods_of(obj).empty());
}

TEST(MemberLookup, BaseMembersAreFoundAndRedefinitionsReplaceThem) {
  auto base = declare({S("LookupBase"), value_property("shared", S("base")), value_property("baseOnly", S("base only")),
                       B::method_entry(meta_method_untyped("m"), make_method([](Any) { return 1; }))});
  auto derived = declare({S("LookupDerived"), B::base_entry(base), value_property("shared", S("derived")),
                          B::method_entry(meta_method_untyped("m"), make_method([](Any) { return 2; }))});
  auto obj = make_instance(derived);
  EXPECT_EQ(text_of(obj.propertyValue(meta_property_untyped("shared"))), "derived");
  EXPECT_EQ(text_of(obj.propertyValue(meta_property_untyped("baseOnly"))), "base only");
  EXPECT_EQ(int_of(I_Callable_Generic::unsafeFrom(obj.boundMethod(meta_method_untyped("m")))()), 2);
  EXPECT_EQ(derived.definedProperties().size(), 2u);
  EXPECT_EQ(derived.ownDefinedProperties().size(), 1u);
  EXPECT_EQ(derived.definedMethods().size(), 1u);
}
