// The ICU back end: conversion through the ICU common library, loaded at run
// time, for the encodings that iconv refuses (SCSU, BOCU-1, several Mac code
// pages...).
//
// The library exports its C functions under versioned names. Which version
// is installed is found by trying the library's file names from the newest
// major version down; how the version is spelt in the symbol names is
// learnt from the library itself, since it changed over the years: recent
// ones append "_" and the major version ("ucnv_open_72"), old ones put a "_"
// before every digit ("ucnv_open_3_8").
//
// Each conversion sizes its result with one call and fills it with a
// second. The library works in 16-bit units; the wide text holds one unit a
// character, so surrogate pairs are joined on the way in and made again on
// the way out, which keeps characters beyond the basic plane intact even
// when text decoded by one back end is encoded by the other. A wide value
// that is no character at all keeps only its low 16 bits.
#include <karu/TextConv/backends.h>

#include <string>
#include <vector>

#include <karu/file/dllLoader.h>

#include "textconv_impl.h"

namespace Karu {

namespace {

using UcnvOpenFn = void* (*)(const char* name, int* error);
using UcnvToUCharsFn = int32_t (*)(void* cnv, char16_t* dest, int32_t capacity, const char* src, int32_t length,
                                   int* error);
using UcnvFromUCharsFn = int32_t (*)(void* cnv, char* dest, int32_t capacity, const char16_t* src, int32_t length,
                                     int* error);
using UcnvCloseFn = void (*)(void* cnv);
using ErrorNameFn = const char* (*)(int error);
using CleanupFn = void (*)();

// The library's error codes that matter here.
constexpr int kInvalidCharFound = 10;
constexpr int kTruncatedCharFound = 11;
constexpr int kIllegalCharFound = 12;
constexpr int kBufferOverflow = 15;
// Major versions tried when none is configured, newest first. The oldest
// with the C converter API in its current form is well below; the newest is
// far ahead of any release, so that an upgrade needs no change here.
constexpr int kNewestVersion = 120;
constexpr int kOldestVersion = 36;

struct IcuLibrary {
    std::unique_ptr<CDllLoader> loader;
    UcnvOpenFn open = nullptr;
    UcnvToUCharsFn toUChars = nullptr;
    UcnvFromUCharsFn fromUChars = nullptr;
    UcnvCloseFn close = nullptr;
    ErrorNameFn errorName = nullptr;
    CleanupFn cleanup = nullptr;  // optional: older builds may lack it
    uint64_t users = 0;
    stringEx path;
    stringEx version;  // configured or found
};

IcuLibrary& Library()
{
    static IcuLibrary library;
    return library;
}

std::unique_ptr<CDllLoader> LoadVersion(const stringEx& version)
{
    return std::make_unique<CDllLoader>(stringEx("icuuc"), version, stringEx("so"));
}

std::unique_ptr<CDllLoader> LoadNewest(stringEx& version)
{
    for (int major = kNewestVersion; major >= kOldestVersion; --major) {
        try {
            const stringEx candidate = stringEx::Format("%d", major);
            std::unique_ptr<CDllLoader> loader = LoadVersion(candidate);
            version = candidate;
            return loader;
        } catch (const dlllExp&) {
        }
    }
    Throw<dlllExp>(ExpMessage("CDllLoader::CDllLoader - error loading dynamic library\n")
                       .Detail("dll path", stringEx("libicuuc.so.<version>"))
                       .Detail("sys error desc", stringEx("no installed version found")),
                   kDllLoadFailed);
}

// The symbol suffixes a library of `version` may use, in the order tried.
std::vector<stringEx> Suffixes(const stringEx& version)
{
    std::vector<stringEx> suffixes;
    if (version.empty())
        return {stringEx()};
    suffixes.push_back("_" + version);
    stringEx perDigit;
    for (char c : version) {
        perDigit += '_';
        perDigit += c;
    }
    if (!(perDigit == suffixes.front()))
        suffixes.push_back(perDigit);
    return suffixes;
}

void LoadEntryPoints(IcuLibrary& lib)
{
    const std::vector<stringEx> suffixes = Suffixes(lib.version);
    for (size_t i = 0; i < suffixes.size(); ++i) {
        const stringEx& suffix = suffixes[i];
        try {
            lib.open = reinterpret_cast<UcnvOpenFn>(lib.loader->GetProc("ucnv_open" + suffix));
        } catch (const dlllExp&) {
            if (i + 1 < suffixes.size())
                continue;
            throw;
        }
        lib.toUChars = reinterpret_cast<UcnvToUCharsFn>(lib.loader->GetProc("ucnv_toUChars" + suffix));
        lib.fromUChars = reinterpret_cast<UcnvFromUCharsFn>(lib.loader->GetProc("ucnv_fromUChars" + suffix));
        lib.close = reinterpret_cast<UcnvCloseFn>(lib.loader->GetProc("ucnv_close" + suffix));
        lib.errorName = reinterpret_cast<ErrorNameFn>(lib.loader->GetProc("u_errorName" + suffix));
        try {
            lib.cleanup = reinterpret_cast<CleanupFn>(lib.loader->GetProc("u_cleanup" + suffix));
        } catch (const dlllExp&) {
            lib.cleanup = nullptr;
        }
        return;
    }
}

void LoadLibrary(IcuLibrary& lib)
{
    if (!lib.path.empty()) {
        try {
            lib.loader = std::make_unique<CDllLoader>(lib.path);
        } catch (...) {
        }
    }
    if (!lib.loader)
        lib.loader = lib.version.empty() ? LoadNewest(lib.version) : LoadVersion(lib.version);
    LoadEntryPoints(lib);
}

stringEx ErrorName(int error)
{
    const char* name = Library().errorName ? Library().errorName(error) : nullptr;
    return stringEx(name ? name : "");
}

[[noreturn]] void ThrowConversion(const char* head, int error)
{
    Throw<libicuExp>(ExpMessage(head).Detail("error code", static_cast<int64_t>(error)).Detail("error desc",
                                                                                               ErrorName(error)),
                     kConvConvertFailed);
}

}  // namespace

// ---- the library ---------------------------------------------------------------------

void CTextLibIcu::SetLibraryPath(const stringEx& path)
{
    CFastLockHolder hold(IMPL::TextLock());
    Library().path = path;
}

stringEx CTextLibIcu::GetLibraryPath()
{
    CFastLockHolder hold(IMPL::TextLock());
    return Library().path;
}

void CTextLibIcu::SetVersion(const stringEx& version)
{
    CFastLockHolder hold(IMPL::TextLock());
    Library().version = version;
}

stringEx CTextLibIcu::GetVersion()
{
    CFastLockHolder hold(IMPL::TextLock());
    return Library().version;
}

bool CTextLibIcu::IsLoaded()
{
    CFastLockHolder hold(IMPL::TextLock());
    return Library().loader != nullptr;
}

void CTextLibIcu::__AddRef()
{
    CFastLockHolder hold(IMPL::TextLock());
    IcuLibrary& lib = Library();
    try {
        if (!lib.loader)
            LoadLibrary(lib);
    } catch (const dlllExp& e) {
        lib.loader.reset();
        Throw<libicuExp>(ExpMessage(stringEx("CTextLibIcu::__AddRef - ") + (e.code == kDllLoadFailed
                                                                                 ? "failed load dynamic library\n"
                                                                                 : "failed locate icu api\n"))
                             .Cause(e),
                         kConvInitFailed);
    } catch (...) {
        lib.loader.reset();
        Throw<libicuExp>(ExpMessage("CTextLibIcu::__AddRef - unknwon error"), kConvInitFailed);
    }
    ++lib.users;
}

void CTextLibIcu::__Release() noexcept
{
    CFastLockHolder hold(IMPL::TextLock());
    IcuLibrary& lib = Library();
    if (lib.users == 0 || --lib.users > 0)
        return;
    try {
        // The library caches what a converter open loads (alias tables, and
        // the data looked at even when the name is refused); unloaded without
        // its own clean-up that memory would be lost with the mapping.
        if (lib.cleanup)
            lib.cleanup();
        lib.cleanup = nullptr;
        lib.loader.reset();
    } catch (...) {
        // An unload failure leaves the library mapped; nothing else is lost.
    }
}

// ---- converters ----------------------------------------------------------------------

CTextLibIcu::CTextLibIcu(const stringEx& name)
{
    __AddRef();
    try {
        const IcuLibrary& lib = Library();
        int error = 0;
        _encoding = name;
        _converter = lib.open(std::string(name.data(), name.size()).c_str(), &error);
        if (!_converter) {
            _encoding = "windows-" + stringEx::Format("%u", EncToCP(name));
            error = 0;
            _converter = lib.open(std::string(_encoding.data(), _encoding.size()).c_str(), &error);
            if (!_converter)
                Throw<libicuExp>(ExpMessage("CTextLibIcu::CTextLibIcu - failed init encoding convertion\n")
                                     .Detail("encoding name", name + " (" + _encoding + ")")
                                     .Detail("error number", static_cast<int64_t>(error))
                                     .Detail("error desc", ErrorName(error)),
                                 kConvInitFailed);
        }
    } catch (...) {
        __Release();
        throw;
    }
}

CTextLibIcu::CTextLibIcu(uint32_t codepage)
{
    __AddRef();
    try {
        const IcuLibrary& lib = Library();
        int error = 0;
        _encoding = "windows-" + stringEx::Format("%u", codepage);
        _converter = lib.open(std::string(_encoding.data(), _encoding.size()).c_str(), &error);
        if (!_converter) {
            _encoding = CPToEnc(codepage);
            error = 0;
            _converter = lib.open(std::string(_encoding.data(), _encoding.size()).c_str(), &error);
            if (!_converter)
                Throw<libicuExp>(ExpMessage("CTextLibIcu::CTextLibIcu - failed init encoding convertion\n")
                                     .Detail("code page", static_cast<int64_t>(codepage))
                                     .Detail("encoding name", _encoding)
                                     .Detail("error number", static_cast<int64_t>(error))
                                     .Detail("error desc", ErrorName(error)),
                                 kConvInitFailed);
        }
    } catch (...) {
        __Release();
        throw;
    }
}

CTextLibIcu::~CTextLibIcu() noexcept(false)
{
    if (_converter)
        Library().close(_converter);
    __Release();
}

std::unique_ptr<TTextConv> CTextLibIcu::NewConv(uint32_t codepage)
{
    return std::make_unique<CTextLibIcu>(codepage);
}

std::unique_ptr<TTextConv> CTextLibIcu::NewConv(const stringEx& name)
{
    return std::make_unique<CTextLibIcu>(name);
}

std::unique_ptr<TTextConv> CTextLibIcu::Clone()
{
    return std::make_unique<CTextLibIcu>(_encoding);
}

stringEx CTextLibIcu::BackEnd() const
{
    return stringEx("icu");
}

stringEx CTextLibIcu::Encoding() const
{
    return _encoding;
}

namespace {

// Substitutions and truncated input are not failures: the library's
// replacement character stands for them.
bool Tolerated(int error)
{
    return error <= 0 || error == kInvalidCharFound || error == kTruncatedCharFound || error == kIllegalCharFound;
}

int32_t Int32Length(uint64_t n, const char* head)
{
    if (n > static_cast<uint64_t>(INT32_MAX - 2))
        ThrowConversion(head, kBufferOverflow);
    return static_cast<int32_t>(n);
}

}  // namespace

void CTextLibIcu::MBtoWC(wstringEx& dst, const stringEx& src)
{
    dst.clear();
    if (src.empty())
        return;
    CFastLockHolder hold(_lock);
    const IcuLibrary& lib = Library();
    const int32_t srcLength = Int32Length(src.size(), "CTextLibIcu::MBtoWC - failed retrive dest size\n");
    int error = 0;
    const int32_t length = lib.toUChars(_converter, nullptr, 0, src.data(), srcLength, &error);
    if (!Tolerated(error) && error != kBufferOverflow)
        ThrowConversion("CTextLibIcu::MBtoWC - failed retrive dest size\n", error);
    std::vector<char16_t> units(static_cast<size_t>(length) + 1);
    error = 0;
    const int32_t made = lib.toUChars(_converter, units.data(), length + 1, src.data(), srcLength, &error);
    if (!Tolerated(error))
        ThrowConversion("CTextLibIcu::MBtoWC - failed converting string\n", error);
    wchar_t* out = dst.GetBuffer(static_cast<uint64_t>(made) + 2);
    uint64_t n = 0;
    for (int32_t i = 0; i < made; ++i) {
        const char32_t unit = units[static_cast<size_t>(i)];
        const char32_t next = i + 1 < made ? units[static_cast<size_t>(i) + 1] : 0;
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            out[n++] = static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            ++i;
        } else {
            out[n++] = static_cast<wchar_t>(unit);
        }
    }
    dst.SetSize(n);
}

void CTextLibIcu::WCtoMB(stringEx& dst, const wstringEx& src)
{
    dst.clear();
    if (src.empty())
        return;
    CFastLockHolder hold(_lock);
    const IcuLibrary& lib = Library();
    std::vector<char16_t> units;
    units.reserve(src.size());
    for (wchar_t wc : src) {
        const uint32_t c = static_cast<uint32_t>(wc);
        if (c >= 0x10000 && c <= 0x10FFFF) {
            units.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        } else {
            units.push_back(static_cast<char16_t>(c & 0xFFFF));
        }
    }
    const int32_t srcLength = Int32Length(units.size(), "CTextLibIcu::WCtoMB - failed retrive dest size\n");
    int error = 0;
    const int32_t length = lib.fromUChars(_converter, nullptr, 0, units.data(), srcLength, &error);
    if (error > 0 && error != kBufferOverflow)
        ThrowConversion("CTextLibIcu::WCtoMB - failed retrive dest size\n", error);
    char* out = dst.GetBuffer(static_cast<uint64_t>(length) + 2);
    error = 0;
    const int32_t made = lib.fromUChars(_converter, out, length + 1, units.data(), srcLength, &error);
    if (error > 0)
        ThrowConversion("CTextLibIcu::MBtoWC - failed converting string\n", error);
    dst.SetSize(static_cast<uint64_t>(made));
}

}  // namespace Karu
