// Every row of the encoding table against the system's own conversion
// commands, and the shortcuts against the library they stand in for.
#include <karu/TextConv/TextConv.h>
#include <karu/TextConv/backends.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "file/tests/deadline.h"
#include "file/tests/text_helpers.h"

using namespace Karu;
using namespace KaruTest;

namespace {

// Runs a shell command with `input` on its standard input; false if it fails.
bool Filter(const std::string& command, const std::string& input, std::string& output)
{
    char path[] = "/tmp/karu-enc-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0)
        return false;
    const bool written = write(fd, input.data(), input.size()) == static_cast<ssize_t>(input.size());
    close(fd);
    output.clear();
    FILE* pipe = written ? popen((command + " < " + path + " 2>/dev/null").c_str(), "r") : nullptr;
    if (pipe) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
            output.append(buffer, n);
    }
    const int status = pipe ? pclose(pipe) : -1;
    unlink(path);
    return status == 0;
}

std::string Utf32(const wstringEx& text)
{
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
}

wstringEx FromUtf32(const std::string& bytes)
{
    return wstringEx(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
}

// Characters from every script the table's encodings cover; each encoding
// keeps the part of it that it can represent.
wstringEx Repertoire()
{
    std::wstring text;
    auto range = [&text](wchar_t from, wchar_t to, int step = 1) {
        for (wchar_t c = from; c <= to; c += step)
            text += c;
    };
    range(0x20, 0x7E);
    range(L'\t', L'\n');
    range(0xA0, 0x24F);        // Latin-1 and Latin Extended
    range(0x370, 0x3CE);       // Greek
    range(0x400, 0x45F);       // Cyrillic
    range(0x490, 0x491);
    range(0x531, 0x587);       // Armenian
    range(0x5D0, 0x5EA);       // Hebrew
    range(0x60C, 0x64A);       // Arabic
    range(0xE01, 0xE5B);       // Thai
    range(0x1EA0, 0x1EF9);     // Vietnamese
    range(0x2013, 0x2026);     // punctuation
    range(0x20AC, 0x20AC);
    range(0x2122, 0x2122);
    range(0x2500, 0x2570, 4);  // box drawing
    range(0x3041, 0x3093);     // Hiragana
    range(0x30A1, 0x30F6);     // Katakana
    range(0x4E00, 0x4FFF, 3);  // CJK ideographs
    range(0x5B57, 0x5B57);
    range(0x9F8D, 0x9F9C);
    range(0xAC00, 0xAD00, 2);  // Hangul
    range(0xFF01, 0xFF5E, 5);  // full width forms
    text += L"\x20000\x1F600";  // beyond the basic plane
    text += L"end.\n";
    return wstringEx(text.data(), text.size());
}

std::string Quote(const stringEx& name)
{
    return std::string("'").append(S(name)).append("'");
}

// One row: the back end the factory picks must be the first of the
// system's tools that knows the encoding, and conversions must agree with
// that tool byte for byte. Returns the back end.
std::string CheckRow(const stringEx& name, const EncInfo& info, const wstringEx& repertoire)
{
    const std::string row = S(name);
    TextConvPtr conv = TTextConv::CreateConv(0, name);
    const std::string backEnd = S(conv->BackEnd());
    std::string ignored;
    const std::string cpName = "CP" + std::to_string(info.codepage);
    const std::string winName = "windows-" + std::to_string(info.codepage);
    const bool iconvKnows = backEnd == "iconv" || Filter("iconv -f " + Quote(name) + " -t UTF-8", "", ignored) ||
                            Filter("iconv -f " + cpName + " -t UTF-8", "", ignored);
    const bool icuKnows = Filter("uconv -f " + Quote(name) + " -t UTF-8", "", ignored) ||
                          Filter("uconv -f " + winName + " -t UTF-8", "", ignored);
    // The factory's order: the C library's iconv, then ICU, then bytes.
    EXPECT_EQ(backEnd, iconvKnows ? "iconv" : icuKnows ? "icu" : "bytes") << row;
    if (backEnd == "bytes") {
        EXPECT_EQ(W(conv->MBtoWC(stringEx("a\xE9"))), std::wstring(L"a") + wchar_t(-23)) << row;
        return backEnd;
    }

    const std::string tool =
        backEnd == "iconv" ? "iconv -c" : "uconv --from-callback substitute --to-callback substitute";
    const std::string encoding = Quote(conv->Encoding());
    // Encode the repertoire: what this encoding can hold of it.
    std::string expected;
    if (!Filter(tool + " -f UTF-32LE -t " + encoding, Utf32(repertoire), expected)) {
        ADD_FAILURE() << row << ": the tool refuses";
        return backEnd;
    }
    const stringEx bytes = conv->WCtoMB(repertoire);
    EXPECT_EQ(S(bytes), expected) << row << ": encoding differs";
    EXPECT_GT(bytes.size(), 50u) << row;
    // Decode it again, encode the result once more, and decode that.
    std::string decoded, again, decodedAgain;
    Filter(tool + " -f " + encoding + " -t UTF-32LE", expected, decoded);
    const wstringEx wide = conv->MBtoWC(bytes);
    EXPECT_EQ(W(wide), W(FromUtf32(decoded))) << row << ": decoding differs";
    Filter(tool + " -f UTF-32LE -t " + encoding, decoded, again);
    const stringEx reencoded = conv->WCtoMB(wide);
    EXPECT_EQ(S(reencoded), again) << row << ": encoding of the decoded text differs";
    Filter(tool + " -f " + encoding + " -t UTF-32LE", again, decodedAgain);
    EXPECT_EQ(W(conv->MBtoWC(reencoded)), W(FromUtf32(decodedAgain))) << row << ": second decoding differs";
    // Text survives the round trip wherever the library itself keeps it.
    if (decodedAgain == decoded)
        EXPECT_EQ(W(conv->MBtoWC(reencoded)), W(wide)) << row << ": no round trip";
    else
        std::cout << row << ": the library's own round trip changes the text\n";
    return backEnd;
}

}  // namespace

TEST(EncodingRows, EveryRowMatchesTheSystemTools)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(180), "every row against the system's converters");
    const wstringEx repertoire = Repertoire();
    std::vector<std::pair<stringEx, EncInfo>> rows;
    EnumCookie cookie;
    stringEx name;
    EncInfo info;
    while (TTextConv::EnumEncoding(cookie, name, info))
        rows.emplace_back(name, info);
    ASSERT_EQ(rows.size(), 95u);

    // The tools dominate the time: several rows at once.
    constexpr size_t kWorkers = 4;
    std::vector<std::string> backEnds(rows.size());
    std::vector<std::thread> workers;
    for (size_t w = 0; w < kWorkers; ++w)
        workers.emplace_back([&, w] {
            for (size_t i = w; i < rows.size(); i += kWorkers)
                backEnds[i] = CheckRow(rows[i].first, rows[i].second, repertoire);
        });
    for (std::thread& worker : workers)
        worker.join();

    std::map<std::string, std::vector<std::string>> byBackEnd;
    for (size_t i = 0; i < rows.size(); ++i)
        byBackEnd[backEnds[i]].push_back(S(rows[i].first));
    for (const auto& [backEnd, names] : byBackEnd) {
        std::cout << backEnd << " (" << names.size() << "):";
        for (const std::string& n : names)
            std::cout << ' ' << n;
        std::cout << '\n';
    }
}

TEST(EncodingShortcuts, AgreeWithTheLibraryOnRandomInput)
{
    struct Row {
        const char* encoding;
        const char* shortcut;
    } rows[] = {
        {"UTF-8", "utf-8"},       {"UTF-16LE", "utf-16"},  {"UTF-16BE", "utf-16"}, {"UCS-2LE", "ucs-2"},
        {"UCS-2BE", "ucs-2"},     {"UTF-32BE", "utf-32"},  {"CP1252", "table"},    {"ISO-8859-1", "table"},
        {"KOI8-R", "table"},      {"CP437", "table"},      {"ISO-8859-7", "table"}, {"TCVN", ""},
        {"ISO-2022-JP", ""},      {"GBK", "double-byte"},  {"BIG5", "double-byte"}, {"SHIFT_JIS", "double-byte"},
        {"EUC-KR", "double-byte"}, {"EUC-JP", "double-byte"}, {"GB18030", "double-byte"},
        {"BIG5-HKSCS", "double-byte"},
    };
    std::mt19937 random(20261123);
    auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    // Characters worth trying: mostly ones that have an image somewhere,
    // with a share of values that are no character at all.
    auto character = [&]() -> wchar_t {
        switch (below(10)) {
        case 0: return static_cast<wchar_t>(below(0x80));
        case 1: return static_cast<wchar_t>(0x80 + below(0x300));
        case 2: return static_cast<wchar_t>(0x370 + below(0x100));
        case 3: return static_cast<wchar_t>(0x2000 + below(0x200));
        case 4: return static_cast<wchar_t>(0x4E00 + below(0x5000));
        case 5: return static_cast<wchar_t>(0xD700 + below(0x1000));  // around the surrogates
        case 6: return static_cast<wchar_t>(0xFFF0 + below(0x20));
        case 7: return static_cast<wchar_t>(0x3000 + below(0x100));  // CJK punctuation and kana
        case 8: return static_cast<wchar_t>(0xAC00 + below(0x2C00));
        default: {
            const wchar_t odd[] = {0x10000, 0x1F600, 0x10FFFF, 0x110000, -1, -23, 0x7FFFFFFF, 0xFEFF};
            return odd[below(8)];
        }
        }
    };
    constexpr int kRounds = 60000;
    for (const Row& row : rows) {
        CTextLibIConv conv{stringEx(row.encoding)};
        // Tables built on first need are built by a large text.
        stringEx warm;
        conv.WCtoMB(warm, wstringEx(size_t(1) << 21, L'a'));
        ASSERT_EQ(S(conv.Shortcut()), row.shortcut) << row.encoding;
        // Characters the encoding holds, so that most texts are ones a
        // shortcut converts itself rather than hands back.
        std::vector<wchar_t> held;
        while (held.size() < 4000) {
            const wchar_t c = character();
            stringEx bytes;
            wstringEx back;
            conv.LibWCtoMB(bytes, wstringEx(1, c));
            conv.LibMBtoWC(back, bytes);
            if (back.size() == 1 && back[0] == c)
                held.push_back(c);
        }
        for (int round = 0; round < kRounds; ++round) {
            std::wstring text;
            // Mostly short texts, some long enough for the block-wise paths;
            // one in four may hold anything at all.
            const uint32_t length = below(4) == 0 ? below(48) : below(12);
            const bool anything = below(4) == 0;
            for (uint32_t i = 0; i < length; ++i)
                text += anything ? character() : held[below(static_cast<uint32_t>(held.size()))];
            const wstringEx wide(text.data(), text.size());
            stringEx fast, slow;
            conv.WCtoMB(fast, wide);
            conv.LibWCtoMB(slow, wide);
            ASSERT_EQ(S(fast), S(slow)) << row.encoding << " encoding round " << round;

            // Valid bytes, then the same with damage: a flipped, dropped,
            // inserted or cut byte.
            std::string bytes = S(slow);
            for (int damage = 0; damage < 2; ++damage) {
                wstringEx fastWide, slowWide;
                conv.MBtoWC(fastWide, stringEx(bytes.data(), bytes.size()));
                conv.LibMBtoWC(slowWide, stringEx(bytes.data(), bytes.size()));
                ASSERT_EQ(W(fastWide), W(slowWide)) << row.encoding << " decoding round " << round << " damage "
                                                    << damage;
                const size_t at = bytes.empty() ? 0 : below(static_cast<uint32_t>(bytes.size()));
                switch (below(4)) {
                case 0:
                    if (!bytes.empty())
                        bytes[at] = static_cast<char>(bytes[at] ^ (1u << below(8)));
                    break;
                case 1:
                    if (!bytes.empty())
                        bytes.erase(at, 1);
                    break;
                case 2: bytes.insert(at, 1, static_cast<char>(below(256))); break;
                default: bytes.resize(at); break;
                }
            }
        }
    }
}

// Well-formedness by the definition, one character at a time: the yardstick
// for the block-wise check.
bool WellFormedByDefinition(const std::string& bytes)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t n = bytes.size();
    for (size_t i = 0; i < n;) {
        const unsigned c = p[i];
        size_t length;
        unsigned low = 0x80, high = 0xBF;  // the allowed range of the second byte
        if (c < 0x80)
            length = 1;
        else if (c >= 0xC2 && c <= 0xDF)
            length = 2;
        else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            low = c == 0xE0 ? 0xA0 : 0x80;
            high = c == 0xED ? 0x9F : 0xBF;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            low = c == 0xF0 ? 0x90 : 0x80;
            high = c == 0xF4 ? 0x8F : 0xBF;
        } else
            return false;
        if (i + length > n)
            return false;
        for (size_t k = 1; k < length; ++k) {
            const unsigned b = p[i + k];
            if (k == 1 ? (b < low || b > high) : (b & 0xC0) != 0x80)
                return false;
        }
        i += length;
    }
    return true;
}

TEST(Utf8WellFormed, AgreesWithTheDefinition)
{
    struct Row {
        const char* why;
        std::string bytes;
        bool expected;
    } rows[] = {
        {"empty", "", true},
        {"ASCII across blocks", std::string(40, 'a'), true},
        {"every length", "a\xC3\xA9\xE4\xBD\xA0\xF0\x9F\x98\x80", true},
        {"last of each length", "\x7F\xDF\xBF\xEF\xBF\xBF\xF4\x8F\xBF\xBF", true},
        {"overlong two bytes", "\xC1\xBF", false},
        {"overlong three bytes", "\xE0\x9F\xBF", false},
        {"overlong four bytes", "\xF0\x8F\xBF\xBF", false},
        {"surrogate", "\xED\xA0\x80", false},
        {"above the last plane", "\xF4\x90\x80\x80", false},
        {"no such lead", "\xF5\x80\x80\x80", false},
        {"lone continuation", "a\x80", false},
        {"lead cut by the end", "abc\xE4\xBD", false},
        {"lead cut by the end of a whole block", std::string(15, 'a') + "\xC3", false},
        {"sequence across a block edge", std::string(15, 'a') + "\xE4\xBD\xA0", true},
        {"lead then ASCII", "\xC3" "a", false},
        {"NUL is a character", std::string("a\0b", 3), true},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(WellFormedByDefinition(row.bytes), row.expected) << row.why << " (the yardstick)";
        EXPECT_EQ(IsWellFormedUtf8(row.bytes.data(), row.bytes.size()), row.expected) << row.why;
    }

    // Random texts of well-formed pieces with a share of damage, at every
    // offset from the block edges.
    const std::string pieces[] = {"a", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                                  "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "\xE4\xBD\xA0"};
    std::mt19937 random(1123);
    for (int round = 0; round < 200000; ++round) {
        std::string bytes;
        const size_t count = random() % 24;
        for (size_t k = 0; k < count; ++k)
            bytes += pieces[random() % std::size(pieces)];
        if (!bytes.empty() && random() % 2) {
            const size_t at = random() % bytes.size();
            bytes[at] = static_cast<char>(random() % 4 == 0 ? random() % 256 : bytes[at] ^ (1u << (random() % 8)));
        }
        ASSERT_EQ(IsWellFormedUtf8(bytes.data(), bytes.size()), WellFormedByDefinition(bytes))
            << "round " << round;
    }
}
