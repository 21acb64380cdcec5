// kest::String: UTF-8 <-> UTF-16 conversion, text operations, builders and literals.

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

using namespace kest;

namespace {

/// Reference UTF-8 encoder, written independently of the library.
void encode_utf8(std::string &out, char32_t cp) {
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

/// Reference UTF-16 encoder.
void encode_utf16(std::u16string &out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    const char32_t v = cp - 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
  }
}

std::string utf8_of(std::u32string_view cps) {
  std::string out;
  for (auto cp : cps)
    encode_utf8(out, cp);
  return out;
}

std::u16string utf16_of(std::u32string_view cps) {
  std::u16string out;
  for (auto cp : cps)
    encode_utf16(out, cp);
  return out;
}

std::vector<std::string> utf8_items(const List &list) {
  std::vector<std::string> out;
  for (auto &item : list.copyItems()) {
    EXPECT_TRUE(String::isInstance(item));
    out.push_back(String::unsafeFrom(item).toUtf8());
  }
  return out;
}

std::vector<std::string> utf8_items(const std::vector<String> &parts) {
  std::vector<std::string> out;
  for (auto &part : parts)
    out.push_back(part.toUtf8());
  return out;
}

using Pieces = std::vector<std::string>;

} // namespace

// --- conversion --------------------------------------------------------------------

TEST(StringUtf, AsciiRoundTrips) {
  const auto s = String::fromUtf8("hello, world");
  EXPECT_EQ(s.view(), std::u16string_view(u"hello, world"));
  EXPECT_EQ(s.length(), 12);
  EXPECT_EQ(s.toUtf8(), "hello, world");
}

TEST(StringUtf, TwoAndThreeByteCharactersBecomeOneCodeUnit) {
  // U+00E9 (2 bytes), U+20AC (3 bytes), U+FFFF (3 bytes, the last BMP code point)
  const auto s = String::fromUtf8("\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF");
  ASSERT_EQ(s.length(), 3);
  EXPECT_EQ(s.at(0), 0x00E9);
  EXPECT_EQ(s.at(1), 0x20AC);
  EXPECT_EQ(s.at(2), 0xFFFF);
  EXPECT_EQ(s.toUtf8(), "\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF");
}

TEST(StringUtf, AstralCharacterBecomesASurrogatePair) {
  // U+1F600 GRINNING FACE
  const auto s = String::fromUtf8("\xF0\x9F\x98\x80");
  ASSERT_EQ(s.length(), 2);
  EXPECT_EQ(s.at(0), 0xD83D);
  EXPECT_EQ(s.at(1), 0xDE00);
  EXPECT_EQ(s.toUtf8(), "\xF0\x9F\x98\x80");
  EXPECT_EQ(utf16_to_utf8(u"\U0001F600"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(utf8_to_utf16("\xF0\x9F\x98\x80"), std::u16string(u"\U0001F600"));
}

TEST(StringUtf, HighestAndLowestAstralCodePointsRoundTrip) {
  // U+10000 and U+10FFFF: the edges of the surrogate range.
  const std::u16string low = u"\U00010000";
  const std::u16string high = u"\U0010FFFF";
  ASSERT_EQ(low.size(), 2u);
  EXPECT_EQ(low[0], 0xD800);
  EXPECT_EQ(low[1], 0xDC00);
  EXPECT_EQ(high[0], 0xDBFF);
  EXPECT_EQ(high[1], 0xDFFF);
  EXPECT_EQ(utf16_to_utf8(low), "\xF0\x90\x80\x80");
  EXPECT_EQ(utf16_to_utf8(high), "\xF4\x8F\xBF\xBF");
  EXPECT_EQ(utf8_to_utf16("\xF0\x90\x80\x80"), low);
  EXPECT_EQ(utf8_to_utf16("\xF4\x8F\xBF\xBF"), high);
}

TEST(StringUtf, AnAsciiHeadThenOtherCharactersEncodeEachPart) {
  // An ASCII run first, then two-, three- and four-byte characters, then ASCII again.
  const std::u16string text = u"print('x') # caf\u00e9 \u20ac \U0001F600 end";
  const auto utf8 = kest::String(text).toUtf8();
  EXPECT_EQ(utf8, "print('x') # caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 end");
  EXPECT_EQ(kest::String::fromUtf8(utf8).view(), text);
  // A lone surrogate after an ASCII head still becomes U+FFFD.
  EXPECT_EQ(kest::String(std::u16string(u"abc") + char16_t(0xD800)).toUtf8(), "abc\xef\xbf\xbd");
  EXPECT_EQ(kest::String(u"only ascii").toUtf8(), "only ascii");
  EXPECT_EQ(kest::String(u"").toUtf8(), "");
}

TEST(StringUtf, EmbeddedNulIsKept) {
  const std::string text("a\0b", 3);
  const auto s = String::fromUtf8(text);
  ASSERT_EQ(s.length(), 3);
  EXPECT_EQ(s.at(1), 0);
  EXPECT_EQ(s.toUtf8(), text);
}

TEST(StringUtf, EveryBoundaryCodePointRoundTrips) {
  const std::u32string cps = {0x00,   0x7F,   0x80,    0x7FF,   0x800,   0xD7FF,
                              0xE000, 0xFFFD, 0xFFFF,  0x10000, 0x1F600, 0x10FFFF};
  for (auto cp : cps) {
    const std::u32string one(1, cp);
    const auto utf8 = utf8_of(one);
    const auto utf16 = utf16_of(one);
    EXPECT_EQ(utf8_to_utf16(utf8), utf16) << std::hex << static_cast<std::uint32_t>(cp);
    EXPECT_EQ(utf16_to_utf8(utf16), utf8) << std::hex << static_cast<std::uint32_t>(cp);
  }
}

TEST(StringUtf, ThousandRandomStringsRoundTripExactly) {
  std::mt19937 rng(20240229);
  // Pick the encoded length first so that every UTF-8 length is well represented.
  std::uniform_int_distribution<int> width(1, 4);
  std::uniform_int_distribution<std::uint32_t> one(0x00, 0x7F);
  std::uniform_int_distribution<std::uint32_t> two(0x80, 0x7FF);
  std::uniform_int_distribution<std::uint32_t> three(0x800, 0xFFFF - 0x800); // surrogates skipped below
  std::uniform_int_distribution<std::uint32_t> four(0x10000, 0x10FFFF);
  std::uniform_int_distribution<int> length(0, 40);
  for (int n = 0; n < 1000; ++n) {
    std::u32string cps;
    const int count = length(rng);
    for (int i = 0; i < count; ++i) {
      std::uint32_t cp = 0;
      switch (width(rng)) {
      case 1:
        cp = one(rng);
        break;
      case 2:
        cp = two(rng);
        break;
      case 3:
        cp = three(rng);
        if (cp >= 0xD800)
          cp += 0x800; // jump over D800..DFFF
        break;
      default:
        cp = four(rng);
        break;
      }
      ASSERT_FALSE(cp >= 0xD800 && cp <= 0xDFFF);
      cps.push_back(cp);
    }
    const auto utf8 = utf8_of(cps);
    const auto utf16 = utf16_of(cps);

    const auto s = String::fromUtf8(utf8);
    ASSERT_EQ(s.view(), std::u16string_view(utf16)) << "string " << n;
    ASSERT_EQ(s.toUtf8(), utf8) << "string " << n;
    ASSERT_EQ(String(utf16).toUtf8(), utf8) << "string " << n;
    ASSERT_EQ(utf8_to_utf16(utf8), utf16) << "string " << n;
    ASSERT_EQ(utf16_to_utf8(utf16), utf8) << "string " << n;
  }
}

// --- invalid UTF-8 -------------------------------------------------------------------

TEST(StringUtf, TruncatedSequencesGiveOneReplacementEach) {
  EXPECT_EQ(utf8_to_utf16("\xC3"), u"\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xE2\x82"), u"\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xF0\x9F\x98"), u"\uFFFD");
  EXPECT_EQ(utf8_to_utf16("a\xE2\x82"
                          "b"),
            u"a\uFFFDb");
  EXPECT_EQ(utf8_to_utf16("\xF0\x9F\x98"
                          "x"),
            u"\uFFFDx");
  // Two truncated sequences next to each other stay two replacements.
  EXPECT_EQ(utf8_to_utf16("\xE2\x82\xE2\x82"), u"\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xF0\x9F\xF0\x9F\x98\x80"), u"\uFFFD\U0001F600");
}

TEST(StringUtf, OverlongFormsGiveOneReplacementPerByte) {
  EXPECT_EQ(utf8_to_utf16("\xC0\xAF"), u"\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xC1\xBF"), u"\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xE0\x80\xAF"), u"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xE0\x9F\xBF"), u"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xF0\x80\x80\xAF"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xF0\x8F\xBF\xBF"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(StringUtf, EncodedSurrogatesAreRejected) {
  EXPECT_EQ(utf8_to_utf16("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\xED\xBF\xBF"), u"\uFFFD\uFFFD\uFFFD");
  // A surrogate pair encoded as two three-byte sequences (CESU-8).
  EXPECT_EQ(utf8_to_utf16("\xED\xA0\xBD\xED\xB8\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
  // The code point just below the surrogates is fine.
  EXPECT_EQ(utf8_to_utf16("\xED\x9F\xBF"), u"\uD7FF");
}

TEST(StringUtf, BytesThatNeverStartASequenceAreRejected) {
  for (int b = 0xF5; b <= 0xFF; ++b) {
    const std::string one(1, static_cast<char>(b));
    EXPECT_EQ(utf8_to_utf16(one), u"\uFFFD") << std::hex << b;
    EXPECT_EQ(utf8_to_utf16(one + "z"), u"\uFFFDz") << std::hex << b;
  }
  // F5 followed by continuation bytes: every byte is its own invalid subpart.
  EXPECT_EQ(utf8_to_utf16("\xF5\x80\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
  // Above U+10FFFF.
  EXPECT_EQ(utf8_to_utf16("\xF4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(StringUtf, StrayContinuationBytesAreRejected) {
  EXPECT_EQ(utf8_to_utf16("\x80"), u"\uFFFD");
  EXPECT_EQ(utf8_to_utf16("\x80\xBF"), u"\uFFFD\uFFFD");
  EXPECT_EQ(utf8_to_utf16("a\xBF"
                          "b"),
            u"a\uFFFDb");
  // A valid character followed by one continuation byte too many.
  EXPECT_EQ(utf8_to_utf16("\xC3\xA9\xA9"), u"\u00E9\uFFFD");
}

TEST(StringUtf, MaximalSubpartsFollowTheUnicodeExample) {
  // The example of the Unicode Standard, chapter 3 ("U+FFFD substitution of maximal subparts").
  EXPECT_EQ(utf8_to_utf16("\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64"),
            u"a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd");
}

TEST(StringUtf, FromUtf8UsesTheSameReplacement) {
  const auto s = String::fromUtf8(std::string_view("x\xFFy"));
  EXPECT_EQ(s.view(), std::u16string_view(u"x\uFFFDy"));
  EXPECT_EQ(s.toUtf8(), "x\xEF\xBF\xBDy");
}

TEST(StringUtf, LoneSurrogateEncodesAsReplacementCharacter) {
  EXPECT_EQ(utf16_to_utf8(std::u16string(1, char16_t(0xD800))), "\xEF\xBF\xBD");
  EXPECT_EQ(utf16_to_utf8(std::u16string(1, char16_t(0xDFFF))), "\xEF\xBF\xBD");
  // A low surrogate before a high one is not a pair.
  const std::u16string reversed{char16_t(0xDE00), char16_t(0xD83D)};
  EXPECT_EQ(utf16_to_utf8(reversed), "\xEF\xBF\xBD\xEF\xBF\xBD");
  // A high surrogate at the end, after a valid pair.
  const std::u16string tail{char16_t(0xD83D), char16_t(0xDE00), char16_t(0xD83D)};
  EXPECT_EQ(utf16_to_utf8(tail), "\xF0\x9F\x98\x80\xEF\xBF\xBD");
  // High surrogate followed by a normal character: the character is kept.
  const std::u16string broken{char16_t(0xD83D), u'a'};
  EXPECT_EQ(utf16_to_utf8(broken), "\xEF\xBF\xBD"
                                   "a");
  // The string keeps the lone surrogate; only its UTF-8 form replaces it.
  const String s(std::u16string{u'a', char16_t(0xDC00)});
  EXPECT_EQ(s.length(), 2);
  EXPECT_EQ(s.at(1), 0xDC00);
  EXPECT_EQ(s.toUtf8(), "a\xEF\xBF\xBD");
}

TEST(StringUtf, EmptyInputGivesEmptyOutput) {
  EXPECT_TRUE(utf8_to_utf16("").empty());
  EXPECT_TRUE(utf16_to_utf8(u"").empty());
  EXPECT_TRUE(String::fromUtf8("").empty());
  EXPECT_EQ(String().toUtf8(), "");
}

// --- construction -------------------------------------------------------------------

TEST(String, DefaultIsEmptyAndNullTerminated) {
  const String s;
  EXPECT_TRUE(String::isInstance(s));
  EXPECT_EQ(s.kind(), internal::ObjectType::String);
  EXPECT_TRUE(s.empty());
  EXPECT_EQ(s.length(), 0);
  ASSERT_NE(s.c_str(), nullptr);
  EXPECT_EQ(s.c_str()[0], 0);
}

TEST(String, EmptyStringsShareOneObject) {
  EXPECT_TRUE(String().isSame(String(u"")));
  EXPECT_TRUE(String().isSame(String::fromUtf8("")));
}

TEST(String, FromUtf8OfAByteArray) {
  const ByteArray bytes = ByteArray::fromChars("caf\xC3\xA9");
  const auto s = String::fromUtf8(bytes);
  EXPECT_EQ(s.view(), std::u16string_view(u"caf\u00E9"));
}

TEST(String, FromRawDataCopiesTheGivenUnits) {
  std::u16string buffer(u"abc\0def", 7);
  const auto s = String::fromRawDataUnsafe(buffer.data(), 5);
  buffer[0] = u'X';
  ASSERT_EQ(s.length(), 5);
  EXPECT_EQ(s.at(0), u'a');
  EXPECT_EQ(s.at(3), 0);
  EXPECT_EQ(s.at(4), u'd');
}

TEST(String, CStrIsNullTerminatedAfterTheText) {
  const String s(u"abc");
  const char16_t *p = s.c_str();
  EXPECT_EQ(p[0], u'a');
  EXPECT_EQ(p[2], u'c');
  EXPECT_EQ(p[3], 0);
  EXPECT_EQ(std::u16string_view(p), std::u16string_view(u"abc"));
}

TEST(String, ConvertsToAView) {
  const String s(u"view");
  const std::u16string_view v = s;
  EXPECT_EQ(v, std::u16string_view(u"view"));
}

// --- access ---------------------------------------------------------------------------

TEST(String, AtReturnsCodeUnitsAndZeroOutsideTheString) {
  const String s(u"h\U0001F600");
  EXPECT_EQ(s.length(), 3);
  EXPECT_EQ(s.at(0), u'h');
  EXPECT_EQ(s.at(1), 0xD83D);
  EXPECT_EQ(s.at(2), 0xDE00);
  EXPECT_EQ(s.at(3), 0);
  EXPECT_EQ(s.at(-1), 0);
  EXPECT_EQ(s.at(1000), 0);
}

TEST(String, FindLocatesSubstringsFromAPosition) {
  const String s(u"hello world");
  EXPECT_EQ(s.find(u"o"), 4);
  EXPECT_EQ(s.find(u"o", 4), 4);
  EXPECT_EQ(s.find(u"o", 5), 7);
  EXPECT_EQ(s.find(u"o", 8), -1);
  EXPECT_EQ(s.find(u"world"), 6);
  EXPECT_EQ(s.find(u"worlds"), -1);
  EXPECT_EQ(s.find(u"hello", 1), -1);
  EXPECT_EQ(s.find(u"", 3), 3);
  EXPECT_EQ(s.find(u"", 11), 11);
  EXPECT_EQ(s.find(u"o", -1), -1);
  EXPECT_EQ(s.find(u"o", 12), -1);
}

TEST(String, FindLocatesCharacters) {
  const String s(u"a,b,c");
  EXPECT_EQ(s.find(u','), 1);
  EXPECT_EQ(s.find(u',', 2), 3);
  EXPECT_EQ(s.find(u',', 4), -1);
  EXPECT_EQ(s.find(u'x'), -1);
  EXPECT_EQ(s.find(u'a', -3), -1);
}

TEST(String, RfindSearchesBackwardsFromAPosition) {
  const String s(u"hello world");
  EXPECT_EQ(s.rfind(u"o"), 7);
  EXPECT_EQ(s.rfind(u"o", 7), 7);
  EXPECT_EQ(s.rfind(u"o", 6), 4);
  EXPECT_EQ(s.rfind(u"o", 3), -1);
  EXPECT_EQ(s.rfind(u"l"), 9);
  EXPECT_EQ(s.rfind(u"hello", 0), 0);
  EXPECT_EQ(s.rfind(u"world", 5), -1);
  EXPECT_EQ(s.rfind(u"xyz"), -1);
  EXPECT_EQ(s.rfind(u"o", 1000), 7);
}

TEST(String, RfindLocatesCharacters) {
  const String s(u"a,b,c");
  EXPECT_EQ(s.rfind(u','), 3);
  EXPECT_EQ(s.rfind(u',', 2), 1);
  EXPECT_EQ(s.rfind(u',', 0), -1);
  EXPECT_EQ(s.rfind(u'a'), 0);
  EXPECT_EQ(s.rfind(u'z'), -1);
}

TEST(String, StartsEndsAndContains) {
  const String s(u"prefix-body-suffix");
  EXPECT_TRUE(s.startsWith(u"prefix"));
  EXPECT_TRUE(s.startsWith(u""));
  EXPECT_FALSE(s.startsWith(u"body"));
  EXPECT_TRUE(s.endsWith(u"suffix"));
  EXPECT_TRUE(s.endsWith(u""));
  EXPECT_FALSE(s.endsWith(u"prefix"));
  EXPECT_TRUE(s.contains(u"-body-"));
  EXPECT_FALSE(s.contains(u"bodies"));
  EXPECT_TRUE(s.contains(u'-'));
  EXPECT_FALSE(s.contains(u'+'));
  EXPECT_FALSE(String().startsWith(u"a"));
  EXPECT_FALSE(String(u"ab").endsWith(u"xab"));
}

// --- slicing ----------------------------------------------------------------------------

TEST(String, SubstrClampsToTheString) {
  const String s(u"abcdef");
  EXPECT_EQ(s.substr(2).view(), u"cdef");
  EXPECT_EQ(s.substr(2, 3).view(), u"cde");
  EXPECT_EQ(s.substr(2, 100).view(), u"cdef");
  EXPECT_EQ(s.substr(0).view(), u"abcdef");
  EXPECT_EQ(s.substr(6).view(), u"");
  EXPECT_EQ(s.substr(100).view(), u"");
  EXPECT_EQ(s.substr(-3, 2).view(), u"ab"); // a negative start is clamped to zero
  EXPECT_EQ(s.substr(1, 0).view(), u"");
}

TEST(String, SlicedCountsNegativeStartsFromTheEnd) {
  const String s(u"hello world");
  EXPECT_EQ(s.sliced(6).view(), u"world");
  EXPECT_EQ(s.sliced(-5).view(), u"world");
  EXPECT_EQ(s.sliced(-5, 3).view(), u"wor");
  EXPECT_EQ(s.sliced(0, 5).view(), u"hello");
  EXPECT_EQ(s.sliced(-1).view(), u"d");
  EXPECT_EQ(s.sliced(-100).view(), u"hello world");
  EXPECT_EQ(s.sliced(11).view(), u"");
  EXPECT_EQ(s.sliced(-11, 1).view(), u"h");
}

// --- split -----------------------------------------------------------------------------

TEST(String, SplitKeepsTheEmptyLastPiece) {
  const auto parts = String(u"a\nb\n").split(u'\n');
  EXPECT_EQ(parts.length(), 3);
  EXPECT_EQ(utf8_items(parts), (Pieces{"a", "b", ""}));
}

TEST(String, SplitKeepsEmptyPiecesEverywhere) {
  EXPECT_EQ(utf8_items(String(u",,").split(u',')), (Pieces{"", "", ""}));
  EXPECT_EQ(utf8_items(String(u",a").split(u',')), (Pieces{"", "a"}));
  EXPECT_EQ(utf8_items(String(u"").split(u',')), (Pieces{""}));
  EXPECT_EQ(utf8_items(String(u"no separator").split(u',')), (Pieces{"no separator"}));
}

TEST(String, SplitBySeparatorText) {
  EXPECT_EQ(utf8_items(String(u"a, b, , c").split(u", ")), (Pieces{"a", "b", "", "c"}));
  EXPECT_EQ(utf8_items(String(u"a::b:c").split(u"::")), (Pieces{"a", "b:c"}));
  // An empty separator gives the whole string as the only piece.
  EXPECT_EQ(utf8_items(String(u"abc").split(u"")), (Pieces{"abc"}));
}

TEST(String, SplitGivesAListOfStrings) {
  const auto parts = String(u"x;y").split(u';');
  EXPECT_TRUE(parts.elementType().conformsTo(String::getType()));
  EXPECT_TRUE(parts.append(Integer(1)).isError()); // typed: only strings go in
  EXPECT_EQ(parts.length(), 2);
}

TEST(String, SplitToVectorMatchesSplit) {
  const String s(u"one\ntwo\n\nthree\n");
  const auto v = s.splitToVector(u"\n");
  EXPECT_EQ(utf8_items(v), (Pieces{"one", "two", "", "three", ""}));
  EXPECT_EQ(utf8_items(v), utf8_items(s.split(u'\n')));
  EXPECT_EQ(utf8_items(String(u"a").splitToVector(u"")), (Pieces{"a"}));
}

TEST(String, SplitKeepsAstralCharactersWhole) {
  const String s = String::fromUtf8("\xF0\x9F\x98\x80|\xF0\x9F\x98\x81");
  EXPECT_EQ(utf8_items(s.split(u'|')), (Pieces{"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x81"}));
}

// --- replace and trim --------------------------------------------------------------------

TEST(String, ReplacedChangesEveryOccurrence) {
  EXPECT_EQ(String(u"a-b-c").replaced(u"-", u"+").view(), u"a+b+c");
  EXPECT_EQ(String(u"aaa").replaced(u"a", u"bb").view(), u"bbbbbb");
  EXPECT_EQ(String(u"aaa").replaced(u"aa", u"x").view(), u"xa"); // left to right, no overlap
  EXPECT_EQ(String(u"a-b").replaced(u"-", u"").view(), u"ab");
  EXPECT_EQ(String(u"abc").replaced(u"x", u"y").view(), u"abc");
  EXPECT_EQ(String(u"abc").replaced(u"", u"y").view(), u"abc");
  EXPECT_EQ(String(u"abc").replaced(u"abc", u"").view(), u"");
  EXPECT_EQ(String(u"start middle end").replaced(u"start", u"S").view(), u"S middle end");
  EXPECT_EQ(String(u"start middle end").replaced(u"end", u"E").view(), u"start middle E");
}

TEST(String, ReplacedLeavesTheOriginalUnchanged) {
  const String s(u"a.b");
  const auto r = s.replaced(u".", u",");
  EXPECT_EQ(s.view(), u"a.b");
  EXPECT_EQ(r.view(), u"a,b");
}

TEST(String, TrimmedRemovesWhiteSpaceAtBothEnds) {
  EXPECT_EQ(String(u"  \t\n x y \r\f\v").trimmed().view(), u"x y");
  EXPECT_EQ(String(u"\u00A0\u3000x\u2028\u2029\uFEFF").trimmed().view(), u"x");
  EXPECT_EQ(String(u"   ").trimmed().view(), u"");
  EXPECT_EQ(String(u"").trimmed().view(), u"");
  EXPECT_EQ(String(u"inner  space").trimmed().view(), u"inner  space");
  EXPECT_EQ(String(u"x\u200B").trimmed().view(), u"x\u200B"); // zero-width space is no white space
}

// --- concatenation and builders ------------------------------------------------------------

TEST(String, PlusConcatenates) {
  const String a(u"ab"), b(u"cd");
  EXPECT_EQ((a + b).view(), u"abcd");
  EXPECT_EQ((a + String()).view(), u"ab");
  EXPECT_EQ((String() + b).view(), u"cd");
  EXPECT_EQ((String() + String()).length(), 0);
  // Two halves of a surrogate pair join into one character.
  const String high(std::u16string(1, char16_t(0xD83D)));
  const String low(std::u16string(1, char16_t(0xDE00)));
  EXPECT_EQ((high + low).toUtf8(), "\xF0\x9F\x98\x80");
}

TEST(String, BuilderAppendsEveryKindOfPart) {
  string_builder b;
  b.append(u"a").append(String(u"b")).append(u'c').append("d\xC3\xA9").append(std::int64_t{-42});
  b.append(std::u16string_view(u"!"));
  EXPECT_EQ(b.size(), 9u);
  EXPECT_EQ(b.build().view(), u"abcd\u00E9-42!");
}

TEST(String, BuilderBuildKeepsTheTextAndTakeEmptiesIt) {
  string_builder b;
  b.reserve(16);
  b.append(u"keep");
  EXPECT_EQ(b.build().view(), u"keep");
  EXPECT_EQ(b.build().view(), u"keep");
  EXPECT_EQ(b.take().view(), u"keep");
  EXPECT_EQ(b.size(), 0u);
  EXPECT_EQ(b.build().length(), 0);
}

TEST(String, BuilderWritesLargeNumbers) {
  string_builder b;
  b.append(std::numeric_limits<std::int64_t>::min()).append(u' ').append(std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(b.build().toUtf8(), "-9223372036854775808 9223372036854775807");
}

// --- UTF-8 view -----------------------------------------------------------------------

TEST(String, Utf8ViewIsComputedOnceAndKept) {
  const auto s = String(u"cached \u00E9");
  const auto first = s.utf8View();
  const auto second = s.utf8View();
  EXPECT_EQ(first, "cached \xC3\xA9");
  EXPECT_EQ(first.data(), second.data());
  // A copy of the handle shares the object and its cached form.
  const String copy = s;
  EXPECT_EQ(copy.utf8View().data(), first.data());
  // toUtf8 returns a copy with the same text.
  EXPECT_EQ(s.toUtf8(), std::string(first));
}

TEST(String, Utf8ViewRacesSettleOnOneBuffer) {
  for (int round = 0; round < 20; ++round) {
    const auto s = String::fromUtf8("shared text \xE2\x82\xAC " + std::to_string(round));
    std::vector<const char *> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&, t] { seen[static_cast<std::size_t>(t)] = s.utf8View().data(); });
    for (auto &t : threads)
      t.join();
    for (auto *p : seen)
      EXPECT_EQ(p, seen[0]);
    EXPECT_EQ(s.utf8View().data(), seen[0]);
  }
}

// --- literals and standard hashing -------------------------------------------------------

TEST(String, LiteralsMakeStrings) {
  using namespace kest::literals;
  const String a = u"x\u00E9"_s;
  const String b = "x\xC3\xA9"_s;
  EXPECT_EQ(a.view(), b.view());
  EXPECT_EQ(a.length(), 2);
  const String withNul = u"a\0b"_s;
  EXPECT_EQ(withNul.length(), 3);
  EXPECT_EQ(""_s.length(), 0);
}

TEST(String, StdHashAndEqualToCompareText) {
  const String a(u"same"), b = String::fromUtf8("same"), c(u"other");
  ASSERT_FALSE(a.isSame(b));
  EXPECT_TRUE(std::equal_to<String>()(a, b));
  EXPECT_FALSE(std::equal_to<String>()(a, c));
  EXPECT_EQ(std::hash<String>()(a), std::hash<String>()(b));

  std::unordered_set<String> set;
  set.insert(a);
  set.insert(b);
  set.insert(c);
  EXPECT_EQ(set.size(), 2u);
  EXPECT_EQ(set.count(String(u"same")), 1u);

  std::unordered_map<String, int> map;
  map[a] = 1;
  map[b] = 2;
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(map[String(u"same")], 2);
}

TEST(String, StringsAreImmutableValuesOfTheirClass) {
  const String s(u"x");
  EXPECT_EQ(String::getClass().name().toUtf8(), "String");
  EXPECT_TRUE(I_Immutable::isInstance(s));
  EXPECT_TRUE(String::getType().matches(s));
  EXPECT_FALSE(String::isInstance(Integer(1)));
  EXPECT_FALSE(String::isInstance(Any()));
}

TEST(String, OperationsDoNotLeakObjects) {
  // Warm up anything made once (the class of List<String>).
  (void)String(u"a,b").split(u',');
  const auto before = internal::object_value::live_count();
  {
    const String s(u" a,b,c ");
    auto parts = s.trimmed().split(u',');
    auto joined = s.replaced(u",", u";") + s.sliced(1, 2);
    string_builder b;
    b.append(joined).append(std::int64_t{7});
    auto built = b.take();
    (void)built.utf8View();
    EXPECT_EQ(parts.length(), 3);
  }
  EXPECT_EQ(internal::object_value::live_count(), before);
}
