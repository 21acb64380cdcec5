// Listing and inserting per-object members go through a class's object hooks
// when it overrides them; the raw operations always stay on the host side.

#include "kest_test_support.hpp"

#include <gtest/gtest.h>

#include <memory>

using namespace kest;
using namespace kest_test;

namespace {
struct recorded {
  std::vector<std::string> inserted;
};

Class_Generic hooked_class(const std::shared_ptr<recorded> &log) {
  auto entry = [](const char *name, I_Callable_Generic fn, const char *params) {
    return B::method_entry(meta_method_untyped(name),
                           internal::declared_function(S(name), std::move(fn), S(params), S(""), {}));
  };
  return declare({
      B::name_entry(S("HookedMembers")),
      entry("$__insertMethod__", make_method([log](Any, String name, Any) {
              log->inserted.push_back("method " + name.toUtf8());
              return None();
            }),
            "self, name, method"),
      entry("$__insertProperty__", make_method([log](Any, String name, Any) {
              log->inserted.push_back("property " + name.toUtf8());
              return None();
            }),
            "self, name, property"),
      entry("$__ownProperties__", make_method([](Any) {
              HashMap map(String::getType(), Type());
              (void)map.setChecked(S("listed"), Property::fromValue(S("listed"), Integer(1)));
              return map;
            }),
            "self"),
      entry("$__ownMethods__", make_method([](Any) { return HashMap(String::getType(), Type()); }), "self"),
  });
}
} // namespace

TEST(MemberHooks, InsertionGoesThroughTheHooksOfTheClass) {
  auto log = std::make_shared<recorded>();
  auto cls = hooked_class(log);
  auto object = unwrapped(cls.allocateInstance());
  auto fn = make_function([] { return 1; });
  EXPECT_FALSE(insert_method(object, meta_method_untyped("m"), fn).isError());
  EXPECT_FALSE(insert_property_value(object, meta_property_untyped("p"), Integer(2)).isError());
  EXPECT_EQ(log->inserted, (std::vector<std::string>{"method m", "property p"}));
  // Nothing was stored on the host side.
  EXPECT_TRUE(raw_method_of(object, meta_method_untyped("m")).is<None>());
}

TEST(MemberHooks, RawInsertionStaysOnTheHostSide) {
  auto log = std::make_shared<recorded>();
  auto object = unwrapped(hooked_class(log).allocateInstance());
  auto fn = make_function([] { return 1; });
  EXPECT_FALSE(raw_insert_method(object, meta_method_untyped("m"), fn).isError());
  EXPECT_FALSE(raw_insert_property(object, meta_property_untyped("p"), Property::fromValue(S("p"), Integer(3))).isError());
  EXPECT_TRUE(log->inserted.empty());
  EXPECT_TRUE(raw_method_of(object, meta_method_untyped("m")).as<I_Callable_Generic>().isSame(fn));
  EXPECT_EQ(int_of(object.propertyValue(meta_property_untyped("p"))), 3);
}

TEST(MemberHooks, ListingGoesThroughTheHooksOfTheClass) {
  auto log = std::make_shared<recorded>();
  auto object = unwrapped(hooked_class(log).allocateInstance());
  (void)raw_insert_method(object, meta_method_untyped("hidden"), make_function([] { return 1; }));
  auto properties = own_properties_of(object);
  ASSERT_EQ(properties.size(), 1u);
  EXPECT_EQ(properties[0].name().toUtf8(), "listed");
  EXPECT_TRUE(own_methods_of(object).empty()); // the hook says none, whatever is stored
}

TEST(MemberHooks, WithoutHooksTheObjectItselfIsUsed) {
  auto cls = declare({B::name_entry(S("PlainMembers"))});
  auto object = unwrapped(cls.allocateInstance());
  EXPECT_FALSE(insert_property_value(object, meta_property_untyped("p"), Integer(4)).isError());
  ASSERT_EQ(own_properties_of(object).size(), 1u);
  EXPECT_EQ(int_of(object.propertyValue(meta_property_untyped("p"))), 4);
}
