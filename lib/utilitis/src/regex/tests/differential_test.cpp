// Random extended expressions from a small grammar, matched by this engine and
// by the C library's regcomp/regexec on short ASCII subjects: where both
// accept a pattern, the overall match (group 0) must agree. The wide build must
// agree with the narrow one on every case.
//
// Documented differences the generator stays away from:
//  - back-references: an extension in the C library's extended syntax, a
//    literal digit here;
//  - "{" not followed by a digit, empty branches ("a|", "()"), and "^" or "$"
//    inside a branch: left unspecified by POSIX, and read differently;
//  - the positions of groups: implementations differ in how they apply the
//    subexpression rules, so only the overall match is compared;
//  - locale-dependent classes and case folding beyond ASCII.
#include "rx_test_support.h"

#include <gtest/gtest.h>

#include <random>
#include <regex.h>
#include <string>

namespace {

class Generator {
public:
    explicit Generator(uint32_t seed) : _rng(seed) {}

    std::string pattern()
    {
        std::string p;
        if (pick(8) == 0) p += '^';
        p += alternation(3);
        if (pick(8) == 0) p += '$';
        return p;
    }

    std::string subject()
    {
        static const char kAlphabet[] = "aabbcd";
        std::string s;
        const int n = pick(13);
        for (int i = 0; i < n; ++i) s += kAlphabet[pick(6)];
        return s;
    }

private:
    int pick(int n) { return static_cast<int>(_rng() % static_cast<uint32_t>(n)); }

    std::string alternation(int depth)
    {
        std::string s = branch(depth);
        while (pick(5) == 0) s += "|" + branch(depth);
        return s;
    }

    std::string branch(int depth)
    {
        std::string s;
        const int n = 1 + pick(4);
        for (int i = 0; i < n; ++i) s += quantified(depth);
        return s;
    }

    std::string quantified(int depth)
    {
        std::string s = atom(depth);
        switch (pick(10)) {
        case 0: return s + "*";
        case 1: return s + "+";
        case 2: return s + "?";
        case 3: return s + "{" + std::to_string(pick(3)) + "}";
        case 4: {
            const int m = pick(3);
            return s + "{" + std::to_string(m) + "," + std::to_string(m + pick(3)) + "}";
        }
        case 5: return s + "{" + std::to_string(pick(3)) + ",}";
        default: return s;
        }
    }

    std::string atom(int depth)
    {
        static const char* const kBrackets[] = {"[ab]", "[^a]", "[a-c]", "[[:alpha:]]", "[^bc]", "[]a]", "[a-]"};
        const int k = pick(depth > 0 ? 10 : 7);
        switch (k) {
        case 0:
        case 1:
        case 2: return std::string(1, "abc"[pick(3)]);
        case 3: return ".";
        case 4:
        case 5: return kBrackets[pick(7)];
        case 6: return "\\.";
        default: return "(" + alternation(depth - 1) + ")";
        }
    }

    std::mt19937 _rng;
};

struct Result {
    int code;
    long start;
    long end;
};

TEST(RegexDifferential, AgreesWithTheCLibrary)
{
    Generator gen(20240611);
    int compared = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string pattern = gen.pattern();
        regex_t theirs;
        const bool theyAccept = regcomp(&theirs, pattern.c_str(), REG_EXTENDED) == 0;
        Karu::RxObject ours{};
        const bool weAccept = Karu::rxcomp(&ours, pattern.data(), pattern.size(), Karu::RX_SYNTAX_EXT) == Karu::RX_OK;
        Karu::RxObject oursWide{};
        const std::wstring widePattern = rxtest::widen<wchar_t>(pattern);
        const bool wideAccept =
            Karu::rxcomp(&oursWide, widePattern.data(), widePattern.size(), Karu::RX_SYNTAX_EXT) == Karu::RX_OK;
        EXPECT_EQ(weAccept, wideAccept) << pattern;
        for (int j = 0; j < 5 && weAccept; ++j) {
            const std::string subject = gen.subject();
            Karu::RxMatch m[1];
            const int r = Karu::rxexec(&ours, subject.data(), subject.size(), nullptr, 1, m, 0);
            const Result us{r, r == 0 ? static_cast<long>(m[0].start) : -1, r == 0 ? static_cast<long>(m[0].end) : -1};
            if (wideAccept) {
                const std::wstring wideSubject = rxtest::widen<wchar_t>(subject);
                Karu::RxMatch w[1];
                const int rw = Karu::rxexec(&oursWide, wideSubject.data(), wideSubject.size(), nullptr, 1, w, 0);
                EXPECT_EQ(rw, r) << "wide build, pattern " << pattern << " subject " << subject;
                if (rw == 0 && r == 0) {
                    EXPECT_EQ(w[0].end, m[0].end) << pattern << " on " << subject;
                }
            }
            if (!theyAccept) continue;
            regmatch_t pm[1];
            const int tr = regexec(&theirs, subject.c_str(), 1, pm, 0);
            const Result them{tr == 0 ? 0 : 1, tr == 0 ? static_cast<long>(pm[0].rm_so) : -1,
                              tr == 0 ? static_cast<long>(pm[0].rm_eo) : -1};
            ++compared;
            EXPECT_TRUE(us.code == them.code && us.start == them.start && us.end == them.end)
                << "pattern \"" << pattern << "\" subject \"" << subject << "\": ours " << us.code << " " << us.start
                << "," << us.end << ", C library " << them.code << " " << them.start << "," << them.end;
        }
        if (theyAccept) regfree(&theirs);
        if (weAccept) Karu::rxfree(&ours);
        if (wideAccept) Karu::rxfree(&oursWide);
    }
    EXPECT_GT(compared, 6000) << "the generator should give mostly valid patterns";
}

}  // namespace
