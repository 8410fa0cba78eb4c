// The configuration store: its model and messages, the bytes of its file,
// trees through save and load and through ini and csv, and damaged input.
#include <karu/registry/fakeRegistry.h>

#include <karu/file/dir.h>
#include <karu/stream/isxf.h>

#include <gtest/gtest.h>

#include "registry/regbody.h"
#include "file/tests/deadline.h"
#include "file/tests/scratch_dir.h"
#include "regtest.h"

#include <langinfo.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>

using namespace Karu;
using namespace Karu::RegTest;
using namespace KaruTest;

// The C library's newlocale reads LOCPATH (set by these tests, to find the
// locales they make) into a list that it never frees; the leak checker of
// the sanitizer builds is told that this one is not ours. Only the frame
// that makes the list shows in its records of the C library.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:__argz_add_sep\n";
}

namespace {

byteEx Compiled(CFakeRegistry key)
{
    byteEx bytes;
    CMemorySink sink(bytes);
    key.Save(sink);
    return bytes;
}

// Opens `key` from the bytes of a file: the failure's message, if any.
std::string Opened(CFakeRegistry& key, const byteEx& bytes)
{
    byteEx copy(bytes.data(), bytes.size());
    CMemorySource source(copy);
    return MessageOf([&] { key.Open(source); });
}

TEST(Registry, KeysValuesAndTheirMessages)
{
    CFakeRegistry root;
    const CFakeRegistry made = root.ObtainSubkey("Software\\Karu", true);
    EXPECT_TRUE(root.ObtainSubkey("SOFTWARE\\karu").IsSameKey(made));  // one key whatever the case
    EXPECT_EQ(root.EnumSubkey(0), stringEx("Software"));              // the first spelling stays
    made.ObtainSubkey("leaf", true).SetValue("x", uint32_t(5));
    const CFakeRegistry kept = made.ObtainSubkey("leaf");

    struct Row {
        const char* why;
        std::function<void()> op;
        int32_t code;
        const char* message;
    } rows[] = {
        {"missing step", [&] { root.ObtainSubkey("Software\\Nope\\Deeper"); }, 19,
         "CFakeRegistry::ObtainSubkey - can not find specified subkey\n  next subkey = Nope\n"
         "  full path   = Software\\Nope\\Deeper\n"},
        {"enumerate past the end", [&] { root.EnumSubkey(root.GetSubkeyCount()); }, 2,
         "CFakeRegistry::EnumSubkey - out of index\n  max index       = 0\n  specified index = 1\n"},
        {"value past the end", [&] { root.EnumValue(0); }, 2,
         "CFakeRegistry::stValueName - out of index\n  max index       = -1\n  specified index = 0\n"},
        {"no widening", [&] {
             uint64_t q;
             kept.ReadValueEx("x", q);
         },
         11,
         "CFakeRegistry::ReadValueEx - value type missmatch\n  value name   = x\n  expect type  = T_QWORD\n"
         "  value's type = 4 (dword)\n"},
        {"text from a number", [&] {
             stringEx s;
             kept.ReadValueEx("x", s);
         },
         11,
         "CFakeRegistry::ReadValueEx - value type missmatch\n  value name   = x\n"
         "  expect type  = T_STRING or T_EXP_STR\n  value's type = 4 (dword)\n"},
        {"raw read of a missing value", [&] { kept.ReadRawValue("y"); }, 11,
         "CFakeRegistry::ReadRawValue - failed found specified value\n  value name = y\n"},
        {"type of a missing value", [&] { kept.GetValueType("y"); }, 19,
         "CFakeRegistry::GetValueType - failed found specified value\n  value name = y\n"},
        {"info of a missing key", [&] { root.GetSubkeyInfo("a\\b"); }, 13,
         "CFakeRegistry::GetSubkeyInfo - specified subkey doesn't exist\n  subkey = a\\b\n"},
        {"remove a full key plainly", [&] { root.RemoveSubkey("software\\KARU"); }, 8,
         "CFakeRegistry::RemoveSubkey - failed remove subkey, trying to removing a not empty subkey with out "
         "recursive\n  subkey name = software\\KARU\n"},
    };
    for (const Row& r : rows) {
        int32_t code = -1;
        EXPECT_EQ(MessageOf(r.op, &code), r.message) << r.why;
        EXPECT_EQ(code, r.code) << r.why;
    }

    const REG_KEY_INFO info = root.GetSubkeyInfo("software\\karu");
    EXPECT_EQ(info.subkeyCount, 1u);
    EXPECT_GT(info.writeTime, 0);
    EXPECT_TRUE(root.RemoveSubkey("Software\\Karu", true));
    EXPECT_FALSE(root.IsSubkeyExists("Software\\Karu\\leaf"));
    uint32_t x = 0;
    kept.ReadValueEx("x", x);  // a removed subtree stays usable through a kept handle
    EXPECT_EQ(x, 5u);
    EXPECT_FALSE(root.RemoveSubkey("Software\\Karu"));

    setenv("KARU_REG_TEST", "expanded", 1);
    root.SetValue("exp", "<${KARU_REG_TEST}|${KARU_REG_UNSET}>", true);
    stringEx text;
    root.ReadValueEx("exp", text);
    EXPECT_EQ(text, stringEx("<expanded|>"));
    EXPECT_EQ(TextOf(root.ReadRawValue("exp")), "<${KARU_REG_TEST}|${KARU_REG_UNSET}>");  // the raw form stays unexpanded
    double fallback = 0;
    root.ReadValueEx("missing", fallback, 2.5);
    EXPECT_EQ(fallback, 2.5);
    EXPECT_TRUE(root.IsDirty());
    EXPECT_TRUE(root.RemoveValue("exp"));
    EXPECT_FALSE(root.RemoveValue("exp"));
}

// Enumeration walks on from where the last call stopped; every change of
// the key must send it back to the start. Random changes and walks (forward,
// backward, skipping) against a model of sorted names.
TEST(Registry, EnumerationFollowsEveryChange)
{
    CFakeRegistry key;
    std::set<std::string> subkeys, values;
    std::mt19937 random(7);
    auto name = [&random] { return std::string("n").append(std::to_string(random() % 60)); };
    auto nth = [](const std::set<std::string>& model, uint64_t i) { return *std::next(model.begin(), long(i)); };
    for (int step = 0; step < 3000; ++step) {
        const std::string n = name();
        switch (random() % 8) {
        case 0:
            key.ObtainSubkey(n.c_str(), true);
            subkeys.insert(n);
            break;
        case 1:
            key.RemoveSubkey(n.c_str(), true);
            subkeys.erase(n);
            break;
        case 2:
            key.SetValue(n.c_str(), uint32_t(step));
            values.insert(n);
            break;
        case 3:
            key.RemoveValue(n.c_str());
            values.erase(n);
            break;
        case 4:
            if (random() % 50 == 0) {
                key.Clear();
                subkeys.clear();
                values.clear();
            }
            break;
        default: {
            // A walk over part of the names: forward, backward or by leaps.
            const uint64_t count = subkeys.size(), valueCount = values.size();
            ASSERT_EQ(key.GetSubkeyCount(), count);
            ASSERT_EQ(key.GetValueCount(), valueCount);
            const int how = static_cast<int>(random() % 3);
            for (uint64_t k = 0; k < count; k += how == 2 ? 1 + random() % 5 : 1) {
                const uint64_t i = how == 1 ? count - 1 - k : k;
                ASSERT_EQ(key.EnumSubkey(i).c_str(), nth(subkeys, i)) << "step " << step << ", subkey " << i;
            }
            for (uint64_t i = 0; i < valueCount; ++i)
                ASSERT_EQ(key.EnumValue(i).c_str(), nth(values, i)) << "step " << step << ", value " << i;
        }
        }
    }
}

TEST(RegistryFile, WireBytes)
{
    auto with = [](const std::function<void(CFakeRegistry&)>& fill) {
        CFakeRegistry key;
        fill(key);
        return key;
    };
    EXPECT_EQ(Hex(Compiled(CFakeRegistry())), "46 52 84 00 00 00 00 00 84 00 00 00 00 ");  // never written to

    // Values: the data items after the name and the type.
    struct Value {
        const char* why;
        std::function<void(CFakeRegistry&)> set;
        const char* entry;
    } values[] = {
        {"false is one void byte", [](auto& k) { k.SetValue("b", false); }, "0a 01 00 00 00 62 8a 08 00 "},
        {"true is the code alone", [](auto& k) { k.SetValue("b", true); }, "0a 01 00 00 00 62 8a 08 09 "},
        {"dword 0 is void", [](auto& k) { k.SetValue("d", uint32_t(0)); }, "0a 01 00 00 00 64 8a 04 00 "},
        {"none has no data item", [](auto& k) { k.SetRawValue("n", T_NONE, byteEx()); },
         "0a 01 00 00 00 6e 8a 00 "},
        {"empty name is void", [](auto& k) { k.SetValue("", uint32_t(1)); }, "00 8a 04 03 01 00 00 00 "},
        {"set with an empty member", [](auto& k) { k.SetValue("s", StringVector{"a", ""}); },
         "0a 01 00 00 00 73 8a 06 0c 03 00 00 00 61 00 00 "},
    };
    for (const Value& v : values) {
        CFakeRegistry key = with(v.set);
        const std::string wire = Hex(Compiled(key));
        // tag, count 1, write time (9 bytes), the entry, subkey count 0
        const std::string head = "46 52 84 01 00 00 00 05 ";
        ASSERT_EQ(wire.substr(0, head.size()), head) << v.why;
        const std::string entry = wire.substr(head.size() + 8 * 3, wire.size() - head.size() - 8 * 3 - 5 * 3);
        EXPECT_EQ(entry, v.entry) << v.why;

        CFakeRegistry back;
        ASSERT_EQ(Opened(back, Compiled(key)), "(nothing raised)") << v.why;
        EXPECT_EQ(FirstDifference(Dump(back), Dump(key)), "") << v.why;
        EXPECT_EQ(back.GetWriteTime(), key.GetWriteTime()) << v.why;
    }
    // -0.0 is written as void and so comes back as +0.0.
    CFakeRegistry key;
    key.SetValue("f", -0.0);
    byteEx bytes = Compiled(key);
    EXPECT_EQ(Hex(bytes).substr(24 + 24, 27), "0a 01 00 00 00 66 8a 07 00 ");
    ASSERT_EQ(Opened(key, bytes), "(nothing raised)");
    double f = 1;
    key.ReadValueEx("f", f);
    EXPECT_FALSE(std::signbit(f));
    // A write time that is not 0 takes 9 bytes instead of 1.
    CFakeRegistry stamped;
    stamped.SetValue("v", true);
    stamped.RemoveValue("v");
    EXPECT_EQ(Compiled(stamped).size(), 21u);
}

TEST(RegistryFile, TreesRoundTripThroughFiles)
try {
    const karu_test::ScratchDir scratch;
    const std::string& dir = scratch.path;
    const stringEx path((dir + "/sub/dir/store.reg").c_str());
    CFakeRegistry tree = RichTree(300);
    tree.Save(path);  // makes the folders
    EXPECT_FALSE(tree.IsDirty());
    EXPECT_EQ(tree.GetFilePath(), path);

    CFakeRegistry loaded;
    loaded.Open(path);
    EXPECT_FALSE(loaded.IsDirty());
    EXPECT_EQ(FirstDifference(Dump(loaded), Dump(tree)), "");
    CFakeRegistry copy;
    copy.Open(path);
    EXPECT_TRUE(Compiled(copy) == Compiled(tree));  // byte for byte, write times included
    EXPECT_EQ(copy.GetFilePath(), stringEx());       // a save to a sink forgets the file

    // A second save, to the recorded path, replaces the first through the
    // transaction file.
    loaded.SetValue("added", uint32_t(1));
    loaded.Save();
    EXPECT_FALSE(CDir::Exists(path + ".trs"));
    CFakeRegistry again;
    again.Open(path);
    EXPECT_TRUE(again.IsValueExists("added"));

    // Too deep a tree is refused, not written, with the error of a compile.
    CFakeRegistry deep = RichTree(600);
    int32_t code = 0;
    EXPECT_EQ(MessageOf([&] { Compiled(deep); }, &code),
              "RegCompile - io failed when trying compile fake registry\n@ RegCompile - key nesting too deep\n"
              "  max depth = 512\n");
    EXPECT_EQ(code, 5);

    CFakeRegistry created;
    created.Open(stringEx((dir + "/new/one.reg").c_str()), true);
    EXPECT_EQ(created.GetSubkeyCount() + created.GetValueCount(), 0u);
    EXPECT_TRUE(CDir::IsDir(stringEx((dir + "/new").c_str())));
    EXPECT_EQ(MessageOf([&] { created.Open(stringEx((dir + "/none.reg").c_str())); }).substr(0, 60),
              std::string("CFakeRegistry::Open - failed open file\n  file name = ") + dir.substr(0, 7));

    CFakeRegistry limited = RichTree(3);
    limited.SetMaxSize(40);
    EXPECT_EQ(MessageOf([&] { Compiled(limited); }).substr(0, 101),
              "RegCompile - io failed when trying compile fake registry\n@ CISXFBasic::_CheckBound - buffer "
              "overflow\n");
} catch (const karuExp& e) {
    FAIL() << e.message.c_str();
}

// A sink that takes at most `step` bytes a call, and nothing once it holds
// `limit` bytes: what a pipe or a full device does.
class CTrickleSink : public TDataSink {
public:
    CTrickleSink(size_t step, size_t limit) : _step(step), _limit(limit) {}
    bool IsOpen() const override { return true; }
    size_t Write(const void* data, size_t size) override
    {
        const size_t room = bytes.size() < _limit ? _limit - bytes.size() : 0;
        const size_t taken = std::min({size, _step, room});
        bytes.append(static_cast<const unsigned char*>(data), taken);
        return taken;
    }
    void Flush() override {}
    byteEx bytes;

private:
    size_t _step, _limit;
};

// A save that fails leaves everything as it was: the file (its old content,
// no transaction file), the key's dirty flag and its file; and every failure
// is the store's own exception.
TEST(RegistryFile, FailedSavesChangeNothing)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(30), "saves and opens of things that are no store");
    const karu_test::ScratchDir scratch;
    const std::string& dir = scratch.path;
    const stringEx path((dir + "/store.reg").c_str());
    const CFakeRegistry old = RichTree(2);
    CFakeRegistry(old).Save(path);
    const std::string oldDump = Dump(old);

    // A sink that takes a few bytes at a time gets them all.
    CFakeRegistry tree = RichTree(3);
    CTrickleSink trickle(3, SIZE_MAX);
    tree.Save(trickle);
    EXPECT_TRUE(trickle.bytes == Compiled(tree));
    EXPECT_FALSE(tree.IsDirty());

    ASSERT_EQ(mkdir((dir + "/a directory").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((dir + "/a pipe").c_str(), 0600), 0);
    struct Row {
        const char* why;
        std::function<void(CFakeRegistry&)> op;
        int32_t code;
        const char* head;
    } rows[] = {
        {"a sink that takes no more", [](CFakeRegistry& key) {
             CTrickleSink full(64, 20);
             key.Save(full);
         },
         5, "RegCompile - io failed when trying compile fake registry\n@ TDataSink::Write - the sink accepted no more"},
        {"the bound is passed", [&](CFakeRegistry& key) {
             key.SetMaxSize(40);
             key.Save(path);
         },
         5, "RegCompile - io failed when trying compile fake registry\n@ CISXFBasic::_CheckBound - buffer overflow"},
        {"a directory at the path", [&](CFakeRegistry& key) { key.Save(stringEx((dir + "/a directory").c_str())); },
         6, "CFakeRegistry::Save - failed open file\n"},
        {"a pipe at the path", [&](CFakeRegistry& key) { key.Save(stringEx((dir + "/a pipe").c_str())); }, 6,
         "CFakeRegistry::Save - failed open file\n"},
        {"a device at the path", [](CFakeRegistry& key) { key.Save("/dev/full"); }, 6,
         "CFakeRegistry::Save - failed open file\n"},
        {"opening a directory", [&](CFakeRegistry& key) { key.Open(stringEx((dir + "/a directory").c_str())); }, 7,
         "CFakeRegistry::Open - failed open file\n"},
        {"opening a pipe", [&](CFakeRegistry& key) { key.Open(stringEx((dir + "/a pipe").c_str())); }, 7,
         "CFakeRegistry::Open - failed open file\n"},
    };
    for (const Row& r : rows) {
        CFakeRegistry key = RichTree(3);
        key.SetValue("changed", true);
        int32_t code = 0;
        EXPECT_EQ(MessageOf<regExp>([&] { r.op(key); }, &code).substr(0, std::strlen(r.head)), r.head) << r.why;
        EXPECT_EQ(code, r.code) << r.why;
        if (r.code != 7) {
            EXPECT_TRUE(key.IsDirty()) << r.why;
            EXPECT_EQ(key.GetFilePath(), stringEx()) << r.why;
        }
        CFakeRegistry reread;
        reread.Open(path);
        EXPECT_EQ(Dump(reread), oldDump) << r.why;
        EXPECT_FALSE(CDir::Exists(CDir::TransactionFileName(path))) << r.why;
    }
}

// Nested keys written by hand: a chain of `levels` subkeys named "".
byteEx Nested(int levels)
{
    byteEx key(reinterpret_cast<const unsigned char*>("FR\x84\0\0\0\0\0\x84\0\0\0\0"), 13);
    for (int i = 0; i < levels; ++i) {
        byteEx outer(reinterpret_cast<const unsigned char*>("FR\x84\0\0\0\0\0\x84\1\0\0\0\0\x0c"), 15);
        const uint32_t size = static_cast<uint32_t>(key.size());
        outer.append(reinterpret_cast<const unsigned char*>(&size), 4);
        outer.append(key);
        key = outer;
    }
    return key;
}

TEST(RegistryFile, DamagedFilesKeepWhatWasReadWhole)
{
    const byteEx whole = Compiled(RichTree(20));
    struct Row {
        const char* why;
        byteEx file;
        const char* message;
    } rows[] = {
        {"one byte", byteEx(reinterpret_cast<const unsigned char*>("F"), 1), "RegParse - invalid tag"},
        {"wrong tag", byteEx(reinterpret_cast<const unsigned char*>("RF\x84\0\0\0\0\0\x84\0\0\0\0"), 13),
         "RegParse - invalid tag"},
        {"body ends early", byteEx(reinterpret_cast<const unsigned char*>("FR\x84\0\0"), 5),
         "RegParse - io failed when trying parsing fake registry\n@ CISXFBasic::_CheckBound - buffer overflow\n"
         "  expected size = 4\n  check bound   = -2\n"},
        {"invalid type", byteEx(reinterpret_cast<const unsigned char*>("FR\x84\1\0\0\0\0\0\x8a\x09"), 11),
         "RegParseValues - invalid type : 9"},
        {"nested too deep", Nested(600),
         "RegParse - io failed when trying parsing fake registry\n@ RegParse - key nesting too deep\n"
         "  max depth = 512\n"},
    };
    for (const Row& r : rows) {
        CFakeRegistry key = RichTree(1);
        EXPECT_EQ(Opened(key, r.file), r.message) << r.why;
        // The old content is gone, and nothing of these was read whole.
        EXPECT_EQ(key.GetValueCount() + key.GetSubkeyCount(), 0u) << r.why;
    }
    CFakeRegistry deepest;
    EXPECT_EQ(Opened(deepest, Nested(512)), "(nothing raised)");

    // Every cut of a real file fails, and keeps what was read whole: each
    // value it kept is the file's, each subkey it kept is complete, and a
    // longer cut never keeps less.
    const CFakeRegistry reference = RichTree(20);
    uint64_t kept = 0;
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        CFakeRegistry key;
        const std::string message = Opened(key, byteEx(whole.data(), cut));
        EXPECT_NE(message, "(nothing raised)") << "cut at " << cut;
        for (uint64_t i = 0; i < key.GetValueCount(); ++i) {
            const stringEx name = key.EnumValue(i);
            EXPECT_EQ(key.GetValueType(name), reference.GetValueType(name)) << "cut at " << cut;
            EXPECT_EQ(Hex(key.ReadRawValue(name)), Hex(reference.ReadRawValue(name))) << "cut at " << cut;
        }
        for (uint64_t i = 0; i < key.GetSubkeyCount(); ++i) {
            const stringEx name = key.EnumSubkey(i);
            EXPECT_EQ(Dump(key.ObtainChild(name)), Dump(reference.ObtainChild(name))) << "cut at " << cut;
        }
        const uint64_t now = key.GetValueCount() + key.GetSubkeyCount();
        EXPECT_GE(now, kept) << "cut at " << cut;
        kept = now;
    }
    EXPECT_EQ(kept + 1, reference.GetValueCount() + reference.GetSubkeyCount());  // all but the last subkey
    // Random damage loads or fails, and never crashes.
    std::mt19937 random(11);
    for (int trial = 0; trial < 3000; ++trial) {
        byteEx damaged(whole.data(), whole.size());
        unsigned char* units = damaged.MutableData();
        for (int flips = 1 + trial % 4; flips > 0; --flips)
            units[random() % damaged.size()] ^= static_cast<unsigned char>(1u << (random() % 8));
        CFakeRegistry key;
        Opened(key, damaged);
        Dump(key);
    }
}

std::string Exported(const CFakeRegistry& key, bool csv)
{
    byteEx bytes;
    CMemorySink sink(bytes);
    csv ? key.ExportCsv(sink) : key.ExportIni(sink);
    return TextOf(bytes);
}

std::string Imported(CFakeRegistry& key, const std::string& text, bool csv, int32_t* code = nullptr)
{
    byteEx bytes = BytesOf(text);
    CMemorySource source(bytes);
    return MessageOf([&] { csv ? key.ImportCsv(source) : key.ImportIni(source); }, code);
}

TEST(RegistryExchange, TreesRoundTripThroughIniAndCsv)
{
    const CFakeRegistry tree = RichTree(30);
    for (bool csv : {false, true}) {
        CFakeRegistry back;
        EXPECT_EQ(Imported(back, Exported(tree, csv), csv), "(nothing raised)") << csv;
        EXPECT_EQ(FirstDifference(Dump(back), Dump(tree)), "") << (csv ? "csv" : "ini");
        // The same text with CR LF line ends, as an editor elsewhere saves it.
        std::string crlf;
        for (char c : Exported(tree, csv))
            crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
        CFakeRegistry fromCrlf;
        EXPECT_EQ(Imported(fromCrlf, crlf, csv), "(nothing raised)") << csv;
        EXPECT_EQ(FirstDifference(Dump(fromCrlf), Dump(tree)), "") << (csv ? "csv, CR LF" : "ini, CR LF");
    }

    CFakeRegistry small;
    small.SetValue("text", "a\nb");
    small.SetValue("nothing", byteEx());
    small.ObtainSubkey("sub\\leaf", true).SetValue("on", true);
    EXPECT_EQ(Exported(small, false),
              "\n[]\nnothing:BLOB=\ntext:STRING=a~nb\n\n[sub]\n\n[sub\\leaf]\non:BOOL=true\n");
    EXPECT_EQ(Exported(small, true), "KEY,,\nBLOB,nothing,\nSTRING,text,a~nb\nKEY,sub,\nKEY,sub\\leaf,\nBOOL,on,true\n");

    CFakeRegistry lower;
    EXPECT_EQ(Imported(lower, "; comment\n[a]\r\nx:dword=12\r\n\ny:string_set=p;q~s;\n", false), "(nothing raised)");
    uint32_t x = 0;
    lower.ObtainSubkey("a").ReadValueEx("x", x);
    EXPECT_EQ(x, 12u);
    StringVector set;
    lower.ObtainSubkey("a").ReadValueEx("y", set);
    EXPECT_EQ(set, (StringVector{"p", "q;"}));

    struct Bad {
        const char* why;
        std::string text;
        bool csv;
        const char* cause;
    } bad[] = {
        {"unknown tag", "[k]\nv:WORD=1\n", false, "RegImport - unknown type tag\n  line = 2\n  text = WORD\n"},
        {"dword too big", "v:DWORD=4294967296\n", false,
         "RegImport - dword that is no decimal number of 32 bits\n  line = 1\n  text = 4294967296\n"},
        {"no type", "just text\n", false,
         "RegImport - line is neither a section nor name:TYPE=value\n  line = 1\n  text = just text\n"},
        {"bad escape", "v:STRING=~x\n", false, "RegImport - unknown escape\n  line = 1\n  text = ~x\n"},
        {"odd blob", "BLOB,b,abc\n", true,
         "RegImport - blob with an odd number of digits\n  line = 1\n  text = abc\n"},
        {"four columns", "BOOL,b,true,x\n", true,
         "RegImport - row without the three columns type, name and value\n  line = 1\n  text = BOOL\n"},
    };
    for (const Bad& b : bad) {
        CFakeRegistry key;
        key.SetValue("kept", true);
        const std::string head = b.csv ? "CFakeRegistry::ImportCsv - failed import from csv\n@ "
                                       : "CFakeRegistry::ImportIni - failed import from ini\n@ ";
        int32_t code = 0;
        EXPECT_EQ(Imported(key, b.text, b.csv, &code), head + b.cause) << b.why;
        EXPECT_EQ(code, 18) << b.why;
        EXPECT_EQ(key.GetValueCount() + key.GetSubkeyCount(), 1u) << b.why;  // nothing of a bad text lands
    }
}

// Text of a system that is not UTF-8 goes out as UTF-8 and comes back byte
// for byte, bytes that are no text in the locale included. The rows say
// what the file holds; every locale the machine has is tried.
std::string TextHex(const stringEx& text)
{
    return Hex(BytesOf(S(text)));
}

TEST(RegistryText, EveryByteComesBackThroughTheLocale)
{
    const char* const kEscaped80 = "\xED\xB2\x80";  // byte 0x80 as its escape
    struct Row {
        const char* why;
        const char* locale;
        stringEx memory, file;
    } rows[] = {
        {"ascii passes", "C", "plain", "plain"},
        {"an embedded NUL stays", "C", stringEx("a\0b", 3), stringEx("a\0b", 3)},
        {"UTF-8 kept in the C locale stays UTF-8", "C", "caf\xC3\xA9 \xE4\xB8\xAD", "caf\xC3\xA9 \xE4\xB8\xAD"},
        {"a byte that is no text is escaped", "C", "caf\xE9", "caf\xED\xB3\xA9"},
        {"so is a cut UTF-8 character", "C", "\xE4\xB8", "\xED\xB3\xA4\xED\xB2\xB8"},
        {"and an overlong one", "C", "\xC0\xAF", "\xED\xB3\x80\xED\xB2\xAF"},
        {"bytes that look like an escape are escaped", "C", kEscaped80, "\xED\xB3\xAD\xED\xB2\xB2\xED\xB2\x80"},
        {"UTF-8 is the identity", "C.UTF-8", "a\xC3\xAF\xE4\xB8\xAD\xF0\x9F\x98\x80", "a\xC3\xAF\xE4\xB8\xAD\xF0\x9F\x98\x80"},
        {"a character of the locale", "ja_JP.eucJP", "\xA4\xA2", "\xE3\x81\x82"},
        // 0x81 and 0x82 alone are C1 controls there.
        {"UTF-8 of a character the locale holds is no text there", "ja_JP.eucJP", "\xE3\x81\x82",
         "\xED\xB3\xA3\xC2\x81\xC2\x82"},
        {"a lead byte at the end", "ja_JP.eucJP", "a\xA4", "a\xED\xB2\xA4"},
    };
    std::set<std::string> missing;
    for (const Row& r : rows) {
        const locale_t locale = newlocale(LC_CTYPE_MASK, r.locale, nullptr);
        if (!locale) {
            missing.insert(r.locale);
            continue;
        }
        EXPECT_EQ(TextHex(IMPL::RegLocaleToUtf8(r.memory, locale)), TextHex(r.file)) << r.why;
        EXPECT_EQ(TextHex(IMPL::RegUtf8ToLocale(r.file, locale)), TextHex(r.memory)) << r.why;
        freelocale(locale);
    }
    // A file from elsewhere: what the locale cannot hold stays UTF-8 in
    // memory, and bytes that are not UTF-8 stay as they are.
    if (const locale_t c = newlocale(LC_CTYPE_MASK, "C", nullptr)) {
        EXPECT_EQ(IMPL::RegUtf8ToLocale("\xE4\xB8\xAD\xFF", c), stringEx("\xE4\xB8\xAD\xFF"));
        freelocale(c);
    }

    // Random bytes, weighted to what is hard: lead bytes, cut characters,
    // escapes, UTF-8 and EUC-JP pieces. Whatever goes out comes back.
    static const std::string kPieces[] = {"\xE3\x81\x82", "\xA4\xA2", "\xED\xB2\x80", "\xC3", "\xA4", "\x8E\xB1",
                                          "\x8F\xB0\xA1", "a", std::string(1, '\0'), "\xF0\x9F\x98\x80", "\xC0\x80",
                                          "\xF9\xB5\x8F\xB0\xA1"};
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    for (const char* name : {"C", "C.UTF-8", "ja_JP.eucJP"}) {
        const locale_t locale = newlocale(LC_CTYPE_MASK, name, nullptr);
        if (!locale)
            continue;
        for (int trial = 0; trial < 2000; ++trial) {
            std::string bytes;
            for (int n = static_cast<int>(random() % 8); n > 0; --n)
                bytes += random() % 3 ? kPieces[random() % std::size(kPieces)] : std::string(1, char(random()));
            const stringEx memory(bytes.data(), bytes.size());
            const stringEx back = IMPL::RegUtf8ToLocale(IMPL::RegLocaleToUtf8(memory, locale), locale);
            ASSERT_EQ(TextHex(back), TextHex(memory)) << name << ", seed " << seed << ", trial " << trial;
        }
        freelocale(locale);
    }
    if (!missing.empty())
        std::printf("rows of %s not tried: the locale is not on this machine\n", missing.begin()->c_str());
}

// The store takes the environment's locale as the system's (the runs in the
// C and EUC-JP locales set it): its file, ini and csv hold a text of that
// locale as the conversion above gives it, so a file written where the
// system is not UTF-8 is UTF-8 all the same, and read it back byte for byte.
TEST(RegistryText, TheStoreWritesTextOfTheEnvironmentsLocale)
{
    const stringEx text("caf\xE9 \xA4\xA2 \xE4\xB8\xAD");
    const locale_t environment = newlocale(LC_CTYPE_MASK, "", nullptr);
    ASSERT_TRUE(environment) << "the locale of the environment is not on this machine";
    // A UTF-8 system's text is UTF-8 by its own account, broken bytes and all.
    const bool utf8System = strcasecmp(nl_langinfo_l(CODESET, environment), "UTF-8") == 0;
    const stringEx utf8 = utf8System ? text : IMPL::RegLocaleToUtf8(text, environment);
    freelocale(environment);
    const std::string expected(utf8.data(), utf8.size());
    CFakeRegistry key;
    key.SetValue("t", text);
    const byteEx file = Compiled(key);
    const std::string forms[] = {TextOf(file), Exported(key, false), Exported(key, true)};
    const char* const names[] = {"file", "ini", "csv"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(forms[i].find(expected), std::string::npos) << names[i] << " does not hold " << TextHex(utf8);
        CFakeRegistry back;
        EXPECT_EQ(i == 0 ? Opened(back, file) : Imported(back, forms[i], i == 2), "(nothing raised)") << names[i];
        stringEx read;
        back.ReadValueEx("t", read, stringEx());
        EXPECT_EQ(TextHex(read), TextHex(text)) << names[i];
    }
}

}  // namespace
