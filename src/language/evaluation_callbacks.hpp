#pragma once
// The functions that the generated code of one evaluation calls back at
// module level: kest_store_result(value) fills the evaluation's result, and
// kest_store_local(name, value) writes an out-local into the scope's map.

#include "runtime/python.hpp"

#include <kest/any.hpp>
#include <kest/interfaces.hpp>
#include <kest/union.hpp>

namespace sarvode {

/// Both functions for one evaluation, as Python built-in functions bound to
/// this object. Each converts its arguments as a host callable's untyped
/// parameters are (an int beyond 64 bits arrives as the conversion's error),
/// so the result and the out-locals are what the code gave. Once the object
/// ends, functions that Python code still holds raise RuntimeError.
class EvaluationCallbacks {
public:
  EvaluationCallbacks(kest::Any &result, const kest::Union<kest::I_MutableMap, kest::None> &outLocals);
  ~EvaluationCallbacks();
  EvaluationCallbacks(const EvaluationCallbacks &) = delete;
  EvaluationCallbacks &operator=(const EvaluationCallbacks &) = delete;

  /// Sets "kest_store_result" in `locals`, and "kest_store_local" when the
  /// scope has out-locals; false with a Python error set. The caller holds
  /// the interpreter lock, here and when the object ends.
  bool install(PyObject *locals);

  struct state {
    kest::Any *result;
    kest::Any out_locals; // an I_MutableMap, or empty
  };

private:
  state m_state;
  py::object m_binding; // the capsule that both functions are bound to
};

} // namespace sarvode
