#pragma once
/// Host classes: `Class_Generic` (the handle), `Class<T>` and the class object
/// `internal::object_value_class` with its member tables and hooks.

#include <kest/loop_state.hpp>
#include <kest/name.hpp>
#include <kest/string.hpp>
#include <kest/type.hpp>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace kest {

class Property;
class Field;
class I_Callable_Generic;

/// Class flags. Flags marked inherited pass from a base to every derived class.
namespace class_flags {
inline constexpr std::uint64_t interface = 0x1;          ///< an interface (no instances)
inline constexpr std::uint64_t abstract = 0x2;           ///< no instances
inline constexpr std::uint64_t final = 0x4;              ///< no derived classes (native instance layout)
inline constexpr std::uint64_t generic_definition = 0x10; ///< `List`, `HashMap`, ...
inline constexpr std::uint64_t generic_instance = 0x20;   ///< `List<String>`, ...
inline constexpr std::uint64_t union_type = 0x40;         ///< a union of types
inline constexpr std::uint64_t top_type = 0x80;           ///< `Untyped`
inline constexpr std::uint64_t callable = 0x100;          ///< inherited: instances can be called
inline constexpr std::uint64_t error = 0x200;             ///< inherited: error classes
inline constexpr std::uint64_t module = 0x400;            ///< inherited: module classes
inline constexpr std::uint64_t map = 0x20000;             ///< inherited: key-value maps
inline constexpr std::uint64_t sequence = 0x1000000;      ///< inherited: indexed sequences
inline constexpr std::uint64_t set = 0x2000000;           ///< inherited: sets
inline constexpr std::uint64_t python_backed = 0x4000000; ///< inherited: wraps a Python object
/// The flags that derived classes take from their bases.
inline constexpr std::uint64_t inherited = callable | error | module | map | sequence | set | python_backed;
} // namespace class_flags

namespace internal {

class object_value_instance;

/// Hook asked for a method when the declared members have none of that name.
using method_lookup_hook = std::function<Any(const Any &self, const meta_method_untyped &name)>;
/// Hook asked for a property value when no declared property has that name.
using property_getter_hook = std::function<Any(const Any &self, const meta_property_untyped &name)>;
/// Hook asked to write a property when no declared property has that name.
using property_setter_hook =
    std::function<Any(const Any &self, const meta_property_untyped &name, const Any &value)>;
/// Runs when an instance is destroyed (fields are still readable).
using finaliser = std::function<void(object_value_instance &instance)>;
/// Creates an uninitialised instance of a class.
using instance_allocator = std::function<Any(const Class_Generic &cls)>;

/// Native forms of the interface operations for the instances of one class,
/// set by the code that declares the class and used before any member is
/// looked up by name. Each stands for the member the class declares under the
/// interface's name ("$call", "next", "iter", "get", "at", "$$__len__") and
/// must behave exactly as that member does; a null entry is looked up as usual.
/// They apply to instances of that very class only, not to derived classes,
/// which may declare members of their own.
struct native_protocol {
  /// A call with positional arguments (`I_Callable_Generic::callWith`).
  Any (*call)(const Any &self, std::span<const Any> args) = nullptr;
  /// An iterator over the value (`I_Iterable::iter`).
  Any (*iter)(const Any &self) = nullptr;
  /// The next element, or a StopIteration error (`I_Iterator::next`).
  Any (*next)(const Any &self) = nullptr;
  /// The same for a host loop: the next element goes into `element` (which
  /// may reuse the object there when nothing else refers to it), and the
  /// result is empty, or the error or StopIteration that ends the loop.
  Any (*next_into)(const Any &self, Any &element) = nullptr;
  /// The value of a key (`I_Map::get`).
  Any (*get)(const Any &self, const Any &key) = nullptr;
  /// The element at an index (`I_Sequence::at`).
  Any (*at)(const Any &self, std::int64_t index) = nullptr;
  /// The number of elements (an Integer, or an error).
  Any (*length)(const Any &self) = nullptr;
  /// A step of a host loop over the value itself (a range-for over it), with
  /// no iterator object: the element at `state.position` goes into `element`
  /// (as `next_into` fills it) and the position moves past it; the result is
  /// empty, or the error or StopIteration that ends the loop. Each step gives
  /// what the iterator of `iter` would give, however the loop changes the
  /// value. A value it cannot walk so gives Undefined at the first step,
  /// having read nothing, and the loop takes `iter` instead.
  Any (*loop_step)(const Any &self, loop_state &state, Any &element) = nullptr;
};

/// Members of one kind, in declaration order, indexed by name.
struct KEST_API member_table {
  std::vector<std::pair<const name_info *, Any>> entries;
  std::unordered_map<const name_info *, std::size_t> index;

  [[nodiscard]] const Any *find(const name_info *name) const {
    auto it = index.find(name);
    return it == index.end() ? nullptr : &entries[it->second].second;
  }
  /// Adds or replaces (keeping the original position).
  void put(const name_info *name, Any member) {
    auto [it, added] = index.emplace(name, entries.size());
    if (added)
      entries.emplace_back(name, std::move(member));
    else
      entries[it->second].second = std::move(member);
  }
  bool remove(const name_info *name);
};

class KEST_API object_value_class final : public object_value {
public:
  object_value_class(String name, std::uint64_t flags);
  ~object_value_class() override;

  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Class; }
  [[nodiscard]] object_value_class *class_value() const noexcept override;

  // Identity and documentation.
  String name;
  String doc;
  /// Module (or module name, resolved when asked) that declares the class.
  Any context;
  std::vector<std::pair<String, String>> examples;
  std::vector<Class_Generic> bases;
  std::atomic<std::uint64_t> flags;
  /// Every class this one derives from, itself included.
  std::unordered_set<const object_value_class *> ancestors;
  /// Instance fields of this class and its bases.
  std::size_t field_count = 0;

  Any generic_definition;            ///< the generic class of a generic instance
  std::vector<Type> generic_arguments; ///< its arguments

  // Member tables, guarded by `lock`; read them through the functions below.
  mutable spinlock lock;
  member_table properties;
  member_table methods;
  member_table fields;

  method_lookup_hook method_hook;
  property_getter_hook getter_hook;
  property_setter_hook setter_hook;
  internal::finaliser finaliser;
  instance_allocator allocator;
  /// Native interface operations of this class's own instances (never freed; may be null).
  std::atomic<const native_protocol *> native{nullptr};

  /// Looks a member up in this class, then in its bases in order.
  [[nodiscard]] Any find_property(const name_info *name) const;
  [[nodiscard]] Any find_method(const name_info *name) const;
  [[nodiscard]] Any find_field(const name_info *name) const;
  /// The first hook or allocator found along the base chain.
  [[nodiscard]] method_lookup_hook find_method_hook() const;
  [[nodiscard]] property_getter_hook find_getter_hook() const;
  [[nodiscard]] property_setter_hook find_setter_hook() const;
  [[nodiscard]] instance_allocator find_allocator() const;

  [[nodiscard]] bool derives_from(const object_value_class *other) const noexcept {
    return this == other || ancestors.count(other) != 0;
  }
  /// Adds a base after construction (declaration time only).
  void add_base(const Class_Generic &base);

  /// Adds a property to this class without checks; replaces one of the same name.
  void add_class_property_unsafe(const meta_property_untyped &name, const Property &property);
  void add_method(const meta_method_untyped &name, const I_Callable_Generic &method);
  void add_property(const meta_property_untyped &name, const Property &property);
  /// Adds a field and gives it the next index.
  void add_field(const meta_field_untyped &name, Field &field);
  /// Removes a method or property that this class itself declares; false when it has none of that name.
  bool remove_method(const meta_method_untyped &name);
  bool remove_property(const meta_property_untyped &name);

  /// The member that `find_property`, `find_method` or `find_field` would give,
  /// borrowed: no reference is added. It stays alive as long as this class does
  /// (a member that a class replaces or removes is kept until the class goes).
  /// Null when there is none. Repeated lookups on one thread cost no lock.
  [[nodiscard]] const object_value *lookup_property(const name_info *name) const;
  [[nodiscard]] const object_value *lookup_method(const name_info *name) const;
  [[nodiscard]] const object_value *lookup_field(const name_info *name) const;

  /// A bit mask of the object hooks ("$__display__", ...) that this class overrides,
  /// recomputed after any class changed its members.
  [[nodiscard]] std::uint32_t override_mask() const;

  /// Generic instances made from this definition, by argument list.
  spinlock generic_lock;
  std::vector<std::pair<std::vector<Type>, Any>> generic_instances;

private:
  enum member_kind { property_member, method_member, field_member };
  /// Looks a member up along the bases, without the cache.
  [[nodiscard]] Any search(member_kind kind, const name_info *name) const;
  /// Looks a member up through the cache of resolved names.
  [[nodiscard]] Any find(member_kind kind, const name_info *name) const;
  /// The same, borrowed, through the calling thread's cache first.
  [[nodiscard]] const object_value *lookup(member_kind kind, const name_info *name) const;
  /// `lookup` when the thread's cache has no entry for the name (or the thread is ending).
  [[nodiscard]] const object_value *lookup_missed(member_kind kind, const name_info *name) const;
  /// Keeps a replaced or removed member alive until the class goes (borrowed lookups may still hold it).
  void retire(Any member);
  /// Removes the member of that name from one of this class's tables.
  bool remove_member(member_table &table, const name_info *name);

  mutable std::atomic<std::uint64_t> m_override_cache{0};
  /// Resolved lookups (found or not) by name, valid for one members epoch;
  /// guarded by `lock`.
  mutable std::unordered_map<const name_info *, std::array<Any, 3>> m_resolved;
  mutable std::uint64_t m_resolved_epoch = 0;
  std::vector<Any> m_retired; // guarded by `lock`
};

/// Incremented whenever any class gains or loses a member (read it through `class_members_epoch`).
extern KEST_API std::atomic<std::uint64_t> g_class_members_epoch;
inline std::uint64_t class_members_epoch() noexcept { return g_class_members_epoch.load(std::memory_order_acquire); }
KEST_API void bump_class_members_epoch() noexcept;

} // namespace internal

namespace internal {
/// A default-made `Class_Generic` is empty: no class.
template <> inline constexpr bool empty_handle_allowed<Class_Generic> = true;
} // namespace internal

/// A handle to a host class. An empty handle, or one made over a value that is
/// no class, answers as a class with no name, members or bases and ignores writes;
/// `value()` and `->` read the class object unchecked.
class KEST_API Class_Generic : public Any {
  KEST_HANDLE_MEMBERS(Class_Generic, Any)
  Class_Generic() = default;
  /// A new, empty class (use the builders for declared classes).
  static Class_Generic create(const String &name, std::uint64_t flags = 0,
                              const std::vector<Class_Generic> &bases = {});

  [[nodiscard]] internal::object_value_class *value() const noexcept {
    return static_cast<internal::object_value_class *>(m_ptr);
  }
  internal::object_value_class *operator->() const noexcept { return value(); }

  [[nodiscard]] String name() const;
  [[nodiscard]] String doc() const;
  void setDoc(const String &doc) const;
  /// The module that declares the class, or None.
  [[nodiscard]] Any declaringContext() const;
  void setDeclaringContext(const Any &context) const;
  [[nodiscard]] String example(const String &language) const;
  [[nodiscard]] std::vector<Class_Generic> bases() const;
  [[nodiscard]] std::uint64_t flags() const noexcept;
  [[nodiscard]] bool hasFlag(std::uint64_t flag) const noexcept { return (flags() & flag) != 0; }
  void addFlags(std::uint64_t flags) const noexcept;
  /// True when this class is `other` or derives from it.
  [[nodiscard]] bool derivesFrom(const Class_Generic &other) const noexcept;

  [[nodiscard]] Union<Property, None> definedProperty(const meta_property_untyped &name) const;
  [[nodiscard]] Union<I_Callable_Generic, None> definedMethod(const meta_method_untyped &name) const;
  [[nodiscard]] Union<Field, None> definedField(const meta_field_untyped &name) const;
  /// Properties of the class and its bases (a redefinition replaces the inherited one).
  [[nodiscard]] std::vector<Property> definedProperties() const;
  [[nodiscard]] std::vector<I_Callable_Generic> definedMethods() const;
  [[nodiscard]] std::vector<Field> definedFields() const;
  /// Properties declared by this class itself.
  [[nodiscard]] std::vector<Property> ownDefinedProperties() const;

  /// A new instance with empty fields, or an error for interfaces and abstract classes.
  [[nodiscard]] Result<Any> allocateInstance() const;
  /// The generic class that this class instantiates, or None.
  [[nodiscard]] Any genericDefinition() const;
  [[nodiscard]] std::vector<Type> genericArguments() const;
  /// `value` converted to this class, or an error.
  [[nodiscard]] Result<Any> coerce(const Any &value) const;

  void setMethodLookupHook(internal::method_lookup_hook hook) const;
  void setPropertyGetterHook(internal::property_getter_hook hook) const;
  void setPropertySetterHook(internal::property_setter_hook hook) const;
  void setFinaliser(internal::finaliser finaliser) const;
  void setAllocator(internal::instance_allocator allocator) const;
  /// Native forms of interface operations for this class's own instances; the
  /// table must live as long as the process.
  void setNativeProtocol(const internal::native_protocol *protocol) const;
};

/// A class handle that remembers the handle type of its instances.
template <class T> class Class : public Class_Generic {
public:
  Class() : Class_Generic(T::getClass()) {}
  Class(internal::unchecked_t u, const Any &a) noexcept : Class_Generic(u, a) {}
  static bool isInstance(const Any &a) noexcept {
    return Class_Generic::isInstance(a) &&
           Class_Generic::unsafeFrom(a).derivesFrom(T::getClass());
  }
};

} // namespace kest
