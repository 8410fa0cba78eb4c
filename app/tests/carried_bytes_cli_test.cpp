// Bytes that the input encoding cannot decode are carried through a run and
// written back as they were: ostrel changes only the bytes that a pair
// matched, in the C locale, in a locale of another encoding, in binary files.
// Where they would have to go into another encoding, the file is left alone,
// or the stream ends, and the user is told where.
#include <gtest/gtest.h>

#include <random>

#include "cli_harness.h"

using namespace ostrel_test;
using namespace std::string_literals;

namespace {

using Args = std::vector<std::string>;

std::string Replaced(std::string text, const std::string& find, const std::string& replace)
{
    for (size_t at = text.find(find); at != std::string::npos; at = text.find(find, at + replace.size()))
        text.replace(at, find.size(), replace);
    return text;
}

TEST(CarriedBytes, OnlyWhatAPairMatchedChanges)
{
    const std::string utf8 = "caf\xC3\xA9 cat \xE4\xB8\xAD\xE6\x96\x87 cat\n";
    const std::string latin1 = "caf\xE9 cafard \xE0 la cat\n";
    struct Row {
        const char* why;
        std::string locale, pairs, before;
        Args extra;
        std::string after;
    } rows[] = {
        {"UTF-8 text in the C locale", "C", "cat->dog", utf8, {}, Replaced(utf8, "cat", "dog")},
        {"UTF-8 text in the C locale, case-blind", "C", "CAT->dog", utf8, {"-fic"}, Replaced(utf8, "cat", "dog")},
        {"UTF-8 text in the C locale, by pattern", "C", "c[a-z]t->dog", utf8, {"-r"}, Replaced(utf8, "cat", "dog")},
        {"Latin-1 text in a UTF-8 locale", "C.UTF-8", "cat->dog", latin1, {}, Replaced(latin1, "cat", "dog")},
        {"a Latin-1 pair in a UTF-8 locale matches its own bytes only", "C.UTF-8", "caf\xE9->X", latin1, {},
         Replaced(latin1, "caf\xE9", "X")},
        {"a broken byte in a pattern", "C.UTF-8", "\xE0 l->Y", latin1, {"-r"}, Replaced(latin1, "\xE0 l", "Y")},
        {"dot over a broken byte", "C.UTF-8", "caf. ->Y", latin1, {"-r"}, Replaced(latin1, "caf\xE9 ", "Y")},
        {"a bracket complement over a broken byte", "C.UTF-8", "caf[^a] ->Y", latin1, {"-r"},
         Replaced(latin1, "caf\xE9 ", "Y")},
        {"a negated shorthand over broken bytes", "C", "caf\\W\\W ->Y", utf8, {"-r"},
         Replaced(utf8, "caf\xC3\xA9 ", "Y")},
        {"no named class takes a broken byte", "C.UTF-8", "caf[[:alpha:]] ->Y", latin1, {"-r"}, latin1},
        {"nor a shorthand class", "C", "caf\\w\\w ->Y", utf8, {"-r"}, utf8},
        {"a broken byte folds to itself", "C.UTF-8", "CAF\xE9->Y", latin1, {"-fic"},
         Replaced(latin1, "caf\xE9", "Y")},
        {"a broken byte folds to itself, by pattern", "C.UTF-8", "CAF\xE9->Y", latin1, {"-ric"},
         Replaced(latin1, "caf\xE9", "Y")},
        {"and not to the byte of its capital", "C.UTF-8", "caf\xC9->Y", latin1, {"-fic"}, latin1},
        {"the C locale, a pair of raw bytes", "C", "\xE4\xB8\xAD->zh", utf8, {}, Replaced(utf8, "\xE4\xB8\xAD", "zh")},
        {"GBK with broken bytes", "C", "cat->dog", "\xD6\xD0\x81 cat\xFF\n\x81", {"-encin:GBK", "-encarg:GBK"},
         "\xD6\xD0\x81 dog\xFF\n\x81"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", row.pairs + "\n");
        box.Put("t.txt", row.before);
        // -f, unless the row names another method (-f would win over it).
        Args args = {"t.txt", "-argfile:p.txt"};
        args.insert(args.end(), row.extra.begin(), row.extra.end());
        if (row.extra.empty() || (row.extra[0][1] != 'r' && row.extra[0] != "-fic"))
            args.push_back("-f");
        RunOptions options;
        options.locale = row.locale;
        const RunResult run = box.Run(args, options);
        EXPECT_EQ(run.status, 0) << row.why << run.err;
        EXPECT_EQ(Visible(box.Get("t.txt")), Visible(row.after)) << row.why;
        // Standard input gives the same bytes.
        options.input = row.before;
        const RunResult stream = box.Run(Args(args.begin() + 1, args.end()), options);
        EXPECT_EQ(Visible(stream.out), Visible(row.after)) << row.why << ", stream";
    }
}

// An executable or any other binary file with one literal pair: the same
// length, and every byte but the replaced ones as it was. Large enough to be
// worked in pieces, with and without -noexp.
TEST(CarriedBytes, BinaryFilesKeepEveryOtherByte)
{
    std::mt19937 random(151);
    std::string binary;
    for (int i = 0; i < 200000; ++i) {
        binary += static_cast<char>(random() % 256);
        if (random() % 5000 == 0)
            binary += "GNU";
    }
    const std::string expected = Replaced(binary, "GNU", "GNX");
    for (const char* locale : {"C", "C.UTF-8"})
        for (const char* form : {"-f", "-noexp"}) {
            Sandbox box;
            box.Put("p.txt", "GNU->GNX\n");
            box.Put("b.bin", binary);
            RunOptions options;
            options.locale = locale;
            Args args = {"b.bin", "-f", "-argfile:p.txt", form};
            const RunResult run = box.Run(args, options);
            EXPECT_EQ(run.status, 0) << locale << form << run.err;
            const std::string after = box.Get("b.bin");
            EXPECT_EQ(after.size(), binary.size()) << locale << " " << form;
            EXPECT_TRUE(after == expected) << locale << " " << form;
        }
}

// The last piece of a file larger than a piece holds only a byte that is no
// text: both forms give the same bytes, and no stray mark.
TEST(CarriedBytes, BothFormsGiveTheSameBytes)
{
    std::string lines;
    for (int i = 0; i < 40000; ++i)
        lines += "a\n";
    for (const std::string& tail : {"\xFF"s, "\xE4\xB8"s, "\xC3"s}) {
        const std::string before = lines + tail;
        const std::string expected = Replaced(lines, "a", "b") + tail;
        for (const char* form : {"-f", "-noexp"}) {
            Sandbox box;
            box.Put("p.txt", "a->b\n");
            box.Put("t.txt", before);
            RunOptions options;
            options.locale = "C.UTF-8";
            const RunResult run = box.Run({"t.txt", "-f", "-argfile:p.txt", form}, options);
            EXPECT_EQ(run.status, 0) << form << run.err;
            EXPECT_TRUE(box.Get("t.txt") == expected) << form << ", last bytes " << Visible(box.Get("t.txt").substr(
                                                                                         before.size() - 4));
        }
    }
}

// The arguments file: a leading signature is no part of the first pair, and
// a delimiter beyond ASCII is compared as text.
TEST(CarriedBytes, ArgumentsFileSignatureAndDelimiter)
{
    struct Row {
        const char* why;
        std::string pairs;
        Args extra;
        std::string after;
    } rows[] = {
        {"UTF-8 signature", "\xEF\xBB\xBF" "cat->dog\ncow->ox\n", {}, "dog ox"},
        {"UTF-8 signature, a pattern", "\xEF\xBB\xBF" "c.t->dog\n", {"-r"}, "dog cow"},
        {"a delimiter beyond ASCII", "cat\xE2\x86\x92" "dog\ncow\xE2\x86\x92" "ox\n", {"-dlm:\xE2\x86\x92"}, "dog ox"},
        {"the default delimiter is then text", "cat->dog\xE2\x86\x92x\n", {"-dlm:\xE2\x86\x92"}, "cat cow"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", row.pairs);
        box.Put("t.txt", "cat cow");
        Args args = {"t.txt", "-argfile:p.txt"};
        args.insert(args.end(), row.extra.begin(), row.extra.end());
        if (row.extra.empty() || row.extra[0] != "-r")
            args.push_back("-f");
        RunOptions options;
        options.locale = "C.UTF-8";
        const RunResult run = box.Run(args, options);
        EXPECT_EQ(run.status, 0) << row.why << run.err;
        EXPECT_EQ(box.Get("t.txt"), row.after) << row.why;
    }
}

// Into another encoding a carried byte cannot go: the file stays as it was
// and the run goes on; -errstop stops it; -force writes what the conversion
// gives. A stream ends in front of the byte, saying where it was read.
TEST(CarriedBytes, AnotherOutputEncodingRefusesThem)
{
    const std::string message = "ostrel - input that could not be decoded can't be written in another encoding\n";
    Sandbox box;
    box.Put("p.txt", "cat->dog\n");
    auto reset = [&] {
        box.Put("bad.txt", "a cat\n\xFF cat");
        box.Put("good.txt", "a cat");
    };
    RunOptions options;
    options.locale = "C.UTF-8";
    const Args convert = {"-f", "-argfile:p.txt", "-encin:UTF-8", "-encout:UTF-16LE"};

    reset();
    Args args = {"bad.txt", "good.txt"};
    args.insert(args.end(), convert.begin(), convert.end());
    RunResult run = box.Run(args, options);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "[ERROR] can't write to file: " + box.Path("bad.txt") + "\n@ " + message +
                           "  input offset    = 6\n  output encoding = UTF-16LE\n\n");
    EXPECT_EQ(box.Get("bad.txt"), "a cat\n\xFF cat") << "left as it was";
    EXPECT_EQ(box.Get("good.txt").size(), 20u) << "the other file is done";

    reset();
    args.push_back("-errstop");
    run = box.Run(args, options);
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(box.Get("good.txt"), "a cat") << "the run stopped first";

    reset();
    args.back() = "-force";
    run = box.Run(args, options);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(box.Get("bad.txt"), "a cat\n\xFF cat") << "what the conversion gives";

    // The same to another byte encoding, and in a stream.
    for (const char* out : {"-encout:GB18030", "-encout:UTF-16LE"}) {
        options.input = "cat\ncat \xFF" "cat\ncat\n";
        run = box.Run({"-f", "-argfile:p.txt", "-encin:UTF-8", out}, options);
        EXPECT_EQ(run.status, 255) << out;
        EXPECT_EQ(run.err, "[ERROR] can't write to standard output\n@ " + message + "  input offset    = 8\n" +
                               "  output encoding = " + std::string(out + 8) + "\n\n")
            << out;
        const std::string expected = std::string(out) == "-encout:GB18030" ? "dog\ndog "s
                                                                            : "d\0\0\0o\0\0\0g\0\0\0\n\0\0\0"s
                                                                              "d\0\0\0o\0\0\0g\0\0\0 \0\0\0"s;
        EXPECT_EQ(Visible(run.out), Visible(expected)) << out << ": the output ends in front of the byte";
    }
}

}  // namespace
