// The library's strings and exceptions in the form a test compares: its
// byte and wide strings as standard ones and back (embedded NULs kept),
// bytes as text and hex, and the message of whatever an operation throws.
#pragma once

#include <karu/string/buffer.h>
#include <karu/string/karuExp.h>
#include <karu/string/stringEx.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <type_traits>

namespace KaruTest {

inline std::string S(const Karu::stringEx& s)
{
    return std::string(s.data(), s.size());
}

inline Karu::stringEx B(const std::string& s)
{
    return Karu::stringEx(s.data(), s.size());
}

inline std::wstring W(const Karu::wstringEx& s)
{
    return std::wstring(s.data(), s.size());
}

inline Karu::wstringEx WS(const std::wstring& s)
{
    return Karu::wstringEx(s.data(), s.size());
}

// Bytes as two hex digits each, spaced, so that a failure shows where two
// byte strings part.
inline std::string Hex(const Karu::byteEx& bytes)
{
    std::string out;
    char cell[4];
    for (unsigned char b : bytes) {
        std::snprintf(cell, sizeof cell, "%02x ", b);
        out += cell;
    }
    return out;
}

// Text as bytes, and bytes as text, as they stand.
inline Karu::byteEx BytesOf(const std::string& text)
{
    return Karu::byteEx(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

inline std::string TextOf(const Karu::byteEx& bytes)
{
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// The message `op` throws as an E, with its code in `code`; or a text no
// message of the library reads like. The class is part of what is checked:
// a failure of another class fails the test here, whatever the caller then
// looks for in the message, and the rows after it still run.
template <class E = Karu::karuExp>
std::string MessageOf(const std::function<void()>& op, int32_t* code = nullptr)
{
    try {
        op();
    } catch (const Karu::karuExp& e) {
        if constexpr (!std::is_same_v<E, Karu::karuExp>) {
            if (!dynamic_cast<const E*>(&e)) {
                ADD_FAILURE() << "a failure not of the expected class: " << S(e.message);
                return "(not of the expected class) " + S(e.message);
            }
        }
        if (code)
            *code = e.code;
        return S(e.message);
    }
    return "(nothing raised)";
}

}  // namespace KaruTest
