// Reading the pairs: lines, trimming, the delimiter, environment references
// and the line escapes, in that order.
//
// The order matters to users: the trim comes first, so blanks at the end of
// a replace part are lost even when a "\n" or a variable follows them in the
// file's text (write an explicit character behind them to keep them); the
// variables are expanded before the escapes, so a value holding a backslash
// sequence is unescaped like text typed in the file.
#include "pairs.h"

#include <karu/envMgr/envMgr.h>
#include <karu/string/replace.h>

#include "methods.h"

namespace Karu {

namespace {

// "\r" and "\n" in a pair stand for the two control characters; "\\" is one
// backslash, and any other backslash sequence stays as typed.
const EscapeRow<wchar_t> lineEscapeTable[] = {
    {wstringEx(L"\r"), wstringEx(L"r")},
    {wstringEx(L"\n"), wstringEx(L"n")},
    {wstringEx(), wstringEx()},
};

// References nest at most this deep, so that a variable that names itself
// stops instead of expanding for ever.
constexpr int kMaxEnvDepth = 63;

bool IsNameUnit(wchar_t c)
{
    return (c >= L'0' && c <= L'9') || (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'_';
}

// The variable's value in wide text; empty when unset.
wstringEx LookUp(const wstringEx& name)
{
    return name.empty() ? wstringEx() : GetEnv(name);
}

// $NAME: the longest run of name characters behind the mark.
class CEnvAbbrMatch : public IStrMatchCmd<wstringEx> {
public:
    int Match(const wstringEx& behind, wstringEx& replacement) override
    {
        uint64_t n = 0;
        while (n < behind.size() && IsNameUnit(behind[n]))
            ++n;
        if (n == 0)
            return 0;
        replacement = LookUp(wstringEx(behind.data(), n));
        if (replacement.empty())
            return 0;
        _length = n;
        matched = true;
        return 1;
    }
    uint64_t MatchedLength() override { return _length; }

    bool matched = false;

private:
    uint64_t _length = 0;
};

// ${NAME}: any characters up to the first "}". A "$" at the very end stays,
// as it does in the $NAME pass.
bool ExpandBraced(wstringEx& s)
{
    bool expanded = false;
    for (uint64_t pos = 0; (pos = s.Find(L'$', pos)) != wstringEx::npos;) {
        if (pos + 1 >= s.size())
            break;
        if (s[pos + 1] == L'$') {
            pos += 2;
            continue;
        }
        if (s[pos + 1] != L'{') {
            pos += 1;
            continue;
        }
        const uint64_t close = s.Find(L'}', pos + 2);
        if (close == wstringEx::npos)
            break;
        const wstringEx value = LookUp(s.Mid(pos + 2, close - pos - 2));
        if (value.empty()) {
            pos = close + 1;
            continue;
        }
        s.replace(pos, close + 1 - pos, value);
        pos += value.size();
        expanded = true;
    }
    return expanded;
}

}  // namespace

// Unlike the environment manager's expansion, a reference to an unset
// variable stays in the pair as written, where the user can see it, and a
// value that holds references is expanded in its turn.
wstringEx ExpandEnvVars(const wstringEx& text, int depth)
{
    wstringEx s = text;
    CEnvAbbrMatch abbreviated;
    ExpandMatches<wchar_t>(s, L'$', abbreviated, false, true);
    const bool braced = ExpandBraced(s);
    if ((abbreviated.matched || braced) && depth < kMaxEnvDepth)
        return ExpandEnvVars(s, depth + 1);
    ReplaceInPlace(s, wstringEx(L"$$"), wstringEx(L"$"));
    return s;
}

void LoadPairs(ReplacePairs& pairs, const wstringEx& text, const wstringEx& delimiter, bool regexMode,
               bool ignoreCase, bool ignoreNewline)
{
    pairs.clear();
    PiecePositions lines;
    SplitPositions<wchar_t>(text, wstringEx(L"\n"), lines);
    for (const auto& [position, length] : lines) {
        wstringEx line = wstringEx(text.data() + position, length);
        line.TrimRight().TrimLeft();
        if (line.empty())
            continue;
        REPLACE_PAIR pair;
        pair.find = ExpandEnvVars(FieldAt<wchar_t>(line, delimiter, 0));
        pair.replace = ExpandEnvVars(FieldAt<wchar_t>(line, delimiter, 1));
        ExpandEscapes<wchar_t>(pair.find, L'\\', lineEscapeTable, false, false);
        ExpandEscapes<wchar_t>(pair.replace, L'\\', lineEscapeTable, false, false);
        if (pair.find.empty())
            continue;
        if (regexMode)
            CompilePairPatterns(pair, ignoreCase, ignoreNewline);
        pairs.push_back(std::move(pair));
    }
}

}  // namespace Karu
