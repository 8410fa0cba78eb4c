// The registry file: a compiled key is the tag "FR" and then ISXF items:
// the value count, the write time, the values, the subkey count and the
// subkeys, each subkey being its name and, as a blob, its own compiled key.
//
// Compiling builds each subtree in memory under that subkey's lock, then
// writes it as a blob into its parent, so a reader can step over a whole
// subtree with one length. Parsing does the reverse without copying: it
// charges the blob to the parent's bound and parses the child straight from
// the same stream with the blob's length as the child's bound, then skips
// whatever the child left. Memory stays at one tree, however deep.
//
// Saving goes through the transaction write and opening through its reading
// side, which holds the file while it is read: an open never meets a save
// half done, and what a save that died left is settled first, by whether
// the file parses whole.
#include "regbody.h"

#include <karu/file/dir.h>
#include <karu/log/log.h>

#include <algorithm>
#include <cstring>

namespace Karu {
namespace {
// Block of the buffered file streams of Save and Open.
constexpr size_t kFileBlock = 64 * 1024;
}  // namespace

namespace IMPL {
namespace {

constexpr unsigned char kTag[2] = {0x46, 0x52};  // "FR"

template <class Sink>
void WriteValues(CISXFWriter<Sink>& writer, const RegValueMap& values, int64_t writeTime)
{
    writer.PutSize(static_cast<uint32_t>(values.size()));
    writer.PutInt64(writeTime);
    for (const auto& [name, value] : values) {
        writer.PutString(RegToUtf8(name));
        if (value.type > kRegLastType)
            Throw<regExp>(ExpMessage(stringEx::Format("RegCompileValues - invalid type : %u", value.type)), 3);
        writer.PutSmallEnum(static_cast<uint8_t>(value.type));
        const byteEx& data = value.data;
        switch (value.type) {
        case T_NONE:
            break;
        case T_STRING:
        case T_EXP_STR:
            writer.PutString(RegToUtf8(stringEx(reinterpret_cast<const char*>(data.data()), data.size())));
            break;
        case T_BLOB:
            writer.PutBlob(data);
            break;
        case T_DWORD:
            writer.PutInt32(RegNumber<int32_t>(data));
            break;
        case T_QWORD:
            writer.PutInt64(RegNumber<int64_t>(data));
            break;
        case T_STRING_SET: {
            StringVector members = SplitStringSet(data);
            for (stringEx& member : members)
                member = RegToUtf8(member);
            writer.PutBlob(JoinStringSet(members));
            break;
        }
        case T_FLOAT8:
            writer.PutDouble(RegNumber<double>(data));
            break;
        case T_BOOL:
            writer.PutBool(!data.empty() && data[0] != 0);
            break;
        }
    }
}

// Past the depth the file format allows here: the error of the compile or
// the parse that met it, with the depth as its cause.
stringEx TooDeep(const char* who)
{
    return ExpMessage(stringEx(who) + " - key nesting too deep\n").Detail("max depth", kRegMaxDepth);
}

void ReadValues(CISXFReader<TDataSource>& reader, RegValueMap& values, int64_t& writeTime)
{
    const uint32_t count = reader.GetSize();
    writeTime = reader.GetInt64();
    // Every entry costs at least its name and type bytes against the bound,
    // so a huge count in a damaged file ends at the bound, not in a long loop.
    for (uint32_t i = 0; i < count; ++i) {
        stringEx name;
        reader.GetString(name);
        name = RegFromUtf8(name);
        REG_VALUE value;
        value.type = reader.GetSmallEnum();
        if (value.type > kRegLastType)
            Throw<regExp>(ExpMessage(stringEx::Format("RegParseValues - invalid type : %u", value.type)), 3);
        switch (value.type) {
        case T_NONE:
            break;
        case T_STRING:
        case T_EXP_STR: {
            stringEx text;
            reader.GetString(text);
            text = RegFromUtf8(text);
            value.data = byteEx(reinterpret_cast<const unsigned char*>(text.data()), text.size());
            break;
        }
        case T_BLOB:
            reader.GetBlob(value.data);
            break;
        case T_DWORD:
            value.data = RegBytes(reader.GetInt32());
            break;
        case T_QWORD:
            value.data = RegBytes(reader.GetInt64());
            break;
        case T_STRING_SET: {
            byteEx blob;
            reader.GetBlob(blob);
            StringVector members = SplitStringSet(blob);
            for (stringEx& member : members)
                member = RegFromUtf8(member);
            value.data = JoinStringSet(members);
            break;
        }
        case T_FLOAT8:
            value.data = RegBytes(reader.GetDouble());
            break;
        case T_BOOL:
            value.data = RegBytes(static_cast<unsigned char>(reader.GetBool() ? 1 : 0));
            break;
        }
        values.insert_or_assign(name, value);
    }
}

}  // namespace

template <class Sink>
int64_t RegCompile(Sink& sink, RegKeyBody& key, int64_t bound, int depth)
{
    if (depth > kRegMaxDepth)
        Throw<regExp>(ExpMessage("RegCompile - io failed when trying compile fake registry").Cause(TooDeep("RegCompile")),
                      5);
    try {
        sink.Write(kTag, sizeof kTag);
        CISXFWriter<Sink> writer(sink, bound);
        WriteValues(writer, key.values, key.writeTime);
        writer.PutSize(static_cast<uint32_t>(key.subkeys.size()));
        for (const auto& [name, subkey] : key.subkeys) {
            writer.PutString(RegToUtf8(name));
            byteEx compiled;
            {
                RegKeyBody& child = RegAccess::Body(subkey);
                CFastLockHolder hold(child.lock);
                CByteIO memory(compiled);
                RegCompile(memory, child, CISXFWriter<CByteIO>::NoBound, depth + 1);
                child.dirty = false;
            }
            writer.PutBlob(compiled);
        }
        return writer.GetBound();
    } catch (const regExp&) {
        throw;
    } catch (const karuExp& e) {
        Throw<regExp>(ExpMessage("RegCompile - io failed when trying compile fake registry").Cause(e), 5);
    }
}

template int64_t RegCompile<TDataSink>(TDataSink&, RegKeyBody&, int64_t, int);
template int64_t RegCompile<CByteIO>(CByteIO&, RegKeyBody&, int64_t, int);

int64_t RegParse(TDataSource& source, int64_t size, RegKeyBody& key, int depth)
{
    if (depth > kRegMaxDepth)
        Throw<regExp>(ExpMessage("RegParse - io failed when trying parsing fake registry\n").Cause(TooDeep("RegParse")),
                      4);
    if (size < 2)
        Throw<regExp>(ExpMessage("RegParse - invalid tag"), 3);
    try {
        unsigned char tag[2] = {0, 0};
        if (source.Read(tag, 1) != 1 || source.Read(tag + 1, 1) != 1 || tag[0] != kTag[0] || tag[1] != kTag[1])
            Throw<regExp>(ExpMessage("RegParse - invalid tag"), 3);
        CISXFReader<TDataSource> reader(source, size - 2);
        ReadValues(reader, key.values, key.writeTime);
        const uint32_t count = reader.GetSize();
        for (uint32_t i = 0; i < count; ++i) {
            stringEx name;
            reader.GetString(name);
            name = RegFromUtf8(name);
            const uint32_t length = reader.BeginBlob();
            auto child = std::make_shared<RegKeyBody>();
            const int64_t unused = RegParse(source, length, *child, depth + 1);
            reader.SkipBody(static_cast<uint64_t>(unused));
            key.subkeys.insert_or_assign(name, RegAccess::Wrap(child));
        }
        return reader.GetBound();
    } catch (const regExp&) {
        throw;
    } catch (const karuExp& e) {
        Throw<regExp>(ExpMessage("RegParse - io failed when trying parsing fake registry\n").Cause(e), 4);
    }
}

}  // namespace IMPL

using IMPL::RegAccess;
using IMPL::RegKeyBody;

namespace {

[[noreturn]] void OpenFailure(const char* head, const stringEx& file, const karuExp& cause)
{
    Throw<regExp>(ExpMessage(head).Detail("file name", file).Cause(cause), 7);
}

// Whether a file holds one whole compiled key and nothing behind it. A
// prefix of a compiled key never parses whole (the counts at its front ask
// for more than a prefix holds), so this tells a finished save from one
// that died.
bool IsWholeStore(CSysFile& file)
{
    try {
        const int64_t size = IMPL::WrappedSize(file) - file.GetCurrentPos();
        CBufferedSeekableSource<CSysFile> source(file, kFileBlock);
        RegKeyBody scratch;
        return IMPL::RegParse(source, size, scratch, 0) == 0;
    } catch (const karuExp&) {
        return false;
    }
}

// A sink that takes every byte or raises: the sinks of the family may
// accept less than they are given, and a store that lost its tail would
// still be reported saved.
class CCompleteSink final : public TDataSink {
public:
    explicit CCompleteSink(TDataSink& sink) : _sink(sink) {}
    bool IsOpen() const override { return _sink.IsOpen(); }
    size_t Write(const void* data, size_t size) override
    {
        IMPL::WriteAll(_sink, data, size);
        return size;
    }
    void Flush() override { _sink.Flush(); }

private:
    TDataSink& _sink;
};

void Adopt(const CFakeRegistry& key, RegKeyBody& loaded, const stringEx& filePath)
{
    IMPL::RegValueMap oldValues;
    IMPL::RegSubkeyMap oldSubkeys;
    RegKeyBody& body = RegAccess::Body(key);
    CFastLockHolder hold(body.lock);
    oldValues.swap(body.values);
    oldSubkeys.swap(body.subkeys);
    body.values.swap(loaded.values);
    body.subkeys.swap(loaded.subkeys);
    body.writeTime = loaded.writeTime;
    body.filePath = filePath;
    body.dirty = false;
    ++body.generation;
}

// Parses into `loaded`, which keeps what was read whole if the parse fails.
void ParseStore(CSysFile& file, RegKeyBody& loaded)
{
    const int64_t size = IMPL::WrappedSize(file);
    CBufferedSeekableSource<CSysFile> source(file, kFileBlock);
    IMPL::RegParse(source, size, loaded, 0);
}

}  // namespace

// The key is emptied first; a parse that fails leaves in it what was read
// whole, and the failure goes on to the caller.
void CFakeRegistry::Open(const stringEx& fileName, bool create)
{
    RegKeyBody loaded;
    stringEx path = fileName;
    try {
        try {
            CDir::ConvToFullPath(path);
        } catch (const karuExp& e) {
            OpenFailure("CFakeRegistry::Open - failed open file\n", fileName, e);
        }
        if (create) {
            try {
                CDir::MakeDir(CDir::GetPathDir(path), true);
            } catch (const karuExp& e) {
                OpenFailure("CFakeRegistry::Open - unable to create the path folder\n", path, e);
            }
        }
        for (;;) {
            CSysFile file;
            try {
                file = CDir::TransactionRead(path, IsWholeStore);
                // An empty file is what a first save that died leaves.
                if (!file.IsOpen() || (create && IMPL::WrappedSize(file) == 0)) {
                    if (create)
                        break;
                    // The system's own open says why there is nothing.
                    file.Open(path, O_RDONLY);
                    continue;
                }
            } catch (const regExp&) {
                throw;
            } catch (const karuExp& e) {
                OpenFailure("CFakeRegistry::Open - failed open file\n", path, e);
            }
            ParseStore(file, loaded);
            break;
        }
    } catch (...) {
        Adopt(*this, loaded, stringEx());
        throw;
    }
    Adopt(*this, loaded, path);
}

void CFakeRegistry::Open(TDataSource& source)
{
    RegKeyBody loaded;
    try {
        if (auto* seekable = dynamic_cast<ISeekableObj*>(&source)) {
            IMPL::RegParse(source, seekable->GetSize() - seekable->GetPosition(), loaded, 0);
        } else {
            // A stream of unknown length is taken in whole first: the parser
            // must know where the data ends.
            byteEx all;
            CByteIO into(all);
            unsigned char block[kFileBlock / 8];
            for (size_t got; (got = source.Read(block, sizeof block)) > 0;)
                into.Write(block, got);
            CMemorySource memory(all);
            IMPL::RegParse(memory, static_cast<int64_t>(all.size()), loaded, 0);
        }
    } catch (const regExp&) {
        Adopt(*this, loaded, stringEx());
        throw;
    } catch (const karuExp& e) {
        Adopt(*this, loaded, stringEx());
        Throw<regExp>(ExpMessage("CFakeRegistry::Open - failed reading data source\n").Cause(e), 4);
    }
    Adopt(*this, loaded, stringEx());
}

void CFakeRegistry::Save(const stringEx& fileName)
{
    stringEx path = fileName.empty() ? GetFilePath() : fileName;
    try {
        CDir::ConvToFullPath(path);
        CDir::MakeDir(CDir::GetPathDir(path), true);
    } catch (const karuExp& e) {
        Throw<regExp>(ExpMessage("CFakeRegistry::Save - failed manipulate file path\n")
                          .Detail("file name", fileName)
                          .Cause(e),
                      6);
    }
    RegKeyBody& body = RegAccess::Body(*this);
    int64_t savedWriteTime = 0;
    try {
        CDir::TransactionWrite(
            path,
            [&](CSysFile& file) {
                CBufferedSeekableSink<CSysFile> sink(file, kFileBlock);
                CFastLockHolder hold(body.lock);
                IMPL::RegCompile<TDataSink>(sink, body, body.maxSize, 0);
                savedWriteTime = body.writeTime;
                try {
                    // Forced to the device before the old content is let go.
                    sink.Flush();
                } catch (const karuExp& e) {
                    Throw<regExp>(ExpMessage("RegCompile - io failed when trying compile fake registry").Cause(e), 5);
                }
            },
            IsWholeStore);
    } catch (const regExp&) {
        throw;
    } catch (const karuExp& e) {
        Throw<regExp>(ExpMessage("CFakeRegistry::Save - failed open file\n").Detail("file name", path).Cause(e), 6);
    }
    // Still clean only if nothing changed the key since it was compiled.
    CFastLockHolder hold(body.lock);
    body.dirty = body.dirty && body.writeTime != savedWriteTime;
    body.filePath = path;
}

void CFakeRegistry::Save(TDataSink& sink)
{
    RegKeyBody& body = RegAccess::Body(*this);
    CFastLockHolder hold(body.lock);
    CCompleteSink complete(sink);
    IMPL::RegCompile<TDataSink>(complete, body, body.maxSize, 0);
    try {
        complete.Flush();
    } catch (const karuExp& e) {
        Throw<regExp>(ExpMessage("CFakeRegistry::Save - failed writing data sink\n").Cause(e), 5);
    }
    body.dirty = false;
    body.filePath.clear();
}

}  // namespace Karu
