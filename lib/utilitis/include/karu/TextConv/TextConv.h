// Text conversion between byte encodings and the library's wide text.
//
// TTextConv is the converter interface and, used by itself, the converter of
// last resort (each byte becomes one wide unit, sign-extended, and back). The
// real work is done by back ends loaded at run time (see backends.h); the
// factory CreateConv picks the first one that accepts an encoding and never
// fails: a name nobody knows ends in the plain byte mapping, silently.
//
// Beside the converters stand the encoding table (names, code pages and
// descriptions, in a fixed case-insensitive order), the system's encoding as
// the environment's locale gives it, each thread's own system and UTF-8
// converters, and the table of conversions that lose nothing.
//
// Thread safety: the tables and cached values are built once under one
// process-wide lock and are read without it afterwards. A converter object is
// not meant to be shared between threads (each back end serialises its own
// calls anyway); GetSysConv and GetUtf8Conv hand each thread its own.
#pragma once

#include <cstdint>
#include <memory>
#include <set>

#include <karu/string/karuExp.h>
#include <karu/string/stringEx.h>

namespace Karu {

// The codes of the text conversion branch of the exception family: what
// failed, whichever class (tconvExp, libiconvExp, libicuExp) carries it.
constexpr int32_t kConvUnknownEncoding = 1;
constexpr int32_t kConvEncodingInfo = 2;
constexpr int32_t kConvInitFailed = 3;
constexpr int32_t kConvConvertFailed = 4;
constexpr int32_t kConvReleaseFailed = 5;

// One row of the encoding table.
struct EncInfo {
    // A Windows-style code page. Not unique, and on some rows deliberately
    // not the canonical number: it is what a back end is offered when it
    // does not know the row's name.
    uint32_t codepage = 0;
    // The text of the encoding listing.
    stringEx description;
    // Set on the Arabic and Hebrew rows (right to left); informational.
    bool flag = false;
};

// The ordering of encoding names: byte by byte after tolower, bytes compared
// as signed 8-bit values, a prefix first.
struct EncNameLess {
    bool operator()(const stringEx& a, const stringEx& b) const noexcept;
};
using EncNameSet = std::set<stringEx, EncNameLess>;

// A group of conversions that lose nothing. A mutual group lists all its
// members in `from` (and `to` is empty): any member converts to any other.
// In a one-way group an empty side stands for any encoding.
struct CompatGroup {
    EncNameSet from;
    EncNameSet to;
    bool mutual = false;
    stringEx name;
};

// Position of an enumeration. Pass an empty cookie to start; the enumeration
// empties it again at the end.
using EnumCookie = std::shared_ptr<uint64_t>;

class TTextConv;
// Converters are handed out under shared ownership (atomic count).
using TextConvPtr = std::shared_ptr<TTextConv>;

class TTextConv {
public:
    TTextConv() noexcept = default;
    virtual ~TTextConv() noexcept(false) = default;
    TTextConv(const TTextConv&) = delete;
    TTextConv& operator=(const TTextConv&) = delete;

    // A new converter of the same back end for another encoding, owned by
    // the caller.
    virtual std::unique_ptr<TTextConv> NewConv(uint32_t codepage);
    virtual std::unique_ptr<TTextConv> NewConv(const stringEx& name);
    // A new converter of the same back end and encoding: each thread's own.
    virtual std::unique_ptr<TTextConv> Clone();

    // Bytes to wide text. `dst` is emptied first.
    virtual wstringEx MBtoWC(const stringEx& src);
    virtual void MBtoWC(wstringEx& dst, const stringEx& src);
    // Wide text to bytes. `dst` is emptied first.
    virtual stringEx WCtoMB(const wstringEx& src);
    virtual void WCtoMB(stringEx& dst, const wstringEx& src);

    // The carrying form of the conversions, which loses nothing: a byte that
    // the encoding cannot decode becomes one escape unit (EscapeUnit in
    // karu/string/unicode.h) and an escape unit is written back as its byte;
    // the rest converts as in the ordinary form. Text read and written again
    // in one encoding so gives back the very bytes it came from, broken ones
    // included, except where the encoding reads a character from a second
    // form and writes only its first (Big5 reads 0xF9F9 as the character it
    // writes 0xA2A4): such a pair decodes, so it is a character, and comes
    // back in its first form. A back end that cannot tell where its input is
    // broken (ICU) decodes as in the ordinary form.
    virtual void MBtoWCCarrying(wstringEx& dst, const stringEx& src);
    virtual void WCtoMBCarrying(stringEx& dst, const wstringEx& src);

    // Which back end converts ("iconv", "icu", "locale", "bytes") and the
    // encoding name it finally accepted (empty for the last two).
    virtual stringEx BackEnd() const;
    virtual stringEx Encoding() const;
    // True for a converter of UTF-8 that decodes well-formed text (see
    // IsWellFormedUtf8) and encodes every scalar value the standard way: its
    // text and its bytes then correspond character by character, and a
    // literal search may run on either.
    virtual bool IsPlainUtf8() const;
    // The bytes as a search for text of ASCII only sees them: `view` gets
    // as many bytes as `bytes`, the same at each byte that is an ASCII
    // character by itself and 0x80 or above at every other. Such a search
    // then finds in the view what it finds in the decoded text, at the
    // matching byte offsets, even where the second byte of a character looks
    // like a letter. False, with `view` unspecified, where the converter
    // cannot vouch for that: an encoding with states, bytes it does not read
    // as whole characters, or a character it does not write back as the
    // bytes it was read from (where copying the bytes would differ from
    // converting them twice). In UTF-8 the view shares the bytes.
    // `carried`: for a text read and written in the carrying form, where a
    // byte that stands alone undecoded is an escape unit, never ASCII; such
    // bytes then keep their place in the view instead of failing it.
    virtual bool AsciiView(stringEx& view, const stringEx& bytes, bool carried = false) const;

    // Whether a text cut just after each line feed converts, piece by piece,
    // to exactly what the whole converts to, in both directions: the encoding
    // keeps no state from one character to the next, and its line feed byte
    // is always a whole character that reads as a line feed. A caller may
    // then work through a large text a few lines at a time.
    virtual bool ConvertsByLines() const;
    // The same for a cut just after `byte`: the encoding keeps no state and
    // the byte is always a whole character by itself, never part of another.
    virtual bool CutsAfter(char byte) const;

    // ---- the encoding table ---------------------------------------------------

    // "CP<number>" in any case gives the number without a look-up; otherwise
    // the row's code page. Unknown name: tconvExp.
    static uint32_t EncToCP(const stringEx& name);
    // The first row (in table order) with that code page, or "CP<number>".
    static stringEx CPToEnc(uint32_t codepage);
    // The row of `name`; a "CP<number>" name is first replaced by CPToEnc of
    // the number. Unknown name: tconvExp.
    static EncInfo GetEncInfo(stringEx& name);
    // Copies out the row at the cookie and advances; false (and everything
    // emptied) after the last row.
    static bool EnumEncoding(EnumCookie& cookie, stringEx& name, EncInfo& info);
    // Number of rows in the table.
    static uint64_t EncodingCount();

    // ---- the system's encoding (read once, then cached) -----------------------

    static stringEx GetSysEncoding();
    static uint32_t GetSysCodePage();
    static stringEx GetSysLocale();
    static bool IsSysUtf8();

    // ---- converters -------------------------------------------------------------

    // The converter for a code page and/or a name (either may be empty).
    // Never fails: a name no back end accepts gives a plain TTextConv.
    static TextConvPtr CreateConv(uint32_t codepage, const stringEx& name);
    // The calling thread's converters for the system's encoding and UTF-8.
    static TextConvPtr GetSysConv();
    static TextConvPtr GetUtf8Conv();

    // ---- conversions that lose nothing --------------------------------------------

    // True when text in `from` survives conversion to `to`; `groupName`, if
    // given, receives the title of the group that says so. "CP<number>" names
    // are first replaced by CPToEnc of the number.
    static bool IsCompatible(const stringEx& from, const stringEx& to, stringEx* groupName);
    static bool IsCompatible(uint32_t from, uint32_t to, stringEx* groupName);
    // Copies out the group at the cookie and advances; false and an empty
    // group after the last.
    static bool EnumCompatible(EnumCookie& cookie, CompatGroup& group);
    static uint64_t CompatibleGroupCount();
};

// What the tool prints, as one text, when the conversion from `from` to `to`
// would lose characters and is not forced, and the status it then ends with.
stringEx IncompatibleConversionMessage(const stringEx& from, const stringEx& to);
constexpr int kIncompatibleConversionStatus = -1;

// True when the bytes are UTF-8 in its shortest forms, with no surrogate and
// nothing above U+10FFFF.
bool IsWellFormedUtf8(const char* data, uint64_t size) noexcept;

// The position of the first escape unit at or after `from`, or npos.
uint64_t FindEscapeUnit(const wstringEx& text, uint64_t from = 0) noexcept;

// ---- shortcuts through the calling thread's converters ---------------------------
// None of these fails: a converter that raises is replaced, for that string,
// by the plain byte mapping.

wstringEx SysMBtoWC(const stringEx& src);
void SysMBtoWC(wstringEx& dst, const stringEx& src);
stringEx SysWCtoMB(const wstringEx& src);
void SysWCtoMB(stringEx& dst, const wstringEx& src);

wstringEx Utf8MBtoWC(const stringEx& src);
void Utf8MBtoWC(wstringEx& dst, const stringEx& src);
stringEx Utf8WCtoMB(const wstringEx& src);
void Utf8WCtoMB(stringEx& dst, const wstringEx& src);

// Re-encoding between UTF-8 and the system's encoding; a copy when the system
// is UTF-8. `temp` is a caller's scratch buffer for the wide middle step.
stringEx Utf8ToSys(const stringEx& src);
stringEx Utf8ToSys(const byteEx& src);
stringEx Utf8ToSys(const stringEx& src, wstringEx& temp);
stringEx SysToUtf8(const stringEx& src);
stringEx SysToUtf8(const byteEx& src);
stringEx SysToUtf8(const stringEx& src, wstringEx& temp);

}  // namespace Karu
