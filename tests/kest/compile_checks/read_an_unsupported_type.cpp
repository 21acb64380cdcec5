// expect-error: kest::to reads numbers, bool, std::string, std::u16string and host handles
#include <kest/kest.hpp>
#include <vector>
std::vector<int> read(const kest::Any &v) { return kest::to<std::vector<int>>(v); }
