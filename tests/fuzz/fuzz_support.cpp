// What the fuzz targets share.

#include "fuzz_support.hpp"

#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <limits>

// CPython keeps many allocations until the process ends, so leak reports would
// be about the interpreter, not about the code under test; references are
// counted by the targets instead. An allocation beyond 2 GiB fails, and Python
// answers it with MemoryError, rather than ending the run.
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=2048";
}

namespace sarvode::fuzz {

void start() {
  ensurePythonReady();
}

void fail(std::string_view what, std::string_view detail) {
  std::fprintf(stderr, "\n==fuzz== %.*s", static_cast<int>(what.size()), what.data());
  if (!detail.empty())
    std::fprintf(stderr, ": %.*s", static_cast<int>(detail.size()), detail.data());
  std::fprintf(stderr, "\n");
  std::fflush(stderr);
  std::abort();
}

void expect_no_pending_error(std::string_view step) {
  py::gil lock;
  if (!PyErr_Occurred())
    return;
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  auto t = py::object::steal(type), v = py::object::steal(value), tb = py::object::steal(traceback);
  auto name = py::object::steal(PyObject_GetAttrString(t.get(), "__name__"));
  auto text = py::object::steal(v ? PyObject_Str(v.get()) : nullptr);
  std::string detail(name ? py::utf8(name.get()) : std::string_view("?"));
  if (text)
    detail.append(": ").append(py::utf8(text.get()));
  PyErr_Clear();
  fail(std::string("a Python error is pending after ").append(step), detail);
}

std::string error_message(const kest::Any& value) {
  if (!kest::Error::isInstance(value))
    return {};
  return kest::Error::unsafeFrom(value).message().toUtf8();
}

namespace {
/// Text with control characters and surrogates shown as code units.
std::string escaped(std::u16string_view text) {
  std::string out;
  for (char16_t c : text) {
    if (c < 0x20 || (c >= 0xD800 && c <= 0xDFFF) || c == 0x7F)
      out.append(fmt::format("\\u{:04x}", static_cast<unsigned>(c)));
    else
      out.append(kest::utf16_to_utf8(std::u16string_view(&c, 1)));
  }
  return out;
}
} // namespace

std::string describe(const kest::Any& value) {
  if (value.empty())
    return "(empty)";
  std::string text = kest::qualname(kest::raw_class_of(value)).toUtf8();
  if (kest::Error::isInstance(value))
    text.append(" \"")
        .append(escaped(kest::Error::unsafeFrom(value).message().view()))
        .append("\"");
  else if (kest::String::isInstance(value))
    text.append(" \"").append(escaped(kest::String::unsafeFrom(value).view())).append("\"");
  return text;
}

double make_double(FuzzedDataProvider& in) {
  using limits = std::numeric_limits<double>;
  static const double specials[] = {limits::quiet_NaN(),
                                    -limits::quiet_NaN(),
                                    limits::infinity(),
                                    -limits::infinity(),
                                    0.0,
                                    -0.0,
                                    limits::denorm_min(),
                                    -limits::denorm_min(),
                                    limits::min(),
                                    limits::max(),
                                    limits::lowest(),
                                    9223372036854775808.0,
                                    -9223372036854775808.0,
                                    9223372036854774784.0,
                                    18446744073709551616.0,
                                    0.5,
                                    -0.5,
                                    1e300,
                                    -2.5,
                                    9007199254740993.0,
                                    limits::signaling_NaN()};
  if (in.ConsumeBool())
    return specials[in.ConsumeIntegralInRange<std::size_t>(0, std::size(specials) - 1)];
  return std::bit_cast<double>(in.ConsumeIntegral<std::uint64_t>());
}

std::int64_t make_int64(FuzzedDataProvider& in) {
  using limits = std::numeric_limits<std::int64_t>;
  static const std::int64_t specials[] = {0,
                                          1,
                                          -1,
                                          limits::min(),
                                          limits::max(),
                                          limits::min() + 1,
                                          limits::max() - 1,
                                          2147483647,
                                          -2147483648LL,
                                          4294967296LL,
                                          9007199254740993LL};
  if (in.ConsumeBool())
    return specials[in.ConsumeIntegralInRange<std::size_t>(0, std::size(specials) - 1)];
  return in.ConsumeIntegral<std::int64_t>();
}

/// Decimal text: the special values, finite numbers with any exponent, or any bytes at all.
std::string make_decimal_text(FuzzedDataProvider& in) {
  static const char* const specials[] = {"NaN",
                                         "-NaN",
                                         "sNaN",
                                         "-sNaN",
                                         "NaN123",
                                         "sNaN0001",
                                         "Infinity",
                                         "-Inf",
                                         "inf",
                                         "-Infinity",
                                         "-0",
                                         "0E-1000",
                                         "1E+999999999999999999",
                                         "1E+1000000000000000000",
                                         "-1E-1000000000000000000"};
  switch (in.ConsumeIntegralInRange(0, 3)) {
  case 0:
    return specials[in.ConsumeIntegralInRange<std::size_t>(0, std::size(specials) - 1)];
  case 1:
    return in.ConsumeRandomLengthString(48);
  default: {
    std::string text = in.ConsumeBool() ? "-" : "";
    const auto digits = in.ConsumeIntegralInRange(1, 60);
    const auto point = in.ConsumeIntegralInRange(-1, digits);
    for (int i = 0; i < digits; ++i) {
      if (i == point)
        text.push_back('.');
      text.push_back(static_cast<char>('0' + in.ConsumeIntegralInRange(0, 9)));
    }
    if (in.ConsumeBool())
      text.append("E").append(
          std::to_string(in.ConsumeBool() ? make_int64(in) : in.ConsumeIntegralInRange(-40, 40)));
    return text;
  }
  }
}

} // namespace sarvode::fuzz
