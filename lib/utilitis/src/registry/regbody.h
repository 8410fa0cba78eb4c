// The inside of a CFakeRegistry: the key body, the name order, and the
// functions that the model, the file format and the text exchange share.
#pragma once

#include <locale.h>

#include <cstring>
#include <map>
#include <memory>

#include <karu/registry/fakeRegistry.h>
#include <karu/stream/isxf.h>
#include <karu/sync/fastlock.h>

namespace Karu::IMPL {

// Names order without regard to ASCII case; other bytes compare as signed
// characters, and a name that is a prefix of another comes first. Folding
// only ASCII keeps the order the same under every locale, so a tree built
// before a locale change is still sorted after it.
struct RegNameLess {
    bool operator()(const stringEx& a, const stringEx& b) const noexcept;
};

using RegValueMap = std::map<stringEx, REG_VALUE, RegNameLess>;
using RegSubkeyMap = std::map<stringEx, CFakeRegistry, RegNameLess>;

// Files and text nest keys at most this deep. Parsing, compiling and the
// text exchange recurse once per level (a subtree is a nested blob of its
// parent), and a hostile file could otherwise nest deep enough to end the
// stack of any thread with a few bytes a level; a tree in memory may be
// deeper, and is freed level by level.
constexpr int kRegMaxDepth = 512;

// Where the last enumeration of a map stopped, so that asking for the names
// in turn costs one step each instead of a walk from the start. It holds
// while the key's generation is what it was then.
template <class Map>
class RegCursor {
public:
    typename Map::const_iterator At(const Map& map, uint64_t index, uint64_t generation)
    {
        if (_generation != generation || _index > index) {
            _at = map.begin();
            _index = 0;
            _generation = generation;
        }
        for (; _index < index; ++_index)
            ++_at;
        return _at;
    }

private:
    uint64_t _generation = ~uint64_t(0);
    uint64_t _index = 0;
    typename Map::const_iterator _at;
};

struct RegKeyBody {
    RegValueMap values;
    RegSubkeyMap subkeys;
    int64_t writeTime = 0;
    stringEx filePath;
    bool dirty = false;
    int64_t maxSize = CISXFBasic<TDataSink>::NoBound;
    FAST_PCLOCK lock;
    // Counts the changes of the two maps; the cursors follow it.
    uint64_t generation = 0;
    RegCursor<RegValueMap> valueCursor;
    RegCursor<RegSubkeyMap> subkeyCursor;

    RegKeyBody() = default;
    RegKeyBody(const RegKeyBody&) = delete;
    RegKeyBody& operator=(const RegKeyBody&) = delete;
    ~RegKeyBody();

    // A change: stamp the time and mark the key dirty. The caller holds `lock`.
    void Touch();
};

struct RegAccess {
    static RegKeyBody& Body(const CFakeRegistry& key) noexcept { return *key._body; }
    static CFakeRegistry NewKey() { return CFakeRegistry(std::make_shared<RegKeyBody>()); }
    static CFakeRegistry Wrap(std::shared_ptr<RegKeyBody> body) noexcept { return CFakeRegistry(std::move(body)); }
    static std::shared_ptr<RegKeyBody> Share(const CFakeRegistry& key) noexcept { return key._body; }
};

// The delimiter of key paths: one backslash.
extern const stringEx g_regPathDelimiter;

// The names of a path, in order; a trailing delimiter adds no empty name.
StringVector SplitRegPath(const stringEx& path);

// The child of `key` named `name`, made when missing if `create`; an empty
// handle when missing otherwise. Takes and releases the key's lock.
bool RegChild(const CFakeRegistry& key, const stringEx& name, bool create, CFakeRegistry& child);

// A number from a value's raw bytes; data shorter than the number (a value
// set raw with a wrong length) reads as zero-padded, never beyond its bytes.
template <class T>
T RegNumber(const byteEx& data) noexcept
{
    T out{};
    std::memcpy(&out, data.data(), data.size() < sizeof(T) ? data.size() : sizeof(T));
    return out;
}

// The raw bytes of a number.
template <class T>
byteEx RegBytes(const T& number)
{
    return byteEx(reinterpret_cast<const unsigned char*>(&number), sizeof(T));
}

// String sets: members each followed by one 0x00 byte; a piece after the
// last 0x00 is a member too, the empty piece is not.
StringVector SplitStringSet(const byteEx& data);
byteEx JoinStringSet(const StringVector& members);

// Text in files and exchange formats is UTF-8; in memory it is in the
// system's narrow encoding.
stringEx RegToUtf8(const stringEx& text);
stringEx RegFromUtf8(const stringEx& text);
// The same through a given locale's converters.
stringEx RegLocaleToUtf8(const stringEx& text, locale_t locale);
stringEx RegUtf8ToLocale(const stringEx& text, locale_t locale);

// The file format. RegCompile writes a key (tag and all) with the key's
// lock held by the caller and returns what is left of `bound`; RegParse
// reads `size` bytes of a compiled key from the source into a fresh body and
// returns the part of the size that the key did not use.
template <class Sink>
int64_t RegCompile(Sink& sink, RegKeyBody& key, int64_t bound, int depth);
int64_t RegParse(TDataSource& source, int64_t size, RegKeyBody& key, int depth);

}  // namespace Karu::IMPL
