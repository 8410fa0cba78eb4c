// Helpers of the store's tests: a dump of a tree for comparison, and a tree
// with every value type and awkward names.
#pragma once

#include <karu/registry/fakeRegistry.h>

#include <gtest/gtest.h>

#include <locale.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "file/tests/text_helpers.h"

namespace Karu::RegTest {

using KaruTest::Hex;

// A run in a locale that this machine lacks would test the C locale under
// another name: every test is skipped instead, saying why.
class LocaleCheck : public ::testing::Environment {
public:
    void SetUp() override
    {
        const char* wanted = std::getenv("LC_ALL");
        if (!wanted || !*wanted)
            return;
        const locale_t locale = newlocale(LC_CTYPE_MASK, wanted, nullptr);
        if (!locale)
            GTEST_SKIP() << "the locale " << wanted << " is not on this machine: localedef could not make it "
                         << "(the system's locale sources are not installed)";
        freelocale(locale);
    }
};
inline ::testing::Environment* const kLocaleCheck = ::testing::AddGlobalTestEnvironment(new LocaleCheck);

// The locales made for these tests stand beside the system's, which must
// still be found (C.UTF-8 among them); set before anything reads a locale.
inline const bool kLocalePath = (setenv("LOCPATH", KARU_TEST_LOCALE_DIR ":/usr/lib/locale", 0), true);

// Every key, value, type and byte of a tree, one line each, indented by
// depth; write times are left out.
inline std::string Dump(const CFakeRegistry& key, int depth = 0)
{
    const std::string indent(depth, ' ');
    std::string out;
    for (uint64_t i = 0; i < key.GetValueCount(); ++i) {
        const stringEx name = key.EnumValue(i);
        out += indent + "|" + std::string(name.data(), name.size()) + "|" +
               std::to_string(key.GetValueType(name)) + "|" + Hex(key.ReadRawValue(name)) + "\n";
    }
    for (uint64_t i = 0; i < key.GetSubkeyCount(); ++i) {
        const stringEx name = key.EnumSubkey(i);
        out += indent + "[" + std::string(name.data(), name.size()) + "]\n" + Dump(key.ObtainChild(name), depth + 1);
    }
    return out;
}

// The first line in which two dumps differ, or "" when they agree.
inline std::string FirstDifference(const std::string& a, const std::string& b)
{
    size_t at = 0;
    while (at < a.size() && at < b.size() && a[at] == b[at])
        ++at;
    if (at == a.size() && at == b.size())
        return "";
    const size_t line = a.rfind('\n', at == 0 ? 0 : at - 1);
    const size_t from = line == std::string::npos ? 0 : line + 1;
    return "got: " + a.substr(from, a.find('\n', from) - from) + "\nwant: " + b.substr(from, b.find('\n', from) - from);
}

// A tree with every value type, awkward names and texts, and a deep branch.
inline CFakeRegistry RichTree(int depth = 40)
{
    CFakeRegistry root;
    root.SetValue("", "value with an empty name");
    root.SetValue("text", "line one\nline two\r\n[section] ~tilde~ ; # : = \"quoted\", comma");
    root.SetValue("expandable", "${HOME}/x", true);
    root.SetValue("blob", byteEx(reinterpret_cast<const unsigned char*>("\0\1\2\xff"), 4));
    root.SetValue("empty blob", byteEx());
    root.SetValue("dword", uint32_t(0xFFFFFFFF));
    root.SetValue("zero dword", uint32_t(0));
    root.SetValue("qword", uint64_t(0x0123456789ABCDEFull));
    root.SetValue("float", 0.1);
    root.SetValue("true", true);
    root.SetValue("false", false);
    root.SetValue("set", StringVector{"a", "", "b;c", "~n"});
    root.SetValue("empty set", StringVector{});
    root.SetRawValue("none", T_NONE, byteEx());
    CFakeRegistry net = root.ObtainSubkey("Ñetwork\\Ünïcode 中文", true);
    net.SetValue("naïve name: with colon = and [brackets]", "värde");
    // Bytes that are text in no locale: Latin-1, a cut character, and what
    // an escaped byte looks like in a file.
    CFakeRegistry latin = root.ObtainSubkey("caf\xE9", true);
    latin.SetValue("na\xEFve \xE4\xB8", "\xED\xB2\x80 \xC3");
    latin.SetValue("set", StringVector{"\xE9", "\xFF\xFE", "ok"});
    root.ObtainSubkey("empty key", true);
    root.ObtainChild("back\\slash", true).SetValue("name with \\ too", "x");
    root.ObtainSubkey("\\", true).SetValue("in the subkey with an empty name", uint32_t(7));
    CFakeRegistry deep = root;
    for (int i = 0; i < depth; ++i)
        deep = deep.ObtainSubkey(stringEx::Format("level %d", i), true);
    deep.SetValue("bottom", uint64_t(42));
    return root;
}

}  // namespace Karu::RegTest
