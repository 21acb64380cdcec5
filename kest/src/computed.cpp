// Lazily computed values, external values, weak references and result helpers.

#include "builtin.hpp"

#include <kest/computed.hpp>
#include <kest/external.hpp>
#include <kest/once.hpp>
#include <kest/reflection.hpp>
#include <kest/weak.hpp>

#include <fmt/format.h>

#include <mutex>

namespace kest {
namespace internal {

class object_value_computed final : public object_value {
public:
  explicit object_value_computed(std::function<Any()> p) : producer(std::move(p)) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Computed; }
  [[nodiscard]] object_value_class *class_value() const noexcept override {
    return Computed_Generic::getClass().value();
  }
  Any get() const {
    once.call([this] {
      try {
        value = producer();
      } catch (...) {
        value = Error::fromCurrentException();
      }
      producer = nullptr; // drop what the producer captured
    });
    return value;
  }
  mutable std::function<Any()> producer;
  mutable fast_once once;
  mutable Any value;
};

class external_value final : public object_value {
public:
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::External; }
  [[nodiscard]] object_value_class *class_value() const noexcept override {
    return External::getClass().value();
  }
  std::function<Any()> loader;
  mutable spinlock lock;
  mutable Any cell; // guarded by lock
};

class object_value_weak final : public object_value {
public:
  explicit object_value_weak(weak_control *b) : block(b) {}
  ~object_value_weak() override {
    if (block)
      block->release();
  }
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::WeakReference; }
  [[nodiscard]] object_value_class *class_value() const noexcept override {
    return WeakReference::getClass().value();
  }
  weak_control *const block;
};

Any create_computed(std::function<Any()> producer) { return Any(new object_value_computed(std::move(producer))); }

Any evaluate_computed(const Any &computed) {
  if (computed.kind() != ObjectType::Computed)
    return computed;
  return static_cast<const object_value_computed *>(computed.get())->get();
}

bool is_error_result(const Any &result) noexcept { return Error::isInstance(result); }

Error result_error_cast_source(const String &expected, const Any &source) {
  return Error(String::fromUtf8(fmt::format("Unable to cast a value of class '{}' to '{}'.",
                                            qualname(raw_class_of(source)).utf8View(), expected.utf8View())));
}

Error result_error_no_error() { return Error(String(u"The operation failed without an error.")); }

Any unwrap(const Any &value) {
  Any v = value;
  for (int depth = 0; depth < 64; ++depth) { // a cycle of externals must not hang
    switch (v.kind()) {
    case ObjectType::Computed:
      v = evaluate_computed(v);
      break;
    case ObjectType::External:
      v = object_value_external::load(v);
      break;
    case ObjectType::WeakReference:
      v = weak_ref_builtin::resolve(v);
      break;
    default:
      return v;
    }
  }
  return v;
}

Any object_value_external::load(const Any &value) {
  if (value.kind() != ObjectType::External)
    return {};
  auto *e = static_cast<const external_value *>(value.get());
  if (e->loader)
    return e->loader();
  std::lock_guard guard(e->lock);
  return e->cell;
}

Any weak_ref_builtin::resolve(const Any &value) {
  if (value.kind() != ObjectType::WeakReference)
    return {};
  auto *block = static_cast<const object_value_weak *>(value.get())->block;
  std::lock_guard guard(block->lock);
  if (block->target && block->target->try_add_ref())
    return Any::steal(block->target);
  return {};
}

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(Computed_Generic, a.kind() == ObjectType::Computed, make_builtin_class("Computed", 0))
KEST_DEFINE_HANDLE(External, a.kind() == ObjectType::External, make_builtin_class("External", 0))
KEST_DEFINE_HANDLE(WeakReference, a.kind() == ObjectType::WeakReference, make_builtin_class("WeakReference", 0))

External External::fromLoader(std::function<Any()> loader) {
  auto *e = new external_value;
  e->loader = std::move(loader);
  return External(unchecked, Any(e));
}

External External::fromValue(const Any &value) {
  auto *e = new external_value;
  e->cell = value;
  return External(unchecked, Any(e));
}

Any External::load() const { return object_value_external::load(*this); }

void External::store(const Any &value) const {
  auto *e = native_if<external_value>(*this, ObjectType::External);
  if (!e) // a handle made over another class has no cell to store into
    return;
  Any old = value;
  std::lock_guard guard(e->lock);
  e->cell.swap(old);
}

WeakReference::WeakReference(const Any &target)
    : Any(unchecked, Any(new object_value_weak(target ? target.get()->weak_block() : new weak_control))) {}

Any WeakReference::lock() const { return weak_ref_builtin::resolve(*this); }

} // namespace kest
