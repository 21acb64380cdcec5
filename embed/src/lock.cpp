// The interpreter lock for host code: the Python extension's own lock scopes,
// reached through the hooks it registers with the object model.

#include <kest/python.hpp>

namespace kest::python {

gil::gil() noexcept {
  const auto *hooks = internal::python_lock();
  m_held = hooks && hooks->acquire();
}

gil::~gil() {
  if (m_held)
    internal::python_lock()->release();
}

} // namespace kest::python
