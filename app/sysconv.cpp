// Environment text through the locale's own conversion.
#include "sysconv.h"

#include <climits>
#include <cwchar>

namespace Karu {

stringEx SysNarrow(const wstringEx& text)
{
    stringEx out;
    std::mbstate_t state{};
    char bytes[MB_LEN_MAX];
    for (wchar_t c : text) {
        const size_t n = std::wcrtomb(bytes, c, &state);
        if (n == static_cast<size_t>(-1) || n == 0) {
            out.push_back('?');
            state = std::mbstate_t{};
        } else {
            out.append(bytes, n);
        }
    }
    return out;
}

wstringEx SysWiden(const stringEx& bytes)
{
    wstringEx out;
    std::mbstate_t state{};
    const char* p = bytes.data();
    size_t left = bytes.size();
    while (left > 0) {
        wchar_t c;
        const size_t n = std::mbrtowc(&c, p, left, &state);
        if (n == 0)
            break;
        if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) {
            out.push_back(L'?');
            state = std::mbstate_t{};
            ++p;
            --left;
            continue;
        }
        out.push_back(c);
        p += n;
        left -= n;
    }
    return out;
}

}  // namespace Karu
