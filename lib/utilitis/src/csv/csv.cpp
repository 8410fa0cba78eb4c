// CCsv: the in-memory table, its two text parsers and its row and column
// editing.
//
// The table is kept square: every row has `columnCount` cells, shorter rows
// of the text being padded with the shared empty string. The plain parser
// splits at line ends and then at any byte of the delimiter set; the quoted
// one walks the text once, toggling a quotation at each quoter, so that
// delimiters and line ends inside a quotation stay in the field. Empty lines
// make no row in either.
#include <karu/csv/csv.h>

#include <karu/file/dir.h>

#include <algorithm>
#include <cstring>

namespace Karu {
namespace {

// The guess looks no further than this into a text: enough lines to see a
// habit, and a constant cost for any file size.
constexpr uint64_t kLineEndSample = 32768;

bool IsDelimiter(const stringEx& set, char c) noexcept
{
    return set.Find(c) != stringEx::npos;
}

bool LineEndAt(const stringEx& text, uint64_t pos, const stringEx& lineEnd) noexcept
{
    return !lineEnd.empty() && pos + lineEnd.size() <= text.size() &&
           std::memcmp(text.data() + pos, lineEnd.data(), lineEnd.size()) == 0;
}

}  // namespace

stringEx CCsv::GuessLineEnd(const stringEx& text)
{
    const uint64_t end = std::min<uint64_t>(text.size(), kLineEndSample);
    uint64_t crlf = 0, lf = 0, cr = 0;
    for (uint64_t i = 0; i < end; ++i) {
        if (text[i] == '\n')
            ++lf;
        else if (text[i] == '\r') {
            ++cr;
            if (i + 1 < end && text[i + 1] == '\n')
                ++crlf;
        }
    }
    if (crlf >= lf && crlf >= cr)
        return "\r\n";
    if (cr > lf && cr > crlf)
        return "\r";
    return "\n";
}

void CCsv::Clear()
{
    rows.clear();
    rowCount = columnCount = 0;
}

void CCsv::Open(const stringEx& text, const stringEx& delimiters, const stringEx& lineEnd, bool quoted,
                const stringEx& quoter)
{
    Clear();
    if (text.empty() || delimiters.empty())
        Throw<csvExp>(ExpMessage("CCsv::Open - nothing to open"), 2);
    const stringEx end = lineEnd.empty() ? GuessLineEnd(text) : lineEnd;
    if (quoted && !quoter.empty())
        __QidParser(text, delimiters, end, quoter[0]);
    else
        __StdParser(text, delimiters, end);
}

void CCsv::OpenFile(const stringEx& path, const stringEx& delimiters, const stringEx& lineEnd, bool quoted,
                    const stringEx& quoter)
{
    stringEx text;
    CDir::ReadFile(path, text);
    Open(text, delimiters, lineEnd, quoted, quoter);
}

void CCsv::__StdParser(const stringEx& text, const stringEx& delimiters, const stringEx& lineEnd)
{
    PiecePositions lines;
    SplitPositions(text, lineEnd, lines);
    for (const auto& [start, length] : lines) {
        if (length == 0)
            continue;
        StringVector row;
        uint64_t fieldStart = start;
        for (uint64_t i = start; i < start + length; ++i)
            if (IsDelimiter(delimiters, text[i])) {
                row.push_back(stringEx(text.data() + fieldStart, i - fieldStart));
                fieldStart = i + 1;
            }
        row.push_back(stringEx(text.data() + fieldStart, start + length - fieldStart));
        rows.push_back(std::move(row));
    }
    __Square("CCsv::__StdParser");
}

// An unclosed quotation runs to the end of the text.
void CCsv::__QidParser(const stringEx& text, const stringEx& delimiters, const stringEx& lineEnd, char quote)
{
    StringVector row;
    stringEx field;
    bool inQuote = false, lineHasText = false;
    auto endRow = [&] {
        if (lineHasText) {
            row.push_back(field);
            rows.push_back(std::move(row));
        }
        row = StringVector();
        field.clear();
        lineHasText = false;
    };
    for (uint64_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == quote) {
            inQuote = !inQuote;
            lineHasText = true;
            ++i;
        } else if (!inQuote && LineEndAt(text, i, lineEnd)) {
            endRow();
            i += lineEnd.size();
        } else if (!inQuote && IsDelimiter(delimiters, c)) {
            row.push_back(field);
            field.clear();
            lineHasText = true;
            ++i;
        } else {
            field += c;
            lineHasText = true;
            ++i;
        }
    }
    endRow();
    __Square("CCsv::__QidParser");
}

void CCsv::__Square(const char* who)
{
    if (rows.empty())
        Throw<csvExp>(ExpMessage(stringEx(who) + " - error parsing rows"), 1);
    for (const StringVector& row : rows)
        columnCount = std::max<uint64_t>(columnCount, row.size());
    if (columnCount == 0)
        Throw<csvExp>(ExpMessage(stringEx(who) + " - error parsing columns"), 1);
    for (StringVector& row : rows)
        row.resize(columnCount, g_emptyString);
    rowCount = rows.size();
}

void CCsv::SaveFile(const stringEx& path, char delimiter, const stringEx& lineEnd, uint32_t quoteMode,
                    char quoter) const
{
    byteEx text;
    CMemorySink sink(text);
    Save(sink, delimiter, lineEnd, quoteMode, quoter);
    CDir::WriteFile(path, text, false, false);
}

// ---- editing ---------------------------------------------------------------------------------

bool CCsv::SetCell(uint64_t row, uint64_t column, const stringEx& value)
{
    if (row >= rowCount || column >= columnCount)
        return false;
    rows[row][column] = value;
    return true;
}

bool CCsv::InsertRows(uint64_t at, uint64_t count)
{
    if (count == 0 || columnCount == 0 || at > rowCount)
        return false;
    rows.insert(rows.begin() + static_cast<ptrdiff_t>(at), count, StringVector(columnCount, g_emptyString));
    rowCount += count;
    return true;
}

bool CCsv::RemoveRows(uint64_t at, uint64_t count)
{
    if (count == 0 || at >= rowCount)
        return false;
    count = std::min(count, rowCount - at);
    rows.erase(rows.begin() + static_cast<ptrdiff_t>(at), rows.begin() + static_cast<ptrdiff_t>(at + count));
    rowCount -= count;
    return true;
}

bool CCsv::InsertColumns(uint64_t at, uint64_t count)
{
    if (count == 0 || rowCount == 0 || at > columnCount)
        return false;
    for (StringVector& row : rows)
        row.insert(row.begin() + static_cast<ptrdiff_t>(at), count, g_emptyString);
    columnCount += count;
    return true;
}

bool CCsv::RemoveColumns(uint64_t at, uint64_t count)
{
    if (count == 0 || rowCount == 0 || at >= columnCount)
        return false;
    count = std::min(count, columnCount - at);
    for (StringVector& row : rows)
        row.erase(row.begin() + static_cast<ptrdiff_t>(at), row.begin() + static_cast<ptrdiff_t>(at + count));
    columnCount -= count;
    return true;
}

void CCsv::SetSize(uint64_t rowTotal, uint64_t columnTotal)
{
    rows.resize(rowTotal);
    for (StringVector& row : rows)
        row.resize(columnTotal, g_emptyString);
    rowCount = rowTotal;
    columnCount = columnTotal;
}

}  // namespace Karu
