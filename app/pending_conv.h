// Plain conversion used until the library's conversion layer is wired in:
// each byte widened with sign extension, each unit narrowed to its low byte,
// so bytes pass through unchanged whatever the encoding names say.
#pragma once

#include <memory>

#include <karu/string/stringEx.h>

namespace Karu {
namespace AppPending {

class TTextConv {
public:
    virtual ~TTextConv() = default;
    void MBtoWC(wstringEx& dst, const stringEx& src)
    {
        dst.clear();
        for (char c : src)
            dst.push_back(static_cast<wchar_t>(static_cast<signed char>(c)));
    }
    wstringEx MBtoWC(const stringEx& src)
    {
        wstringEx dst;
        MBtoWC(dst, src);
        return dst;
    }
    void WCtoMB(stringEx& dst, const wstringEx& src)
    {
        dst.clear();
        for (wchar_t c : src)
            dst.push_back(static_cast<char>(c));
    }
    stringEx WCtoMB(const wstringEx& src)
    {
        stringEx dst;
        WCtoMB(dst, src);
        return dst;
    }
    static stringEx GetSysEncoding() { return stringEx("ANSI_X3.4-1968"); }
    static std::shared_ptr<TTextConv> CreateConv(uint32_t, const stringEx&) { return std::make_shared<TTextConv>(); }
    static std::shared_ptr<TTextConv> GetSysConv() { return std::make_shared<TTextConv>(); }
};

// Only the one refusal that users meet most often.
inline bool IsCompatible(const stringEx& from, const stringEx& to, stringEx*)
{
    return !(from.EqualsNoCase(stringEx("UTF-8")) && to.EqualsNoCase(stringEx("GBK")));
}

}  // namespace AppPending

using AppPending::IsCompatible;
using AppPending::TTextConv;

}  // namespace Karu
