// The Python types of host classes, made once per class and kept for the process.

#include "pyobject/type_for_class.hpp"

#include "pyobject/container_protocol.hpp"
#include "pyobject/doc_descriptor.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/member_cache.hpp"
#include "pyobject/slots.hpp"
#include "runtime/warnings_ignored.hpp"

#include <kest/kest.hpp>

#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

namespace sarvode {

namespace {
constexpr const char *base_doc = "Wrapper around of a Kest object";

struct type_cache {
  kest::spinlock lock;
  // Types are owned and never freed; the entry keeps its class alive, so that
  // no other class can reuse its address.
  struct kept {
    kest::Class_Generic cls;
    PyTypeObject *type;
    std::unique_ptr<member_cache> members; // used with the interpreter lock held
  };
  std::unordered_map<const void *, kept> by_class;
  std::unordered_map<const PyTypeObject *, const void *> class_of_type; // a named class's own type -> its class
  std::list<std::string> texts; // names and documentation the types point at
};
type_cache &cache() {
  static auto *c = new type_cache;
  return *c;
}

const char *keep(std::string text) {
  auto &c = cache();
  std::lock_guard guard(c.lock);
  return c.texts.emplace_back(std::move(text)).c_str();
}

PyTypeObject *make_type(const char *name, const char *doc, sequence_table sequence, bool mapping, bool callable,
                        PyObject *bases) {
  auto slots = kestObjectSlots(sequence, mapping, callable, doc);
  PyType_Spec spec{name, static_cast<int>(sizeof(KestObject)), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE,
                   slots.data()};
  // Python warns (DeprecationWarning) that a type whose name has no module part
  // has no __module__; host type names have none on purpose, so the warning is
  // held back while the type is made and the module is set afterwards.
  warnings_ignored quiet(PyExc_DeprecationWarning);
  auto *type = reinterpret_cast<PyTypeObject *>(PyType_FromSpecWithBases(&spec, bases));
  if (type && callable)
    addDocDescriptor(type, doc); // help() reads a host function's own text
  return type;
}

/// The host module of a class, for its type's __module__ ("kest" when it has none).
std::string module_of(const kest::Class_Generic &cls) {
  auto context = cls.declaringContext();
  if (kest::Module::isInstance(context))
    return kest::Module::unsafeFrom(context).name().toUtf8();
  return "kest";
}

/// The tables a class's flags select; a later match replaces an earlier one.
std::pair<sequence_table, bool> tables_for(std::uint64_t flags) {
  std::pair<sequence_table, bool> tables{sequence_table::reduced, false};
  if (flags & kest::class_flags::map)
    tables = {sequence_table::containment, true};
  if (flags & kest::class_flags::set)
    tables = {sequence_table::containment, true};
  if (flags & kest::class_flags::sequence)
    tables = {sequence_table::full, true};
  return tables;
}

/// A named class has a declaring context, a parent with one, or module ancestry.
bool is_named(const kest::Class_Generic &cls) {
  if (!kest::is_none(cls.declaringContext()) || cls.derivesFrom(kest::Module::getClass()))
    return true;
  for (auto &base : cls.bases())
    if (!kest::is_none(base.declaringContext()))
      return true;
  return false;
}

/// A type made once and kept for the life of the process. No blocking
/// one-time guard: making a type runs Python code (the warnings filter), which
/// may release the interpreter lock, and a thread waiting on a guard while
/// holding the lock would deadlock. Two first uses may both make one; the
/// first stays.
template <class Make> PyTypeObject *kept_type(std::atomic<PyTypeObject *> &slot, Make make) {
  if (PyTypeObject *kept = slot.load(std::memory_order_acquire))
    return kept;
  py::gil lock;
  PyTypeObject *made = make();
  PyTypeObject *expected = nullptr;
  if (made && !slot.compare_exchange_strong(expected, made, std::memory_order_acq_rel))
    Py_DecRef(reinterpret_cast<PyObject *>(made)); // another thread's type stays
  return slot.load(std::memory_order_acquire);
}

/// The shared types of anonymous containers, one per kind and mutability,
/// each with its container interface.
PyTypeObject *shared_container_type(container_shape shape, std::uint64_t flags) {
  static std::array<std::atomic<PyTypeObject *>, 6> types{};
  auto &slot = types[(static_cast<std::size_t>(shape.kind) - 1) * 2 + (shape.mutable_ ? 1 : 0)];
  return kept_type(slot, [shape, flags] {
    auto [table, mapping] = tables_for(flags);
    PyTypeObject *made = make_type(">KestObject", base_doc, table, mapping, false, nullptr);
    addContainerProtocol(made, shape);
    return made;
  });
}

/// The shared types of anonymous classes, each made once on first need.
PyTypeObject *shared_type(const kest::Class_Generic &cls) {
  const auto flags = cls ? cls.flags() : 0;
  if (flags & kest::class_flags::callable)
    return kestObjectBaseType();
  if (const auto shape = containerShape(cls); shape.kind != container_kind::none)
    return shared_container_type(shape, flags);
  const bool sequence = flags & kest::class_flags::sequence;
  const bool map = flags & kest::class_flags::map;
  auto make = [](sequence_table table, bool mapping) {
    return [table, mapping] { return make_type(">KestObject", base_doc, table, mapping, false, nullptr); };
  };
  static std::atomic<PyTypeObject *> both{nullptr}, only_sequence{nullptr}, only_map{nullptr}, plain{nullptr};
  if (sequence && map)
    return kept_type(both, make(sequence_table::full, true));
  if (sequence)
    return kept_type(only_sequence, make(sequence_table::full, true));
  if (map)
    return kept_type(only_map, make(sequence_table::containment, true));
  return kept_type(plain, make(sequence_table::reduced, false));
}
} // namespace

PyTypeObject *kestObjectBaseType() {
  static std::atomic<PyTypeObject *> type{nullptr};
  return kept_type(type, [] { return make_type(">KestObject", base_doc, sequence_table::reduced, false, true, nullptr); });
}

PyTypeObject *typeForClass(const kest::Class_Generic &cls) {
  py::gil lock;
  return typeForClassLocked(cls);
}

PyTypeObject *typeForClassLocked(const kest::Class_Generic &cls) { return typeAndMembersForClassLocked(cls).first; }

std::pair<PyTypeObject *, member_cache *> typeAndMembersForClassLocked(const kest::Class_Generic &cls) {
  PyTypeObject *type = nullptr;
  auto &c = cache();
  auto members_of = [&c](const kest::Class_Generic &key) -> member_cache * {
    std::lock_guard guard(c.lock);
    auto it = c.by_class.find(key.get());
    return it == c.by_class.end() ? nullptr : it->second.members.get();
  };
  if (cls) {
    // Every class met before, named or anonymous, is answered from the cache.
    std::lock_guard guard(c.lock);
    if (auto it = c.by_class.find(cls.get()); it != c.by_class.end()) {
      Py_IncRef(reinterpret_cast<PyObject *>(it->second.type));
      return {it->second.type, it->second.members.get()};
    }
  }
  if (!type && (!cls || !is_named(cls))) {
    type = shared_type(cls);
    if (cls && type) {
      Py_IncRef(reinterpret_cast<PyObject *>(type)); // the cache's reference
      bool added = false;
      auto members = std::make_unique<member_cache>(cls);
      {
        std::lock_guard guard(c.lock);
        added = c.by_class.try_emplace(cls.get(), type_cache::kept{cls, type, std::move(members)}).second;
      }
      if (!added)
        Py_DecRef(reinterpret_cast<PyObject *>(type));
    }
  } else if (!type) {
    {
      auto name = "kest~" + kest::qualname(cls).toUtf8();
      auto members = std::make_unique<member_cache>(cls);
      for (auto &ch : name)
        if (ch == '.')
          ch = '`'; // Python must not split the name into module and class
      if (name == "kest~")
        name.clear();
      auto [table, mapping] = tables_for(cls.flags());
      if (cls.derivesFrom(kest::Class_Generic::getClass()))
        mapping = true; // classes are subscripted: kest.List[kest.Integer]
      PyTypeObject *base = kestObjectBaseType();
      if (!base)
        return {nullptr, nullptr}; // its error is pending
      auto bases = py::object::steal(PyTuple_Pack(1, reinterpret_cast<PyObject *>(base)));
      PyTypeObject *made = bases ? make_type(keep(name), keep(cls.doc().toUtf8()), table, mapping, true, bases.get())
                                 : nullptr;
      if (!made)
        return {nullptr, nullptr};
      const auto module = module_of(cls);
      auto module_text = py::object::steal(PyUnicode_FromStringAndSize(module.data(), static_cast<Py_ssize_t>(module.size())));
      if (!module_text || PyObject_SetAttrString(reinterpret_cast<PyObject *>(made), "__module__", module_text.get()) < 0)
        PyErr_Clear(); // the type works without it
      addContainerProtocol(made, cls); // before any other thread can see the type
      PyTypeObject *kept = nullptr;
      {
        std::lock_guard guard(c.lock);
        kept = c.by_class.try_emplace(cls.get(), type_cache::kept{cls, made, std::move(members)}).first->second.type;
        if (kept == made)
          c.class_of_type.emplace(made, cls.get());
      }
      if (kept != made)
        Py_DecRef(reinterpret_cast<PyObject *>(made)); // another thread's type won; released outside the lock
      type = kept;
    }
  }
  if (!type)
    return {nullptr, nullptr};
  Py_IncRef(reinterpret_cast<PyObject *>(type));
  return {type, cls ? members_of(cls) : nullptr};
}

std::optional<kest::Class_Generic> classOfOwnType(const PyTypeObject *type) {
  auto &c = cache();
  std::lock_guard guard(c.lock);
  auto it = c.class_of_type.find(type);
  if (it == c.class_of_type.end())
    return std::nullopt;
  return c.by_class.at(it->second).cls;
}

} // namespace sarvode
