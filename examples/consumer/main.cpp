// A program built against an installed Karu: it decodes a GBK text, swaps
// its two words with a regular expression, and prints the result in UTF-8.
// It exits with 0 when the result is what it should be.
#include <cstdio>

#include <karu/TextConv/TextConv.h>
#include <karu/regex/regexFront.h>
#include <karu/string/regexReplace.h>

int main()
{
    using namespace Karu;
    const stringEx gbk("\xC4\xE3\xBA\xC3 world");  // "你好 world" in GBK
    const wstringEx text = TTextConv::CreateConv(0, stringEx("GBK"))->MBtoWC(gbk);

    wstringEx pattern(L"(\\S+) (\\w+)");  // shorthand classes are translated
    const RegexHandle swap = RegexCompile(pattern, 0, 1, 1, 1);
    wstringEx swapped;
    RegexReplaceCopy(text, swapped, swap, wstringEx(L"\\2 \\1"), false, false, false);

    const stringEx utf8 = Utf8WCtoMB(swapped);
    std::printf("%s\n", utf8.c_str());
    return utf8 == "world \xE4\xBD\xA0\xE5\xA5\xBD" ? 0 : 1;
}
