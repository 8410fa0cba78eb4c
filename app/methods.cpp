// Method selection and the replace dispatch.
#include "methods.h"

#include <karu/string/regexReplace.h>
#include <karu/string/replace.h>

namespace Karu {

METHOD_CHOICE SelectMethod(const CCmdLine& cmdLine)
{
    static const struct {
        const char* name;
        int32_t method;
        bool ignoreCase, ignoreNewline;
    } kOrder[] = {
        {"f", kMethodLiteral, false, false},  {"fic", kMethodLiteralNoCase, false, false},
        {"r", kMethodRegex, false, false},    {"ric", kMethodRegex, true, false},
        {"rnnl", kMethodRegex, false, true},  {"rnnlic", kMethodRegex, true, true},
    };
    for (const auto& entry : kOrder)
        if (cmdLine.HasSwitch(stringEx(entry.name)))
            return METHOD_CHOICE{entry.method, entry.ignoreCase, entry.ignoreNewline};
    return METHOD_CHOICE{};
}

template <class T>
uint32_t ApplyPair(int32_t method, const basic_string_ex<T>& find, const basic_string_ex<T>& replace,
                   const PairPattern& regex, basic_string_ex<T>& text, basic_string_ex<T>& scratch, bool inPlace,
                   bool& known)
{
    known = true;
    // The replacement's escapes are expanded by each call, in its own copy:
    // the pair stays intact for the next text.
    if (inPlace) {
        switch (method) {
        case kMethodLiteral: return ReplaceInPlace(text, find, replace);
        case kMethodLiteralNoCase: return ReplaceInPlaceNoCase(text, find, replace);
        case kMethodRegex: return RegexReplaceInPlace<T>(text, regex, replace, false, false, true);
        default: known = false; return 0;
        }
    }
    uint32_t count;
    switch (method) {
    case kMethodLiteral: count = ReplaceCopy(text, scratch, find, replace); break;
    case kMethodLiteralNoCase: count = ReplaceCopyNoCase(text, scratch, find, replace); break;
    case kMethodRegex: count = RegexReplaceCopy<T>(text, scratch, regex, replace, false, false, true); break;
    default: known = false; return 0;
    }
    // Three whole-buffer assignments, no unit copied: text gets the result,
    // scratch keeps the old buffer's storage for the next pair.
    basic_string_ex<T> held = text;
    text = scratch;
    scratch = held;
    return count;
}

template uint32_t ApplyPair<char>(int32_t, const stringEx&, const stringEx&, const PairPattern&, stringEx&, stringEx&,
                                  bool, bool&);
template uint32_t ApplyPair<wchar_t>(int32_t, const wstringEx&, const wstringEx&, const PairPattern&, wstringEx&,
                                     wstringEx&, bool, bool&);

}  // namespace Karu
