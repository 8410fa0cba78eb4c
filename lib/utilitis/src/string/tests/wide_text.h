// Wide text in test messages: printable as it is, or narrowed to ASCII for
// a failure line.
#pragma once

#include <karu/string/stringEx.h>

#include <string>

namespace Karu::test {

inline std::string Narrow(const std::wstring& w)
{
    std::string s;
    for (wchar_t c : w)
        s += c < 0x80 ? static_cast<char>(c) : '?';
    return s;
}

inline std::wstring Show(const wstringEx& s)
{
    return std::wstring(s.data(), s.size());
}

}  // namespace Karu::test
