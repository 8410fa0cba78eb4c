// Sources and sinks over memory and files, and the ISXF format: every type
// through both instantiations, the wire bytes of the zero values, the
// reader's checks and messages, and streams cut short or damaged.
#include <karu/stream/datastream.h>
#include <karu/stream/isxf.h>

#include <karu/file/dir.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "file/tests/scratch_dir.h"
#include "file/tests/text_helpers.h"

using namespace Karu;
using KaruTest::Hex;

namespace {

byteEx Bytes(std::initializer_list<int> values)
{
    byteEx out;
    for (int v : values)
        out.push_back(static_cast<unsigned char>(v));
    return out;
}

// A memory source that remembers the size of every read.
class RecordingSource : public TDataSource {
public:
    explicit RecordingSource(byteEx& bytes) : _io(bytes) {}
    bool IsOpen() const override { return true; }
    bool IsEof() override { return _io.IsEof(); }
    size_t Read(void* buffer, size_t size) override
    {
        reads.push_back(size);
        return _io.Read(buffer, size);
    }
    std::vector<size_t> reads;

private:
    CByteIO _io;
};

TEST(MemoryStream, ReadsSeeksAndFillsGaps)
{
    byteEx bytes;
    CMemorySink sink(bytes);
    EXPECT_EQ(sink.Write("abc", 3), 3u);
    EXPECT_EQ(sink.Write("x", 0), 0u);
    sink.SeekEnd(10);  // 10 past the end: the gap must read as zeros
    sink.Write("z", 1);
    EXPECT_EQ(Hex(bytes), "61 62 63 00 00 00 00 00 00 00 00 00 00 7a ");
    sink.SeekBegin(-4);  // a negative position refuses writes instead of touching memory
    EXPECT_EQ(sink.Write("q", 1), 0u);

    CMemorySource source(bytes);
    char got[4] = {};
    EXPECT_EQ(source.Peek(got, 2), 2u);
    EXPECT_EQ(source.GetPosition(), 0);  // peeking leaves the position
    EXPECT_EQ(std::string(got, 2), "ab");
    source.SeekEnd(-1);
    EXPECT_EQ(source.Read(got, 4), 1u);
    EXPECT_TRUE(source.IsEof());
    EXPECT_EQ(source.Read(got, 4), 0u);
    source.SeekBegin(-1);
    EXPECT_EQ(source.Read(got, 4), 0u);

    byteEx empty;
    RecordingSource plain(empty);
    EXPECT_EQ(plain.Peek(got, 1), 0u);  // a plain source cannot peek
    EXPECT_STREQ(plain.GetName(), "Unknown Data Source");
    EXPECT_STREQ(source.GetName(), "Generic Seekable Data Source");
}

TEST(BufferedStream, SourceServesFromItsBlockAndSeeksByLogicalPosition)
{
    const karu_test::ScratchDir dir;
    dir.Put("f", "0123456789abcdefghij");
    const std::string path = dir / "f";
    CSysFile file(path.c_str(), O_RDONLY);
    CBufferedSeekableSource<CSysFile> source(file, 8);
    char got[32] = {};

    EXPECT_EQ(source.Read(got, 3), 3u);
    EXPECT_EQ(file.GetCurrentPos(), 8);  // a whole block was taken from the shared descriptor
    EXPECT_EQ(source.GetPosition(), 3);
    EXPECT_EQ(source.SeekCurrent(0), 3);
    EXPECT_EQ(source.SeekCurrent(-2), 1);
    EXPECT_EQ(source.Read(got, 2), 2u);
    EXPECT_EQ(std::string(got, 2), "12");
    // A request of a whole block or more goes straight past the block.
    EXPECT_EQ(source.Read(got, 10), 10u);
    EXPECT_EQ(std::string(got, 10), "3456789abc");
    EXPECT_EQ(source.Peek(got, 2), 2u);
    EXPECT_EQ(source.GetPosition(), 13);
    EXPECT_EQ(source.Read(got, 32), 7u);
    EXPECT_TRUE(source.IsEof());
    EXPECT_EQ(source.Read(got, 1), 0u);
}

TEST(BufferedStream, SinkGathersUntilTheBlockIsFull)
{
    const karu_test::ScratchDir dir;
    dir.Put("f", "");
    const std::string path = dir / "f";
    auto onDisk = [&] { return dir.Get("f"); };
    {
        CSysFile file(path.c_str(), O_WRONLY);
        CBufferedSeekableSink<CSysFile> sink(file, 4);
        CBufferedSeekableSink<CSysFile> second(file, 4);  // a copy of the handle: one descriptor
        sink.Write("ab", 2);
        EXPECT_EQ(onDisk(), "");
        EXPECT_EQ(sink.GetPosition(), 2);
        sink.Write("cd", 2);  // the block is full: out it goes
        EXPECT_EQ(onDisk(), "abcd");
        sink.Write("0123456789", 10);  // larger than the block: passes through
        EXPECT_EQ(onDisk(), "abcd0123456789");
        sink.Write("x", 1);
        second.Write("YZ", 2);
        EXPECT_EQ(second.GetSize(), 16);  // writes out its own block only
        EXPECT_EQ(onDisk(), "abcd0123456789YZ");
    }  // the destructor writes out the last byte at the shared position
    EXPECT_EQ(onDisk(), "abcd0123456789YZx");
}

// ---- ISXF ---------------------------------------------------------------------------------

// One value of each kind, written and then checked by reading it back.
struct Kind {
    const char* name;
    std::function<void(CISXFWriter<TDataSink>&)> put;
    std::function<void(CISXFReader<CByteIO>&)> check;
};

std::vector<Kind> EveryKind()
{
    const stringEx text("na\xC3\xAFve \0text", 12);
    const wstringEx wide(L"wide \x4e2d");
    const byteEx blob = Bytes({0, 1, 2, 0xFF, 0});
    return {
        {"int8", [](auto& w) { w.PutInt8(-7); }, [](auto& r) { EXPECT_EQ(r.GetInt8(), -7); }},
        {"int16", [](auto& w) { w.PutInt16(-30000); }, [](auto& r) { EXPECT_EQ(r.GetInt16(), -30000); }},
        {"int32", [](auto& w) { w.PutInt32(INT32_MIN); }, [](auto& r) { EXPECT_EQ(r.GetInt32(), INT32_MIN); }},
        {"int64", [](auto& w) { w.PutInt64(INT64_MAX); }, [](auto& r) { EXPECT_EQ(r.GetInt64(), INT64_MAX); }},
        {"float", [](auto& w) { w.PutFloat(1.5e-30f); }, [](auto& r) { EXPECT_EQ(r.GetFloat(), 1.5e-30f); }},
        {"double", [](auto& w) { w.PutDouble(-2.75); }, [](auto& r) { EXPECT_EQ(r.GetDouble(), -2.75); }},
        {"nan", [](auto& w) { w.PutDouble(NAN); }, [](auto& r) { EXPECT_TRUE(std::isnan(r.GetDouble())); }},
        {"long double", [](auto& w) { w.PutLongDouble(1.0L / 3); },
         [](auto& r) { EXPECT_EQ(r.GetLongDouble(), 1.0L / 3); }},
        {"true", [](auto& w) { w.PutBool(true); }, [](auto& r) { EXPECT_TRUE(r.GetBool()); }},
        {"false", [](auto& w) { w.PutBool(false); }, [](auto& r) { EXPECT_FALSE(r.GetBool()); }},
        {"string", [=](auto& w) { w.PutString(text); },
         [=](auto& r) {
             stringEx s;
             r.GetString(s);
             EXPECT_EQ(s, text);
         }},
        {"wide string", [=](auto& w) { w.PutWString(wide); },
         [=](auto& r) {
             wchar_t buffer[16];
             EXPECT_EQ(r.GetWString(buffer, 16), wide.size());
             EXPECT_EQ(wstringEx(buffer), wide);
         }},
        {"blob", [=](auto& w) { w.PutBlob(blob); },
         [=](auto& r) {
             byteEx b;
             r.GetBlob(b);
             EXPECT_EQ(b, blob);
         }},
        {"empty blob", [](auto& w) { w.PutBlob(byteEx()); },
         [](auto& r) {
             byteEx b = Bytes({1});
             r.GetBlob(b);
             EXPECT_TRUE(b.empty());
         }},
        {"ctrl code", [](auto& w) { w.PutCtrlCode(0); }, [](auto& r) { EXPECT_EQ(r.GetCtrlCode(), 0); }},
        {"seg number", [](auto& w) { w.PutSegNumber(513); }, [](auto& r) { EXPECT_EQ(r.GetSegNumber(), 513); }},
        {"enum", [](auto& w) { w.PutEnum(7); }, [](auto& r) { EXPECT_EQ(r.GetEnum(), 7u); }},
        {"id", [](auto& w) { w.PutID(0xDEADBEEF); }, [](auto& r) { EXPECT_EQ(r.GetID(), 0xDEADBEEF); }},
        {"size", [](auto& w) { w.PutSize(0); }, [](auto& r) { EXPECT_EQ(r.GetSize(), 0u); }},
        {"big size", [](auto& w) { w.PutBigSize(1ull << 40); },
         [](auto& r) { EXPECT_EQ(r.GetBigSize(), 1ull << 40); }},
        {"command", [](auto& w) { w.PutCommand(3); }, [](auto& r) { EXPECT_EQ(r.GetCommand(), 3u); }},
        {"big id", [](auto& w) { w.PutBigID(~0ull); }, [](auto& r) { EXPECT_EQ(r.GetBigID(), ~0ull); }},
        {"small id", [](auto& w) { w.PutSmallID(65535); }, [](auto& r) { EXPECT_EQ(r.GetSmallID(), 65535); }},
        {"tiny id", [](auto& w) { w.PutTinyID(9); }, [](auto& r) { EXPECT_EQ(r.GetTinyID(), 9); }},
        {"small enum", [](auto& w) { w.PutSmallEnum(8); }, [](auto& r) { EXPECT_EQ(r.GetSmallEnum(), 8); }},
        {"small version", [](auto& w) { w.PutSmallVersion(2); },
         [](auto& r) { EXPECT_EQ(r.GetSmallVersion(), 2); }},
        {"version", [](auto& w) { w.PutVersion(0x0102); }, [](auto& r) { EXPECT_EQ(r.GetVersion(), 0x0102); }},
        {"eof seg", [](auto& w) { w.PutEofSegNumber(); }, [](auto& r) { r.GetEofSegNumber(); }},
        {"big seg", [](auto& w) { w.PutBigSegNumber(70000); },
         [](auto& r) { EXPECT_EQ(r.GetBigSegNumber(), 70000u); }},
        {"eof big seg", [](auto& w) { w.PutEofBigSegNumber(); }, [](auto& r) { r.GetEofBigSegNumber(); }},
        {"compact command", [](auto& w) { w.PutCompactCommand(12); },
         [](auto& r) { EXPECT_EQ(r.GetCompactCommand(), 12); }},
    };
}

byteEx WriteAllKinds()
{
    byteEx bytes;
    CMemorySink sink(bytes);
    CISXFWriter<TDataSink> writer(sink);
    for (const Kind& kind : EveryKind())
        kind.put(writer);
    return bytes;
}

TEST(Isxf, EveryTypeRoundTripsAndBothInstantiationsAgree)
{
    byteEx bytes = WriteAllKinds();
    CByteIO io(bytes);
    CISXFReader<CByteIO> reader(io, bytes.size());
    for (const Kind& kind : EveryKind()) {
        SCOPED_TRACE(kind.name);
        kind.check(reader);
    }
    EXPECT_EQ(reader.GetBound(), 0);

    // The memory writer puts the same bytes on the wire.
    byteEx direct;
    CByteIO out(direct);
    CISXFWriter<CByteIO> memoryWriter(out);
    memoryWriter.PutString(stringEx("na\xC3\xAFve \0text", 12));
    memoryWriter.PutInt8(-7);
    byteEx generic;
    CMemorySink sink(generic);
    CISXFWriter<TDataSink> genericWriter(sink);
    genericWriter.PutString(stringEx("na\xC3\xAFve \0text", 12));
    genericWriter.PutInt8(-7);
    EXPECT_EQ(Hex(direct), Hex(generic));
}

TEST(Isxf, WireBytesOfZerosAndSizes)
{
    struct Row {
        const char* what;
        std::function<void(CISXFWriter<CByteIO>&)> put;
        const char* wire;
    } rows[] = {
        {"empty string", [](auto& w) { w.PutString(stringEx()); }, "00 "},
        {"empty blob", [](auto& w) { w.PutBlob(nullptr, 0); }, "00 "},
        {"int 0", [](auto& w) { w.PutInt64(0); }, "00 "},
        {"false", [](auto& w) { w.PutBool(false); }, "00 "},
        {"-0.0 is zero", [](auto& w) { w.PutDouble(-0.0); }, "00 "},
        {"true", [](auto& w) { w.PutBool(true); }, "09 "},
        {"size 0 is always whole", [](auto& w) { w.PutSize(0); }, "84 00 00 00 00 "},
        {"int32 little-endian", [](auto& w) { w.PutInt32(0x01020304); }, "03 04 03 02 01 "},
        {"string length then bytes", [](auto& w) { w.PutString("ab", 2); }, "0a 02 00 00 00 61 62 "},
        {"wide length in bytes", [](auto& w) { w.PutWString(wstringEx(L"A")); },
         "0b 04 00 00 00 41 00 00 00 "},
        {"segment end has no payload", [](auto& w) { w.PutEofSegNumber(); }, "8d "},
    };
    for (const Row& r : rows) {
        byteEx bytes;
        CByteIO io(bytes);
        CISXFWriter<CByteIO> writer(io);
        r.put(writer);
        EXPECT_EQ(Hex(bytes), r.wire) << r.what;
    }
}

std::string ReadFailure(byteEx bytes, int64_t bound, const std::function<void(CISXFReader<CByteIO>&)>& read,
                        int32_t* code = nullptr, int64_t* boundAfter = nullptr)
{
    CByteIO io(bytes);
    CISXFReader<CByteIO> reader(io, bound);
    const std::string message = KaruTest::MessageOf<isxfExp>([&] { read(reader); }, code);
    if (boundAfter)
        *boundAfter = reader.GetBound();
    return message;
}

TEST(Isxf, ReaderChecksTypesVoidsBoundsAndBuffers)
{
    const int64_t none = CISXFReader<CByteIO>::NoBound;
    struct Row {
        const char* what;
        byteEx bytes;
        int64_t bound;
        std::function<void(CISXFReader<CByteIO>&)> read;
        int32_t code;
        const char* message;
    } rows[] = {
        {"wrong type", Bytes({0x03, 1, 0, 0, 0}), none, [](auto& r) { r.GetInt64(); }, 1,
         "CISXFReader::_GetAndVerifyType - wrong data type\n  expected = 5\n  real     = 3\n"},
        {"void size", Bytes({0x00}), none, [](auto& r) { r.GetSize(); }, 1,
         "CISXFReader::GetSize - size can't be void"},
        {"void compact command", Bytes({0x00}), none, [](auto& r) { r.GetCompactCommand(); }, 1,
         "CISXFReader::GetCompactCommand - compact command code can't be void"},
        {"bound stops the payload", Bytes({0x03, 1, 0, 0, 0}), 4, [](auto& r) { r.GetInt32(); }, 2,
         "CISXFBasic::_CheckBound - buffer overflow\n  expected size = 4\n  check bound   = -1\n"},
        {"bound stops a length before allocation", Bytes({0x0A, 0xFF, 0xFF, 0xFF, 0x7F}), 5,
         [](auto& r) {
             stringEx s;
             r.GetString(s);
         },
         2, "CISXFBasic::_CheckBound - buffer overflow\n  expected size = 2147483647\n  check bound   = -2147483647\n"},
        {"buffer too small for text and terminator", Bytes({0x0A, 4, 0, 0, 0, 'a', 'b', 'c', 'd'}), none,
         [](auto& r) {
             char buffer[4];
             r.GetString(buffer, 4);
         },
         1, "CISXFReader::GetString - overflow: buffer too small\n  requested size = 4\n  user supplied  = 4\n"},
        {"blob buffer too small", Bytes({0x0C, 3, 0, 0, 0, 1, 2, 3}), none,
         [](auto& r) {
             char buffer[2];
             r.GetBlob(buffer, 2);
         },
         1, "CISXFReader::GetBlob - overflow: buffer too small\n  requested size = 3\n  user supplied  = 2\n"},
        {"wide length not whole characters", Bytes({0x0B, 3, 0, 0, 0, 1, 2, 3}), none,
         [](auto& r) {
             wstringEx w;
             r.GetWString(w);
         },
         1, "CISXFReader::GetWString - length is not a whole number of characters\n  requested size = 3\n"},
        {"unassigned code", Bytes({0x04}), none, [](auto& r) { r.IgnoreNext(); }, 3,
         "CISXFReader::IgnoreNext - unknown data type\n  type = 4\n"},
        {"code above the table", Bytes({0x91}), none, [](auto& r) { r.IgnoreNext(); }, 3,
         "CISXFReader::IgnoreNext - unknown data type\n  type = 145\n"},
        {"unbounded read past the end", Bytes({}), none, [](auto& r) { r.GetInt32(); }, 1,
         "CISXFReader::_GetAndVerifyType - wrong data type\n  expected = 3\n  real     = 255\n"},
    };
    for (Row& r : rows) {
        int32_t code = -1;
        EXPECT_EQ(ReadFailure(r.bytes, r.bound, r.read, &code), r.message) << r.what;
        EXPECT_EQ(code, r.code) << r.what;
    }
    int64_t after = -1;
    ReadFailure(Bytes({0x03, 1, 0, 0, 0}), 4, [](auto& r) { r.GetInt32(); }, nullptr, &after);
    EXPECT_EQ(after, 0);  // a failed charge leaves the bound at zero
}

TEST(Isxf, PeekingReadsTheCodeOnceAndIgnoringSkipsInPieces)
{
    byteEx bytes;
    {
        CMemorySink sink(bytes);
        CISXFWriter<TDataSink> writer(sink);
        writer.PutInt32(5);
        writer.PutBlob(std::string(1000, 'x').data(), 1000);
        writer.PutEofSegNumber();
        writer.PutString(stringEx());
        writer.PutSize(9);
    }
    RecordingSource source(bytes);
    CISXFReader<TDataSource> reader(source);
    EXPECT_EQ(reader.PeekType(), kIsxfInt32);
    EXPECT_TRUE(reader.IsInt32());
    EXPECT_FALSE(reader.IsSize());
    EXPECT_EQ(reader.GetInt32(), 5);
    EXPECT_EQ(source.reads, (std::vector<size_t>{1, 4}));

    source.reads.clear();
    reader.IgnoreNext();
    EXPECT_EQ(source.reads, (std::vector<size_t>{1, 4, 384, 384, 232}));
    EXPECT_TRUE(reader.IsEofSegNumber());
    reader.GetEofSegNumber();
    // A void satisfies every plain predicate and none of the others.
    EXPECT_TRUE(reader.IsVoid());
    EXPECT_TRUE(reader.IsString() && reader.IsBlob() && reader.IsBool());
    EXPECT_FALSE(reader.IsSize());
    reader.IgnoreNext();
    EXPECT_EQ(reader.GetSize(), 9u);
}

// Every prefix of a valid stream, and random damage, end in isxfExp or in
// values read; never in a crash, and a bounded reader never reads past it.
TEST(Isxf, TruncatedAndDamagedStreamsFailCleanly)
{
    const byteEx whole = WriteAllKinds();
    auto readAll = [](byteEx bytes, int64_t bound) {
        CByteIO io(bytes);
        CISXFReader<CByteIO> reader(io, bound);
        try {
            while (true)
                reader.IgnoreNext();
        } catch (const isxfExp&) {
            return reader.GetBound();
        }
    };
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        const byteEx prefix(whole.data(), cut);
        EXPECT_EQ(readAll(prefix, static_cast<int64_t>(cut)), 0) << "prefix " << cut;
    }
    std::mt19937 random(7);
    for (int trial = 0; trial < 2000; ++trial) {
        byteEx damaged(whole.data(), whole.size());
        unsigned char* units = damaged.MutableData();
        for (int flips = 1 + trial % 3; flips > 0; --flips)
            units[random() % damaged.size()] ^= static_cast<unsigned char>(1u << (random() % 8));
        EXPECT_GE(readAll(damaged, static_cast<int64_t>(damaged.size())), 0);
    }
}

}  // namespace
