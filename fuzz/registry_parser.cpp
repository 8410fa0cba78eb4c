// Fuzzes the registry file parser. Whatever loads, whole or as the part a
// failed load keeps, must compile back to bytes that load to the same bytes
// again, and must pass through ini and csv text and come back as the same
// tree.
#include <karu/registry/fakeRegistry.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

using namespace Karu;

namespace {

const bool kUtf8 = (setenv("LC_ALL", "C.UTF-8", 1), true);

byteEx Compile(CFakeRegistry key)
{
    byteEx bytes;
    CMemorySink sink(bytes);
    key.Save(sink);
    return bytes;
}

// The tree without write times. A NaN is only "nan": text keeps no payload.
std::string Dump(const CFakeRegistry& key)
{
    std::string out;
    for (uint64_t i = 0; i < key.GetValueCount(); ++i) {
        const stringEx name = key.EnumValue(i);
        const byteEx raw = key.ReadRawValue(name);
        out.append(name.data(), name.size());
        out += ":" + std::to_string(key.GetValueType(name)) + "=";
        double real = 0;
        if (key.GetValueType(name) == T_FLOAT8 && raw.size() == 8 && (std::memcpy(&real, raw.data(), 8), std::isnan(real)))
            out += "nan";
        else
            out.append(reinterpret_cast<const char*>(raw.data()), raw.size());
        out += "\n";
    }
    for (uint64_t i = 0; i < key.GetSubkeyCount(); ++i) {
        const stringEx name = key.EnumSubkey(i);
        out += "[";
        out.append(name.data(), name.size());
        out += "]{" + Dump(key.ObtainChild(name)) + "}";
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    byteEx input(data, size);
    CMemorySource source(input);
    CFakeRegistry key;
    try {
        key.Open(source);
    } catch (const regExp&) {
        // A failed load keeps what it read whole, which must round trip
        // like any other tree.
    }
    byteEx first = Compile(key);
    CMemorySource again(first);
    CFakeRegistry reloaded;
    reloaded.Open(again);
    if (!(Compile(reloaded) == first))
        __builtin_trap();

    const std::string dump = Dump(key);
    for (bool csv : {false, true}) {
        byteEx text;
        CMemorySink sink(text);
        csv ? key.ExportCsv(sink) : key.ExportIni(sink);
        CMemorySource textSource(text);
        CFakeRegistry back;
        csv ? back.ImportCsv(textSource) : back.ImportIni(textSource);
        if (Dump(back) != dump)
            __builtin_trap();
    }
    return 0;
}
