#pragma once
// What the fuzz targets share: starting the interpreter, reporting a broken
// rule so that libFuzzer keeps the input, and the pending-error check.

#include "runtime/python.hpp"

#include <kest/any.hpp>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace sarvode::fuzz {

/// Starts the interpreter once (the extension's own start-up, as the tests do).
void start();

/// Prints what went wrong and aborts: libFuzzer reports it as a crash and
/// writes the input to a file.
[[noreturn]] void fail(std::string_view what, std::string_view detail = {});

/// Fails when a Python error is pending after `step`. Takes the interpreter lock.
void expect_no_pending_error(std::string_view step);

/// A short description of a host value for failure messages: its class and,
/// for an error, its message. Never runs Python code.
std::string describe(const kest::Any& value);

/// The text of a host error ("" for anything else).
std::string error_message(const kest::Any& value);

/// A double: NaNs, infinities, signed zeros, the limits of the 64-bit integer
/// range and of the type, or any bit pattern.
double make_double(FuzzedDataProvider& in);

/// A 64-bit integer, often one of the limits.
std::int64_t make_int64(FuzzedDataProvider& in);

/// Decimal text: the special values, finite numbers with any exponent, or any bytes at all.
std::string make_decimal_text(FuzzedDataProvider& in);

} // namespace sarvode::fuzz
