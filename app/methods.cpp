// Method selection and the replace dispatch.
#include "methods.h"

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

uint32_t ApplyPair(int32_t method, const REPLACE_PAIR& pair, wstringEx& text, wstringEx& scratch, bool inPlace,
                   bool& known)
{
    known = true;
    if (inPlace) {
        switch (method) {
        case kMethodLiteral: return ReplaceInPlace(text, pair.find, pair.replace);
        case kMethodLiteralNoCase: return ReplaceInPlaceNoCase(text, pair.find, pair.replace);
        case kMethodRegex: return RegexReplaceInPlace(pair, text);
        default: known = false; return 0;
        }
    }
    uint32_t count;
    switch (method) {
    case kMethodLiteral: count = ReplaceCopy(text, scratch, pair.find, pair.replace); break;
    case kMethodLiteralNoCase: count = ReplaceCopyNoCase(text, scratch, pair.find, pair.replace); break;
    case kMethodRegex: count = RegexReplaceCopy(pair, text, scratch); break;
    default: known = false; return 0;
    }
    // Three whole-buffer assignments, no unit copied: text gets the result,
    // scratch keeps the old buffer's storage for the next pair.
    wstringEx held = text;
    text = scratch;
    scratch = held;
    return count;
}

}  // namespace Karu
