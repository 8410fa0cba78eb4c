// Fuzzes the CSV row parser and the table's two text parsers. The first
// bytes choose the delimiter, the quoter and the line end; the rest is the
// text. Rows that the writer can express must come back unchanged when it
// writes them and the parser reads them again: no field may hold the quoter
// (it is not escaped), a field holding the first byte of the line end must
// be one the writer quotes (it tests for the whole line end, the parser for
// its first byte), and a row of one bare empty field is a blank line.
#include <karu/csv/csv.h>

#include <cstddef>
#include <cstdint>
#include <vector>

using namespace Karu;

namespace {

std::vector<StringVector> ParseAll(byteEx& text, char delimiter, char quoter, const stringEx& lineEnd)
{
    CCsvParser parser(std::make_shared<CMemorySource>(text), delimiter, quoter, lineEnd, 4096);
    std::vector<StringVector> rows;
    StringVector row;
    while (parser.GetNextRow(row))
        rows.push_back(row);
    return rows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    const char delimiter = static_cast<char>(data[0]);
    const char quoter = static_cast<char>(data[1]);
    static const char* const kLineEnds[] = {"\n", "\r\n", "\r", "\n\n\n"};
    const stringEx lineEnd(kLineEnds[data[2] % 4]);
    if (delimiter == quoter || delimiter == lineEnd[0] || quoter == lineEnd[0])
        return 0;
    byteEx text(data + 3, size - 3);

    std::vector<StringVector> rows;
    try {
        rows = ParseAll(text, delimiter, quoter, lineEnd);
    } catch (const csvExp&) {
        rows.clear();
    }
    const uint32_t mode = data[2] / 4 % 3;
    auto quoted = [&](const stringEx& field) {
        return mode == kQuoteAlways || (mode == kQuoteEmpty && field.empty()) ||
               field.Find(delimiter) != stringEx::npos || field.Find(lineEnd) != stringEx::npos;
    };
    bool writable = !rows.empty();
    for (const StringVector& row : rows) {
        for (const stringEx& field : row)
            writable = writable && field.Find(quoter) == stringEx::npos &&
                       (quoted(field) || field.Find(lineEnd[0]) == stringEx::npos);
        writable = writable && !(row.size() == 1 && row[0].empty() && !quoted(row[0]));
    }
    if (writable) {
        byteEx out;
        {
            CCsvWriter writer(std::make_shared<CMemorySink>(out), delimiter, quoter, lineEnd, mode);
            for (const StringVector& row : rows)
                writer.AppendRow(row);
            writer.Close();
        }
        if (ParseAll(out, delimiter, quoter, lineEnd) != rows)
            __builtin_trap();
    }

    const stringEx asText(reinterpret_cast<const char*>(data + 3), size - 3);
    for (bool quoted : {false, true}) {
        CCsv table;
        try {
            table.Open(asText, stringEx(&delimiter, 1), stringEx(), quoted, stringEx(&quoter, 1));
        } catch (const csvExp&) {
            continue;
        }
        for (uint64_t r = 0; r < table.RowCount(); ++r)
            if (table.Row(r).size() != table.ColumnCount())
                __builtin_trap();
    }
    return 0;
}
