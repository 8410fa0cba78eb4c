// The iconv back end: conversion through an iconv found at run time.
//
// The library is looked for as a configured path, as iconv.so or
// libiconv.so, and finally in the program itself, where the C library's own
// iconv serves; the entry points are tried under their "lib" names first. It
// stays loaded while any converter of this kind lives.
//
// A conversion never fails. It runs in rounds through a small stack buffer;
// a round that yields nothing because of bad input costs one "?" and a step
// of one byte (one character when encoding), so that garbage in a file shows
// as question marks instead of stopping the run. Because the library is
// asked to ignore characters the target cannot hold, a bad spot usually just
// vanishes; the "?" appears where a round produced nothing at all.
//
// Before the library, a shortcut for the common encodings (fastcodec.h) is
// tried; it gives byte-identical results or steps aside.
//
// Every call starts from the initial state, by the library's reset. Some
// decoders (UTF-16, UTF-32 without a byte order) keep the byte order of a
// mark they once read through that reset; such a decoder is found out when
// it is opened and is replaced by a new one before each call.
#include <karu/TextConv/backends.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <string>

#include <karu/file/dllLoader.h>
#include <karu/string/unicode.h>

#include "fastcodec.h"
#include "textconv_impl.h"

namespace Karu {

namespace {

using IconvOpenFn = void* (*)(const char* tocode, const char* fromcode);
using IconvFn = size_t (*)(void* cd, char** in, size_t* inLeft, char** out, size_t* outLeft);
using IconvCloseFn = int (*)(void* cd);

void* const kNoDescriptor = reinterpret_cast<void*>(-1);
// The in-memory form of wstringEx: 32-bit little-endian units.
constexpr const char* kWideCode = "UCS-4LE";
// Stack buffers of one round: 256 wide characters, 512 bytes.
constexpr size_t kWideRoundBytes = 1024;
constexpr size_t kByteRoundBytes = 512;
// Characters handed to a stateful encoder at once: even with a designation
// and a single shift before each, their bytes fit one round's buffer.
constexpr size_t kStatefulPieceChars = 32;

struct IconvLibrary {
    std::unique_ptr<CDllLoader> loader;
    IconvOpenFn open = nullptr;      // always CheckedOpen once loaded
    IconvFn convert = nullptr;       // always CheckedConvert once loaded
    IconvCloseFn close = nullptr;    // always CheckedClose once loaded
    IconvOpenFn libraryOpen = nullptr;  // the library's own calls
    IconvFn library = nullptr;
    IconvCloseFn libraryClose = nullptr;
    uint64_t users = 0;
    stringEx path;  // configured library, tried first
};

IconvLibrary& Library()
{
    static IconvLibrary library;
    return library;
}

// The C library's ISO-2022-CN-EXT decoder, told to skip bad input, runs on
// past the end of a text that ends in a lone shift-out byte, reading far
// beyond it (to a fault at the end of readable memory), and reports having
// taken more input than it was given. Its descriptors are noted when they
// are opened, and shift-out bytes at the end of a text are never handed to
// them: they carry no character, so the first is reported as bad input
// where it stands once all before it is taken, as a decoder that stops at
// bad input reports it.
// Every call goes through CheckedConvert, and a call of any decoder that
// took more than it was given ends the text as bad input there, keeping
// nothing of what it made.
constexpr char kShiftOut = 0x0E;

struct OverrunningDecoders {
    std::atomic<int> count{0};  // none open: no look-up at all
    std::mutex lock;
    std::set<void*> open;
};

OverrunningDecoders& Overrunning()
{
    static OverrunningDecoders decoders;
    return decoders;
}

bool OverrunsOnShiftOut(void* cd)
{
    OverrunningDecoders& decoders = Overrunning();
    if (decoders.count.load(std::memory_order_acquire) == 0)
        return false;
    std::lock_guard<std::mutex> hold(decoders.lock);
    return decoders.open.count(cd) != 0;
}

// The encoding a descriptor reads, without options, case or separators.
std::string Bare(const char* name)
{
    std::string bare;
    for (const char* c = name; *c && !(c[0] == '/' && c[1] == '/'); ++c)
        if (*c != '-' && *c != '_')
            bare += static_cast<char>(*c >= 'a' && *c <= 'z' ? *c - 'a' + 'A' : *c);
    return bare;
}

void* CheckedOpen(const char* tocode, const char* fromcode)
{
    void* cd = Library().libraryOpen(tocode, fromcode);
    if (cd != reinterpret_cast<void*>(-1) && Bare(fromcode) == "ISO2022CNEXT") {
        OverrunningDecoders& decoders = Overrunning();
        std::lock_guard<std::mutex> hold(decoders.lock);
        decoders.open.insert(cd);
        decoders.count.store(static_cast<int>(decoders.open.size()), std::memory_order_release);
    }
    return cd;
}

int CheckedClose(void* cd)
{
    OverrunningDecoders& decoders = Overrunning();
    if (decoders.count.load(std::memory_order_acquire) != 0) {
        std::lock_guard<std::mutex> hold(decoders.lock);
        decoders.open.erase(cd);
        decoders.count.store(static_cast<int>(decoders.open.size()), std::memory_order_release);
    }
    return Library().libraryClose(cd);
}

size_t CheckedConvert(void* cd, char** in, size_t* inLeft, char** out, size_t* outLeft)
{
    char* const start = in ? *in : nullptr;
    const size_t given = start && inLeft ? *inLeft : 0;
    char* const outStart = out ? *out : nullptr;
    const size_t room = outLeft ? *outLeft : 0;
    size_t handed = given;
    if (given > 0 && start[given - 1] == kShiftOut && OverrunsOnShiftOut(cd))
        while (handed > 0 && start[handed - 1] == kShiftOut)
            --handed;  // the text handed over must not end in one either
    const bool heldBack = handed < given;
    size_t result = 0;
    if (!heldBack || handed > 0) {
        if (heldBack)
            *inLeft = handed;
        result = Library().library(cd, in, inLeft, out, outLeft);
    }
    if (!start || !*in)
        return result;
    const size_t taken = static_cast<size_t>(*in - start);
    if (taken > handed) {
        // What it wrote came from beyond the text: none of it is kept.
        *in = start + given;
        *inLeft = 0;
        if (out && outLeft) {
            *out = outStart;
            *outLeft = room;
        }
        errno = EILSEQ;
        return static_cast<size_t>(-1);
    }
    *inLeft = given - taken;
    if (heldBack && taken == handed && (result != static_cast<size_t>(-1) || errno == EILSEQ)) {
        errno = EILSEQ;
        return static_cast<size_t>(-1);
    }
    return result;
}

void LoadEntryPoints(IconvLibrary& lib, const char* openName, const char* convertName, const char* closeName)
{
    lib.libraryOpen = reinterpret_cast<IconvOpenFn>(lib.loader->GetProc(stringEx(openName)));
    lib.library = reinterpret_cast<IconvFn>(lib.loader->GetProc(stringEx(convertName)));
    lib.libraryClose = reinterpret_cast<IconvCloseFn>(lib.loader->GetProc(stringEx(closeName)));
    lib.open = &CheckedOpen;
    lib.convert = &CheckedConvert;
    lib.close = &CheckedClose;
}

void LoadLibrary(IconvLibrary& lib)
{
    if (!lib.path.empty()) {
        try {
            lib.loader = std::make_unique<CDllLoader>(lib.path, stringEx(), stringEx());
        } catch (...) {
        }
    }
    if (!lib.loader) {
        try {
            lib.loader = std::make_unique<CDllLoader>(stringEx("iconv"), stringEx(), stringEx("so"));
        } catch (const dlllExp&) {
            // No separate library: the C library linked into the program may
            // have one of its own.
            lib.loader = std::make_unique<CDllLoader>(stringEx(), stringEx(), stringEx("so"));
        }
    }
    try {
        LoadEntryPoints(lib, "libiconv_open", "libiconv", "libiconv_close");
    } catch (const dlllExp& e) {
        if (e.code != kDllSymbolMissing)
            throw;
        LoadEntryPoints(lib, "iconv_open", "iconv", "iconv_close");
    }
}

// Runs one direction of a conversion in rounds through a stack buffer;
// `unit` is the size of one source character in the bad-input step.
template <size_t RoundBytes, class Emit, class Fail>
void RunRounds(IconvFn convert, void* cd, const char* src, size_t srcBytes, size_t unit, Emit emit, Fail fail)
{
    char buffer[RoundBytes];
    char* out = buffer;
    size_t outLeft = RoundBytes;
    // Every conversion starts from the initial shift state.
    convert(cd, nullptr, nullptr, &out, &outLeft);
    char* in = const_cast<char*>(src);
    size_t inLeft = srcBytes;
    for (;;) {
        out = buffer;
        outLeft = RoundBytes;
        const size_t result = convert(cd, &in, &inLeft, &out, &outLeft);
        const size_t produced = RoundBytes - outLeft;
        if (produced == 0 && result == static_cast<size_t>(-1)) {
            fail();
            if (inLeft <= unit)
                return;
            in += unit;
            inLeft -= unit;
            continue;
        }
        emit(buffer, produced);
        if (inLeft == 0)
            return;
    }
}

}  // namespace

// ---- the library ---------------------------------------------------------------------

void CTextLibIConv::SetLibraryPath(const stringEx& path)
{
    CFastLockHolder hold(IMPL::TextLock());
    Library().path = path;
}

stringEx CTextLibIConv::GetLibraryPath()
{
    CFastLockHolder hold(IMPL::TextLock());
    return Library().path;
}

bool CTextLibIConv::IsLoaded()
{
    CFastLockHolder hold(IMPL::TextLock());
    return Library().loader != nullptr;
}

void CTextLibIConv::__AddRef()
{
    CFastLockHolder hold(IMPL::TextLock());
    IconvLibrary& lib = Library();
    try {
        if (!lib.loader)
            LoadLibrary(lib);
    } catch (const dlllExp& e) {
        lib.loader.reset();
        Throw<libiconvExp>(ExpMessage(stringEx("CTextLibIConv::__AddRef - ") +
                                      (e.code == kDllLoadFailed ? "failed load dynamic library\n"
                                                                : "failed locate iconv api\n"))
                               .Cause(e),
                           kConvInitFailed);
    } catch (...) {
        lib.loader.reset();
        Throw<libiconvExp>(ExpMessage("CTextLibIConv::__AddRef - unknwon error"), kConvInitFailed);
    }
    ++lib.users;
}

void CTextLibIConv::__Release() noexcept
{
    CFastLockHolder hold(IMPL::TextLock());
    IconvLibrary& lib = Library();
    if (lib.users == 0 || --lib.users > 0)
        return;
    try {
        lib.loader.reset();
    } catch (...) {
        // An unload failure leaves the library mapped; nothing else is lost.
    }
    lib.open = nullptr;
    lib.convert = nullptr;
    lib.close = nullptr;
    lib.libraryOpen = nullptr;
    lib.library = nullptr;
    lib.libraryClose = nullptr;
}

// ---- converters ----------------------------------------------------------------------

namespace {

// What the library makes of a short piece, and whether it did so cleanly:
// the shortcuts are checked against this before they are trusted.
bool ProbeConvert(IconvFn convert, void* cd, const char* src, size_t bytes, stringEx& out)
{
    out.clear();
    char buffer[kWideRoundBytes];
    char* o = buffer;
    size_t oLeft = sizeof buffer;
    convert(cd, nullptr, nullptr, &o, &oLeft);
    char* in = const_cast<char*>(src);
    size_t inLeft = bytes;
    bool clean = true;
    while (inLeft > 0) {
        o = buffer;
        oLeft = sizeof buffer;
        const size_t result = convert(cd, &in, &inLeft, &o, &oLeft);
        out.append(buffer, sizeof buffer - oLeft);
        if (result == static_cast<size_t>(-1)) {
            if (errno != E2BIG)
                return false;
        } else if (result != 0) {
            clean = false;  // irreversible: something was substituted
        }
    }
    o = buffer;
    oLeft = sizeof buffer;
    if (convert(cd, nullptr, nullptr, &o, &oLeft) == static_cast<size_t>(-1))
        return false;
    out.append(buffer, sizeof buffer - oLeft);
    return clean;
}

}  // namespace

// Whether the encoder keeps a shift state: it then has something to write
// when it is reset after a few characters of different scripts.
bool HoldsState(IconvFn convert, void* cd)
{
    const wchar_t sample[] = L"A\x4E00\x3042\xAC00\xE9\x391\x5D0";
    char buffer[kByteRoundBytes];
    char* in = reinterpret_cast<char*>(const_cast<wchar_t*>(sample));
    size_t inLeft = sizeof sample - sizeof(wchar_t);
    char* out = buffer;
    size_t outLeft = sizeof buffer;
    convert(cd, nullptr, nullptr, &out, &outLeft);
    convert(cd, &in, &inLeft, &out, &outLeft);
    out = buffer;
    outLeft = sizeof buffer;
    convert(cd, nullptr, nullptr, &out, &outLeft);
    const bool stateful = outLeft != sizeof buffer;
    out = buffer;
    outLeft = sizeof buffer;
    convert(cd, nullptr, nullptr, &out, &outLeft);
    return stateful;
}

void* OpenDecoder(const IconvLibrary& lib, const stringEx& encoding)
{
    const std::string from(encoding.data(), encoding.size());
    return lib.open((std::string(kWideCode) + "//IGNORE").c_str(), from.c_str());
}

// Whether the decoder keeps a byte order that it read from a byte-order
// mark after it has been reset: some decoders of the C library do, and a
// text without a mark would then be read in the order of an earlier one.
// Each byte-order mark is read, then a text without one, which must come
// out as a fresh decoder reads it.
bool KeepsByteOrder(const IconvLibrary& lib, const stringEx& encoding, void* cd)
{
    static const std::string kMarks[] = {std::string("\xFE\xFF", 2), std::string("\xFF\xFE", 2),
                                         std::string("\0\0\xFE\xFF", 4), std::string("\xFF\xFE\0\0", 4)};
    // Units that are characters in both byte orders, as two and four bytes,
    // and different ones: 0100/0001, 0002/0200 and 00020100/00010200.
    static const char kPlain[8] = {0x00, 0x01, 0x02, 0x00, 0x00, 0x01, 0x02, 0x00};
    void* fresh = OpenDecoder(lib, encoding);
    if (fresh == kNoDescriptor)
        return false;
    stringEx expected, got;
    ProbeConvert(lib.convert, fresh, kPlain, sizeof kPlain, expected);
    lib.close(fresh);
    bool keeps = false;
    for (const std::string& mark : kMarks) {
        ProbeConvert(lib.convert, cd, mark.data(), mark.size(), got);
        ProbeConvert(lib.convert, cd, kPlain, sizeof kPlain, got);
        keeps = keeps || got != expected;
    }
    return keeps;
}

// The bytes of one code unit: what one line feed more adds to a text (a
// signature in front, where the encoder writes one, counts in neither).
size_t UnitBytes(IconvFn convert, void* cd)
{
    auto encoded = [&](size_t feeds) {
        const wchar_t text[2] = {L'\n', L'\n'};
        char buffer[64];
        char* in = reinterpret_cast<char*>(const_cast<wchar_t*>(text));
        size_t inLeft = feeds * sizeof(wchar_t);
        char* out = buffer;
        size_t outLeft = sizeof buffer;
        convert(cd, nullptr, nullptr, &out, &outLeft);
        convert(cd, &in, &inLeft, &out, &outLeft);
        convert(cd, nullptr, nullptr, &out, &outLeft);
        return sizeof buffer - outLeft;
    };
    const size_t one = encoded(1), two = encoded(2);
    return two > one && two - one <= 4 ? two - one : 1;
}

// Opens both directions for `encoding`, and the shortcut if there is one;
// leaves both descriptors closed if either direction is refused.
void CTextLibIConv::__Open(const stringEx& encoding)
{
    const IconvLibrary& lib = Library();
    _encoding = encoding;
    _toWide = OpenDecoder(lib, encoding);
    if (_toWide == kNoDescriptor)
        return;
    _toBytes = lib.open((std::string(encoding.data(), encoding.size()) + "//IGNORE").c_str(), kWideCode);
    if (_toBytes == kNoDescriptor) {
        lib.close(_toWide);
        _toWide = kNoDescriptor;
        return;
    }
    IconvFn convert = lib.convert;
    _stateful = HoldsState(convert, _toBytes);
    _keepsByteOrder = KeepsByteOrder(lib, encoding, _toWide);
    __FreshDecoder();  // the probe above read marks
    _unitBytes = UnitBytes(convert, _toBytes);
    // The probes may run long after this, when a shortcut fills its tables
    // on first need: they hold the lock like any other conversion.
    _fast = IMPL::MakeFastCodec(
        _encoding,
        [this, convert](const stringEx& src, wstringEx& dst) {
            CFastLockHolder hold(_lock);
            __FreshDecoder();
            stringEx bytes;
            const bool clean = ProbeConvert(convert, _toWide, src.data(), src.size(), bytes);
            dst = bytes.Reinterpret<wchar_t>();
            return clean;
        },
        [this, convert](const wstringEx& src, stringEx& dst) {
            CFastLockHolder hold(_lock);
            return ProbeConvert(convert, _toBytes, reinterpret_cast<const char*>(src.data()),
                                src.size() * sizeof(wchar_t), dst);
        },
        _stateful);
}

void CTextLibIConv::__Close() noexcept
{
    const IconvLibrary& lib = Library();
    if (_toWide != kNoDescriptor)
        lib.close(_toWide);
    if (_toBytes != kNoDescriptor)
        lib.close(_toBytes);
    if (_toWideStrict != kNoDescriptor)
        lib.close(_toWideStrict);
    _toWide = _toBytes = _toWideStrict = kNoDescriptor;
}

// Every conversion starts from the initial state. Where the library's reset
// does not forget a byte order read from a mark, a new descriptor does; if
// none can be had, the old one stays, which is no worse than before.
void CTextLibIConv::__FreshDecoder() const
{
    if (!_keepsByteOrder)
        return;
    void* fresh = OpenDecoder(Library(), _encoding);
    if (fresh == kNoDescriptor)
        return;
    Library().close(_toWide);
    _toWide = fresh;
}

CTextLibIConv::CTextLibIConv(const stringEx& name)
{
    __AddRef();
    try {
        __Open(name);
        if (_toWide == kNoDescriptor) {
            const stringEx substitute = IMPL::CodePageName(EncToCP(name));
            __Open(substitute);
            if (_toWide == kNoDescriptor)
                Throw<libiconvExp>(ExpMessage("CTextLibIConv::CTextLibIConv - failed init encoding convertion\n")
                                       .Detail("encoding name", name + " (" + substitute + ")"),
                                   kConvInitFailed);
        }
    } catch (...) {
        __Close();
        __Release();
        throw;
    }
}

CTextLibIConv::CTextLibIConv(uint32_t codepage)
{
    __AddRef();
    try {
        __Open(IMPL::CodePageName(codepage));
        if (_toWide == kNoDescriptor) {
            const stringEx name = CPToEnc(codepage);
            __Open(name);
            if (_toWide == kNoDescriptor)
                Throw<libiconvExp>(ExpMessage("CTextLibIConv::CTextLibIConv - failed init encoding convertion\n")
                                       .Detail("code page", static_cast<int64_t>(codepage))
                                       .Detail("encoding name", name),
                                   kConvInitFailed);
        }
    } catch (...) {
        __Close();
        __Release();
        throw;
    }
}

CTextLibIConv::~CTextLibIConv() noexcept(false)
{
    _fast.reset();
    const IconvLibrary& lib = Library();
    bool failed = false;
    if (_toWide != kNoDescriptor && lib.close(_toWide) != 0)
        failed = true;
    if (_toBytes != kNoDescriptor && lib.close(_toBytes) != 0)
        failed = true;
    if (_toWideStrict != kNoDescriptor && lib.close(_toWideStrict) != 0)
        failed = true;
    __Release();
    if (failed && MayThrowFromDestructor())
        Throw<libiconvExp>(
            ExpMessage("CTextLibIConv::~CTextLibIConv - failed release lib iconv's convertion descriptor"),
            kConvReleaseFailed);
}

std::unique_ptr<TTextConv> CTextLibIConv::NewConv(uint32_t codepage)
{
    return std::make_unique<CTextLibIConv>(codepage);
}

std::unique_ptr<TTextConv> CTextLibIConv::NewConv(const stringEx& name)
{
    return std::make_unique<CTextLibIConv>(name);
}

std::unique_ptr<TTextConv> CTextLibIConv::Clone()
{
    return std::make_unique<CTextLibIConv>(_encoding);
}

stringEx CTextLibIConv::BackEnd() const
{
    return stringEx("iconv");
}

stringEx CTextLibIConv::Encoding() const
{
    return _encoding;
}

bool CTextLibIConv::ConvertsByLines() const
{
    if (!CutsAfter('\n'))
        return false;
    wstringEx lineFeed;
    LibMBtoWC(lineFeed, stringEx("\n"));
    return lineFeed == wstringEx(L"\n");
}

bool CTextLibIConv::CutsAfter(char byte) const
{
    // Only where a shortcut vouches for a stateless encoding: UTF-8, a
    // single-byte table, or a double-byte code page.
    if (!_fast)
        return false;
    const stringEx kind(_fast->Kind());
    if (kind == "table")
        return true;
    // In UTF-8 a byte below 0x80 is never inside a sequence.
    if (kind == "utf-8")
        return static_cast<unsigned char>(byte) < 0x80;
    if (kind != "double-byte")
        return false;
    // The byte must be a character alone and never the second byte of one,
    // or a cut behind it could split one: ask the library about every lead,
    // once for each byte.
    CFastLockHolder hold(_lock);
    int8_t& known = _cutsAfter[static_cast<unsigned char>(byte)];
    if (known >= 0)
        return known == 1;
    known = 0;
    char pair[2] = {byte, byte};
    wstringEx read;
    LibMBtoWC(read, stringEx(pair, 1));
    if (read.size() != 1)
        return false;
    for (int lead = 0x80; lead <= 0xFF; ++lead) {
        pair[0] = static_cast<char>(lead);
        LibMBtoWC(read, stringEx(pair, 2));
        if (read.empty() || read[read.size() - 1] != static_cast<wchar_t>(static_cast<unsigned char>(byte)))
            return false;
    }
    known = 1;
    return true;
}

bool CTextLibIConv::IsPlainUtf8() const
{
    // The shortcut was checked against the library when it was made, and it
    // takes every well-formed text and every scalar value itself.
    return _fast && _fast->IsPlainUtf8();
}

bool CTextLibIConv::AsciiView(stringEx& view, const stringEx& bytes, bool carried) const
{
    return _fast && _fast->AsciiView(view, bytes, carried);
}

stringEx CTextLibIConv::Shortcut() const
{
    return _fast ? stringEx(_fast->Kind()) : stringEx();
}

void CTextLibIConv::MBtoWC(wstringEx& dst, const stringEx& src)
{
    if (_fast && _fast->Decode(dst, src))
        return;
    LibMBtoWC(dst, src);
}

void CTextLibIConv::WCtoMB(stringEx& dst, const wstringEx& src)
{
    if (_fast && _fast->Encode(dst, src))
        return;
    LibWCtoMB(dst, src);
}

void CTextLibIConv::MBtoWCCarrying(wstringEx& dst, const stringEx& src)
{
    // Well-formed text, the common case, goes the ordinary way: that one
    // is sized exactly.
    if (_fast && (_fast->Decode(dst, src) || _fast->DecodeCarrying(dst, src)))
        return;
    LibMBtoWCCarrying(dst, src);
}

void CTextLibIConv::WCtoMBCarrying(stringEx& dst, const wstringEx& src)
{
    if (_fast && (_fast->Encode(dst, src) || _fast->EncodeCarrying(dst, src)))
        return;
    TTextConv::WCtoMBCarrying(dst, src);
}

void CTextLibIConv::LibMBtoWCCarrying(wstringEx& dst, const stringEx& src) const
{
    dst.clear();
    if (src.empty())
        return;
    CFastLockHolder hold(_lock);
    const IconvLibrary& lib = Library();
    if (_keepsByteOrder && _toWideStrict != kNoDescriptor) {
        // Such a decoder is renewed before each call (see __FreshDecoder).
        lib.close(_toWideStrict);
        _toWideStrict = kNoDescriptor;
    }
    if (_toWideStrict == kNoDescriptor) {
        _toWideStrict = lib.open(kWideCode, std::string(_encoding.data(), _encoding.size()).c_str());
        if (_toWideStrict == kNoDescriptor) {
            // Nothing better to offer than the ordinary form (the lock is
            // recursive).
            LibMBtoWC(dst, src);
            return;
        }
    }
    IMPL::PrepareLargeBlock(dst.GetBuffer(src.size()), src.size() * sizeof(wchar_t));
    char buffer[kWideRoundBytes];
    char* out = buffer;
    size_t outLeft = sizeof buffer;
    lib.convert(_toWideStrict, nullptr, nullptr, &out, &outLeft);
    char* in = const_cast<char*>(src.data());
    size_t inLeft = src.size();
    while (inLeft > 0) {
        out = buffer;
        outLeft = sizeof buffer;
        const size_t result = lib.convert(_toWideStrict, &in, &inLeft, &out, &outLeft);
        dst.append(reinterpret_cast<const wchar_t*>(buffer), (sizeof buffer - outLeft) / sizeof(wchar_t));
        if (result != static_cast<size_t>(-1) || errno == E2BIG)
            continue;
        // A broken or unfinished sequence at `in`: its first unit is carried.
        for (size_t k = 0; k < _unitBytes && inLeft > 0; ++k, ++in, --inLeft)
            dst.push_back(EscapeUnit(static_cast<unsigned char>(*in)));
    }
}

void CTextLibIConv::LibMBtoWC(wstringEx& dst, const stringEx& src) const
{
    dst.clear();
    if (src.empty())
        return;
    CFastLockHolder hold(_lock);
    __FreshDecoder();
    // A decoded text has at most one character a byte: room for that much
    // up front saves growing (and copying) it round after round.
    IMPL::PrepareLargeBlock(dst.GetBuffer(src.size()), src.size() * sizeof(wchar_t));
    RunRounds<kWideRoundBytes>(
        Library().convert, _toWide, src.data(), src.size(), 1,
        [&dst](const char* bytes, size_t n) {
            dst.append(reinterpret_cast<const wchar_t*>(bytes), n / sizeof(wchar_t));
        },
        [&dst] { dst.push_back(L'?'); });
}

void CTextLibIConv::LibWCtoMB(stringEx& dst, const wstringEx& src)
{
    dst.clear();
    if (src.empty())
        return;
    CFastLockHolder hold(_lock);
    IconvFn convert = Library().convert;
    const char* bytes = reinterpret_cast<const char*>(src.data());
    const size_t total = src.size() * sizeof(wchar_t);
    // Most encodings take at most as many bytes as a character has.
    IMPL::PrepareLargeBlock(dst.GetBuffer(total), total);
    auto emit = [&dst](const char* out, size_t n) { dst.append(out, n); };
    auto fail = [&dst] { dst.push_back('?'); };
    if (!_stateful) {
        RunRounds<kByteRoundBytes>(convert, _toBytes, bytes, total, sizeof(wchar_t), emit, fail);
    } else {
        // Some stateful encoders of the C library forget their designation
        // when a call stops because the output buffer is full, and then
        // write text that reads back differently. Pieces small enough that
        // their output always fits keep every call whole.
        char buffer[kByteRoundBytes];
        char* out = buffer;
        size_t outLeft = sizeof buffer;
        convert(_toBytes, nullptr, nullptr, &out, &outLeft);
        char* in = const_cast<char*>(bytes);
        size_t inLeft = total;
        bool dropped = false;
        while (inLeft > 0) {
            size_t pieceLeft = std::min(inLeft, kStatefulPieceChars * sizeof(wchar_t));
            const size_t piece = pieceLeft;
            out = buffer;
            outLeft = sizeof buffer;
            const size_t result = convert(_toBytes, &in, &pieceLeft, &out, &outLeft);
            const size_t produced = sizeof buffer - outLeft;
            inLeft -= piece - pieceLeft;
            if (produced == 0 && result == static_cast<size_t>(-1)) {
                dropped = true;
                if (pieceLeft != piece)
                    continue;
                // Nothing taken and nothing made: the character is skipped.
                fail();
                if (inLeft <= sizeof(wchar_t))
                    break;
                in += sizeof(wchar_t);
                inLeft -= sizeof(wchar_t);
                continue;
            }
            emit(buffer, produced);
        }
        // These encoders stop at each character they drop, where the others
        // run on to the end of the text; so the mark of a round that made
        // nothing goes where one round would have made nothing: a text
        // without a single character the encoding can hold.
        if (dropped && dst.empty())
            fail();
    }
    // Return to the initial shift state, so that a stateful encoding ends as
    // a complete text (and the last bytes of a UTF-7 run are not lost).
    char buffer[kByteRoundBytes];
    char* out = buffer;
    size_t outLeft = sizeof buffer;
    convert(_toBytes, nullptr, nullptr, &out, &outLeft);
    dst.append(buffer, sizeof buffer - outLeft);
}

}  // namespace Karu
