#pragma once
/// `kest::ByteArray`: an immutable sequence of bytes.

#include <kest/union.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kest {

class KEST_API ByteArray : public Any {
  KEST_HANDLE_MEMBERS(ByteArray, Any)
  /// The empty byte array.
  ByteArray();
  ByteArray(std::span<const std::uint8_t> bytes);
  ByteArray(const void *data, std::size_t length);
  static ByteArray fromChars(std::string_view chars) { return {chars.data(), chars.size()}; }

  [[nodiscard]] const std::uint8_t *data() const noexcept;
  [[nodiscard]] std::int64_t length() const noexcept;
  [[nodiscard]] std::string_view asChars() const noexcept;
  [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept;
};

} // namespace kest
