// Reading the pairs: lines, trimming, the delimiter, environment references
// and the line escapes, in that order.
//
// The order matters to users: the trim comes first, so blanks at the end of
// a replace part are lost even when a "\n" or a variable follows them in the
// file's text (write an explicit character behind them to keep them); the
// variables are expanded before the escapes, so a value holding a backslash
// sequence is unescaped like text typed in the file.
#include "pairs.h"

#include <karu/string/envMatch.h>
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

// ${NAME}: any characters up to the first "}". A "$" at the very end stays,
// as it does in the $NAME pass.
bool ExpandBraced(wstringEx& s)
{
    CEnvStrRegularMatchCmd<wstringEx> regular;
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
        wstringEx value;
        if (regular.Match(s.Mid(pos + 2, close - pos - 2), value) != 1) {
            pos = close + 1;
            continue;
        }
        s.replace(pos, close + 1 - pos, value);
        pos += value.size();
    }
    return regular.IsMatched();
}

}  // namespace

// Unlike the environment manager's expansion, a reference to an unset
// variable stays in the pair as written, where the user can see it, and a
// value that holds references is expanded in its turn.
wstringEx ExpandEnvVars(const wstringEx& text, int depth)
{
    wstringEx s = text;
    CEnvStrAbbrMatchCmd<wstringEx> abbreviated;
    ExpandMatches<wchar_t>(s, L'$', abbreviated, false, true);
    const bool braced = ExpandBraced(s);
    if ((abbreviated.IsMatched() || braced) && depth < kMaxEnvDepth)
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
