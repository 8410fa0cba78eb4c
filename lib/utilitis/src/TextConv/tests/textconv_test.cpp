// The encoding table and its look-ups, the compatibility check, the system's
// encoding, the factory's choice of back end and the behaviour of each back
// end on good and bad input.
#include <karu/TextConv/TextConv.h>
#include <karu/TextConv/backends.h>

#include <gtest/gtest.h>

#include <iconv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TextConv/textconv_impl.h"
#include "file/tests/deadline.h"
#include "file/tests/text_helpers.h"

using namespace Karu;
using namespace KaruTest;

TEST(EncodingTable, RowsAreInLookupOrderAndEveryRowIsFound)
{
    EnumCookie cookie;
    stringEx name, previous;
    EncInfo info;
    uint64_t rows = 0;
    while (TTextConv::EnumEncoding(cookie, name, info)) {
        if (rows > 0) {
            EXPECT_TRUE(EncNameLess()(previous, name)) << S(previous) << " before " << S(name);
        }
        stringEx lower = name;
        lower.MakeLower();
        stringEx found = lower;
        EXPECT_EQ(TTextConv::GetEncInfo(found).description, info.description) << S(name);
        EXPECT_EQ(TTextConv::EncToCP(lower), info.codepage) << S(name);
        previous = name;
        ++rows;
    }
    EXPECT_EQ(rows, 95u);
    EXPECT_EQ(TTextConv::EncodingCount(), 95u);
    EXPECT_FALSE(cookie);
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(info.codepage, 0u);
    // A finished enumeration starts again from the top.
    ASSERT_TRUE(TTextConv::EnumEncoding(cookie, name, info));
    EXPECT_EQ(S(name), "ANSI-Arabic");
    EXPECT_TRUE(info.flag);
}

TEST(EncodingTable, LookUps)
{
    // name -> code page (or failure), the reasons: CP names bypass the table,
    // case is ignored, shared numbers resolve to the first name in order.
    struct Row {
        const char* name;
        int64_t codepage;  // -1: tconvExp
    } rows[] = {
        {"cp936", 936},  {"CP1252", 1252},   {"cpx", 0},         {"Cp12a", 12},   {"utf-8", 65001},
        {"uTf-8", 65001}, {"ascii", 437},    {"ansi_X3.4-1968", 20127},          {"ISO-8859-14", 28591},
        {"UTF8", -1},     {"", -1},          {"C ", -1},         {"OEM-MultlingualLatinI+EuroSymbol", 858},
    };
    for (const Row& row : rows) {
        if (row.codepage < 0) {
            EXPECT_EQ(MessageOf([&] { TTextConv::EncToCP(stringEx(row.name)); }),
                      std::string("TTextConv::EncToCP - can't convert the encoding to codepage\n"
                                  "  corresponding mapping doesn't exist\n"
                                  "  encoding name = ") +
                          row.name + "\n")
                << row.name;
        } else {
            EXPECT_EQ(TTextConv::EncToCP(stringEx(row.name)), uint32_t(row.codepage)) << row.name;
        }
    }

    struct Back {
        uint32_t codepage;
        const char* name;
    } backs[] = {{1252, "ANSI-LatinI"}, {437, "ASCII"},  {950, "BIG5"},     {1200, "UCS-2"},
                 {874, "ANSI-Thai"},    {12345, "CP12345"}, {0, "CP0"}, {20127, "ANSI_x3.4-1968"}};
    for (const Back& back : backs)
        EXPECT_EQ(S(TTextConv::CPToEnc(back.codepage)), back.name) << back.codepage;

    stringEx name("cp1201");
    EncInfo info = TTextConv::GetEncInfo(name);
    EXPECT_EQ(S(name), "UCS-2BE");
    EXPECT_EQ(S(info.description), "Unicode - UCS-2 Big-Endian");
    name = "MACHEBREW";
    EXPECT_TRUE(TTextConv::GetEncInfo(name).flag);
    name = "nope";
    EXPECT_EQ(MessageOf([&] { TTextConv::GetEncInfo(name); }),
              "TTextConv::GetEncInfo - can't retrieve the encoding's infomation\n"
              "  encoding doesn't exist\n"
              "  encoding name = nope\n");
    name = "cp99999";
    EXPECT_EQ(MessageOf([&] { TTextConv::GetEncInfo(name); }),
              "TTextConv::GetEncInfo - can't retrieve the encoding's infomation\n"
              "  encoding doesn't exist\n"
              "  encoding name = CP99999\n");
}

TEST(EncodingCompat, PairsAndTheirGroups)
{
    struct Row {
        const char* from;
        const char* to;
        const char* group;  // null: refused
    } rows[] = {
        // Unicode targets take anything, even names nobody knows.
        {"GBK", "UTF-8", "Unicode Charset"},
        {"no-such", "utf-16be", "Unicode Charset"},
        {"BIG5", "GB18030", "Unicode Charset"},
        // ASCII sources go anywhere, even to unknown targets.
        {"ASCII", "SHIFT_JIS", "Standard English"},
        {"ansi_x3.4-1968", "whatever", "Standard English"},
        // Mutual groups, and names outside every group.
        {"ISO-8859-1", "ISO-8859-15", "West European"},
        {"ISO-8859-9", "ANSI-Turkish", "South European"},
        {"ISO-8859-9", "MacRoman", "West European"},
        {"ISO-8859-1", "ISO-8859-2", nullptr},
        {"ANSI-Cyrillic", "KOI8-R", nullptr},
        {"ISO-8859-11", "ISO-8859-11", nullptr},
        {"no-such", "no-such", nullptr},
        {"UTF-8", "GBK", nullptr},
        // One-way groups.
        {"EUC-JP", "GBK", "GB Special"},
        {"GBK", "EUC-JP", nullptr},
        {"BIG5", "GBK", "CJK Charset"},
        {"GBK", "BIG5", nullptr},
        // CP names stand for the first name of their number.
        {"cp936", "CP54936", "Unicode Charset"},
        {"CP28591", "cp1252", "West European"},
        {"cp1251", "koi8-r", nullptr},
    };
    for (const Row& row : rows) {
        stringEx group("untouched");
        const bool ok = TTextConv::IsCompatible(stringEx(row.from), stringEx(row.to), &group);
        EXPECT_EQ(ok, row.group != nullptr) << row.from << " -> " << row.to;
        EXPECT_EQ(S(group), row.group ? row.group : "untouched") << row.from << " -> " << row.to;
        EXPECT_EQ(TTextConv::IsCompatible(stringEx(row.from), stringEx(row.to), nullptr), ok);
    }
    EXPECT_TRUE(TTextConv::IsCompatible(936u, 65001u, nullptr));
    EXPECT_FALSE(TTextConv::IsCompatible(65001u, 936u, nullptr));

    EnumCookie cookie;
    CompatGroup group;
    std::vector<std::string> names;
    while (TTextConv::EnumCompatible(cookie, group))
        names.push_back(S(group.name));
    ASSERT_EQ(names.size(), 18u);
    EXPECT_EQ(names.front(), "Unicode Charset");
    EXPECT_EQ(names.back(), "CJK Charset");
    EXPECT_TRUE(group.from.empty() && group.to.empty() && group.name.empty());

    EXPECT_EQ(S(IncompatibleConversionMessage(stringEx("UTF-8"), stringEx("GBK"))),
              "\n## Incompatible text encoding convertion detected: encoding from \"UTF-8\" to \"GBK\" will lost "
              "infomation and should not be used. use: \"tolmek -listcmp\" for a list of the compatible convertion "
              "combinations. or use \"-force\" to enforce the convertion.\n");
}

TEST(SysEncoding, ReadOnceFromTheEnvironment)
{
    // Each row runs in a fresh process: the values are cached for life, and
    // other tests of this program may have read them already.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Row {
        const char* lang;
        const char* ctype;
        const char* all;
        const char* encoding;
        const char* locale;
    } rows[] = {
        {"C.UTF-8", nullptr, nullptr, "UTF-8", "C"},
        {"C", nullptr, nullptr, "ANSI_X3.4-1968", "C"},
        {"C", nullptr, "C.UTF-8", "UTF-8", "C"},
        {" en_GB.UTF-8@euro ", nullptr, nullptr, "ANSI_X3.4-1968", "en_GB"},
        {"", "de_DE.ISO-8859-1", nullptr, "ANSI_X3.4-1968", "de_DE"},
        {"  ", nullptr, "C.UTF-8", "UTF-8", "C"},
        {nullptr, nullptr, nullptr, "ANSI_X3.4-1968", "en_US"},
    };
    for (const Row& row : rows) {
        EXPECT_EXIT(
            {
                auto set = [](const char* var, const char* value) {
                    value ? setenv(var, value, 1) : unsetenv(var);
                };
                set("LANG", row.lang);
                set("LC_CTYPE", row.ctype);
                set("LC_ALL", row.all);
                const bool ok = S(TTextConv::GetSysEncoding()) == row.encoding &&
                                S(TTextConv::GetSysLocale()) == row.locale &&
                                TTextConv::IsSysUtf8() == (std::string(row.encoding) == "UTF-8");
                // Later changes of the environment are not seen.
                setenv("LC_ALL", "C.UTF-8", 1);
                setenv("LANG", "xx_YY", 1);
                const bool cached = S(TTextConv::GetSysEncoding()) == row.encoding &&
                                    S(TTextConv::GetSysLocale()) == row.locale;
                std::exit(ok && cached ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "")
            << (row.lang ? row.lang : "(unset)") << " / " << (row.all ? row.all : "(unset)");
    }
}

TEST(TextConvPlain, BytesWidenWithSignAndNarrowToLowBits)
{
    TTextConv plain;
    const wstringEx wide = plain.MBtoWC(B(std::string("a\xE9\0z", 4)));
    ASSERT_EQ(wide.size(), 4u);
    EXPECT_EQ(static_cast<uint32_t>(wide[1]), 0xFFFFFFE9u);
    EXPECT_EQ(wide[2], L'\0');
    EXPECT_EQ(S(plain.WCtoMB(wide)), std::string("a\xE9\0z", 4));
    EXPECT_EQ(S(plain.WCtoMB(WS(L"\x20AC" L"A"))), "\xAC" "A");
    EXPECT_EQ(S(plain.NewConv(stringEx("GBK"))->BackEnd()), "bytes");
}

TEST(TextConvLocale, StopsAtNulAndMarksBadBytes)
{
    // Under the C locale only ASCII is valid.
    std::unique_ptr<TTextConv> conv = IMPL::NewLocaleConv();
    struct Row {
        std::string in;
        std::wstring out;
    } rows[] = {
        {"abc", L"abc"},
        {std::string("ab\0cd", 5), std::wstring(L"ab\0", 3)},
        {"a\xE9z", L"a?z"},
        {"\xFF\xFE", L"??"},
        {"", L""},
    };
    for (const Row& row : rows)
        EXPECT_EQ(W(conv->MBtoWC(B(row.in))), row.out) << row.in;
    EXPECT_EQ(S(conv->WCtoMB(WS(L"a\x20AC" L"b"))), "a?b");
    // Not overridden: copies of it are plain byte converters.
    EXPECT_EQ(S(conv->Clone()->BackEnd()), "bytes");
}

TEST(TextConvFactory, ChoosesTheBackEnd)
{
    struct Row {
        uint32_t codepage;
        const char* name;
        const char* backEnd;
        const char* encoding;
    } rows[] = {
        {0, "GBK", "iconv", "GBK"},
        {0, "ANSI-LatinI", "iconv", "CP1252"},   // the table's code page stands in
        {0, "oem-russian", "iconv", "CP866"},
        {1252, "", "iconv", "CP1252"},
        {936, "no-such-name", "iconv", "CP936"},  // the name is refused, the number is not
        {0, "SCSU", "icu", "SCSU"},              // only the second library knows it
        {0, "MacRoman", "icu", "MacRoman"},
        {0, "ISO-646", "icu", "windows-20127"},
        {0, "no-such-name", "bytes", ""},
        {0, "", "bytes", ""},
        {0, "MacUkraine", "bytes", ""},          // in the table, but nobody converts it
    };
    for (const Row& row : rows) {
        TextConvPtr conv = TTextConv::CreateConv(row.codepage, stringEx(row.name));
        ASSERT_TRUE(conv) << row.name;
        EXPECT_EQ(S(conv->BackEnd()), row.backEnd) << row.name;
        EXPECT_EQ(S(conv->Encoding()), row.encoding) << row.name;
        EXPECT_EQ(S(conv->Clone()->BackEnd()), row.backEnd) << row.name;
    }
    // UTF-8 and the system's encoding come from the shared masters, as clones.
    TextConvPtr a = TTextConv::CreateConv(65001, stringEx()), b = TTextConv::CreateConv(0, stringEx("utf-8"));
    EXPECT_NE(a.get(), b.get());
    EXPECT_EQ(S(a->BackEnd()), "iconv");
}

TEST(TextConvIConv, ConvertsAndMarksWhatItCannot)
{
    struct Row {
        const char* encoding;
        std::string bytes;
        std::wstring wide;
        std::string back;  // WCtoMB of `wide`
    } rows[] = {
        {"UTF-8", "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80", L"h\xE9llo \x20AC \x1F600",
         "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"GBK", "\xC4\xE3\xBA\xC3", L"\x4F60\x597D", "\xC4\xE3\xBA\xC3"},
        {"ANSI-LatinI", "\x80\xE9", L"\x20AC\xE9", "\x80\xE9"},
        // A lone bad byte yields one "?"; the library drops bad bytes inside
        // a round that produced something.
        {"UTF-8", "\xFF", L"?", "?"},
        {"UTF-8", "a\xFF" "b", L"ab", "ab"},
        // A truncated tail: a "?" and a step of one byte each.
        {"UTF-8", "\xE2\x82", L"??", "??"},
        // Shift states are reset first and closed at the end.
        {"ISO-2022-JP", "\x1B$B$\"\x1B(B", L"\x3042", "\x1B$B$\"\x1B(B"},
        {"UTF-7", "+AOk-", L"\xE9", "+AOk-"},
    };
    for (const Row& row : rows) {
        CTextLibIConv conv{stringEx(row.encoding)};
        EXPECT_EQ(W(conv.MBtoWC(B(row.bytes))), row.wide) << row.encoding << " " << row.bytes;
        EXPECT_EQ(S(conv.WCtoMB(WS(row.wide))), row.back) << row.encoding << " " << row.bytes;
        wstringEx wide(L"stale");
        conv.MBtoWC(wide, stringEx());
        EXPECT_TRUE(wide.empty());
    }
    // A character the target cannot hold disappears (the library ignores
    // it), and a round that made nothing at all is marked: the encoders that
    // keep a shift state go by pieces, which are marked the same way.
    struct Lost {
        const char* encoding;
        std::wstring wide;
        std::string bytes;
    } lost[] = {
        {"ISO-8859-1", L"a\x4F60" L"b", "ab"},
        {"ISO-8859-1", L"\x4F60", "?"},
        {"ISO-2022-JP", L"\x0E01\x0E02", "?"},
        {"ISO-2022-CN", L"\x0E01", "?"},
        {"ISO-2022-JP-2", L"\x0E01\x0E02\x0E03", "?"},
        // This one announces itself before any character, so the piece made
        // something and carries no mark.
        {"ISO-2022-KR", L"\x0E01", "\x1B$)C"},
    };
    for (const Lost& row : lost)
        EXPECT_EQ(S(CTextLibIConv(stringEx(row.encoding)).WCtoMB(WS(row.wide))), row.bytes) << row.encoding;
    // A decoder that claims more input than it was given (a lone shift-out
    // byte) ends the text as bad input, keeping nothing it made from
    // memory beyond the text.
    // Such a decoder reads on past the end of the text: placed at the very
    // end of readable memory, the text must still come back without a fault.
    const long page = sysconf(_SC_PAGESIZE);
    char* const area = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    ASSERT_EQ(mprotect(area + page, page, PROT_NONE), 0);
    CTextLibIConv cnExt{stringEx("ISO-2022-CN-EXT")};
    for (const char* text : {"a\x0E", "\x0E", "ab\x0E\x0E"}) {
        const size_t length = std::strlen(text);
        std::memcpy(area + page - length, text, length);
        const std::wstring got = W(cnExt.MBtoWC(stringEx::View(area + page - length, length)));
        EXPECT_LE(got.size(), length) << text;
        EXPECT_EQ(got.find_first_not_of(L"ab?"), std::wstring::npos) << text;
    }
    // Every byte alone, in turn on one converter, as its shortcut probes them.
    for (int b = 0; b < 256; ++b) {
        area[page - 1] = static_cast<char>(b);
        cnExt.MBtoWC(stringEx::View(area + page - 1, 1));
    }
    munmap(area, 2 * page);
}

template <class F>
int CodeOf(F f)
{
    try {
        f();
    } catch (const karuExp& e) {
        return e.code;
    }
    return -1;
}

TEST(TextConvIConv, RefusalsAndTheirMessages)
{
    EXPECT_EQ(MessageOf([] { CTextLibIConv conv{stringEx("MacUkraine")}; }),
              "CTextLibIConv::CTextLibIConv - failed init encoding convertion\n"
              "  encoding name = MacUkraine (CP10017)\n");
    EXPECT_EQ(MessageOf([] { CTextLibIConv conv{10017u}; }),
              "CTextLibIConv::CTextLibIConv - failed init encoding convertion\n"
              "  code page     = 10017\n"
              "  encoding name = MacUkraine\n");
    // The codes of the branch: what failed, whichever back end raised it.
    struct Code {
        const char* why;
        std::function<void()> op;
        int code;
    } codes[] = {
        {"unknown encoding", [] { TTextConv::EncToCP(stringEx("no-such-name")); }, 1},
        {"no information", [] { stringEx name("no-such-name"); TTextConv::GetEncInfo(name); }, 2},
        {"iconv refuses", [] { CTextLibIConv conv{stringEx("MacUkraine")}; }, 3},
        {"iconv refuses a code page", [] { CTextLibIConv conv{10017u}; }, 3},
        {"ICU refuses", [] { CTextLibIcu conv{stringEx("MacUkraine")}; }, 3},
        {"ICU refuses a code page", [] { CTextLibIcu conv{10017u}; }, 3},
    };
    for (const Code& row : codes)
        EXPECT_EQ(CodeOf(row.op), row.code) << row.why;
    // A name outside the table has no code page to fall back on.
    try {
        CTextLibIConv conv{stringEx("no-such-name")};
        ADD_FAILURE();
    } catch (const libiconvExp&) {
        ADD_FAILURE() << "the table look-up should have failed first";
    } catch (const tconvExp& e) {
        EXPECT_NE(S(e.message).find("EncToCP"), std::string::npos);
    }
}

TEST(TextConvIConv, LoadsFromTheProgramAndUnloadsWithTheLastUser)
{
    // There is no separate iconv library here: the search ends in the
    // program itself, whose C library serves.
    const bool before = CTextLibIConv::IsLoaded();
    CTextLibIConv::SetLibraryPath(stringEx("/nonexistent/libiconv.so"));
    {
        CTextLibIConv conv{stringEx("UTF-8")};
        EXPECT_TRUE(CTextLibIConv::IsLoaded());
        std::unique_ptr<TTextConv> second = conv.NewConv(stringEx("KOI8-R"));
        EXPECT_EQ(W(second->MBtoWC(B("\xF0\xD2\xC9"))), L"\x041F\x0440\x0438");
    }
    EXPECT_EQ(CTextLibIConv::IsLoaded(), before);
    CTextLibIConv::SetLibraryPath(stringEx());
}

TEST(TextConvIcu, LoadsTheInstalledVersionAndConverts)
{
    CTextLibIcu scsu{stringEx("SCSU")};
    EXPECT_FALSE(CTextLibIcu::GetVersion().empty());
    const wstringEx text = WS(L"Stra\xDF" L"e \x4F60\x597D \x1F600");
    const stringEx bytes = scsu.WCtoMB(text);
    EXPECT_EQ(W(scsu.MBtoWC(bytes)), W(text));

    CTextLibIcu latin{stringEx("ANSI-LatinI")};
    EXPECT_EQ(S(latin.Encoding()), "windows-1252");
    EXPECT_EQ(W(latin.MBtoWC(B("\x80"))), L"\x20AC");
    // A truncated tail does not raise: the library substitutes.
    CTextLibIcu utf8{stringEx("UTF-8")};
    EXPECT_EQ(W(utf8.MBtoWC(B("a\xE2\x82"))).substr(0, 1), L"a");

    EXPECT_EQ(MessageOf([] { CTextLibIcu conv{stringEx("MacUkraine")}; }).rfind(
                  "CTextLibIcu::CTextLibIcu - failed init encoding convertion\n"
                  "  encoding name = MacUkraine (windows-10017)\n"
                  "  error number  = ",
                  0),
              0u);
}

TEST(TextConvIcu, AnotherVersionIsNotFound)
{
    EXPECT_EXIT(
        {
            CTextLibIcu::SetVersion(stringEx("1"));
            try {
                CTextLibIcu conv{stringEx("SCSU")};
            } catch (const libicuExp& e) {
                std::exit(S(e.message).rfind("CTextLibIcu::__AddRef - failed load dynamic library\n@ ", 0) == 0 ? 0
                                                                                                                 : 2);
            }
            std::exit(1);
        },
        ::testing::ExitedWithCode(0), "");
}

// Every call starts from the initial state: whatever a converter read or
// wrote before, a call gives what a fresh converter gives. The inputs lean
// on what could carry over from one call to the next: byte-order marks of
// every width, shift and escape bytes, a lead byte cut off at the end, and
// characters of several scripts and planes. Every row of the table, and the
// names whose decoders read a byte-order mark, which the table leaves out.
TEST(TextConvReuse, AReusedConverterGivesWhatAFreshOneGives)
{
    std::vector<std::string> names = {"UTF-32", "UCS-4", "UNICODE", "UTF-16", "UTF-7"};
    EnumCookie cookie;
    stringEx name;
    EncInfo info;
    while (TTextConv::EnumEncoding(cookie, name, info))
        names.push_back(S(name));

    // A mark counts only at the start of a text, so half the texts begin
    // with one.
    static const std::string kMarks[] = {std::string("\xFE\xFF", 2), std::string("\xFF\xFE", 2),
                                         std::string("\0\0\xFE\xFF", 4), std::string("\xFF\xFE\0\0", 4),
                                         "\xEF\xBB\xBF", "\x1B$B", "\x1B$)C", "\x0E", "+AOk", "~{"};
    static const std::string kPieces[] = {
        "\x1B(B", "\x0F", "A", std::string("\0A", 2), std::string("A\0", 2), std::string("\0\0\0A", 4),
        std::string("A\0\0\0", 4), "\xC4\xE3", "\xE9", "\x81", "\xA4"};
    static const wchar_t kChars[] = {L'A', L'z', 0xE9, 0x4F60, 0x3042, 0xAC00, 0x0416, 0x05D0, 0xFEFF, 0x1F600, 0x20AC};
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto pick = [&random](size_t n) { return static_cast<size_t>(random() % n); };
    constexpr int kCalls = 24;
    for (const std::string& encoding : names) {
        TextConvPtr reused = TTextConv::CreateConv(0, B(encoding));
        for (int call = 0; call < kCalls; ++call) {
            TextConvPtr fresh = TTextConv::CreateConv(0, B(encoding));
            if (call % 2 == 0) {
                std::string bytes = pick(2) ? kMarks[pick(std::size(kMarks))] : std::string();
                for (size_t n = pick(5); n > 0; --n)
                    bytes += pick(4) ? kPieces[pick(std::size(kPieces))] : std::string(1, char(random()));
                std::string hex;
                for (unsigned char c : bytes)
                    hex += std::to_string(c) + " ";
                EXPECT_EQ(W(reused->MBtoWC(B(bytes))), W(fresh->MBtoWC(B(bytes))))
                    << encoding << ", call " << call << ", bytes " << hex;
            } else {
                std::wstring wide;
                for (size_t n = pick(6); n > 0; --n)
                    wide += kChars[pick(std::size(kChars))];
                EXPECT_EQ(S(reused->WCtoMB(WS(wide))), S(fresh->WCtoMB(WS(wide))))
                    << encoding << ", call " << call;
            }
        }
    }
}

// The same against the C library's decoder opened afresh for each text: a
// converter that kept the byte order of the marks it reads while it is
// being made would agree with a fresh one of its own and still be wrong.
// The units of these texts are characters in either byte order, so the
// order read is the only difference.
TEST(TextConvReuse, AfterAMarkATextWithoutOneReadsAsAFreshSystemDecoder)
{
    auto system = [](const char* encoding, const std::string& bytes) {
        const iconv_t cd = iconv_open("WCHAR_T", encoding);
        if (cd == reinterpret_cast<iconv_t>(-1))
            return std::wstring(L"(no decoder)");
        wchar_t room[16];
        char* in = const_cast<char*>(bytes.data());
        size_t inLeft = bytes.size();
        char* out = reinterpret_cast<char*>(room);
        size_t outLeft = sizeof room;
        const size_t result = iconv(cd, &in, &inLeft, &out, &outLeft);
        iconv_close(cd);
        return result == static_cast<size_t>(-1) ? std::wstring(L"(refused)")
                                                 : std::wstring(room, (sizeof room - outLeft) / sizeof(wchar_t));
    };
    const std::string plain16("\x41\x00\x00\x42", 4), plain32("\x00\x01\x00\x00\x00\x00\x01\x00", 8);
    const std::string marks16[] = {std::string("\xFE\xFF", 2), std::string("\xFF\xFE", 2)};
    const std::string marks32[] = {std::string("\0\0\xFE\xFF", 4), std::string("\xFF\xFE\0\0", 4)};
    struct Row {
        const char* encoding;
        const std::string& plain;
        const std::string* marks;
    } rows[] = {{"UTF-16", plain16, marks16}, {"UNICODE", plain16, marks16}, {"UTF-32", plain32, marks32}};
    for (const Row& r : rows) {
        const std::wstring expected = system(r.encoding, r.plain);
        TextConvPtr reused = TTextConv::CreateConv(0, B(r.encoding));
        EXPECT_EQ(W(reused->MBtoWC(B(r.plain))), expected) << r.encoding << ", before any mark";
        for (int m = 0; m < 2; ++m) {
            reused->MBtoWC(B(r.marks[m] + r.plain));
            EXPECT_EQ(W(reused->MBtoWC(B(r.plain))), expected) << r.encoding << ", after mark " << m;
        }
    }
}

TEST(TextConvConcurrency, EachThreadHasItsOwnConverters)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "threads converting at once");
    constexpr int kThreads = 4;
    // Held, not merely noted: a converter freed when its thread ends could
    // leave its address to the next thread's.
    std::vector<TextConvPtr> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&seen, t] {
            TextConvPtr sys = TTextConv::GetSysConv();
            EXPECT_EQ(sys.get(), TTextConv::GetSysConv().get());
            TextConvPtr utf8 = TTextConv::GetUtf8Conv();
            seen[t] = utf8;
            for (int i = 0; i < 200; ++i) {
                const wstringEx wide = Utf8MBtoWC(B("\xE4\xBD\xA0 " + std::to_string(i)));
                EXPECT_EQ(W(wide), L"\x4F60 " + std::to_wstring(i));
                EXPECT_EQ(S(Utf8WCtoMB(wide)), "\xE4\xBD\xA0 " + std::to_string(i));
                TextConvPtr made = TTextConv::CreateConv(0, stringEx(i % 2 ? "GBK" : "SCSU"));
                EXPECT_EQ(W(made->MBtoWC(made->WCtoMB(wide))), W(wide));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::set<TTextConv*> distinct;
    for (const TextConvPtr& conv : seen)
        distinct.insert(conv.get());
    EXPECT_EQ(distinct.size(), size_t(kThreads));
}
