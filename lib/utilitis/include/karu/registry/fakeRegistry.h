// CFakeRegistry: a hierarchical, typed configuration store in process
// memory, with the shape of an operating system's registry. A key holds
// named values (each with a type) and named subkeys; the whole tree is
// saved to one file and read back, and exchanged as ini or csv text.
//
// A CFakeRegistry is a handle: copies share one key body, and a body lives
// as long as any handle to it, so a subkey removed from its parent stays
// usable, detached, by whoever still holds it.
//
// Names compare without regard to ASCII case (bytes as signed characters
// otherwise), so "Net" and "NET" are one key and the first spelling stays.
// Paths name subkeys downward with a backslash between the names; an empty
// path is the key itself.
//
// Locking: every body has its own FAST_PCLOCK, held for one operation on
// that key and never across the steps of a path. Locks are only ever taken
// from a parent down to a child, so no two operations can wait on each other.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include <karu/stream/datastream.h>
#include <karu/string/karuExp.h>

namespace Karu {

enum RegValueType : uint32_t {
    T_NONE = 0,
    T_STRING = 1,
    T_EXP_STR = 2,  // text with environment references, expanded when read
    T_BLOB = 3,
    T_DWORD = 4,
    T_QWORD = 5,
    T_STRING_SET = 6,
    T_FLOAT8 = 7,
    T_BOOL = 8,
};
constexpr uint32_t kRegLastType = T_BOOL;

// "none", "string", ... "bool"; "unknown" for any other number.
const char* RegTypeDisplayName(uint32_t type) noexcept;

// A value: its type and its data as raw bytes. A string set keeps its
// members each followed by one 0x00 byte.
struct REG_VALUE {
    uint32_t type = T_NONE;
    byteEx data;
};

struct REG_KEY_INFO {
    int64_t writeTime = 0;  // microseconds since 1970 of the last change
    uint64_t subkeyCount = 0;
    uint64_t valueCount = 0;
};

using StringVector = std::vector<stringEx>;

namespace IMPL {
struct RegKeyBody;
struct RegAccess;
}  // namespace IMPL

class CFakeRegistry {
public:
    // A new, empty, detached key.
    CFakeRegistry();

    // True when both handles reach one key.
    bool IsSameKey(const CFakeRegistry& other) const noexcept { return _body == other._body; }

    // ---- tree -----------------------------------------------------------------
    // Without `create` a missing step raises; with it the step is made.
    CFakeRegistry ObtainSubkey(const stringEx& path, bool create = false) const;
    // One direct subkey by its exact name, which may hold the delimiter (a
    // file can carry such names; no path can spell them).
    CFakeRegistry ObtainChild(const stringEx& name, bool create = false) const;
    bool IsSubkeyExists(const stringEx& path) const;
    // The name at a position in name order; stable only while the key is unchanged.
    stringEx EnumSubkey(uint64_t index) const;
    uint64_t GetSubkeyCount() const;
    REG_KEY_INFO GetSubkeyInfo(const stringEx& path) const;
    // Without `recursive` a subkey with values or subkeys is refused.
    // False when there is no such subkey.
    bool RemoveSubkey(const stringEx& path, bool recursive = false);

    // ---- values ---------------------------------------------------------------
    stringEx EnumValue(uint64_t index) const;
    uint64_t GetValueCount() const;
    bool IsValueExists(const stringEx& name) const;
    uint32_t GetValueType(const stringEx& name) const;
    // The bytes of a value of any type; T_EXP_STR unexpanded.
    byteEx ReadRawValue(const stringEx& name) const;

    // Each checks the type (no widening) and raises on a missing value; the
    // forms with a default return it for a missing value instead.
    void ReadValueEx(const stringEx& name, bool& out) const;
    void ReadValueEx(const stringEx& name, double& out) const;
    void ReadValueEx(const stringEx& name, uint32_t& out) const;
    void ReadValueEx(const stringEx& name, uint64_t& out) const;
    // T_STRING, or T_EXP_STR with its ${NAME} references expanded.
    void ReadValueEx(const stringEx& name, stringEx& out) const;
    void ReadValueEx(const stringEx& name, StringVector& out) const;
    void ReadValueEx(const stringEx& name, byteEx& out) const;
    void ReadValueEx(const stringEx& name, bool& out, bool fallback) const;
    void ReadValueEx(const stringEx& name, double& out, double fallback) const;
    void ReadValueEx(const stringEx& name, uint32_t& out, uint32_t fallback) const;
    void ReadValueEx(const stringEx& name, uint64_t& out, uint64_t fallback) const;
    void ReadValueEx(const stringEx& name, stringEx& out, const stringEx& fallback) const;
    void ReadValueEx(const stringEx& name, StringVector& out, const StringVector& fallback) const;
    void ReadValueEx(const stringEx& name, byteEx& out, const byteEx& fallback) const;

    // Each stores a fresh copy, stamps the key's write time and marks it dirty.
    void SetValue(const stringEx& name, bool value);
    void SetValue(const stringEx& name, double value);
    void SetValue(const stringEx& name, uint32_t value);
    void SetValue(const stringEx& name, uint64_t value);
    void SetValue(const stringEx& name, const stringEx& text, bool expandable = false);
    // Keeps a text literal from converting to bool.
    void SetValue(const stringEx& name, const char* text, bool expandable = false)
    {
        SetValue(name, stringEx(text), expandable);
    }
    void SetValue(const stringEx& name, const StringVector& members);
    void SetValue(const stringEx& name, const byteEx& blob);
    // Any type with its raw bytes, as the file and the exchange formats hold them.
    void SetRawValue(const stringEx& name, uint32_t type, const byteEx& data);
    bool RemoveValue(const stringEx& name);

    // ---- whole key ------------------------------------------------------------
    void Clear();
    bool IsDirty() const;
    int64_t GetWriteTime() const;
    // The most bytes a Save may write; NoBound (the default) for no limit.
    void SetMaxSize(int64_t bound);
    stringEx GetFilePath() const;

    // Loads a saved tree. A file left with a transaction file beside it by
    // an interrupted save is settled first: the file is kept if it is whole,
    // otherwise the transaction file's content is put back. With `create`,
    // a missing file (and its folder) makes an empty store.
    void Open(const stringEx& fileName, bool create = false);
    void Open(TDataSource& source);
    // Writes the whole tree through the transaction write, so that a crash
    // leaves the old or the new content. An empty name means the file the
    // key was opened from or last saved to.
    void Save(const stringEx& fileName = stringEx());
    void Save(TDataSink& sink);

    // ---- text exchange --------------------------------------------------------
    void ExportIni(TDataSink& sink, bool recursive = true) const;
    void ImportIni(TDataSource& source);
    void ExportCsv(TDataSink& sink, bool recursive = true) const;
    void ImportCsv(TDataSource& source);

private:
    friend struct IMPL::RegAccess;
    explicit CFakeRegistry(std::shared_ptr<IMPL::RegKeyBody> body) noexcept : _body(std::move(body)) {}

    std::shared_ptr<IMPL::RegKeyBody> _body;
};

}  // namespace Karu
