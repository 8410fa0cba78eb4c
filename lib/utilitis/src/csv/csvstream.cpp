// The row parser and the row writer over data streams.
//
// The parser keeps only its block and position between calls; one call
// runs the state machine from the start of a row to its end. Every byte of
// the call (blank lines included) counts toward the row quota, so a source
// of endless blank lines or an unclosed quotation over a huge file ends in
// the quota failure instead of an unbounded field.
#include <karu/csv/csv.h>

#include <cstring>

namespace Karu {
namespace {

enum ParseState { kFieldStart = 0, kPlain = 1, kQuoted = 2, kAfterQuote = 3 };

std::shared_ptr<TDataSink> Unowned(TDataSink& sink)
{
    // Aliasing with an empty owner: the handle never deletes the sink.
    return std::shared_ptr<TDataSink>(std::shared_ptr<TDataSink>(), &sink);
}

}  // namespace

CCsvParser::CCsvParser(std::shared_ptr<TDataSource> source, char delimiter, char quoter, const stringEx& lineEnd,
                       uint64_t rowQuota)
    : quoter(quoter), delimiter(delimiter), lineEnd(lineEnd), source(std::move(source)), rowQuota(rowQuota)
{
}

// The next byte, refilling the block; false when the data is exhausted.
bool CCsvParser::__NextByte(unsigned char& c)
{
    if (position >= buffer.size()) {
        if (!source || source->IsEof())
            return false;
        unsigned char* block = buffer.GetBuffer(kCsvBlockSize);
        buffer.SetSize(0);
        position = 0;
        const size_t got = source->Read(block, kCsvBlockSize);
        buffer.SetSize(got);
        // A source that cannot tell its end in advance says so by reading nothing.
        if (got == 0)
            return false;
    }
    c = buffer[position++];
    return true;
}

void CCsvParser::__StepOverLineEnd()
{
    unsigned char skipped;
    for (uint64_t n = 1; n < lineEnd.size(); ++n)
        if (!__NextByte(skipped))
            return;
}

bool CCsvParser::GetNextRow(StringVector& row)
{
    row.clear();
    _field.clear();
    const char lineMark = lineEnd.empty() ? '\0' : lineEnd[0];
    const bool hasLineEnd = !lineEnd.empty();
    auto endField = [&] { row.push_back(stringEx(_field.data(), _field.size())); };
    uint64_t length = 0;
    int state = kFieldStart;
    bool rowDone = false;
    while (!rowDone) {
        if (!source || (position >= buffer.size() && source->IsEof()))
            break;
        if (length > rowQuota)
            Throw<csvExp>(ExpMessage("CCsvParser::GetNextRow - out of row length quota\n")
                              .Detail("current quota", static_cast<int64_t>(rowQuota)),
                          5);
        unsigned char byte;
        if (!__NextByte(byte))
            break;
        const char c = static_cast<char>(byte);
        ++length;
        const bool isLineEnd = hasLineEnd && c == lineMark;
        switch (state) {
        case kFieldStart:
            if (c == quoter) {
                _field.clear();
                state = kQuoted;
            } else if (c == delimiter) {
                _field.clear();
                endField();
            } else if (isLineEnd) {
                __StepOverLineEnd();
                if (!row.empty()) {
                    _field.clear();
                    endField();
                    rowDone = true;
                }
            } else {
                _field.clear();
                _field += c;
                state = kPlain;
            }
            break;
        case kPlain:
            if (c == delimiter) {
                endField();
                state = kFieldStart;
            } else if (isLineEnd) {
                endField();
                __StepOverLineEnd();
                rowDone = true;
            } else {
                _field += c;
            }
            break;
        case kQuoted:
            if (c == quoter) {
                endField();
                state = kAfterQuote;
            } else {
                _field += c;
            }
            break;
        case kAfterQuote:
            if (c == delimiter) {
                state = kFieldStart;
            } else if (isLineEnd) {
                __StepOverLineEnd();
                rowDone = true;
            } else {
                Throw<csvExp>(ExpMessage("CCsvParser::GetNextRow - delimiter or line end mark not follow by end "
                                         "of qouter\n")
                                  .Detail("char", stringEx(&c, 1) + stringEx::Format(" (%#x)", byte))
                                  .Detail("expect", stringEx(&delimiter, 1) + lineEnd)
                                  .Detail("content", _field),
                              1);
            }
            break;
        default:
            Throw<csvExp>(ExpMessage("CCsvParser::GetNextRow - unknown status\n").Detail("status", state), 4);
        }
    }
    if (!rowDone) {
        if (state == kPlain)
            endField();
        else if (state == kQuoted)
            Throw<csvExp>(ExpMessage("CCsvParser::GetNextRow - the last qouted field is not closed correctly\n")
                              .Detail("content", _field),
                          1);
    }
    if (row.empty())
        return false;
    ++rowNumber;
    return true;
}

// ---- writer -------------------------------------------------------------------------------

CCsvWriter::CCsvWriter(std::shared_ptr<TDataSink> sink, char delimiter, char quoter, const stringEx& lineEnd,
                       uint32_t quoteMode)
    : quoter(quoter), delimiter(delimiter), lineEnd(lineEnd), sink(std::move(sink)), quoteMode(quoteMode)
{
    buffer.ReserveExact(kCsvBlockSize);
}

CCsvWriter::~CCsvWriter() noexcept(false)
{
    try {
        __Hand();
    } catch (...) {
        if (MayThrowFromDestructor())
            throw;
    }
}

void CCsvWriter::__Hand()
{
    if (position && sink)
        IMPL::WriteAll(*sink, buffer.data(), position);
    position = 0;
    buffer.SetSize(0);
}

void CCsvWriter::__Put(const char* data, size_t size)
{
    if (position + size > kCsvBlockSize - 1)
        __Hand();
    if (size >= kCsvBlockSize) {
        if (sink)
            IMPL::WriteAll(*sink, data, size);
        return;
    }
    std::memcpy(buffer.MutableData() + position, data, size);
    position += size;
    buffer.SetSize(position);
}

void CCsvWriter::AppendRow(const StringVector& row)
{
    if (row.empty())
        Throw<csvExp>(ExpMessage("CCsvWriter::AppendRow - nothing to append"), 2);
    for (size_t i = 0; i < row.size(); ++i) {
        const stringEx& field = row[i];
        if (i)
            __Put(&delimiter, 1);
        const bool quote = quoteMode == kQuoteAlways || (quoteMode == kQuoteEmpty && field.empty()) ||
                           field.Find(delimiter) != stringEx::npos ||
                           (!lineEnd.empty() && field.Find(lineEnd) != stringEx::npos);
        if (quote)
            __Put(&quoter, 1);
        __Put(field.data(), field.size());
        if (quote)
            __Put(&quoter, 1);
    }
    __Put(lineEnd.data(), lineEnd.size());
    ++rowNumber;
}

void CCsvWriter::Close()
{
    __Hand();
    if (sink)
        sink->Flush();
}

// ---- table save over the writer --------------------------------------------------------------

void CCsv::Save(TDataSink& sink, char delimiter, const stringEx& lineEnd, uint32_t quoteMode, char quoter) const
{
    if (rowCount == 0 || columnCount == 0)
        Throw<csvExp>(ExpMessage("CCsv::Save - nothing to save"), 2);
    CCsvWriter writer(Unowned(sink), delimiter, quoter, lineEnd, quoteMode);
    for (const StringVector& row : rows)
        writer.AppendRow(row);
    writer.Close();
}

}  // namespace Karu
