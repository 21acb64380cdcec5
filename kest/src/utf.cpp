// Exact conversion between UTF-8 and UTF-16.

#include <kest/string.hpp>

#include <algorithm>

namespace kest {

namespace {
constexpr char16_t replacement = 0xFFFD;

void append_utf16(std::u16string &out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}
} // namespace

std::u16string utf8_to_utf16(std::string_view in) {
  const auto *s = reinterpret_cast<const unsigned char *>(in.data());
  const std::size_t n = in.size();
  // Most text is ASCII: its leading ASCII run is widened in one pass.
  std::size_t i = 0;
  while (i < n && s[i] < 0x80)
    ++i;
  std::u16string out(s, s + i); // each byte widened
  if (i == n)
    return out;
  out.reserve(n);
  while (i < n) {
    const unsigned char b0 = s[i];
    if (b0 < 0x80) {
      out.push_back(b0);
      ++i;
      continue;
    }
    // Determine the sequence length and the valid range of the second byte,
    // so that overlong forms and surrogates are rejected (maximal subparts).
    std::size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF;
    char32_t cp = 0;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
      len = 2;
      cp = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
      len = 3;
      cp = b0 & 0x0F;
      if (b0 == 0xE0)
        lo = 0xA0;
      else if (b0 == 0xED)
        hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
      len = 4;
      cp = b0 & 0x07;
      if (b0 == 0xF0)
        lo = 0x90;
      else if (b0 == 0xF4)
        hi = 0x8F;
    } else {
      out.push_back(replacement);
      ++i;
      continue;
    }
    std::size_t k = 1;
    for (; k < len; ++k) {
      if (i + k >= n)
        break;
      const unsigned char b = s[i + k];
      const unsigned char min = k == 1 ? lo : 0x80;
      const unsigned char max = k == 1 ? hi : 0xBF;
      if (b < min || b > max)
        break;
      cp = (cp << 6) | (b & 0x3F);
    }
    if (k == len) {
      append_utf16(out, cp);
      i += len;
    } else {
      out.push_back(replacement); // one U+FFFD for the maximal invalid subpart
      i += k;
    }
  }
  return out;
}

std::string utf16_to_utf8(std::u16string_view in) {
  // The ASCII head (often the whole text: names, source code) is copied
  // without encoding; the rest goes a code point at a time.
  std::size_t i = 0;
  while (i < in.size() && in[i] < 0x80)
    ++i;
  std::string out(i, '\0');
  std::copy(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(i), out.begin());
  if (i == in.size())
    return out;
  out.reserve(i + (in.size() - i) * 3);
  for (; i < in.size(); ++i) {
    char32_t cp = in[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < in.size() && in[i + 1] >= 0xDC00 &&
        in[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = replacement; // a lone surrogate has no UTF-8 form
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

} // namespace kest
