// expect-error: pass text as a string, not a single character
#include <kest/kest.hpp>
kest::Any call(const kest::I_Callable_Generic &f) { return f('x'); }
