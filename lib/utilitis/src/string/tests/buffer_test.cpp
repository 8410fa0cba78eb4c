// Shared-buffer behaviour: sharing, copy on write, views, growth,
// reinterpretation and reference counts under threads.
#include <karu/string/stringEx.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace Karu;

namespace {

stringEx Owned(const char* text)
{
    stringEx s;
    s.assign(text, std::strlen(text));
    return s;
}

TEST(Buffer, CopiesShareUntilOneWrites)
{
    stringEx a = Owned("hello world");
    stringEx b = a;
    EXPECT_TRUE(b.SharesWith(a));
    EXPECT_EQ(a.use_count(), 2u);

    b += '!';  // detaches b only
    EXPECT_FALSE(b.SharesWith(a));
    EXPECT_EQ(a.use_count(), 1u);
    EXPECT_EQ(a, stringEx("hello world"));
    EXPECT_EQ(b, stringEx("hello world!"));

    // Assigning an object standing on the same data moves no counter.
    stringEx c = a;
    c = a;
    stringEx& alias = a;
    a = alias;
    EXPECT_EQ(a.use_count(), 2u);

    // Clearing a sharer detaches it into exact storage of the old size.
    c.clear();
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(c.capacity(), a.size());
    EXPECT_EQ(a, stringEx("hello world"));
    EXPECT_EQ(a.use_count(), 1u);

    // A swap exchanges the storage itself, copying nothing.
    const char *const pa = a.data(), *const pb = b.data();
    a.swap(b);
    EXPECT_EQ(a.data(), pb);
    EXPECT_EQ(b.data(), pa);
}

TEST(Buffer, SubRangesShareOnlyWhenWhole)
{
    const stringEx text = Owned("abcdef");
    struct Row {
        uint64_t pos, len;
        const char* expect;
        bool shares;
    } rows[] = {
        {0, stringEx::npos, "abcdef", true},
        {0, 6, "abcdef", true},
        {0, 5, "abcde", false},  // one unit left out copies
        {1, 100, "bcdef", false},
        {6, 3, "", false},
    };
    for (const Row& r : rows) {
        stringEx part(text, r.pos, r.len);
        EXPECT_EQ(part, stringEx(r.expect)) << r.pos << "," << r.len;
        EXPECT_EQ(part.SharesWith(text), r.shares) << r.pos << "," << r.len;
        EXPECT_EQ(part.c_str()[part.size()], '\0');
    }
    // On the object itself the range is cut out in place.
    stringEx self = Owned("0123456789");
    stringEx keep = self;
    self.assign(self, 3, 4);
    EXPECT_EQ(self, stringEx("3456"));
    EXPECT_EQ(keep, stringEx("0123456789"));
}

TEST(Buffer, ViewsCostNothingAndAreNeverWrittenThrough)
{
    static const char literal[] = "literal";
    stringEx v(literal);
    EXPECT_TRUE(v.IsView());
    EXPECT_EQ(v.use_count(), 0u);
    EXPECT_EQ(v.data(), literal);
    EXPECT_EQ(v.capacity(), 0xFFFFFFFFFFFFFFFEull);
    EXPECT_EQ(wstringEx(L"w").capacity(), 0x3FFFFFFFFFFFFFFEull);

    // Text given by pointer is copied: it may not outlive the object.
    std::string temporary = "temporary";
    const stringEx copied(temporary.c_str());
    temporary[0] = 'X';
    EXPECT_EQ(copied, stringEx("temporary"));
    EXPECT_FALSE(copied.IsView());

    v += " text";
    EXPECT_STREQ(literal, "literal");
    EXPECT_EQ(v, stringEx("literal text"));
    EXPECT_FALSE(v.IsView());

    stringEx empty;
    ASSERT_NE(empty.c_str(), nullptr);
    EXPECT_EQ(empty.c_str()[0], '\0');
    ASSERT_NE(wstringEx().c_str(), nullptr);

    stringEx three("abc");
    EXPECT_THROW(three.at(3), std::out_of_range);
    try {
        (void)three.at(3);
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "basic_buffer::at - offset out of range");
    }
}

TEST(Buffer, ReserveFormsFollowTheGrowthRule)
{
    struct Row {
        uint64_t capacity, request, expect;
    } rows[] = {
        {100, 1, 100},    // not above capacity: nothing
        {100, 101, 150},  // close above: grows by half
        {100, 1000, 1023},  // far above: the request with the granule
        {0, 1, 31},       // a first allocation takes the granule
    };
    for (const Row& r : rows) {
        stringEx s;
        if (r.capacity)
            s.ReserveExact(r.capacity);
        ASSERT_EQ(s.capacity(), r.capacity);
        s.ReserveGrow(r.request);
        EXPECT_EQ(s.capacity(), r.expect) << r.capacity << " -> " << r.request;
    }
    wstringEx w;
    w.ReserveGrow(1);
    EXPECT_EQ(w.capacity(), 7u);  // 32 bytes either way

    // Growing a shared buffer takes max(request, size) | granule and copies.
    stringEx a = Owned("0123456789");
    stringEx b = a;
    b.ReserveGrow(5);
    EXPECT_EQ(b.capacity(), 10u | 31u);
    EXPECT_FALSE(b.SharesWith(a));
    EXPECT_EQ(b, a);

    // Growth past the large-block size moves the whole text by another path.
    for (const uint64_t units : {uint64_t(1) << 20, uint64_t(3) << 20}) {
        wstringEx big;
        for (uint64_t i = 0; i < units; ++i)
            big.push_back(static_cast<wchar_t>(i % 50000 + 1));
        big.ReserveExact(units * 3);
        ASSERT_EQ(big.size(), units);
        uint64_t wrong = 0;
        for (uint64_t i = 0; i < units; ++i)
            wrong += big[i] != static_cast<wchar_t>(i % 50000 + 1);
        EXPECT_EQ(wrong, 0u) << units << " units";
        EXPECT_EQ(big.data()[units], L'\0') << "terminated after growth";
    }
}

TEST(Buffer, ReinterpretationSharesStorageAndLifetime)
{
    wstringEx wide;
    {
        byteEx bytes;
        const unsigned char raw[10] = {'A', 0, 0, 0, 'B', 0, 0, 0, 'C', 0};
        bytes.assign(raw, sizeof raw);
        wide = bytes.Reinterpret<wchar_t>();
        EXPECT_EQ(wide.size(), 2u);
        EXPECT_EQ(bytes.use_count(), 2u);
    }  // the byte buffer goes; the storage stays through the shared counter
    EXPECT_EQ(wide[0], L'A');
    EXPECT_EQ(wide[1], L'B');

    const byteEx back = wide.Reinterpret<unsigned char, byte_traits>();
    EXPECT_EQ(back.size(), 8u);
    const stringEx narrow = back.Reinterpret<char>();
    EXPECT_EQ(narrow.size(), 8u);
    EXPECT_EQ(narrow.use_count(), 3u);
}

TEST(Buffer, MutatorsKeepTheTerminatorAndHandleAliasing)
{
    struct Row {
        const char* name;
        void (*op)(stringEx&);
        const char* expect;
    } rows[] = {
        {"append self", [](stringEx& s) { s.append(s); }, "abcabc"},
        {"append own tail", [](stringEx& s) { s.append(s.data() + 1, 2); }, "abcbc"},
        {"insert front", [](stringEx& s) { s.insert(0, "xy", 2); }, "xyabc"},
        {"replace grow", [](stringEx& s) { s.replace(1, 1, "ZZZ", 3); }, "aZZZc"},
        {"replace own", [](stringEx& s) { s.replace(0, 1, s.data() + 1, 2); }, "bcbc"},
        {"erase middle", [](stringEx& s) { s.erase(1, 1); }, "ac"},
        {"erase all", [](stringEx& s) { s.erase(0); }, ""},
        {"resize down", [](stringEx& s) { s.resize(1); }, "a"},
        {"resize up", [](stringEx& s) { s.resize(5, '.'); }, "abc.."},
        {"case in place", [](stringEx& s) { s.MakeUpper(); }, "ABC"},
        {"write one unit", [](stringEx& s) { s.MutableData()[1] = 'B'; }, "aBc"},
    };
    for (const Row& r : rows) {
        stringEx s = Owned("abc");
        const stringEx sharer = s;
        r.op(s);
        EXPECT_EQ(s, stringEx(r.expect)) << r.name;
        EXPECT_EQ(s.c_str()[s.size()], '\0') << r.name;
        EXPECT_EQ(sharer, stringEx("abc")) << r.name;
    }
}

TEST(BufferConcurrency, CountsStayExactUnderThreads)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 20000;
    const wstringEx shared(L"shared text that every thread copies", 36);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&shared, t] {
            for (int i = 0; i < kRounds; ++i) {
                wstringEx copy = shared;
                wstringEx second = copy;
                if (i % 64 == 0) {
                    second += static_cast<wchar_t>(L'0' + t);  // private write
                    ASSERT_EQ(second.size(), 37u);
                }
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(shared.use_count(), 1u);
    EXPECT_EQ(shared, wstringEx(L"shared text that every thread copies"));
}

}  // namespace
