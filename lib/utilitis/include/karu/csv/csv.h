// Delimited text: a row reader over any data source, a row writer to any
// sink, and CCsv, an in-memory table of text cells.
//
// The parser is a four-state machine over the bytes of one row: at a field's
// start, in a plain field, in a quoted field, behind a closing quoter. A
// quoter counts only at a field's start and a quoted field has no escape,
// so a doubled quoter is an error rather than a quote. Only the first byte
// of the line end is tested; the rest of it is stepped over unseen, which is
// what lets "\r\n" files be read with a bare "\r" inside a plain field ending
// the row. Blank rows never appear.
//
// The writer quotes a field that holds the delimiter or the whole line end
// (and, by mode, empty or all fields); it does not look for the quoter, so a
// field holding one does not read back. Callers that need every text to
// survive escape the quoter themselves.
//
// Both work on one 8192-byte block of their own, so neither holds more than
// a block of the data in memory.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <karu/stream/datastream.h>
#include <karu/string/karuExp.h>

namespace Karu {

using StringVector = std::vector<stringEx>;

// One read from the source, and one hand-over to the sink.
constexpr size_t kCsvBlockSize = 8192;
// A row longer than this is taken for a runaway quotation or a binary file.
constexpr uint64_t kCsvDefaultRowQuota = 16u << 20;

enum CsvQuoteMode : uint32_t { kQuoteAsNeeded = 0, kQuoteEmpty = 1, kQuoteAlways = 2 };

class CCsvParser {
public:
    explicit CCsvParser(std::shared_ptr<TDataSource> source, char delimiter = ',', char quoter = '"',
                        const stringEx& lineEnd = "\n", uint64_t rowQuota = kCsvDefaultRowQuota);

    // Empties `row` (keeping its storage) and fills it with the next row;
    // false at the end of the data.
    bool GetNextRow(StringVector& row);
    uint64_t GetRowNumber() const noexcept { return rowNumber; }

private:
    bool __NextByte(unsigned char& c);
    void __StepOverLineEnd();

    char quoter;
    char delimiter;
    stringEx lineEnd;
    std::shared_ptr<TDataSource> source;
    uint64_t rowQuota;
    uint64_t rowNumber = 0;
    byteEx buffer;
    uint64_t position = 0;
    stringEx _field;  // reused from field to field and row to row
};

class CCsvWriter {
public:
    explicit CCsvWriter(std::shared_ptr<TDataSink> sink, char delimiter = ',', char quoter = '"',
                        const stringEx& lineEnd = "\n", uint32_t quoteMode = kQuoteAsNeeded);
    // Hands over what the block still holds; raises only when no other
    // exception is passing.
    ~CCsvWriter() noexcept(false);
    CCsvWriter(const CCsvWriter&) = delete;
    CCsvWriter& operator=(const CCsvWriter&) = delete;

    void AppendRow(const StringVector& row);
    // Hands the block to the sink and flushes the sink.
    void Close();
    uint32_t GetRowNumber() const noexcept { return rowNumber; }

private:
    void __Put(const char* data, size_t size);
    void __Hand();

    uint32_t rowNumber = 0;
    char quoter;
    char delimiter;
    stringEx lineEnd;
    std::shared_ptr<TDataSink> sink;
    uint32_t quoteMode;
    byteEx buffer;
    uint64_t position = 0;
};

class CCsv {
public:
    // Fills the table from text. `delimiters` is a set: any of its bytes
    // separates fields. An empty `lineEnd` is guessed from the text. With
    // `quoted` and a quoter, delimiters and line ends between a pair of
    // quoters do not split, and the quoters themselves are dropped.
    void Open(const stringEx& text, const stringEx& delimiters = ",", const stringEx& lineEnd = stringEx(),
              bool quoted = false, const stringEx& quoter = "\"");
    // The same for a whole file.
    void OpenFile(const stringEx& path, const stringEx& delimiters = ",", const stringEx& lineEnd = stringEx(),
                  bool quoted = false, const stringEx& quoter = "\"");
    void Save(TDataSink& sink, char delimiter = ',', const stringEx& lineEnd = "\n",
              uint32_t quoteMode = kQuoteAsNeeded, char quoter = '"') const;
    // Builds the text in memory and writes it with CDir::WriteFile.
    void SaveFile(const stringEx& path, char delimiter = ',', const stringEx& lineEnd = "\n",
                  uint32_t quoteMode = kQuoteAsNeeded, char quoter = '"') const;

    // "\r\n", "\r" or "\n", by counting them in the first 32 KiB.
    static stringEx GuessLineEnd(const stringEx& text);

    uint64_t RowCount() const noexcept { return rowCount; }
    uint64_t ColumnCount() const noexcept { return columnCount; }
    const StringVector& Row(uint64_t row) const { return rows.at(row); }
    const stringEx& Cell(uint64_t row, uint64_t column) const { return rows.at(row).at(column); }
    bool SetCell(uint64_t row, uint64_t column, const stringEx& value);

    // Each returns false, changing nothing, for a bad position, a count of
    // 0 or an empty table. New cells are the shared empty string.
    bool InsertRows(uint64_t at, uint64_t count);
    bool RemoveRows(uint64_t at, uint64_t count);
    bool InsertColumns(uint64_t at, uint64_t count);
    bool RemoveColumns(uint64_t at, uint64_t count);
    void SetSize(uint64_t rowTotal, uint64_t columnTotal);
    void Clear();

private:
    void __StdParser(const stringEx& text, const stringEx& delimiters, const stringEx& lineEnd);
    void __QidParser(const stringEx& text, const stringEx& delimiters, const stringEx& lineEnd, char quote);
    void __Square(const char* who);

    std::vector<StringVector> rows;
    uint64_t rowCount = 0;
    uint64_t columnCount = 0;
};

}  // namespace Karu
