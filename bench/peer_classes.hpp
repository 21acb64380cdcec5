#pragma once
// The C++ classes that the peer bindings bind: the same in every peer.

#include <cstdint>
#include <string>

namespace bench_peer_classes {

struct Counter {
  std::int64_t value = 0;
  void add(std::int64_t n) { value += n; }
};

/// What kest.demo.Shape computes, in plain C++.
struct Shape {
  std::string kind;
  double size = 0;
  double area() const {
    constexpr double pi = 3.14159265358979323846;
    if (kind == "circle")
      return pi * size * size;
    if (kind == "triangle")
      return size * size * 0.4330127018922193;
    return size * size;
  }
};

} // namespace bench_peer_classes
