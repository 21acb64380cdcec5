// expect-error: read text as std::string or std::u16string
#include <kest/kest.hpp>
char read(const kest::Any &v) { return kest::to<char>(v); }
