// Random expressions from small grammars, matched by this engine and by an
// independent model on short subjects, in both builds:
//  - extended expressions against the C library's regcomp/regexec: where
//    both accept a pattern, the overall match (group 0) must agree;
//  - advanced expressions with back-references under every quantifier and
//    anchors inside loops against the backtracking reference of
//    reference_matcher.h: the match and every group must agree.
//
// Documented differences from the C library the first grammar stays away from:
//  - back-references: an extension in the C library's extended syntax, a
//    literal digit here;
//  - "{" not followed by a digit, empty branches ("a|", "()"), and "^" or "$"
//    inside a branch: left unspecified by POSIX, and read differently;
//  - the positions of groups: implementations differ in how they apply the
//    subexpression rules, so only the overall match is compared;
//  - locale-dependent classes and case folding beyond ASCII.
#include "reference_matcher.h"
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
        while (pick(5) == 0) {
            s += '|';
            s += branch(depth);
        }
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
        default: {
            std::string group(1, '(');
            group += alternation(depth - 1);
            group += ')';
            return group;
        }
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

// Advanced expressions: groups that capture or not, back-references to
// groups closed so far, quantifiers greedy and not on every kind of atom,
// "^" and "$" anywhere, loops included.
class AdvancedGenerator {
public:
    explicit AdvancedGenerator(uint32_t seed) : _rng(seed) {}

    std::string pattern()
    {
        _groups = 0;
        _closed.clear();
        // Most patterns open with a group, so that later atoms can refer back.
        std::string p = pick(4) ? piece(2, true) : "";
        return p + alternation(2);
    }

    std::string subject(bool lines)
    {
        static const char kAlphabet[] = "aabbc";
        std::string s;
        const int n = pick(8);
        for (int i = 0; i < n; ++i) s += (lines && pick(6) == 0) ? '\n' : kAlphabet[pick(5)];
        return s;
    }

private:
    int pick(int n) { return static_cast<int>(_rng() % static_cast<uint32_t>(n)); }

    std::string alternation(int depth)
    {
        std::string s = branch(depth);
        while (pick(4) == 0) {
            s += '|';
            s += branch(depth);
        }
        return s;
    }

    std::string branch(int depth)
    {
        std::string s;
        const int n = 1 + pick(3);
        for (int i = 0; i < n; ++i) s += piece(depth);
        return s;
    }

    std::string quantifier()
    {
        const char* lazy = pick(3) == 0 ? "?" : "";
        switch (pick(12)) {
        case 0: return std::string("*") + lazy;
        case 1: return std::string("+") + lazy;
        case 2: return std::string("?") + lazy;
        case 3: return "{" + std::to_string(pick(3)) + "}";
        case 4: return "{" + std::to_string(pick(2)) + ",}" + lazy;
        case 5: {
            const int m = pick(2);
            return "{" + std::to_string(m) + "," + std::to_string(m + pick(3)) + "}" + lazy;
        }
        default: return "";
        }
    }

    std::string piece(int depth, bool group = false)
    {
        switch (group ? 10 : pick(depth > 0 ? 11 : 8)) {
        case 0:
            return pick(2) ? "^" : "$";  // no quantifier may follow an anchor
        case 1:
        case 2:
            if (!_closed.empty()) {
                const int group = _closed[static_cast<size_t>(pick(static_cast<int>(_closed.size())))];
                return "\\" + std::to_string(group) + quantifier();
            }
            [[fallthrough]];
        case 3:
        case 4: return std::string(1, "abc"[pick(3)]) + quantifier();
        case 5: return "." + quantifier();
        case 6: {
            static const char* const kBrackets[] = {"[ab]", "[^a]", "[a-c]"};
            return kBrackets[pick(3)] + quantifier();
        }
        case 7: return "(?:" + (pick(2) ? std::string("^") : std::string("$")) + "|b)" + quantifier();
        default: {
            const bool capture = pick(3) != 0 && _groups < 9;
            const int number = capture ? ++_groups : 0;
            std::string group = capture ? "(" : "(?:";
            group += alternation(depth - 1);
            group += ')';
            const std::string q = quantifier();
            // A group repeated {0} is gone, and can't be referred to.
            if (capture && q.rfind("{0}", 0) != 0 && q.rfind("{0,0}", 0) != 0) _closed.push_back(number);
            return group + q;
        }
        }
    }

    std::mt19937 _rng;
    int _groups = 0;
    std::vector<int> _closed;
};

std::string render(const Karu::RxMatch* m, size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        if (i) s += ' ';
        s += std::to_string(m[i].start) + "," + std::to_string(m[i].end);
    }
    return s;
}

std::string render(const rxref::Result& r)
{
    std::string s;
    for (size_t i = 0; i < r.groups.size(); ++i) {
        if (i) s += ' ';
        s += std::to_string(r.groups[i].first) + "," + std::to_string(r.groups[i].second);
    }
    return s;
}

std::string shown(const std::string& text)
{
    std::string s;
    for (char c : text) s += c == '\n' ? std::string("\\n") : std::string(1, c);
    return s;
}

template <class Ch>
void againstReference(const std::string& pattern, int flags, rxref::Matcher& model,
                      const std::vector<std::string>& subjects, int& compared)
{
    const auto p = rxtest::widen<Ch>(pattern);
    Karu::RxObject o{};
    const int rc = Karu::rxcomp(&o, p.data(), p.size(), flags);
    const std::string where = std::string(sizeof(Ch) == 1 ? "narrow" : "wide") + " pattern \"" + pattern + "\"" +
                              ((flags & Karu::RX_LINEANCHORS) ? " in line mode" : "");
    rxref::Result first = model.run("");
    ASSERT_EQ(rc == Karu::RX_OK, first.compiled) << where << ": compile result " << rc;
    if (rc != Karu::RX_OK) return;
    ASSERT_EQ(o.groupCount, static_cast<size_t>(model.groups())) << where;
    std::vector<Karu::RxMatch> m(o.groupCount + 1);
    for (const std::string& subject : subjects) {
        const auto s = rxtest::widen<Ch>(subject);
        const rxref::Result want = model.run(subject);
        const int r = Karu::rxexec(&o, s.data(), s.size(), nullptr, m.size(), m.data(), 0);
        ++compared;
        EXPECT_EQ(r == Karu::RX_OK, want.matched) << where << " subject \"" << shown(subject) << "\": result " << r
                                                  << ", model " << (want.matched ? render(want) : "no match");
        if (r == Karu::RX_OK && want.matched) {
            EXPECT_EQ(render(m.data(), m.size()), render(want))
                << where << " subject \"" << shown(subject) << "\" (group 0 first)";
        }
    }
    Karu::rxfree(&o);
}

TEST(RegexDifferential, AgreesWithTheBacktrackingReference)
{
    AdvancedGenerator gen(20250115);
    int compared = 0, withReferences = 0;
    for (int i = 0; i < 1500; ++i) {
        const std::string pattern = gen.pattern();
        const bool lines = i % 4 == 3;
        const int flags = Karu::RX_SYNTAX_ADV | (lines ? Karu::RX_DOTNONL | Karu::RX_LINEANCHORS : 0);
        rxref::Matcher model;
        ASSERT_TRUE(model.parse(pattern, lines)) << "the generator left the model's syntax: " << pattern;
        if (pattern.find('\\') != std::string::npos) ++withReferences;
        std::vector<std::string> subjects;
        for (int j = 0; j < 6; ++j) subjects.push_back(gen.subject(lines));
        againstReference<char>(pattern, flags, model, subjects, compared);
        againstReference<wchar_t>(pattern, flags, model, subjects, compared);
        if (HasFailure()) break;  // the first disagreement says enough
    }
    EXPECT_GT(withReferences, 400) << "the generator should refer back often";
    EXPECT_GT(compared, 15000);
}

}  // namespace
