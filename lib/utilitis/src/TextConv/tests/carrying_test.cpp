// The carrying form of the conversions: every undecodable byte becomes one
// escape unit, an escape unit is written back as its byte, and so a text read
// and written in one encoding gives back its bytes, broken ones included.
#include <karu/TextConv/TextConv.h>
#include <karu/TextConv/backends.h>
#include <karu/string/unicode.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "../textconv_impl.h"
#include "file/tests/text_helpers.h"

using namespace Karu;
using namespace KaruTest;

namespace {

std::vector<uint32_t> Units(const wstringEx& s)
{
    return std::vector<uint32_t>(reinterpret_cast<const uint32_t*>(s.data()),
                                 reinterpret_cast<const uint32_t*>(s.data()) + s.size());
}

constexpr uint32_t E(unsigned char byte)
{
    return static_cast<uint32_t>(EscapeUnit(byte));
}

// Large texts fill the double-byte tables, which are built on first need.
void Warm(TTextConv& conv)
{
    wstringEx wide;
    conv.MBtoWC(wide, stringEx(std::string(size_t(1) << 21, 'a').c_str()));
}

// What is undecodable where, as Python's codecs tell it with
// errors="surrogateescape" (its U+DCxx standing for our escape of byte xx).
TEST(TextConvCarrying, DecodesAsAnIndependentCodecTellsIt)
{
    struct Row {
        const char* encoding;
        std::string bytes;
        std::vector<uint32_t> units;
    } rows[] = {
        {"UTF-8", "caf\xE9 \xE4\xB8 x\xF0\x9F\x98",
         {'c', 'a', 'f', E(0xE9), ' ', E(0xE4), E(0xB8), ' ', 'x', E(0xF0), E(0x9F), E(0x98)}},
        {"UTF-8", "\xED\xA0\x80\xC0\xAF\xF4\x90\x80\x80",
         {E(0xED), E(0xA0), E(0x80), E(0xC0), E(0xAF), E(0xF4), E(0x90), E(0x80), E(0x80)}},
        {"GBK", "\x81 \xD6\xD0\x81", {E(0x81), ' ', 0x4E2D, E(0x81)}},
        {"SHIFT_JIS", "\x82\xA0\x82\x7F\xFF", {0x3042, E(0x82), 0x7F, E(0xFF)}},
        {"BIG5", "\xA4\x40\xA4", {0x4E00, E(0xA4)}},
        {"CP1252", "\x81\x8D\x80", {E(0x81), E(0x8D), 0x20AC}},
        {"EUC-KR", "\xB0\xA1\xB0", {0xAC00, E(0xB0)}},
        {"ISO-8859-3", "\xA5\xAE", {E(0xA5), E(0xAE)}},
        {"ANSI_X3.4-1968", "caf\xC3\xA9", {'c', 'a', 'f', E(0xC3), E(0xA9)}},
    };
    for (const Row& row : rows) {
        CTextLibIConv conv{stringEx(row.encoding)};
        for (int warm = 0; warm < 2; ++warm) {
            wstringEx wide, library;
            conv.MBtoWCCarrying(wide, B(row.bytes));
            EXPECT_EQ(Units(wide), row.units) << row.encoding << (warm ? ", tables built" : "");
            // The C library reads UTF-8 past U+10FFFF; the shortcut, which
            // always takes UTF-8, keeps to the standard.
            conv.LibMBtoWCCarrying(library, B(row.bytes));
            if (S(conv.Shortcut()) != "utf-8") {
                EXPECT_EQ(Units(library), row.units) << row.encoding << ", the library itself";
            }
            stringEx back;
            conv.WCtoMBCarrying(back, wide);
            EXPECT_EQ(S(back), row.bytes) << row.encoding;
            Warm(conv);
        }
    }
}

// Random texts with random damage, in every kind of converter: the bytes
// come back, and a shortcut decodes what the library decodes.
TEST(TextConvCarrying, BrokenBytesComeBackAsTheyWere)
{
    const char* encodings[] = {"UTF-8",  "GBK",       "BIG5",       "SHIFT_JIS", "EUC-KR",  "CP1252",
                               "KOI8-R", "ISO-8859-3", "ANSI_X3.4-1968", "UTF-32LE", "EUC-JP", "GB18030"};
    std::mt19937 random(1123);
    auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const wchar_t sample[] = L"Aa z\u00e9\u00fc\u4e2d\u6587\u3042\uac00\u0416\u03bb\u20ac\U0001F600\n";
    for (const char* encoding : encodings) {
        CTextLibIConv conv{stringEx(encoding)};
        Warm(conv);
        for (int round = 0; round < 400; ++round) {
            wstringEx text;
            for (uint32_t i = below(40); i > 0; --i)
                text.push_back(sample[below(sizeof sample / sizeof sample[0] - 1)]);
            stringEx encoded;
            conv.WCtoMB(encoded, text);
            std::string bytes = S(encoded);
            for (uint32_t damage = below(4); damage > 0; --damage) {
                const size_t at = bytes.empty() ? 0 : below(static_cast<uint32_t>(bytes.size()));
                if (below(2) == 0 && !bytes.empty())
                    bytes[at] = static_cast<char>(below(256));
                else
                    bytes.insert(at, 1, static_cast<char>(below(256)));
            }
            wstringEx fast, library;
            conv.MBtoWCCarrying(fast, B(bytes));
            conv.LibMBtoWCCarrying(library, B(bytes));
            if (S(conv.Shortcut()) != "utf-8") {
                ASSERT_EQ(Units(fast), Units(library)) << encoding << " round " << round;
            }
            stringEx back;
            conv.WCtoMBCarrying(back, fast);
            ASSERT_EQ(S(back), bytes) << encoding << " round " << round;
        }
    }
}

// The other converters: the locale's, the plain byte mapping, ICU's; and the
// ordinary form, which stays what it was.
TEST(TextConvCarrying, EveryConverterWritesEscapesBack)
{
    const wstringEx text = wstringEx(L"a") + wstringEx(1, EscapeUnit(0xE9)) + wstringEx(L"b");

    std::unique_ptr<TTextConv> locale = IMPL::NewLocaleConv();
    wstringEx wide;
    // In the C locale of the tests the locale decodes ASCII alone.
    locale->MBtoWCCarrying(wide, B(std::string("x\0y\xE9", 4)));
    EXPECT_EQ(Units(wide), (std::vector<uint32_t>{'x', 0, 'y', E(0xE9)})) << "a NUL is a character, carrying";
    locale->MBtoWC(wide, B(std::string("x\0y", 3)));
    EXPECT_EQ(wide.size(), 2u) << "and ends the ordinary form";
    stringEx bytes;
    locale->WCtoMBCarrying(bytes, text);
    EXPECT_EQ(S(bytes), "a\xE9" "b");

    TTextConv plain;
    plain.WCtoMBCarrying(bytes, text);
    EXPECT_EQ(S(bytes), "a\xE9" "b");
    plain.MBtoWCCarrying(wide, B("\xE9"));
    EXPECT_EQ(Units(wide), std::vector<uint32_t>{0xFFFFFFE9u}) << "every byte widens, nothing to carry";

    CTextLibIcu icu{stringEx("UTF-8")};
    icu.WCtoMBCarrying(bytes, text + wstringEx(L"\u00e9"));
    EXPECT_EQ(S(bytes), "a\xE9" "b\xC3\xA9");

    CTextLibIConv utf8{stringEx("UTF-8")};
    utf8.WCtoMB(bytes, text);
    EXPECT_EQ(S(bytes).find('\xE9'), std::string::npos) << "the ordinary form has no byte for an escape";
}

TEST(TextConvCarrying, FindEscapeUnitAtEveryOffset)
{
    for (uint64_t length = 0; length < 20; ++length)
        for (uint64_t at = 0; at <= length; ++at) {
            wstringEx text(length, L'x');
            if (at < length)
                text.MutableData()[at] = EscapeUnit(static_cast<unsigned char>(at));
            // Neighbours of the escape range are no escapes.
            if (length > 0 && at != 0)
                text.MutableData()[0] = static_cast<wchar_t>(kEscapeUnitBase - 1);
            if (length > 1 && at != length - 1)
                text.MutableData()[length - 1] = static_cast<wchar_t>(kEscapeUnitBase + 0x100);
            const uint64_t expected = at < length ? at : wstringEx::npos;
            EXPECT_EQ(FindEscapeUnit(text), expected) << "length " << length << " at " << at;
            if (at < length) {
                EXPECT_EQ(FindEscapeUnit(text, at + 1), wstringEx::npos) << "length " << length << " at " << at;
            }
        }
}

// Where a text may be cut and converted piece by piece.
TEST(TextConvCarrying, CutsAfterWholeCharactersOnly)
{
    struct Row {
        const char* encoding;
        char byte;
        bool cuts;
    } rows[] = {
        {"UTF-8", '\n', true},  {"UTF-8", ',', true},      {"UTF-8", '\xC3', false}, {"ISO-8859-1", '\xE9', true},
        {"GBK", '\n', true},    {"GBK", ' ', true},        {"GBK", 'A', false},      // a trail byte too
        {"ISO-2022-JP", '\n', false},                       // keeps a state
    };
    for (const Row& row : rows) {
        CTextLibIConv conv{stringEx(row.encoding)};
        Warm(conv);
        EXPECT_EQ(conv.CutsAfter(row.byte), row.cuts) << row.encoding << " byte " << int(row.byte);
    }
    EXPECT_FALSE(TTextConv().CutsAfter('\n'));
}

}  // namespace
