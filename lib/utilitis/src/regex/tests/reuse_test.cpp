// One compiled pattern run many times: the matcher keeps its state sets from
// call to call (and hands them to one caller at a time), so a call must give
// what a freshly compiled pattern gives, whatever ran before it on other
// subjects, with other run flags, or at the same time on other threads.
#include "rx_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

using namespace Karu;

namespace {

struct Row {
    int flags;
    const char* pattern;
    const char* why;
};

// Patterns whose walks leave different things behind: match ends of evicted
// sets, cold starts, look-ahead transitions that are never cached, several
// automata per call (groups, back-references), line anchors whose start
// colour depends on the run flags.
const Row kRows[] = {
    {RX_SYNTAX_EXT, "bookkeeper", "a literal"},
    {RX_SYNTAX_EXT, "[a-z]+ing", "a loop before a suffix"},
    {RX_SYNTAX_ADV, "(\\w+)@(\\w+)\\.com", "groups: the dissection's automata are cached too"},
    {RX_SYNTAX_EXT, "alpha|beta|gamma|be", "an alternation"},
    {RX_SYNTAX_ADV, "([a-z])\\1", "a back-reference"},
    {RX_SYNTAX_ADV, "(a+|b)\\1+c", "a back-reference that backtracks"},
    {RX_SYNTAX_ADV, "a(?=bc)", "a look-ahead"},
    {RX_SYNTAX_ADV, "x(?!y)\\w", "a negative look-ahead"},
    {RX_SYNTAX_EXT | RX_LINEANCHORS, "^a+$", "line anchors: the start colour follows the run flags"},
    {RX_SYNTAX_EXT, "^(ab|a)(c|bcd)$", "string anchors"},
    {RX_SYNTAX_ADV, "a.*?b", "prefers the shortest"},
    {RX_SYNTAX_EXT | RX_FOLDCASE, "Ab[cd]+", "case folded"},
    {RX_SYNTAX_EXT, "(a|ab)(c|bcd)(d*)", "groups chosen by the leftmost rule"},
    {RX_SYNTAX_EXT, "x*", "matches empty"},
};

const char* const kSubjects[] = {
    "",
    "bookkeeper",
    "the bookkeeper sat",
    "singing and running",
    "mail joe@host.com now",
    "alphabet beta be gamma",
    "aabb cc aab abc",
    "aaaab bab aabaabaac",
    "xy xz xyz abc abd",
    "a\naa\nb\naaa",
    "abcd",
    "ABDCd abcc",
    "xxxx yyy",
    "a long line of plain words with no occurrence of anything wanted at all, to fill the caches",
};

const int kRunFlags[] = {0, RX_NOLINESTART, RX_NOLINEEND, RX_NOLINESTART | RX_NOLINEEND, RX_SMALLCACHE};

template <class Ch>
std::string runOn(const RxObject& object, const std::basic_string<Ch>& subject, int runFlags)
{
    std::vector<RxMatch> m(object.groupCount + 1, RxMatch{-7, -7});
    const int r = rxexec(&object, subject.data(), subject.size(), nullptr, m.size(), m.data(), runFlags);
    std::string out = std::to_string(r);
    if (r == RX_OK)
        for (const RxMatch& g : m)
            out.append(" ").append(std::to_string(g.start)).append(",").append(std::to_string(g.end));
    return out;
}

template <class Ch>
std::string fresh(const Row& row, const std::basic_string<Ch>& subject, int runFlags)
{
    const rxtest::Outcome o =
        rxtest::run<Ch>(row.flags, rxtest::widen<Ch>(row.pattern), subject, runFlags);
    return o.exec == RX_OK ? "0 " + o.matches : std::to_string(o.exec);
}

template <class Ch>
void checkReuse()
{
    for (const Row& row : kRows) {
        RxObject object{};
        const std::basic_string<Ch> pattern = rxtest::widen<Ch>(row.pattern);
        ASSERT_EQ(rxcomp(&object, pattern.data(), pattern.size(), row.flags), RX_OK) << row.pattern;
        // Twice over, in two orders, so each call follows different ones.
        for (int pass = 0; pass < 2; ++pass) {
            for (size_t k = 0; k < std::size(kSubjects); ++k) {
                const size_t i = pass ? std::size(kSubjects) - 1 - k : k;
                const std::basic_string<Ch> subject = rxtest::widen<Ch>(kSubjects[i]);
                for (int runFlags : kRunFlags) {
                    EXPECT_EQ(runOn(object, subject, runFlags), fresh(row, subject, runFlags))
                        << row.pattern << " (" << row.why << ") on \"" << kSubjects[i] << "\", run flags "
                        << runFlags << ", width " << sizeof(Ch);
                }
            }
        }
        rxfree(&object);
    }
}

TEST(RegexReuse, OneObjectAcrossSubjectsAndRunFlags)
{
    checkReuse<char>();
    checkReuse<wchar_t>();
}

// More threads than the pattern keeps caches for, all on one object. The
// threads race to become the owner of its caches, and a second batch may
// inherit a finished owner's thread token.
TEST(RegexReuseConcurrency, ManyThreadsOneObject)
{
    for (const Row& row : {kRows[2], kRows[5], kRows[6]}) {
        RxObject object{};
        ASSERT_EQ(rxcomp(&object, row.pattern, std::strlen(row.pattern), row.flags), RX_OK) << row.pattern;
        std::vector<std::string> expected;
        for (const char* s : kSubjects) expected.push_back(fresh<char>(row, s, 0));
        constexpr int kThreads = 12;
        for (int batch = 0; batch < 2; ++batch) {
            std::vector<int> failures(kThreads, 0);
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&, t] {
                    for (int round = 0; round < 30; ++round) {
                        for (size_t i = 0; i < std::size(kSubjects); ++i) {
                            const size_t k = (i + static_cast<size_t>(t)) % std::size(kSubjects);
                            if (runOn<char>(object, kSubjects[k], 0) != expected[k])
                                ++failures[static_cast<size_t>(t)];
                        }
                    }
                });
            }
            for (auto& th : threads) th.join();
            for (int t = 0; t < kThreads; ++t)
                EXPECT_EQ(failures[static_cast<size_t>(t)], 0) << row.pattern << ", batch " << batch << ", thread " << t;
        }
        rxfree(&object);
    }
}

}  // namespace
