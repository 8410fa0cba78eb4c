// The row parser's state machine, the writer's quoting, the table and its
// two text parsers, and the C stream class.
#include <karu/csv/cfile.h>
#include <karu/csv/csv.h>

#include <gtest/gtest.h>

#include "file/tests/text_helpers.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

using namespace Karu;
using namespace KaruTest;

namespace {

using Rows = std::vector<std::vector<std::string>>;

std::shared_ptr<TDataSource> SourceOf(byteEx& bytes)
{
    return std::make_shared<CMemorySource>(bytes);
}

// All rows of a text, or the failure's message as the only cell.
Rows Parse(const std::string& text, const char* lineEnd = "\n", uint64_t quota = kCsvDefaultRowQuota,
           uint64_t* rowNumber = nullptr)
{
    byteEx bytes = BytesOf(text);
    CCsvParser parser(SourceOf(bytes), ',', '"', stringEx(lineEnd), quota);
    Rows rows;
    StringVector row;
    try {
        while (parser.GetNextRow(row)) {
            rows.emplace_back();
            for (const stringEx& cell : row)
                rows.back().push_back(std::string(cell.data(), cell.size()));
        }
    } catch (const csvExp& e) {
        return {{std::string("!") + e.message.c_str()}};
    }
    if (rowNumber)
        *rowNumber = parser.GetRowNumber();
    return rows;
}

TEST(CsvParser, StateMachineRowsAndFailures)
{
    struct Row {
        const char* why;
        std::string text;
        const char* lineEnd;
        Rows expect;
    } rows[] = {
        {"two fields", "a,b\n", "\n", {{"a", "b"}}},
        {"trailing delimiters make empty fields", "a,,\n", "\n", {{"a", "", ""}}},
        {"at the very end one field fewer", "a,b,", "\n", {{"a", "b"}}},
        {"blank lines vanish", "a\n\n\nb\n", "\n", {{"a"}, {"b"}}},
        {"a bare CR ends the row and eats a byte", "ab\rxc\r\n", "\r\n", {{"ab"}, {"c"}}},
        {"quoted fields keep delimiters and line ends", "\"a,b\nc\",d\n", "\n", {{"a,b\nc", "d"}}},
        {"quoter inside a plain field is text", "a\"b,c\n", "\n", {{"a\"b", "c"}}},
        {"empty quoted field then empty field", "\"\",\n", "\n", {{"", ""}}},
        {"no line end at all", "x", "\n", {{"x"}}},
        {"empty data", "", "\n", {}},
        {"doubled quoter is no escape", "\"a\"\"b\"\n", "\n",
         {{"!CCsvParser::GetNextRow - delimiter or line end mark not follow by end of qouter\n"
           "  char    = \" (0x22)\n  expect  = ,\n\n  content = a\n"}}},
        {"unclosed quotation at the end", "x,\"abc", "\n",
         {{"!CCsvParser::GetNextRow - the last qouted field is not closed correctly\n  content = abc\n"}}},
    };
    for (const Row& r : rows)
        EXPECT_EQ(Parse(r.text, r.lineEnd), r.expect) << r.why;

    uint64_t counted = 0;
    Parse("a\n\nb\n\n", "\n", kCsvDefaultRowQuota, &counted);
    EXPECT_EQ(counted, 2u);  // blank lines are not counted
    EXPECT_EQ(Parse("abcdefgh\n", "\n", 4),
              Rows{{"!CCsvParser::GetNextRow - out of row length quota\n  current quota = 4\n"}});
    // A field larger than two blocks crosses refills intact.
    const std::string big(20000, 'q');
    EXPECT_EQ(Parse(big + "," + big + "\r\n", "\r\n"), (Rows{{big, big}}));
}

std::string Written(const Rows& rows, uint32_t mode, const char* lineEnd = "\n")
{
    byteEx bytes;
    {
        CCsvWriter writer(std::make_shared<CMemorySink>(bytes), ',', '"', stringEx(lineEnd), mode);
        for (const auto& row : rows) {
            StringVector cells;
            for (const std::string& cell : row)
                cells.push_back(stringEx(cell.c_str()));
            writer.AppendRow(cells);
        }
    }  // dropped without Close: the destructor hands the block over
    return TextOf(bytes);
}

TEST(CsvWriter, QuotesWhatWouldSplitAndRoundTrips)
{
    struct Row {
        const char* why;
        Rows rows;
        uint32_t mode;
        const char* expect;
    } rows[] = {
        {"plain", {{"a", "b"}}, kQuoteAsNeeded, "a,b\n"},
        {"delimiter inside", {{"a,b", "c"}}, kQuoteAsNeeded, "\"a,b\",c\n"},
        {"line end inside", {{"a\nb"}}, kQuoteAsNeeded, "\"a\nb\"\n"},
        {"empty fields stay bare", {{"", "x", ""}}, kQuoteAsNeeded, ",x,\n"},
        {"mode 1 quotes empty fields", {{"", "x"}}, kQuoteEmpty, "\"\",x\n"},
        {"mode 2 quotes all", {{"a", ""}}, kQuoteAlways, "\"a\",\"\"\n"},
        {"a quoter is not escaped", {{"say \"hi\""}}, kQuoteAsNeeded, "say \"hi\"\n"},
    };
    for (const Row& r : rows)
        EXPECT_EQ(Written(r.rows, r.mode), r.expect) << r.why;

    byteEx sink;
    CCsvWriter writer(std::make_shared<CMemorySink>(sink));
    int32_t code = 0;
    EXPECT_EQ(MessageOf<csvExp>([&] { writer.AppendRow({}); }, &code), "CCsvWriter::AppendRow - nothing to append");
    EXPECT_EQ(code, 2);

    // Fields with separators and line ends, some larger than a block, come back.
    Rows many;
    for (int i = 0; i < 300; ++i)
        many.push_back({"row " + std::to_string(i), std::string(i * 37 % 9000, 'a' + i % 26) + ",\r\n", ""});
    EXPECT_EQ(Parse(Written(many, kQuoteEmpty, "\r\n"), "\r\n"), many);
}

TEST(CsvTable, OpensByBothParsersGuessesLineEndsAndEdits)
{
    struct Guess {
        const char* text;
        const char* lineEnd;
    } guesses[] = {
        {"a\r\nb\r\n", "\r\n"}, {"a\nb\n", "\n"}, {"a\rb\rc\n", "\r"}, {"a\r\nb\nc\n", "\n"}, {"", "\r\n"},
    };
    for (const Guess& g : guesses)
        EXPECT_EQ(CCsv::GuessLineEnd(g.text), stringEx(g.lineEnd)) << g.text;

    CCsv table;
    table.Open("a;b,c\r\n\r\nd\r\n", ",;");
    ASSERT_EQ(table.RowCount(), 2u);
    EXPECT_EQ(table.ColumnCount(), 3u);
    EXPECT_EQ(table.Cell(0, 1), stringEx("b"));
    EXPECT_EQ(table.Cell(1, 2), stringEx(""));  // padded

    table.Open("\"x,1\",\"y\ny\"\nz", ",", "\n", true);
    ASSERT_EQ(table.RowCount(), 2u);
    EXPECT_EQ(table.Cell(0, 0), stringEx("x,1"));
    EXPECT_EQ(table.Cell(0, 1), stringEx("y\ny"));
    EXPECT_EQ(table.Cell(1, 0), stringEx("z"));

    struct Edit {
        const char* why;
        bool (CCsv::*op)(uint64_t, uint64_t);
        uint64_t at, count;
        bool ok;
        uint64_t rows, columns;
    } edits[] = {
        {"insert rows at the end", &CCsv::InsertRows, 2, 2, true, 4, 2},
        {"insert rows past the end", &CCsv::InsertRows, 5, 1, false, 4, 2},
        {"insert columns in front", &CCsv::InsertColumns, 0, 1, true, 4, 3},
        {"remove a column", &CCsv::RemoveColumns, 0, 1, true, 4, 2},
        {"remove rows clipped to the end", &CCsv::RemoveRows, 1, 10, true, 1, 2},
        {"remove from a bad row", &CCsv::RemoveRows, 1, 1, false, 1, 2},
        {"count 0", &CCsv::InsertColumns, 0, 0, false, 1, 2},
    };
    for (const Edit& e : edits) {
        EXPECT_EQ((table.*e.op)(e.at, e.count), e.ok) << e.why;
        EXPECT_EQ(table.RowCount(), e.rows) << e.why;
        EXPECT_EQ(table.ColumnCount(), e.columns) << e.why;
    }
    table.SetSize(2, 2);
    EXPECT_TRUE(table.SetCell(1, 1, "q,r"));
    EXPECT_FALSE(table.SetCell(2, 0, "no"));
    byteEx out;
    CMemorySink sink(out);
    table.Save(sink);
    EXPECT_EQ(TextOf(out), "\"x,1\",\"y\ny\"\n,\"q,r\"\n");

    struct Failure {
        const char* why;
        std::function<void()> op;
        const char* message;
    } failures[] = {
        {"empty text", [] { CCsv().Open(""); }, "CCsv::Open - nothing to open"},
        {"empty delimiter set", [] { CCsv().Open("a", ""); }, "CCsv::Open - nothing to open"},
        {"only line ends", [] { CCsv().Open("\n\n", ",", "\n"); }, "CCsv::__StdParser - error parsing rows"},
        {"only line ends, quoted", [] { CCsv().Open("\n", ",", "\n", true); },
         "CCsv::__QidParser - error parsing rows"},
        {"empty table", [] {
             byteEx b;
             CMemorySink s(b);
             CCsv().Save(s);
         },
         "CCsv::Save - nothing to save"},
    };
    for (const Failure& f : failures)
        EXPECT_EQ(MessageOf<csvExp>(f.op), f.message) << f.why;
}

TEST(CFile, StreamCallsAndTheirFailures)
{
    char path[] = "/tmp/karu-cfile-XXXXXX";
    close(mkstemp(path));
    {
        CCFile file(path, "w+");
        file.Write("hello", 5);
        file.PutChar('!');
        file.Flush();
        file.SeekBegin(1);
        EXPECT_EQ(file.GetChar(), 'e');
        file.UnGetChar('E');
        char got[8] = {};
        EXPECT_EQ(file.Read(got, sizeof got), 5u);  // the short count at the end is no failure
        EXPECT_STREQ(got, "Ello!");
        EXPECT_EQ(file.GetChar(), EOF);
        EXPECT_EQ(file.GetCurrentPos(), 6);
        const fpos_t mark = [&] {
            file.SeekBegin(2);
            return file.LargeGetCurrentPos();
        }();
        file.SeekEnd(0);
        file.LargeSeekBegin(mark);
        EXPECT_EQ(file.GetTChar(), 'l');
    }
    const std::string missing = std::string(path) + "/no/such";
    struct Row {
        const char* why;
        std::function<void()> op;
        std::string message;
        int32_t code;
    } rows[] = {
        {"open", [&] { CCFile(missing.c_str(), "r"); },
         "CCFile::Open - failed open file\n  file name       : " + missing +
             "\n  opening mode    : r\n  system error is : Not a directory\n",
         4},
        {"seek on a closed object", [] { CCFile().SeekCurrent(3); },
         "CCFile::SeekCurrent - error occur when seeking\n  system error is : Bad file descriptor\n", 13},
        {"read from a write-only stream", [&] {
             CCFile f(path, "a");
             char c;
             f.Read(&c, 1);
         },
         "CCFile::Read - failed reading file\n  system error is : Bad file descriptor\n", 7},
        {"unget of the end mark, after a call that left errno set", [&] {
             CCFile f(path, "r");
             errno = ENOENT;
             f.UnGetChar(EOF);
         },
         "CCFile::UnGetChar - failed unget char\n  system error is : Invalid argument\n", 12},
    };
    for (const Row& r : rows) {
        int32_t code = 0;
        EXPECT_EQ(MessageOf<cfileExp>(r.op, &code), r.message) << r.why;
        EXPECT_EQ(code, r.code) << r.why;
    }
    std::remove(path);
}

}  // namespace
