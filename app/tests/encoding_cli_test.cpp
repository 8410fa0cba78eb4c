// Encodings from the outside: wide-unit files and streams round trip byte
// for byte, signatures come and go as asked, lossy conversions are refused
// unless forced, and real multi-byte encodings are decoded and encoded.
#include <gtest/gtest.h>

#include <algorithm>

#include "cli_harness.h"

using namespace ostrel_test;
using namespace std::string_literals;

namespace {

using Args = std::vector<std::string>;

// Files round trip byte for byte in wide units, and signatures come and go as asked.
TEST(WideUnits, FilesRoundTripByteForByteWithTheirSignatures)
{
    struct Row {
        const char* why;
        Args encoding;
        std::string before, after;
        Args extra = {};
    } rows[] = {
        {"plain units", {"-encin:UTF-16"}, Units({'A', 'x', 0x4E2D}), Units({'C', 'x', 0x4E2D})},
        {"upper halves survive without swap", {"-encin:ucs-2le"}, Units({0x12340041}), Units({0x12340041})},
        {"a tail shorter than a unit is kept", {"-encin:UTF-16"}, Units({'A'}) + "xy", Units({'C'}) + "xy"},
        {"swapped units", {"-encin:UTF-16BE"}, Units({0x4100, 0x4200}), Units({0x4300, 0x4200})},
        {"signature dropped", {"-encin:UTF-16"}, Units({0xFEFF, 'A'}), Units({'C'})},
        {"signature restored", {"-encin:UTF-16"}, Units({0xFEFF, 'A'}), Units({0xFEFF, 'C'}), {"-unisign"}},
        {"swapped signature restored", {"-encin:UTF-16BE"}, Units({0xFFFE, 0x4100}), Units({0xFFFE, 0x4300}),
         {"-unisign"}},
        {"output named outside the family stays in units", {"-encin:UTF-16", "-encout:UTF-8"}, Units({'A'}),
         Units({'C'})},
        {"wide output of byte input", {"-encin:ISO-8859-1", "-encout:UTF-16"}, "A", Units({'C'})},
        {"swapped output of byte input", {"-encin:ISO-8859-1", "-encout:CP1201"}, "A", Units({0x4300})},
        // Of the signatures, only UTF-8 by that name gets one.
        {"UTF-8 signature added on request", {"-encin:UTF-8", "-unisign"}, "A", "\xEF\xBB\xBF" "C"},
        {"any case of the name", {"-encin:UTF-8", "-encout:utf-8", "-unisign"}, "A", "\xEF\xBB\xBF" "C"},
        {"dropped on reading, not restored unasked", {"-encin:UTF-8"}, "\xEF\xBB\xBF" "A", "C"},
        {"another spelling gets none", {"-encin:UTF-8", "-encout:UTF8", "-unisign", "-force"}, "A", "C"},
        {"byte encodings get none", {"-encin:ISO-8859-1", "-unisign"}, "A", "C"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", "A->C\n");
        box.Put("w.bin", row.before);
        Args args = {"w.bin", "-f", "-argfile:p.txt"};
        args.insert(args.end(), row.encoding.begin(), row.encoding.end());
        args.insert(args.end(), row.extra.begin(), row.extra.end());
        const RunResult run = box.Run(args);
        EXPECT_EQ(run.status, 0) << row.why << run.out << run.err;
        EXPECT_EQ(Visible(box.Get("w.bin")), Visible(row.after)) << row.why;
    }
}

TEST(WideUnits, StreamsAndArgumentsFile)
{
    Sandbox box;
    box.Put("p.txt", "A->C\n");
    box.Put("wide-pairs.bin", Units({'A', '-', '>', 'Z', '\n'}));
    struct Row {
        const char* why;
        Args args;
        std::string input, out;
    } rows[] = {
        {"units in, units out, nothing added", {"-f", "-argfile:p.txt", "-encin:UTF-16"}, Units({'A', 'b'}),
         Units({'C', 'b'})},
        {"a partial last unit is kept", {"-f", "-argfile:p.txt", "-encin:UTF-16"}, Units({'A'}) + "z",
         Units({'C'}) + "z"},
        {"swapped units", {"-f", "-argfile:p.txt", "-encin:UTF-16BE"}, Units({0x4100}), Units({0x4300})},
        {"empty input, empty output", {"-f", "-argfile:p.txt", "-encin:UTF-16"}, "", ""},
        {"pairs read in units", {"-f", "-argfile:wide-pairs.bin", "-encarg:UTF-16", "-encin:ISO-8859-1"}, "A", "Z"},
        {"no signature on standard output", {"-f", "-argfile:p.txt", "-encin:UTF-16", "-unisign"}, Units({'A'}),
         Units({'C'})},
    };
    for (const Row& row : rows) {
        const RunResult run = box.Run(row.args, {row.input});
        EXPECT_EQ(run.status, 0) << row.why << run.err;
        EXPECT_EQ(Visible(run.out), Visible(row.out)) << row.why;
    }
}

TEST(Compatibility, LossyConversionsNeedForce)
{
    Sandbox box;
    box.Put("p.txt", "A->C\n");
    box.Put("t.txt", "A");
    const RunResult refused = box.Run({"t.txt", "-f", "-argfile:p.txt", "-encin: UTF-8 ", "-encout:GBK"});
    EXPECT_EQ(refused.status, 255);
    EXPECT_EQ(refused.out,
              "\n## Incompatible text encoding convertion detected: encoding from \"UTF-8\" to \"GBK\" will lost "
              "infomation and should not be used. use: \"tolmek -listcmp\" for a list of the compatible convertion "
              "combinations. or use \"-force\" to enforce the convertion.\n");
    EXPECT_EQ(box.Get("t.txt"), "A");

    const RunResult forced = box.Run({"t.txt", "-f", "-argfile:p.txt", "-encin:UTF-8", "-encout:GBK", "-force"});
    EXPECT_EQ(forced.status, 0) << forced.err;
    EXPECT_EQ(box.Get("t.txt"), "C");
}

TEST(Conversion, RealEncodingsAndBadInput)
{
    // "你好, 世界" in GBK, and the pairs written in UTF-8.
    const std::string gbkHello = "\xC4\xE3\xBA\xC3, \xCA\xC0\xBD\xE7";
    struct Row {
        const char* why;
        std::string before;
        Args args;
        std::string after;
        std::string locale = "C";
    } rows[] = {
        {"GBK in and out", gbkHello, {"-encin:GBK"}, "\xC4\xE3\xBA\xC3, World"},
        {"GBK to UTF-8", gbkHello, {"-encin:GBK", "-encout:UTF-8"}, "\xE4\xBD\xA0\xE5\xA5\xBD, World"},
        {"Latin-1 to UTF-8", "Stra\xDF" "e", {"-encin:ISO-8859-1", "-encout:UTF-8"}, "Street"},
        {"Latin-1 keeps every other byte, NUL included", "\x00\xFF\x80Stra\xDF" "e\x01",
         {"-encin:latin1", "-force"}, "\x00\xFF\x80Street\x01"},
        {"a UTF-8 locale needs no names", "\xC3\xA9t\xC3\xA9 Stra\xC3\x9F" "e", {}, "\xC3\xA9t\xC3\xA9 Street",
         "C.UTF-8"},
        {"an unknown name maps bytes one to one", "\xE9 Stra\xDF" "e", {"-encin:NO-SUCH-CODE", "-force"},
         "\xE9 Stra\xDF" "e"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", "世界->World\nStraße->Street\n");
        box.Put("t.txt", row.before);
        Args args = {"t.txt", "-f", "-argfile:p.txt", "-encarg:UTF-8"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const RunResult run = box.Run(args, {"", row.locale});
        EXPECT_EQ(run.status, 0) << row.why << run.out << run.err;
        EXPECT_EQ(Visible(box.Get("t.txt")), Visible(row.after)) << row.why;
    }

    // A byte that is invalid in the input encoding does not stop the run,
    // and it is written back as it was.
    {
        Sandbox box;
        box.Put("p.txt", "Straße->Street\n");
        box.Put("t.txt", "\xFF Stra\xC3\x9F" "e");
        const RunResult run = box.Run({"t.txt", "-f", "-argfile:p.txt", "-encarg:UTF-8", "-encin:UTF-8"});
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(Visible(box.Get("t.txt")), Visible("\xFF Street"));
    }

    // The same unknown name on both sides is no known lossless conversion.
    Sandbox box;
    box.Put("p.txt", "a->b\n");
    box.Put("t.txt", "a");
    const RunResult refused = box.Run({"t.txt", "-f", "-argfile:p.txt", "-encin:NO-SUCH-CODE"});
    EXPECT_EQ(refused.status, 255);
    EXPECT_EQ(box.Get("t.txt"), "a");
}

// UTF-8 in and out with literal pairs: the pairs run on the file's bytes.
// Each row also runs as a regular expression (the finds hold no special
// character), which always goes through wide text: both must give the
// expected bytes.
TEST(Utf8Files, LiteralPairsOnBytesMatchTheWideText)
{
    std::string longText, longAfter;
    for (int k = 0; k < 200; ++k) {
        longText += "fox caf\xC3\xA9 \xE4\xBD\xA0\xE5\xA5\xBD fox\n";
        longAfter += "cat caf\xC3\xA9 \xF0\x9F\x98\x80\xE5\xA5\xBD cat\n";
    }
    struct Row {
        const char* why;
        std::string before, pairs, after;
        Args extra = {};
        std::string out = "";
    } rows[] = {
        {"characters of every length in finds and replaces", "caf\xC3\xA9 na\xC3\xAFve",
         "caf\xC3\xA9->tea\nna\xC3\xAFve->\xE6\x97\xA5\xF0\x9F\x98\x80", "tea \xE6\x97\xA5\xF0\x9F\x98\x80"},
        {"a later pair sees what an earlier one wrote", "aXbXc", "X->YY\nYY->Z", "aZbZc"},
        {"replacements that shrink the text", "abcabcab", "abc->Z", "ZZab"},
        {"signature dropped", "\xEF\xBB\xBF" "fox", "fox->cat", "cat"},
        {"signature restored", "\xEF\xBB\xBF" "fox", "fox->cat", "\xEF\xBB\xBF" "cat", {"-unisign"}},
        {"nothing replaced: the file stays, signature and all", "\xEF\xBB\xBF" "dog", "fox->cat",
         "\xEF\xBB\xBF" "dog"},
        {"NUL is a character like any other", "a\0fox"s, "fox->cat", "a\0cat"s},
        {"standard output, the file left alone", "\xEF\xBB\xBF" "fox", "fox->cat", "\xEF\xBB\xBF" "fox",
         {"-stdout"}, "cat"},
        {"a text of many blocks", longText, "fox->cat\n\xE4\xBD\xA0->\xF0\x9F\x98\x80", longAfter},
        {"an ill-formed file keeps its broken bytes", "fox\xC3(fox", "fox->cat", "cat\xC3(cat"},
    };
    for (const Row& row : rows)
        for (const char* method : {"-f", "-r"}) {
            Sandbox box;
            box.Put("p.txt", row.pairs + "\n");
            box.Put("t.txt", row.before);
            Args args = {"t.txt", method, "-argfile:p.txt", "-encin:UTF-8", "-encarg:UTF-8"};
            args.insert(args.end(), row.extra.begin(), row.extra.end());
            RunOptions options;
            options.locale = "C.UTF-8";
            const RunResult run = box.Run(args, options);
            EXPECT_EQ(run.status, 0) << row.why << " " << method << run.err;
            EXPECT_EQ(Visible(box.Get("t.txt")), Visible(row.after)) << row.why << " " << method;
            EXPECT_EQ(Visible(run.out), Visible(row.out)) << row.why << " " << method;
        }
}

TEST(Listings, ColumnsOfEncodingsAndGroups)
{
    Sandbox box;
    const RunResult encodings = box.Run({"-listenc", "-listcmp", "-encin:NOPE", "*.none"});
    EXPECT_EQ(encodings.status, 0);
    EXPECT_EQ(encodings.out.substr(0, 124),
              "\nName                Codepage   Description\n" + std::string(79, '=') + "\n");
    struct Row {
        const char* why;
        std::string line;
    } rows[] = {
        {"short name padded to 20", "ANSI-Arabic         CP1256     Arabic - ANSI\n"},
        {"a name of 20 moves the row on", "ANSI-CentralEuropean\n                    CP1250     Central European"},
        {"long name", "OEM-MultlingualLatinI+EuroSymbol\n                    CP858      Multlingual Latin I"},
        {"table order ignores case", "UCS-2LE             CP1200     Unicode - UCS-2 Little-Endian"},
        {"last row", "VISCII              CP1258     Vietnamese - VISCII\n"},
    };
    for (const Row& row : rows)
        EXPECT_NE(encodings.out.find(row.line), std::string::npos) << row.why;
    EXPECT_EQ(encodings.out.find("-- Unicode Charset --"), std::string::npos) << "only the first listing runs";
    EXPECT_EQ(std::count(encodings.out.begin(), encodings.out.end(), '\n'), 3 + 95 + 3);

    const RunResult groups = box.Run({"-LISTCMP"});
    EXPECT_EQ(groups.status, 0);
    const std::string head = "From                                    To\n" + std::string(79, '=') + "\n";
    const std::string pad = std::string(40 - 5, ' ');
    Row groupRows[] = {
        {"any source", "\n-- Unicode Charset --\n" + head + "<ANY>" + pad + "GB18030\n<ANY>" + pad + "UCS-2\n"},
        {"any target", "\n-- Standard English --\n" + head + "ANSI_x3.4-1968" + std::string(26, ' ') + "<ANY>\n"},
        {"mutual group", "\n-- Vietnamese --\n" + head + "TCVN" + std::string(36, ' ') + "TCVN\nVISCII" +
                             std::string(34, ' ') + "VISCII\n"},
        {"side by side, the right side runs out",
         "\n-- CJK Charset --\n" + head + "BIG5" + std::string(36, ' ') + "GB18030\nBIG5-HKSCS" +
             std::string(30, ' ') + "GBK\nBIG5-HKSCS:1999" + std::string(25, ' ') + "\n"},
    };
    for (const Row& row : groupRows)
        EXPECT_NE(groups.out.find(row.line), std::string::npos) << row.why;
    size_t groupCount = 0;
    for (size_t at = 0; (at = groups.out.find("\n-- ", at)) != std::string::npos; ++at)
        ++groupCount;
    EXPECT_EQ(groupCount, 18u);
}

}  // namespace
