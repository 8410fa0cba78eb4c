// CFakeRegistry: keys, values and their types.
//
// Every operation takes the lock of the one key it works on, for as long as
// that operation lasts; a path is walked one key at a time, each step under
// that step's lock, so a walk is not atomic against changes of the levels it
// has passed, and never holds two locks that a rival could take the other
// way round. The only nested locks are parent then child (removal checks the
// child's counts under the parent's lock), which is the order everything in
// the store follows.
//
// Values are stored as raw bytes and read through the type check; the data
// of a value set raw with a wrong length reads as zero-padded, never beyond
// its bytes.
#include "regbody.h"

#include <cstdlib>
#include <cstring>

#include <karu/envMgr/envMgr.h>
#include <karu/time/time.h>

namespace Karu {
namespace IMPL {

const stringEx g_regPathDelimiter("\\");

bool RegNameLess::operator()(const stringEx& a, const stringEx& b) const noexcept
{
    const uint64_t n = std::min(a.size(), b.size());
    for (uint64_t i = 0; i < n; ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z')
            x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z')
            y = static_cast<char>(y - 'A' + 'a');
        if (x != y)
            return static_cast<signed char>(x) < static_cast<signed char>(y);
    }
    return a.size() < b.size();
}

void RegKeyBody::Touch()
{
    writeTime = CTime::Now().Microseconds();
    dirty = true;
    ++generation;
}

// A tree freed by its destructors alone would take one nested call a level,
// and a deep one would end the stack. So the subtrees of which this body is
// the last owner are taken apart here, a level at a time; a subtree that a
// handle elsewhere still holds is left to that handle.
RegKeyBody::~RegKeyBody()
{
    std::vector<CFakeRegistry> pending;
    for (auto& entry : subkeys)
        pending.push_back(std::move(entry.second));
    subkeys.clear();
    while (!pending.empty()) {
        const std::shared_ptr<RegKeyBody> body = RegAccess::Share(pending.back());
        pending.pop_back();
        if (body && body.use_count() == 1) {
            // The lock orders this after the last change another thread
            // made under it, before it let its handle go.
            CFastLockHolder hold(body->lock);
            for (auto& entry : body->subkeys)
                pending.push_back(std::move(entry.second));
            body->subkeys.clear();
        }
    }
}

StringVector SplitRegPath(const stringEx& path)
{
    StringVector names;
    if (path.empty())
        return names;
    PiecePositions pieces;
    SplitPositions(path, g_regPathDelimiter, pieces);
    for (const auto& [pos, length] : pieces)
        names.push_back(stringEx(path, pos, length));
    if (names.size() > 1 && names.back().empty())
        names.pop_back();
    return names;
}

bool RegChild(const CFakeRegistry& key, const stringEx& name, bool create, CFakeRegistry& child)
{
    RegKeyBody& body = RegAccess::Body(key);
    CFastLockHolder hold(body.lock);
    auto found = body.subkeys.find(name);
    if (found != body.subkeys.end()) {
        child = found->second;
        return true;
    }
    if (!create)
        return false;
    child = RegAccess::NewKey();
    body.subkeys.emplace(name, child);
    body.Touch();
    return true;
}

StringVector SplitStringSet(const byteEx& data)
{
    StringVector members;
    const char* text = reinterpret_cast<const char*>(data.data());
    uint64_t start = 0;
    for (uint64_t i = 0; i < data.size(); ++i)
        if (data[i] == 0) {
            members.push_back(stringEx(text + start, i - start));
            start = i + 1;
        }
    if (start < data.size())
        members.push_back(stringEx(text + start, data.size() - start));
    return members;
}

byteEx JoinStringSet(const StringVector& members)
{
    byteEx data;
    for (const stringEx& member : members) {
        data.append(reinterpret_cast<const unsigned char*>(member.data()), member.size());
        data.push_back(0);
    }
    return data;
}

}  // namespace IMPL

using IMPL::RegAccess;
using IMPL::RegKeyBody;

namespace {

const char* const kTypeNames[] = {"none", "string", "expandable string", "blob", "dword",
                                  "qword", "string set", "float8", "bool"};

stringEx Expanded(const stringEx& text)
{
    return ExpandEnvStrings(text);
}

// A copy of one value, taken under the key's lock; false when missing.
bool Lookup(const CFakeRegistry& key, const stringEx& name, REG_VALUE& value)
{
    RegKeyBody& body = RegAccess::Body(key);
    CFastLockHolder hold(body.lock);
    const auto found = body.values.find(name);
    if (found == body.values.end())
        return false;
    value = found->second;
    return true;
}

[[noreturn]] void Mismatch(const stringEx& name, const char* expected, uint32_t type)
{
    Throw<regExp>(ExpMessage("CFakeRegistry::ReadValueEx - value type missmatch\n")
                      .Detail("value name", name)
                      .Detail("expect type", expected)
                      .Detail("value's type", stringEx::Format("%u (%s)", type, RegTypeDisplayName(type))),
                  11);
}

// The value, type-checked; false (with nothing raised) when missing and a
// fallback exists.
bool Typed(const CFakeRegistry& key, const stringEx& name, bool hasFallback, uint32_t type, uint32_t orType,
           const char* expected, REG_VALUE& value)
{
    if (!Lookup(key, name, value)) {
        if (hasFallback)
            return false;
        Throw<regExp>(ExpMessage("CFakeRegistry::ReadValueEx - failed found specified value\n")
                          .Detail("value name", name),
                      11);
    }
    if (value.type != type && value.type != orType)
        Mismatch(name, expected, value.type);
    return true;
}

void Store(const CFakeRegistry& key, const stringEx& name, uint32_t type, const byteEx& data)
{
    REG_VALUE value;
    value.type = type;
    value.data.assign(data.data(), data.size());  // a fresh copy, never a view of the caller's bytes
    RegKeyBody& body = RegAccess::Body(key);
    CFastLockHolder hold(body.lock);
    body.values.insert_or_assign(name, value);
    body.Touch();
}

[[noreturn]] void OutOfIndex(const char* head, uint64_t count, uint64_t index)
{
    Throw<regExp>(ExpMessage(head)
                      .Detail("max index", static_cast<int64_t>(count) - 1)
                      .Detail("specified index", static_cast<int64_t>(index)),
                  2);
}

}  // namespace

const char* RegTypeDisplayName(uint32_t type) noexcept
{
    return type <= kRegLastType ? kTypeNames[type] : "unknown";
}

CFakeRegistry::CFakeRegistry() : _body(std::make_shared<RegKeyBody>()) {}

// ---- tree -------------------------------------------------------------------------------

CFakeRegistry CFakeRegistry::ObtainSubkey(const stringEx& path, bool create) const
{
    CFakeRegistry key = *this;
    for (const stringEx& name : IMPL::SplitRegPath(path)) {
        CFakeRegistry child;
        if (!IMPL::RegChild(key, name, create, child))
            Throw<regExp>(ExpMessage("CFakeRegistry::ObtainSubkey - can not find specified subkey\n")
                              .Detail("next subkey", name)
                              .Detail("full path", path),
                          19);
        key = child;
    }
    return key;
}

CFakeRegistry CFakeRegistry::ObtainChild(const stringEx& name, bool create) const
{
    CFakeRegistry child;
    if (!IMPL::RegChild(*this, name, create, child))
        Throw<regExp>(ExpMessage("CFakeRegistry::ObtainSubkey - can not find specified subkey\n")
                          .Detail("next subkey", name)
                          .Detail("full path", name),
                      19);
    return child;
}

bool CFakeRegistry::IsSubkeyExists(const stringEx& path) const
{
    CFakeRegistry key = *this;
    for (const stringEx& name : IMPL::SplitRegPath(path)) {
        CFakeRegistry child;
        if (!IMPL::RegChild(key, name, false, child))
            return false;
        key = child;
    }
    return true;
}

stringEx CFakeRegistry::EnumSubkey(uint64_t index) const
{
    CFastLockHolder hold(_body->lock);
    if (index >= _body->subkeys.size())
        OutOfIndex("CFakeRegistry::EnumSubkey - out of index\n", _body->subkeys.size(), index);
    return _body->subkeyCursor.At(_body->subkeys, index, _body->generation)->first;
}

uint64_t CFakeRegistry::GetSubkeyCount() const
{
    CFastLockHolder hold(_body->lock);
    return _body->subkeys.size();
}

REG_KEY_INFO CFakeRegistry::GetSubkeyInfo(const stringEx& path) const
{
    if (!IsSubkeyExists(path))
        Throw<regExp>(ExpMessage("CFakeRegistry::GetSubkeyInfo - specified subkey doesn't exist\n")
                          .Detail("subkey", path),
                      13);
    const CFakeRegistry key = ObtainSubkey(path);
    RegKeyBody& body = RegAccess::Body(key);
    CFastLockHolder hold(body.lock);
    return {body.writeTime, body.subkeys.size(), body.values.size()};
}

bool CFakeRegistry::RemoveSubkey(const stringEx& path, bool recursive)
{
    const StringVector names = IMPL::SplitRegPath(path);
    if (names.empty())
        return false;
    CFakeRegistry parent = *this;
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        CFakeRegistry child;
        if (!IMPL::RegChild(parent, names[i], false, child))
            return false;
        parent = child;
    }
    RegKeyBody& body = RegAccess::Body(parent);
    CFastLockHolder hold(body.lock);
    const auto found = body.subkeys.find(names.back());
    if (found == body.subkeys.end())
        return false;
    if (!recursive) {
        RegKeyBody& child = RegAccess::Body(found->second);
        CFastLockHolder holdChild(child.lock);
        if (!child.values.empty() || !child.subkeys.empty())
            Throw<regExp>(ExpMessage("CFakeRegistry::RemoveSubkey - failed remove subkey, trying to removing a not "
                                     "empty subkey with out recursive\n")
                              .Detail("subkey name", path),
                          8);
    }
    // The erased handle may be the last one; the subtree then goes with it,
    // and any handle held elsewhere keeps its part alive, detached.
    body.subkeys.erase(found);
    body.Touch();
    return true;
}

// ---- values -------------------------------------------------------------------------------

stringEx CFakeRegistry::EnumValue(uint64_t index) const
{
    CFastLockHolder hold(_body->lock);
    if (index >= _body->values.size())
        OutOfIndex("CFakeRegistry::stValueName - out of index\n", _body->values.size(), index);
    return _body->valueCursor.At(_body->values, index, _body->generation)->first;
}

uint64_t CFakeRegistry::GetValueCount() const
{
    CFastLockHolder hold(_body->lock);
    return _body->values.size();
}

bool CFakeRegistry::IsValueExists(const stringEx& name) const
{
    CFastLockHolder hold(_body->lock);
    return _body->values.count(name) != 0;
}

uint32_t CFakeRegistry::GetValueType(const stringEx& name) const
{
    REG_VALUE value;
    if (!Lookup(*this, name, value))
        Throw<regExp>(ExpMessage("CFakeRegistry::GetValueType - failed found specified value\n")
                          .Detail("value name", name),
                      19);
    return value.type;
}

byteEx CFakeRegistry::ReadRawValue(const stringEx& name) const
{
    REG_VALUE value;
    if (!Lookup(*this, name, value))
        Throw<regExp>(ExpMessage("CFakeRegistry::ReadRawValue - failed found specified value\n")
                          .Detail("value name", name),
                      11);
    return value.data;
}

// Each reader in two forms, with and without a fallback, over one body.
#define KARU_REG_READ(Type, Fallback, ValueType, Expected, convert)                                 \
    void CFakeRegistry::ReadValueEx(const stringEx& name, Type& out) const                            \
    {                                                                                                  \
        REG_VALUE value;                                                                               \
        Typed(*this, name, false, ValueType, ValueType, Expected, value);                              \
        out = convert;                                                                                 \
    }                                                                                                  \
    void CFakeRegistry::ReadValueEx(const stringEx& name, Type& out, Fallback fallback) const          \
    {                                                                                                  \
        REG_VALUE value;                                                                               \
        if (Typed(*this, name, true, ValueType, ValueType, Expected, value))                           \
            out = convert;                                                                             \
        else                                                                                           \
            out = fallback;                                                                            \
    }
KARU_REG_READ(bool, bool, T_BOOL, "T_BOOL", !value.data.empty() && value.data[0] != 0)
KARU_REG_READ(double, double, T_FLOAT8, "T_FLOAT8", IMPL::RegNumber<double>(value.data))
KARU_REG_READ(uint32_t, uint32_t, T_DWORD, "T_DWORD", IMPL::RegNumber<uint32_t>(value.data))
KARU_REG_READ(uint64_t, uint64_t, T_QWORD, "T_QWORD", IMPL::RegNumber<uint64_t>(value.data))
KARU_REG_READ(StringVector, const StringVector&, T_STRING_SET, "T_STRING_SET", IMPL::SplitStringSet(value.data))
KARU_REG_READ(byteEx, const byteEx&, T_BLOB, "T_BLOB", value.data)
#undef KARU_REG_READ

void CFakeRegistry::ReadValueEx(const stringEx& name, stringEx& out) const
{
    REG_VALUE value;
    Typed(*this, name, false, T_STRING, T_EXP_STR, "T_STRING or T_EXP_STR", value);
    const stringEx text(reinterpret_cast<const char*>(value.data.data()), value.data.size());
    out = value.type == T_EXP_STR ? Expanded(text) : text;
}

void CFakeRegistry::ReadValueEx(const stringEx& name, stringEx& out, const stringEx& fallback) const
{
    if (!IsValueExists(name)) {
        out = fallback;
        return;
    }
    ReadValueEx(name, out);
}

void CFakeRegistry::SetValue(const stringEx& name, bool value)
{
    Store(*this, name, T_BOOL, IMPL::RegBytes<unsigned char>(value ? 1 : 0));
}

void CFakeRegistry::SetValue(const stringEx& name, double value)
{
    Store(*this, name, T_FLOAT8, IMPL::RegBytes(value));
}

void CFakeRegistry::SetValue(const stringEx& name, uint32_t value)
{
    Store(*this, name, T_DWORD, IMPL::RegBytes(value));
}

void CFakeRegistry::SetValue(const stringEx& name, uint64_t value)
{
    Store(*this, name, T_QWORD, IMPL::RegBytes(value));
}

void CFakeRegistry::SetValue(const stringEx& name, const stringEx& text, bool expandable)
{
    Store(*this, name, expandable ? T_EXP_STR : T_STRING,
          byteEx(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

void CFakeRegistry::SetValue(const stringEx& name, const StringVector& members)
{
    Store(*this, name, T_STRING_SET, IMPL::JoinStringSet(members));
}

void CFakeRegistry::SetValue(const stringEx& name, const byteEx& blob)
{
    Store(*this, name, T_BLOB, blob);
}

void CFakeRegistry::SetRawValue(const stringEx& name, uint32_t type, const byteEx& data)
{
    Store(*this, name, type, data);
}

bool CFakeRegistry::RemoveValue(const stringEx& name)
{
    CFastLockHolder hold(_body->lock);
    if (_body->values.erase(name) == 0)
        return false;
    _body->Touch();
    return true;
}

// ---- whole key ------------------------------------------------------------------------------

void CFakeRegistry::Clear()
{
    IMPL::RegValueMap values;
    IMPL::RegSubkeyMap subkeys;
    {
        CFastLockHolder hold(_body->lock);
        values.swap(_body->values);
        subkeys.swap(_body->subkeys);
        _body->Touch();
    }
    // The old subtrees die here, outside the lock: their bodies' own locks
    // are never taken while a parent's lock is held for destruction.
}

bool CFakeRegistry::IsDirty() const
{
    CFastLockHolder hold(_body->lock);
    return _body->dirty;
}

int64_t CFakeRegistry::GetWriteTime() const
{
    CFastLockHolder hold(_body->lock);
    return _body->writeTime;
}

void CFakeRegistry::SetMaxSize(int64_t bound)
{
    CFastLockHolder hold(_body->lock);
    _body->maxSize = bound;
}

stringEx CFakeRegistry::GetFilePath() const
{
    CFastLockHolder hold(_body->lock);
    return _body->filePath;
}

}  // namespace Karu
