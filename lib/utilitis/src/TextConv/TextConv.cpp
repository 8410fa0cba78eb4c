// The converter interface, the encoding table, the system's encoding, the
// factory and each thread's converters.
//
// The factory tries the back ends in a fixed order (iconv by name, by code
// page, then ICU likewise) and swallows every refusal, so that a misspelt or
// exotic encoding name degrades to the plain byte mapping instead of stopping
// a run. The system and UTF-8 converters are made once per process (the
// "masters") and every caller gets a clone of its own, because a back-end
// object carries conversion state and a lock.
//
// Subtle points: the system's encoding is read by switching LC_CTYPE to the
// environment's locale and back, once; later changes of locale are not seen.
// The fallback for the system converter, CIsoSysDefConv, does not override
// Clone, so what callers receive from it is a plain byte mapping: the locale
// functions serve only where making a clone fails.
#include <karu/TextConv/TextConv.h>
#include <karu/string/unicode.h>

#include <langinfo.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string>

#include <karu/TextConv/backends.h>

#include "textconv_impl.h"

namespace Karu {

namespace IMPL {
namespace {
#include "encoding_table.inc"

FAST_PCLOCK g_textLock;

// ASCII folding: the names are ASCII, and a locale's own tolower (Turkish
// dotless i, say) must not change what a name means.
inline int FoldName(char c) noexcept
{
    return (c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : static_cast<signed char>(c);
}

// Strings of the library need not be terminated (a view is not), so the
// ordering works on counted text.
bool NameLess(const char* a, size_t na, const char* b, size_t nb) noexcept
{
    const size_t n = std::min(na, nb);
    for (size_t i = 0; i < n; ++i) {
        const int ca = FoldName(a[i]), cb = FoldName(b[i]);
        if (ca != cb)
            return ca < cb;
    }
    return na < nb;
}

const EncodingRow* FindRow(const stringEx& name) noexcept
{
    // The generator guarantees the rows are sorted by this very ordering.
    const EncodingRow* end = std::end(kEncodingRows);
    const EncodingRow* row = std::lower_bound(std::begin(kEncodingRows), end, name,
                                              [](const EncodingRow& r, const stringEx& n) {
                                                  return NameLess(r.name, std::strlen(r.name), n.data(), n.size());
                                              });
    if (row == end || NameLess(name.data(), name.size(), row->name, std::strlen(row->name)))
        return nullptr;
    return row;
}

EncInfo InfoOf(const EncodingRow& row)
{
    EncInfo info;
    info.codepage = row.codepage;
    info.description = stringEx(row.description);
    info.flag = row.flag;
    return info;
}

}  // namespace

FAST_PCLOCK& TextLock() noexcept
{
    return g_textLock;
}

bool ParseCodePageName(const stringEx& name, uint32_t& number) noexcept
{
    const std::string text(name.data(), name.size());
    if (text.size() < 2 || (text[0] != 'C' && text[0] != 'c') || (text[1] != 'P' && text[1] != 'p'))
        return false;
    number = static_cast<uint32_t>(std::strtoul(text.c_str() + 2, nullptr, 10));
    return true;
}

stringEx CodePageName(uint32_t codepage)
{
    return stringEx::Format("CP%u", codepage);
}

const EncodingRow* EncodingRows(uint64_t& count) noexcept
{
    count = std::size(kEncodingRows);
    return kEncodingRows;
}

const CompatRow* CompatRows(uint64_t& count) noexcept
{
    count = std::size(kCompatRows);
    return kCompatRows;
}

}  // namespace IMPL

bool EncNameLess::operator()(const stringEx& a, const stringEx& b) const noexcept
{
    return IMPL::NameLess(a.data(), a.size(), b.data(), b.size());
}

uint64_t FindEscapeUnit(const wstringEx& text, uint64_t from) noexcept
{
    const wchar_t* units = text.data();
    const uint64_t n = text.size();
    uint64_t i = from;
#if defined(__SSE2__)
    // Four units a step: u - base below 0x100 as unsigned numbers, compared
    // as signed ones with the top bit flipped.
    const __m128i base = _mm_set1_epi32(static_cast<int>(kEscapeUnitBase));
    const __m128i flip = _mm_set1_epi32(INT32_MIN);
    const __m128i limit = _mm_set1_epi32(INT32_MIN + 0x100);
    for (; i + 4 <= n; i += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units + i));
        if (_mm_movemask_epi8(_mm_cmplt_epi32(_mm_xor_si128(_mm_sub_epi32(v, base), flip), limit)))
            break;
    }
#endif
    for (; i < n; ++i)
        if (IsEscapeUnit(units[i]))
            return i;
    return wstringEx::npos;
}

// ---- the plain converter ---------------------------------------------------------------

std::unique_ptr<TTextConv> TTextConv::NewConv(uint32_t)
{
    return std::make_unique<TTextConv>();
}

std::unique_ptr<TTextConv> TTextConv::NewConv(const stringEx&)
{
    return std::make_unique<TTextConv>();
}

std::unique_ptr<TTextConv> TTextConv::Clone()
{
    return std::make_unique<TTextConv>();
}

wstringEx TTextConv::MBtoWC(const stringEx& src)
{
    wstringEx dst;
    MBtoWC(dst, src);
    return dst;
}

stringEx TTextConv::WCtoMB(const wstringEx& src)
{
    stringEx dst;
    WCtoMB(dst, src);
    return dst;
}

void TTextConv::MBtoWC(wstringEx& dst, const stringEx& src)
{
    // Sign extension is deliberate: it is what makes the byte mapping
    // reversible through WCtoMB, whatever the byte.
    dst.clear();
    wchar_t* out = dst.GetBuffer(src.size());
    const char* in = src.data();
    for (uint64_t i = 0; i < src.size(); ++i)
        out[i] = static_cast<wchar_t>(static_cast<signed char>(in[i]));
    dst.SetSize(src.size());
}

void TTextConv::WCtoMB(stringEx& dst, const wstringEx& src)
{
    dst.clear();
    char* out = dst.GetBuffer(src.size());
    const wchar_t* in = src.data();
    for (uint64_t i = 0; i < src.size(); ++i)
        out[i] = static_cast<char>(in[i] & 0xFF);
    dst.SetSize(src.size());
}

// Every byte widens to a unit of its own, so nothing is ever undecodable here.
void TTextConv::MBtoWCCarrying(wstringEx& dst, const stringEx& src)
{
    MBtoWC(dst, src);
}

// Around each escape unit the runs of characters convert as they would alone;
// a back end with a better way overrides this.
void TTextConv::WCtoMBCarrying(stringEx& dst, const wstringEx& src)
{
    uint64_t escape = FindEscapeUnit(src);
    if (escape == wstringEx::npos) {
        WCtoMB(dst, src);
        return;
    }
    dst.clear();
    stringEx run;
    for (uint64_t at = 0; at < src.size();) {
        if (escape > at) {
            WCtoMB(run, wstringEx::View(src.data() + at, escape - at));
            dst.append(run);
            at = escape;
            if (at == src.size())
                break;
        }
        dst.push_back(static_cast<char>(EscapedByte(src[at++])));
        escape = FindEscapeUnit(src, at);
        if (escape == wstringEx::npos)
            escape = src.size();
    }
}

stringEx TTextConv::BackEnd() const
{
    return stringEx("bytes");
}

bool TTextConv::ConvertsByLines() const
{
    return false;
}

bool TTextConv::CutsAfter(char) const
{
    return false;
}

stringEx TTextConv::Encoding() const
{
    return stringEx();
}

bool TTextConv::IsPlainUtf8() const
{
    return false;
}

bool TTextConv::AsciiView(stringEx&, const stringEx&, bool) const
{
    return false;
}

namespace IMPL {
namespace {

// Conversion through the C library under the current locale: the fallback
// when no back end can be loaded for the system's encoding.
class CIsoSysDefConv : public TTextConv {
public:
    using TTextConv::MBtoWC;
    using TTextConv::WCtoMB;

    void MBtoWC(wstringEx& dst, const stringEx& src) override { Decode<false>(dst, src); }
    void WCtoMB(stringEx& dst, const wstringEx& src) override { Encode<false>(dst, src); }
    // Carrying, a NUL is a character like any other.
    void MBtoWCCarrying(wstringEx& dst, const stringEx& src) override { Decode<true>(dst, src); }
    void WCtoMBCarrying(stringEx& dst, const wstringEx& src) override { Encode<true>(dst, src); }

    stringEx BackEnd() const override { return stringEx("locale"); }

private:
    template <bool Carry>
    static void Decode(wstringEx& dst, const stringEx& src)
    {
        dst.clear();
        std::mbstate_t state{};
        const char* in = src.data();
        uint64_t left = src.size();
        while (left > 0) {
            wchar_t wc = 0;
            const size_t used = std::mbrtowc(&wc, in, left, &state);
            if (used == 0) {
                dst.push_back(L'\0');
                // A NUL ends the text, as it would for the C string functions.
                if constexpr (!Carry)
                    return;
                ++in;
                --left;
                continue;
            }
            if (used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2)) {
                if constexpr (Carry) {
                    dst.push_back(EscapeUnit(static_cast<unsigned char>(*in)));
                    state = std::mbstate_t{};  // undefined after a failure
                } else {
                    dst.push_back(L'?');
                }
                ++in;
                --left;
                continue;
            }
            dst.push_back(wc);
            in += used;
            left -= used;
        }
    }

    template <bool Carry>
    static void Encode(stringEx& dst, const wstringEx& src)
    {
        dst.clear();
        std::mbstate_t state{};
        char bytes[MB_LEN_MAX];
        for (wchar_t wc : src) {
            if (Carry && IsEscapeUnit(wc)) {
                dst.push_back(static_cast<char>(EscapedByte(wc)));
                continue;
            }
            const size_t made = std::wcrtomb(bytes, wc, &state);
            if (made == 0 || made == static_cast<size_t>(-1))
                dst.push_back('?');
            else
                dst.append(bytes, made);
        }
    }

};

}  // namespace

std::unique_ptr<TTextConv> NewLocaleConv()
{
    return std::make_unique<CIsoSysDefConv>();
}

namespace {

// ---- cached system values -------------------------------------------------------------

struct SysCache {
    bool encodingReady = false;
    stringEx encoding;
    bool localeReady = false;
    stringEx locale;
    std::atomic<bool> codePageReady{false};
    uint32_t codePage = 0;
    std::atomic<int> utf8{-1};  // -1 not known yet, 0 no, 1 yes
};

SysCache& Cache()
{
    static SysCache cache;
    return cache;
}

stringEx ReadSysEncoding()
{
    try {
        const char* current = std::setlocale(LC_CTYPE, nullptr);
        const stringEx saved(current ? current : "C");
        std::setlocale(LC_CTYPE, "");
        const char* codeset = nl_langinfo(CODESET);
        stringEx encoding(codeset ? codeset : "");
        std::setlocale(LC_CTYPE, saved.c_str());
        encoding.Trim();
        return encoding;
    } catch (...) {
        return stringEx("ASCII");
    }
}

stringEx ReadSysLocale()
{
    for (const char* variable : {"LANG", "LC_CTYPE", "LC_ALL"}) {
        const char* value = std::getenv(variable);
        if (!value)
            continue;
        stringEx name(value);
        const uint64_t at = name.Find('@');
        if (at != stringEx::npos)
            name = name.Left(at);
        const uint64_t dot = name.Find('.');
        if (dot != stringEx::npos)
            name = name.Left(dot);
        name.Trim();
        if (!name.empty())
            return name;
    }
    return stringEx("en_US");
}

// ---- shared converters ----------------------------------------------------------------

std::atomic<TTextConv*> g_sysMaster{nullptr};
std::atomic<TTextConv*> g_utf8Master{nullptr};

// A converter for `name` from the best back end there is; never fails.
// Masters live for the whole process: they keep their library loaded.
TTextConv* MakeMaster(const stringEx& name)
{
    try {
        return new CTextLibIConv(name);
    } catch (...) {
    }
    try {
        return new CTextLibIcu(name);
    } catch (...) {
    }
    return new CIsoSysDefConv();
}

TTextConv& Master(std::atomic<TTextConv*>& slot, bool system)
{
    TTextConv* master = slot.load(std::memory_order_acquire);
    if (master)
        return *master;
    CFastLockHolder hold(TextLock());
    master = slot.load(std::memory_order_relaxed);
    if (!master) {
        master = MakeMaster(system ? TTextConv::GetSysEncoding() : stringEx("UTF-8"));
        slot.store(master, std::memory_order_release);
    }
    return *master;
}

struct ThreadConverters {
    TextConvPtr sys;
    TextConvPtr utf8;
};

thread_local ThreadConverters t_converters;

TextConvPtr ThreadConverter(bool system)
{
    TextConvPtr& slot = system ? t_converters.sys : t_converters.utf8;
    TextConvPtr& other = system ? t_converters.utf8 : t_converters.sys;
    if (slot)
        return slot;
    // On a UTF-8 system one object serves both slots.
    if (other && TTextConv::IsSysUtf8()) {
        slot = other;
        return slot;
    }
    try {
        slot = TextConvPtr(Master(system ? g_sysMaster : g_utf8Master, system).Clone());
        return slot;
    } catch (...) {
        slot.reset();
        return std::make_shared<CIsoSysDefConv>();
    }
}

}  // namespace
}  // namespace IMPL

// ---- the encoding table ------------------------------------------------------------------

uint32_t TTextConv::EncToCP(const stringEx& name)
{
    uint32_t number = 0;
    if (IMPL::ParseCodePageName(name, number))
        return number;
    if (const IMPL::EncodingRow* row = IMPL::FindRow(name))
        return row->codepage;
    Throw<tconvExp>(ExpMessage("TTextConv::EncToCP - can't convert the encoding to codepage\n")
                        .Text("  corresponding mapping doesn't exist\n")
                        .Text("  encoding name = " + name + "\n"),
                    kConvUnknownEncoding);
}

stringEx TTextConv::CPToEnc(uint32_t codepage)
{
    for (const IMPL::EncodingRow& row : IMPL::kEncodingRows)
        if (row.codepage == codepage)
            return stringEx(row.name);
    return IMPL::CodePageName(codepage);
}

EncInfo TTextConv::GetEncInfo(stringEx& name)
{
    uint32_t number = 0;
    if (IMPL::ParseCodePageName(name, number))
        name = CPToEnc(number);
    if (const IMPL::EncodingRow* row = IMPL::FindRow(name))
        return IMPL::InfoOf(*row);
    Throw<tconvExp>(ExpMessage("TTextConv::GetEncInfo - can't retrieve the encoding's infomation\n")
                        .Text("  encoding doesn't exist\n")
                        .Text("  encoding name = " + name + "\n"),
                    kConvEncodingInfo);
}

bool TTextConv::EnumEncoding(EnumCookie& cookie, stringEx& name, EncInfo& info)
{
    if (!cookie)
        cookie = std::make_shared<uint64_t>(0);
    if (*cookie >= std::size(IMPL::kEncodingRows)) {
        cookie.reset();
        name.clear();
        info = EncInfo();
        return false;
    }
    const IMPL::EncodingRow& row = IMPL::kEncodingRows[(*cookie)++];
    name = stringEx(row.name);
    info = IMPL::InfoOf(row);
    return true;
}

uint64_t TTextConv::EncodingCount()
{
    return std::size(IMPL::kEncodingRows);
}

// ---- the system's encoding -------------------------------------------------------------------

stringEx TTextConv::GetSysEncoding()
{
    IMPL::SysCache& cache = IMPL::Cache();
    CFastLockHolder hold(IMPL::TextLock());
    if (!cache.encodingReady) {
        cache.encoding = IMPL::ReadSysEncoding();
        cache.encodingReady = true;
    }
    return cache.encoding;
}

uint32_t TTextConv::GetSysCodePage()
{
    IMPL::SysCache& cache = IMPL::Cache();
    if (cache.codePageReady.load(std::memory_order_acquire))
        return cache.codePage;
    CFastLockHolder hold(IMPL::TextLock());
    if (!cache.codePageReady.load(std::memory_order_relaxed)) {
        try {
            cache.codePage = EncToCP(GetSysEncoding());
        } catch (...) {
            cache.codePage = 20127;
        }
        cache.codePageReady.store(true, std::memory_order_release);
    }
    return cache.codePage;
}

stringEx TTextConv::GetSysLocale()
{
    IMPL::SysCache& cache = IMPL::Cache();
    CFastLockHolder hold(IMPL::TextLock());
    if (!cache.localeReady) {
        cache.locale = IMPL::ReadSysLocale();
        cache.localeReady = true;
    }
    return cache.locale;
}

bool TTextConv::IsSysUtf8()
{
    IMPL::SysCache& cache = IMPL::Cache();
    int known = cache.utf8.load(std::memory_order_acquire);
    if (known < 0) {
        CFastLockHolder hold(IMPL::TextLock());
        known = GetSysEncoding().EqualsNoCase(stringEx("UTF-8")) ? 1 : 0;
        cache.utf8.store(known, std::memory_order_release);
    }
    return known == 1;
}

// ---- converters ---------------------------------------------------------------------------------

TextConvPtr TTextConv::CreateConv(uint32_t codepage, const stringEx& name)
{
    if ((codepage != 0 && codepage == GetSysCodePage()) || name.EqualsNoCase(GetSysEncoding()))
        return TextConvPtr(IMPL::Master(IMPL::g_sysMaster, true).Clone());
    if (codepage == 65001 || name.EqualsNoCase(stringEx("UTF-8")))
        return TextConvPtr(IMPL::Master(IMPL::g_utf8Master, false).Clone());
    // A refusal only means "try the next one": the factory itself never fails.
    if (!name.empty()) {
        try {
            return std::make_shared<CTextLibIConv>(name);
        } catch (...) {
        }
    }
    if (codepage != 0) {
        try {
            return std::make_shared<CTextLibIConv>(codepage);
        } catch (...) {
        }
    }
    if (!name.empty()) {
        try {
            return std::make_shared<CTextLibIcu>(name);
        } catch (...) {
        }
    }
    if (codepage != 0) {
        try {
            return std::make_shared<CTextLibIcu>(codepage);
        } catch (...) {
        }
    }
    return std::make_shared<TTextConv>();
}

TextConvPtr TTextConv::GetSysConv()
{
    return IMPL::ThreadConverter(true);
}

TextConvPtr TTextConv::GetUtf8Conv()
{
    return IMPL::ThreadConverter(false);
}

// ---- shortcuts --------------------------------------------------------------------------------------

namespace {

template <class Dst, class Src>
void Through(TextConvPtr (*get)(), void (TTextConv::*convert)(Dst&, const Src&), Dst& dst, const Src& src)
{
    try {
        ((*get()).*convert)(dst, src);
    } catch (...) {
        TTextConv plain;
        (plain.*convert)(dst, src);
    }
}

}  // namespace

void SysMBtoWC(wstringEx& dst, const stringEx& src)
{
    Through<wstringEx, stringEx>(&TTextConv::GetSysConv, &TTextConv::MBtoWC, dst, src);
}

wstringEx SysMBtoWC(const stringEx& src)
{
    wstringEx dst;
    SysMBtoWC(dst, src);
    return dst;
}

void SysWCtoMB(stringEx& dst, const wstringEx& src)
{
    Through<stringEx, wstringEx>(&TTextConv::GetSysConv, &TTextConv::WCtoMB, dst, src);
}

stringEx SysWCtoMB(const wstringEx& src)
{
    stringEx dst;
    SysWCtoMB(dst, src);
    return dst;
}

void Utf8MBtoWC(wstringEx& dst, const stringEx& src)
{
    Through<wstringEx, stringEx>(&TTextConv::GetUtf8Conv, &TTextConv::MBtoWC, dst, src);
}

wstringEx Utf8MBtoWC(const stringEx& src)
{
    wstringEx dst;
    Utf8MBtoWC(dst, src);
    return dst;
}

void Utf8WCtoMB(stringEx& dst, const wstringEx& src)
{
    Through<stringEx, wstringEx>(&TTextConv::GetUtf8Conv, &TTextConv::WCtoMB, dst, src);
}

stringEx Utf8WCtoMB(const wstringEx& src)
{
    stringEx dst;
    Utf8WCtoMB(dst, src);
    return dst;
}

stringEx Utf8ToSys(const stringEx& src, wstringEx& temp)
{
    if (TTextConv::IsSysUtf8())
        return src;
    Utf8MBtoWC(temp, src);
    return SysWCtoMB(temp);
}

stringEx Utf8ToSys(const stringEx& src)
{
    wstringEx temp;
    return Utf8ToSys(src, temp);
}

stringEx Utf8ToSys(const byteEx& src)
{
    return Utf8ToSys(stringEx(reinterpret_cast<const char*>(src.data()), src.size()));
}

stringEx SysToUtf8(const stringEx& src, wstringEx& temp)
{
    if (TTextConv::IsSysUtf8())
        return src;
    SysMBtoWC(temp, src);
    return Utf8WCtoMB(temp);
}

stringEx SysToUtf8(const stringEx& src)
{
    wstringEx temp;
    return SysToUtf8(src, temp);
}

stringEx SysToUtf8(const byteEx& src)
{
    return SysToUtf8(stringEx(reinterpret_cast<const char*>(src.data()), src.size()));
}

}  // namespace Karu
