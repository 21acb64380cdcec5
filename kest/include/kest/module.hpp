#pragma once
/// Host modules and the process-wide module table.
///
/// Every module is an instance of a class of its own (derived from `Module`), so
/// members registered on one module never appear on another. The table maps a
/// name to its module; the first registration of a name wins.

#include <kest/hash_map.hpp>
#include <kest/property.hpp>

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace kest {

/// How prominently a module is shown; `Hidden` modules are not offered to scripts as globals.
enum class Importance : std::int64_t { Normal = 0, Low = 5, Hidden = 10 };

class KEST_API Module : public Any {
  KEST_HANDLE_MEMBERS(Module, Any)
  /// A new module that is not yet in the table.
  static Module create(const String &name);
  /// A new module that is an instance of `moduleClass` (a class of its own,
  /// derived from Module), not yet in the table; an error for another class.
  static Result<Module> createOfClass(const String &name, const Class_Generic &moduleClass);

  [[nodiscard]] String name() const;
  [[nodiscard]] String doc() const;
  void setDoc(const String &doc) const;
  /// Name to class (`HashMap<String, Class_Generic>`).
  [[nodiscard]] HashMap classes() const;
  /// Name to callable (`HashMap<String, I_Callable_Generic>`).
  [[nodiscard]] HashMap callables() const;
  [[nodiscard]] Importance importance() const;
  void setImportance(Importance importance) const;
  /// Marks the module as inlined: scripts see its classes and callables as globals.
  void setInlined(bool inlined) const;
  [[nodiscard]] bool inlined() const;

  /// Adds a class (and a property of that name on the module).
  void addClass(const String &name, const Class_Generic &cls) const;
  /// Adds a callable (and a property of that name on the module).
  void addCallable(const String &name, const I_Callable_Generic &callable) const;
  /// Adds a property to the module's own class.
  void addProperty(const String &name, const Property &property) const;
  /// The module's own class.
  [[nodiscard]] Class_Generic moduleClass() const;
};

/// The module of that name, created and registered when missing.
KEST_API Result<Module> get_module(const String &name);
/// The module of that name, or None.
KEST_API Union<Module, None> find_module(const String &name);
/// Every registered module, in registration order.
KEST_API std::vector<Module> modules();
/// The host's global table (`HashMap<String, Any>`).
KEST_API HashMap globals();

namespace internal {

/// The module table; read it only while holding `g_modules_lock`.
struct KEST_API module_table {
  std::unordered_map<String, Module> by_name;
  std::vector<Module> in_order;
  /// Incremented on every registration, so that caches of the table can tell it changed.
  std::uint64_t version = 0;

  [[nodiscard]] auto find(const String &name) const { return by_name.find(name); }
  [[nodiscard]] auto end() const { return by_name.end(); }
  /// Registers `module` unless the name is taken; true when it was added.
  bool insert(const String &name, const Module &module);
};

extern KEST_API module_table g_modules;
extern KEST_API spinlock g_modules_lock;

/// The table's version, read under its lock.
KEST_API std::uint64_t modules_version() noexcept;

/// Registers a function of a module (the module is created when missing).
KEST_API Result<None> register_function(const String &module, const String &name,
                                        const I_Callable_Generic &callable);
/// Registers a property of a module.
KEST_API Result<None> register_property(const String &module, const String &name,
                                        const Property &property);
} // namespace internal

} // namespace kest
