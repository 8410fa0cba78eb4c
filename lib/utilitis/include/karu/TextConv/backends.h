// The two converter back ends, each a library found at run time: the program
// links neither, so it starts and converts (less well) without them.
//
// CTextLibIConv is the first choice; CTextLibIcu serves encodings the first
// refuses. Both keep their library loaded while any converter of theirs
// lives, and both serialise the calls on one object with its own lock.
// Neither ever reports bad input: an unconvertible byte or character becomes
// "?" (or what the library substitutes), so that a conversion always yields
// text.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include <karu/TextConv/TextConv.h>
#include <karu/sync/fastlock.h>

namespace Karu {

namespace IMPL {
class CFastCodec;
}

class CTextLibIConv : public TTextConv {
public:
    explicit CTextLibIConv(const stringEx& name);
    explicit CTextLibIConv(uint32_t codepage);
    ~CTextLibIConv() noexcept(false) override;

    std::unique_ptr<TTextConv> NewConv(uint32_t codepage) override;
    std::unique_ptr<TTextConv> NewConv(const stringEx& name) override;
    std::unique_ptr<TTextConv> Clone() override;

    using TTextConv::MBtoWC;
    using TTextConv::WCtoMB;
    void MBtoWC(wstringEx& dst, const stringEx& src) override;
    void WCtoMB(stringEx& dst, const wstringEx& src) override;
    void MBtoWCCarrying(wstringEx& dst, const stringEx& src) override;
    void WCtoMBCarrying(stringEx& dst, const wstringEx& src) override;

    stringEx BackEnd() const override;
    stringEx Encoding() const override;
    bool ConvertsByLines() const override;
    bool CutsAfter(char byte) const override;
    bool IsPlainUtf8() const override;
    bool AsciiView(stringEx& view, const stringEx& bytes, bool carried = false) const override;

    // The conversions exactly as the library gives them, bypassing the
    // shortcuts for common encodings (which must agree with these).
    void LibMBtoWC(wstringEx& dst, const stringEx& src) const;
    void LibWCtoMB(stringEx& dst, const wstringEx& src);
    // The library's decoding in the carrying form: it stops at each broken
    // sequence, whose first byte (first unit, where characters are wider) is
    // carried, and goes on behind it.
    void LibMBtoWCCarrying(wstringEx& dst, const stringEx& src) const;

    // The shortcut in use for this encoding ("utf-8", "utf-16", "ucs-2",
    // "utf-32", "table", "double-byte"), or empty when every conversion goes
    // to the library. A double-byte shortcut fills its tables once a large
    // text comes by, and is dropped if the library then turns out not to
    // agree with them.
    stringEx Shortcut() const;

    // A library tried before the usual names; empty (the default) for none.
    static void SetLibraryPath(const stringEx& path);
    static stringEx GetLibraryPath();
    // Whether the library is loaded now (some converter lives).
    static bool IsLoaded();

private:
    void __Open(const stringEx& encoding);
    void __Close() noexcept;
    void __FreshDecoder() const;
    static void __AddRef();
    static void __Release() noexcept;

    mutable void* _toWide = reinterpret_cast<void*>(-1);  // renewed per call, see _keepsByteOrder
    void* _toBytes = reinterpret_cast<void*>(-1);
    // Decoding that stops at broken input instead of skipping it, for the
    // carrying form; opened on first need.
    mutable void* _toWideStrict = reinterpret_cast<void*>(-1);
    // Bytes of one code unit: what a broken spot is carried by (2 or 4
    // where every character takes whole units of that size).
    size_t _unitBytes = 1;
    // CutsAfter of each byte of a double-byte code page, once asked: 1 or 0,
    // -1 before.
    mutable std::array<int8_t, 256> _cutsAfter = MakeUnknownCuts();
    static constexpr std::array<int8_t, 256> MakeUnknownCuts()
    {
        std::array<int8_t, 256> cuts{};
        cuts.fill(-1);
        return cuts;
    }
    stringEx _encoding;
    mutable FAST_PCLOCK _lock;  // one conversion at a time on the descriptors
    std::unique_ptr<IMPL::CFastCodec> _fast;
    bool _stateful = false;
    bool _keepsByteOrder = false;  // the decoder's reset keeps a byte order read from a mark
};

class CTextLibIcu : public TTextConv {
public:
    explicit CTextLibIcu(const stringEx& name);
    explicit CTextLibIcu(uint32_t codepage);
    ~CTextLibIcu() noexcept(false) override;

    std::unique_ptr<TTextConv> NewConv(uint32_t codepage) override;
    std::unique_ptr<TTextConv> NewConv(const stringEx& name) override;
    std::unique_ptr<TTextConv> Clone() override;

    using TTextConv::MBtoWC;
    using TTextConv::WCtoMB;
    void MBtoWC(wstringEx& dst, const stringEx& src) override;
    void WCtoMB(stringEx& dst, const wstringEx& src) override;

    stringEx BackEnd() const override;
    stringEx Encoding() const override;

    // A library tried before the versioned names; empty (the default) for none.
    static void SetLibraryPath(const stringEx& path);
    static stringEx GetLibraryPath();
    // The library's major version, as it appears in its file name. Empty
    // (the default) means the newest one installed.
    static void SetVersion(const stringEx& version);
    static stringEx GetVersion();
    static bool IsLoaded();

private:
    static void __AddRef();
    static void __Release() noexcept;

    void* _converter = nullptr;
    stringEx _encoding;
    FAST_PCLOCK _lock;
};

}  // namespace Karu
