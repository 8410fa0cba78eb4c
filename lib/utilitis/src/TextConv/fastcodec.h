// Shortcuts for common encodings beside a back end: straight-line code for
// UTF-8, UTF-16, UTF-32, and tables for single-byte and double-byte code
// pages.
//
// A shortcut must never change a byte of output: it converts only input it
// can convert exactly as the back end would, and answers false for anything
// else (invalid or incomplete sequences, characters without an image, shift
// states), in which case the caller runs the back end over the whole input.
// Whole, not the rest: the back end's handling of a bad byte depends on what
// came before it in the same round, so a seam in the middle could differ.
#pragma once

#include <functional>
#include <memory>

#include <karu/string/stringEx.h>

namespace Karu::IMPL {

class CFastCodec {
public:
    virtual ~CFastCodec() = default;
    // True with `dst` filled, or false with `dst` unspecified.
    virtual bool Decode(wstringEx& dst, const stringEx& src) const = 0;
    virtual bool Encode(stringEx& dst, const wstringEx& src) const = 0;
    // The carrying forms (TTextConv::MBtoWCCarrying): a byte the back end
    // would not decode becomes an escape unit, and an escape unit is written
    // as its byte. False where the shortcut cannot say, as above.
    virtual bool DecodeCarrying(wstringEx&, const stringEx&) const { return false; }
    virtual bool EncodeCarrying(stringEx&, const wstringEx&) const { return false; }
    virtual const char* Kind() const noexcept = 0;
    // Decodes well-formed UTF-8 and encodes every scalar value in the
    // standard way, so that literal work on such text may run on its bytes.
    virtual bool IsPlainUtf8() const noexcept { return false; }
    // The bytes as a search for ASCII text sees them (TTextConv::AsciiView);
    // false where the shortcut cannot say.
    virtual bool AsciiView(stringEx&, const stringEx&, bool /*carried*/) const { return false; }
};

// Readies a large block that is about to be written from start to end.
void PrepareLargeBlock(void* data, size_t bytes) noexcept;

// How the back end converts a short piece: the conversion of `src` and
// whether it went through without any substitution or loss.
using ProbeDecode = std::function<bool(const stringEx& src, wstringEx& dst)>;
using ProbeEncode = std::function<bool(const wstringEx& src, stringEx& dst)>;

// The shortcut for the encoding the back end accepted under `encoding`, or
// null when there is none. The back end is asked (through the probes) to
// confirm that the shortcut agrees with it before it is used; the probes are
// kept by a shortcut that fills its tables later, and so must stay valid
// while it lives. `stateful`: the back end's encoder keeps a shift state.
std::unique_ptr<CFastCodec> MakeFastCodec(const stringEx& encoding, const ProbeDecode& decode,
                                          const ProbeEncode& encode, bool stateful);

}  // namespace Karu::IMPL
