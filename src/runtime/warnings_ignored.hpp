#pragma once
// Warnings held back while the extension does work of its own.

#include "runtime/python.hpp"

namespace sarvode {

/// Ignores warnings of `category` (and its subclasses) for its lifetime, as
/// `with warnings.catch_warnings(): warnings.simplefilter("ignore", category)`
/// does, through the interpreter's own filter list (`_warnings`), which needs
/// no import: python3 does not import `warnings` to start. The filters are
/// put back as they were, whatever happened meanwhile; an error pending at
/// the end is kept. The caller holds the interpreter lock throughout.
class warnings_ignored {
public:
  explicit warnings_ignored(PyObject *category);
  ~warnings_ignored();
  warnings_ignored(const warnings_ignored &) = delete;
  warnings_ignored &operator=(const warnings_ignored &) = delete;

private:
  void filters_changed() const;

  py::object m_filters; // _warnings.filters, the list that warnings.filters is too
  py::object m_saved;   // its entries before
  py::object m_changed; // _warnings._filters_mutated, when the version has it
};

} // namespace sarvode
