// Text operations in both widths: comparison, trimming, searching, cutting,
// the substitution passes, and the Unicode case table.
#include <karu/string/envMatch.h>
#include <karu/string/stringEx.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cwctype>
#include <map>
#include <random>
#include <string>

using namespace Karu;

namespace {

TEST(Text, ComparisonsFoldEachUnit)
{
    struct Row {
        const wchar_t *a, *b;
        int noCase;
        bool equalNoCase;
    } rows[] = {
        {L"UTF-8", L"utf-8", 0, true},
        {L"UTF8", L"utf-8", 1, false},   // '8' > '-'
        {L"ab", L"ABC", -1, false},      // equal folded prefix: shorter is less
        {L"", L"", 0, true},
        {L"\u00C4rger", L"\u00E4RGER", 0, true},  // Latin-1 letters fold
        {L"\u03A3\u039F\u03A6", L"\u03C3\u03BF\u03C6", 0, true},
        {L"\u0130", L"i", 0, true},  // dotted capital I folds to plain i, one unit
        {L"\u00B5", L"\u03BC", -1, false},  // micro sign is its own lower form
    };
    for (const Row& r : rows) {
        const wstringEx a(r.a), b(r.b);
        EXPECT_EQ(CompareNoCase(a, b), r.noCase) << r.a << " vs " << r.b;
        EXPECT_EQ(a.EqualsNoCase(b), r.equalNoCase) << r.a << " vs " << r.b;
        // The narrow twin agrees on the ASCII rows.
        if (wcsspn(r.a, L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-0123456789") == wcslen(r.a) &&
            wcsspn(r.b, L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-0123456789") == wcslen(r.b)) {
            std::string na(r.a, r.a + wcslen(r.a)), nb(r.b, r.b + wcslen(r.b));
            EXPECT_EQ(CompareNoCase(stringEx(na.c_str()), stringEx(nb.c_str())), r.noCase) << na;
        }
    }
    EXPECT_EQ(stringEx("abc").Compare("abd"), -1);
    EXPECT_TRUE(stringEx("prefix-rest").StartsWith("prefix"));
    EXPECT_TRUE(stringEx("x").StartsWith(""));
    EXPECT_FALSE(stringEx("ab").StartsWith("abc"));
}

TEST(Text, TrimsRemoveOnlyTheirBlanks)
{
    struct NarrowRow {
        const char* in;
        const char* right;
        const char* left;
    } narrow[] = {
        {"  a b \t\r\n", "  a b", "a b \t\r\n"},
        {"x\f", "x\f", "x\f"},  // form feed is no blank here
        {"\v\v", "", ""},
        {"", "", ""},
    };
    for (const NarrowRow& r : narrow) {
        stringEx s(r.in), t(r.in);
        EXPECT_EQ(s.TrimRight(), stringEx(r.right)) << r.in;
        EXPECT_EQ(t.TrimLeft(), stringEx(r.left)) << r.in;
    }
    struct WideRow {
        const wchar_t* in;
        const wchar_t* both;
    } wide[] = {
        {L"\u00A0\u3000x\u2028", L"x"},
        {L"\u0903ab\u0903", L"ab"},        // a spacing mark counts as blank
        {L"\uFEFFab", L"\uFEFFab"},        // the signature does not
        {L" \t\u0085\u2029 ", L""},        // only blanks: empty
    };
    for (const WideRow& r : wide) {
        wstringEx s(r.in);
        EXPECT_EQ(s.Trim(), wstringEx(r.both)) << r.in;
    }
    // Nothing to trim: no detach.
    stringEx owned;
    owned.assign("abc", 3);
    stringEx sharer = owned;
    sharer.Trim();
    EXPECT_TRUE(sharer.SharesWith(owned));
}

TEST(Text, FindAgreesWithTheStandardLibrary)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round) {
        std::string hay(rng() % 40, 'a'), needle(rng() % 4, 'a');
        for (char& c : hay)
            c = "ab\0"[rng() % 3];
        for (char& c : needle)
            c = "ab\0"[rng() % 3];
        const uint64_t start = rng() % 42;
        const stringEx h(hay.data(), hay.size()), n(needle.data(), needle.size());
        const size_t expect = start <= hay.size() || needle.empty() ? hay.find(needle, start) : std::string::npos;
        const uint64_t got = h.Find(n, start);
        ASSERT_EQ(got, expect == std::string::npos ? stringEx::npos : expect)
            << "hay=" << hay << " needle=" << needle << " start=" << start;
    }
    struct Row {
        const wchar_t *hay, *needle;
        uint64_t start, exact, noCase;
    } rows[] = {
        {L"Hello HELLO hello", L"hello", 0, 12, 0},
        {L"Hello HELLO hello", L"hello", 1, 12, 6},
        {L"\u0391\u03B2\u0393", L"\u03B1\u0392\u03B3", 0, stringEx::npos, 0},
        {L"abc", L"abcd", 0, stringEx::npos, stringEx::npos},
        {L"abc", L"c", 3, stringEx::npos, stringEx::npos},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(wstringEx(r.hay).Find(r.needle, r.start), r.exact) << r.hay << " / " << r.needle;
        EXPECT_EQ(wstringEx(r.hay).FindNoCase(r.needle, r.start), r.noCase) << r.hay << " / " << r.needle;
    }
}

TEST(Text, SplitAndFieldsCutFromTheLeft)
{
    struct SplitRow {
        const char *text, *sep;
        PiecePositions expect;
    } splits[] = {
        {"", "\n", {{0, 0}}},
        {"a\nbb\n", "\n", {{0, 1}, {2, 2}, {5, 0}}},
        {"one", "\n", {{0, 3}}},
        {"a->b->", "->", {{0, 1}, {3, 1}, {6, 0}}},
        // An empty separator cuts nothing: the whole text is one field.
        {"abc", "", {{0, 3}}},
        {"", "", {{0, 0}}},
    };
    for (const SplitRow& r : splits) {
        PiecePositions got;
        EXPECT_EQ(SplitPositions(stringEx(r.text), stringEx(r.sep), got), r.expect.size() > 1) << r.text;
        EXPECT_EQ(got, r.expect) << r.text;
    }
    struct FieldRow {
        const wchar_t *line, *delim;
        const wchar_t *f0, *f1;
    } fields[] = {
        {L"a->b->c", L"->", L"a", L"b"},
        {L"no delimiter", L"->", L"no delimiter", L""},
        {L"a->", L"->", L"a", L""},
        {L"->b", L"->", L"", L"b"},
        {L"a -> b", L"->", L"a ", L" b"},
        // An empty delimiter is found at the start over and over: every
        // field is empty, so a pairs file with it replaces nothing.
        {L"anything", L"", L"", L""},
    };
    for (const FieldRow& r : fields) {
        EXPECT_EQ(FieldAt(wstringEx(r.line), wstringEx(r.delim), 0), wstringEx(r.f0)) << r.line;
        EXPECT_EQ(FieldAt(wstringEx(r.line), wstringEx(r.delim), 1), wstringEx(r.f1)) << r.line;
    }
    EXPECT_EQ(FieldAt(stringEx("anything"), stringEx(""), ~uint64_t(0)), stringEx(""));
}

const EscapeRow<wchar_t> kLineEscapes[] = {{L"\r", L"r"}, {L"\n", L"n"}, {L"[[:digit:]]", L"d"}, {L"", L""}};

TEST(Text, ExpandEscapesFollowsTableOrderAndFlags)
{
    struct Row {
        const wchar_t* in;
        bool dropUnknown, keepDoubled;
        const wchar_t* out;
    } rows[] = {
        {L"a\\nb", false, false, L"a\nb"},
        {L"\\\\n", false, false, L"\\n"},     // a doubled escape protects the key
        {L"\\\\n", false, true, L"\\\\n"},
        {L"\\q\\", false, false, L"\\q\\"},   // unknown and trailing escapes stay
        {L"\\q\\", true, false, L"q"},
        {L"\\d+", false, true, L"[[:digit:]]+"},
        {L"\\n\\r", false, false, L"\n\r"},   // a replacement is never rescanned
    };
    for (const Row& r : rows) {
        wstringEx s(r.in);
        EXPECT_EQ(ExpandEscapes(s, L'\\', kLineEscapes, r.dropUnknown, r.keepDoubled), wstringEx(r.out)) << r.in;
    }
}

// A command over a fixed dictionary, in both the abbreviated and the
// delimited form.
class DictionaryCmd : public IStrMatchCmd<wstringEx> {
public:
    explicit DictionaryCmd(bool abbreviated) : _abbreviated(abbreviated) {}
    int Match(const wstringEx& view, wstringEx& replacement) override
    {
        uint64_t n = 0;
        if (_abbreviated)
            while (n < view.size() && (iswalnum(view[n]) || view[n] == L'_'))
                ++n;
        else
            n = view.size();
        const std::wstring name(view.data(), n);
        if (name == L"STOP")
            return 2;
        const auto it = _values.find(name);
        if (it == _values.end())
            return 0;
        replacement = wstringEx(it->second.c_str());
        _length = n;
        matched = true;
        return 1;
    }
    uint64_t MatchedLength() override { return _length; }
    bool matched = false;

private:
    bool _abbreviated;
    uint64_t _length = 0;
    std::map<std::wstring, std::wstring> _values{{L"HOME", L"/home/u"}, {L"X", L"$X"}, {L"E", L""}};
};

TEST(Text, MarkPassesReplaceAndStop)
{
    struct Row {
        bool delimited;
        const wchar_t* in;
        bool keepDoubled;
        const wchar_t* out;
    } rows[] = {
        {false, L"$HOME/x", false, L"/home/u/x"},
        {false, L"$X$HOME", false, L"$X/home/u"},   // a replacement is not rescanned
        {false, L"$$HOME", true, L"$$HOME"},
        {false, L"$$HOME", false, L"$HOME"},
        {false, L"a$", false, L"a$"},
        {false, L"$UNSET-$HOME", false, L"$UNSET-/home/u"},
        {false, L"$STOP $HOME", false, L"$STOP $HOME"},
        {true, L"${HOME}/x", false, L"/home/u/x"},
        {true, L"${UNSET}${HOME}", false, L"${UNSET}/home/u"},
        {true, L"${HOME", false, L"${HOME"},
        {true, L"end$", false, L"end"},              // a lone first unit at the end goes
        {true, L"$${HOME}", true, L"$${HOME}"},
    };
    for (const Row& r : rows) {
        wstringEx s(r.in);
        if (r.delimited) {
            DictionaryCmd cmd(false);
            ExpandDelimited(s, wstringEx(L"${"), wstringEx(L"}"), cmd, r.keepDoubled);
        } else {
            DictionaryCmd cmd(true);
            ExpandMatches(s, L'$', cmd, false, r.keepDoubled);
        }
        EXPECT_EQ(s, wstringEx(r.out)) << r.in;
    }
}

// The environment's own commands, in the two passes, for both widths of
// text and for bytes alike: a value replaces a reference only where the
// variable is set and not empty, and each command says whether it did.
template <class S>
S Made(const std::string& ascii)
{
    S out;
    for (char c : ascii)
        out.push_back(static_cast<typename S::value_type>(static_cast<unsigned char>(c)));
    return out;
}

template <class S>
std::string Expanded(const std::string& text, bool delimited, bool keepDoubled, bool& matched)
{
    S s = Made<S>(text);
    if (delimited) {
        CEnvStrRegularMatchCmd<S> cmd;
        ExpandDelimited(s, Made<S>("${"), Made<S>("}"), cmd, keepDoubled);
        matched = cmd.IsMatched();
    } else {
        CEnvStrAbbrMatchCmd<S> cmd;
        ExpandMatches(s, static_cast<typename S::value_type>('$'), cmd, false, keepDoubled);
        matched = cmd.IsMatched();
    }
    std::string out;
    for (auto unit : s)
        out += static_cast<char>(unit);
    return out;
}

TEST(Text, EnvironmentCommandsInEveryForm)
{
    setenv("KARU_T_HOME", "/home/u", 1);
    setenv("KARU_T_SELF", "$KARU_T_SELF", 1);
    setenv("KARU_T_EMPTY", "", 1);
    unsetenv("KARU_T_UNSET");
    struct Row {
        bool delimited;
        const char* in;
        bool keepDoubled;
        const char* out;
        bool matched;
    } rows[] = {
        {false, "$KARU_T_HOME/x", false, "/home/u/x", true},
        {false, "$KARU_T_SELF$KARU_T_HOME", false, "$KARU_T_SELF/home/u", true},  // not rescanned
        {false, "$$KARU_T_HOME", true, "$$KARU_T_HOME", false},
        {false, "$$KARU_T_HOME", false, "$KARU_T_HOME", false},
        {false, "$KARU_T_EMPTY.$KARU_T_UNSET", false, "$KARU_T_EMPTY.$KARU_T_UNSET", false},
        {false, "$-x a$", false, "$-x a$", false},
        {true, "${KARU_T_HOME}/x", false, "/home/u/x", true},
        {true, "${KARU_T_UNSET}${KARU_T_EMPTY}", false, "${KARU_T_UNSET}${KARU_T_EMPTY}", false},
        {true, "${KARU_T_HOME", false, "${KARU_T_HOME", false},
    };
    for (const Row& r : rows) {
        bool narrow = false, wide = false, bytes = false;
        EXPECT_EQ(Expanded<stringEx>(r.in, r.delimited, r.keepDoubled, narrow), r.out) << r.in;
        EXPECT_EQ(Expanded<wstringEx>(r.in, r.delimited, r.keepDoubled, wide), r.out) << r.in;
        EXPECT_EQ(Expanded<byteEx>(r.in, r.delimited, r.keepDoubled, bytes), r.out) << r.in;
        EXPECT_EQ(narrow, r.matched) << r.in;
        EXPECT_EQ(wide, r.matched) << r.in;
        EXPECT_EQ(bytes, r.matched) << r.in;
    }
}

TEST(Text, WidenAndDump)
{
    const wstringEx w = Widen(stringEx("A\xE9"));
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(w[0], L'A');
    EXPECT_EQ(w[1], static_cast<wchar_t>(-23));  // sign-extended
    EXPECT_EQ(Widen(stringEx()).data(), g_emptyWString.data());

    byteEx bytes;
    for (unsigned char c = 0; c < 13; ++c)
        bytes.push_back(static_cast<unsigned char>(c * 20));
    EXPECT_EQ(DumpConstArray(bytes, "table", true),
              stringEx("const unsigned char table[] = {\n"
                       "\t0X00, 0X14, 0X28, 0X3C, 0X50, 0X64, 0X78, 0X8C, 0XA0, 0XB4, 0XC8, 0XDC, \n"
                       "\t0XF0\n"
                       "};\n"));
    EXPECT_EQ(DumpConstArray(byteEx(), "e", false), stringEx("unsigned char e[] = {\n};\n"));
}

TEST(Unicode, CaseMappingBeyondAscii)
{
    struct Row {
        wchar_t u, lower, upper;
    } rows[] = {
        {L'A', L'a', L'A'},
        {L'\u00E9', L'\u00E9', L'\u00C9'},
        {L'\u0130', L'i', L'\u0130'},        // dotted capital I: one unit
        {L'\u00DF', L'\u00DF', L'\u00DF'},   // sharp s has no one-unit upper form
        {L'\u00B5', L'\u00B5', L'\u039C'},   // micro sign: a far case pair
        {L'\u10A0', L'\u2D00', L'\u10A0'},   // Georgian: far pair, through the side list
        {L'\u13A0', L'\uAB70', L'\u13A0'},   // Cherokee: the lower forms sit far above
        {L'\u01C4', L'\u01C6', L'\u01C4'},   // digraph capital
        {L'\u01C5', L'\u01C6', L'\u01C4'},   // its title form
        {L'\u01C6', L'\u01C6', L'\u01C4'},
        {L'\u1F80', L'\u1F80', L'\u1F88'},   // iota subscript: upper is the title form
        {L'\u0416', L'\u0436', L'\u0416'},
        {L'\uFF21', L'\uFF41', L'\uFF21'},   // full-width letters
        {static_cast<wchar_t>(0x1F600), static_cast<wchar_t>(0x1F600), static_cast<wchar_t>(0x1F600)},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(ToLower(r.u), r.lower) << std::hex << int(r.u);
        EXPECT_EQ(ToUpper(r.u), r.upper) << std::hex << int(r.u);
    }
    wchar_t v[4];
    const int n = CaseVariants(L'\u01C4', v);
    EXPECT_EQ(std::set<wchar_t>(v, v + n), (std::set<wchar_t>{L'\u01C4', L'\u01C5', L'\u01C6'}));
    // Units above the basic plane alias into it by their low 16 bits.
    EXPECT_EQ(UniCategoryOf(static_cast<wchar_t>(0x10041)), kUniLu);
    EXPECT_EQ(UniCategoryOf(L'\u0903'), kUniMc);
    EXPECT_EQ(UniCategoryOf(L'\uFEFF'), kUniCf);
}

// The whole basic plane against the C library's own Unicode tables in a UTF-8
// locale: both derive from the same database, so they differ only where the
// C library keeps mappings that are not one-to-one simple ones.
TEST(Unicode, TableAgreesWithTheCLibraryAcrossThePlane)
{
    const char* previous = std::setlocale(LC_CTYPE, nullptr);
    const std::string saved = previous ? previous : "C";
    if (!std::setlocale(LC_CTYPE, "C.UTF-8"))
        GTEST_SKIP() << "no C.UTF-8 locale";
    int differences = 0;
    for (wchar_t u = 0; u < 0x10000; ++u) {
        if (u >= 0xD800 && u <= 0xDFFF)
            continue;
        if (ToLower(u) != static_cast<wchar_t>(towlower(u)) || ToUpper(u) != static_cast<wchar_t>(towupper(u))) {
            ++differences;
            ADD_FAILURE() << std::hex << "U+" << int(u) << " lower " << int(ToLower(u)) << "/" << towlower(u)
                          << " upper " << int(ToUpper(u)) << "/" << towupper(u);
            if (differences > 20)
                break;
        }
    }
    std::setlocale(LC_CTYPE, saved.c_str());
}

}  // namespace
