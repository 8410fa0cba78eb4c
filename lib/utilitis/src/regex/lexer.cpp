// The lexer: one token per call, by the state of the syntax being read.
//
// Class escapes (\d, \w, \s and their complements) are not special-cased in
// the parser: the lexer switches its input to a short canned bracket text and
// reads on, so escapes and brackets stay one mechanism. At the end of the
// canned text it returns to the pattern. Errors are sticky: after the first
// one every call answers the end token.
#include "compiler.h"

#include <cwctype>

namespace Karu::IMPL::rx {

namespace {

// An ASCII text widened to the unit type at compile time.
template <class Ch, size_t N>
struct Canned {
    Ch text[N - 1];
    static constexpr size_t length = N - 1;
    constexpr Canned(const char (&s)[N]) : text{}
    {
        for (size_t i = 0; i + 1 < N; ++i) text[i] = static_cast<Ch>(s[i]);
    }
};

template <class Ch> constexpr Canned<Ch, 12> kDigit{"[[:digit:]]"};
template <class Ch> constexpr Canned<Ch, 13> kNotDigit{"[^[:digit:]]"};
template <class Ch> constexpr Canned<Ch, 12> kSpace{"[[:space:]]"};
template <class Ch> constexpr Canned<Ch, 13> kNotSpace{"[^[:space:]]"};
template <class Ch> constexpr Canned<Ch, 13> kWord{"[[:alnum:]_]"};
template <class Ch> constexpr Canned<Ch, 14> kNotWord{"[^[:alnum:]_]"};
template <class Ch> constexpr Canned<Ch, 10> kInDigit{"[:digit:]"};
template <class Ch> constexpr Canned<Ch, 10> kInSpace{"[:space:]"};
template <class Ch> constexpr Canned<Ch, 11> kInWord{"[:alnum:]_"};
template <class Ch> constexpr Canned<Ch, 6> kAlert{"alert"};
template <class Ch> constexpr Canned<Ch, 4> kEsc{"ESC"};

template <class Ch>
bool isDigit(Ch c)
{
    return c >= '0' && c <= '9';
}

template <class Ch>
bool isAlpha(Ch c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

template <class Ch>
bool isAlnum(Ch c)
{
    return isAlpha(c) || isDigit(c);
}

template <class Ch>
bool isSpace(Ch c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

}  // namespace

template <class Ch>
void Compiler<Ch>::nest(const Ch* text, size_t length)
{
    _resumeAt = _cursor;
    _resumeEnd = _stop;
    _cursor = text;
    _stop = text + length;
}

template <class Ch>
void Compiler<Ch>::skipSpace()
{
    const Ch* start = _cursor;
    for (;;) {
        while (!atEnd() && isSpace(*_cursor)) ++_cursor;
        if (atEnd() || *_cursor != '#') break;
        while (!atEnd() && *_cursor != '\n') ++_cursor;
    }
    if (_cursor != start) note(RX_USES_NONPOSIX);
}

template <class Ch>
uint32_t Compiler<Ch>::lexDigits(int base, int minLength, int maxLength)
{
    uint32_t n = 0;
    int length = 0;
    for (; length < maxLength && !atEnd(); ++length) {
        const Ch c = *_cursor;
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            d = -1;
        if (d < 0 || d >= base) break;
        ++_cursor;
        n = n * static_cast<uint32_t>(base) + static_cast<uint32_t>(d);
    }
    if (length < minLength) _sink.set(RX_ERR_ESCAPE);
    return n;
}

template <class Ch>
void Compiler<Ch>::lexStart()
{
    if (_flags & RX_LITERAL)
        _lexState = kLexLiteral;
    else if (_flags & RX_SYNTAX_EXT)
        _lexState = kLexExtended;
    else
        _lexState = kLexBasic;
    _token = kTokNone;
    next();
}

template <class Ch>
bool Compiler<Ch>::next()
{
    if (_sink.failed()) {
        _token = kTokEnd;
        return false;
    }
    _prevToken = _token;
    if (_prevToken == kTokNone && (_flags & RX_ANCHORSTART)) return ret(kTokStringStart);
    if (_resumeAt && atEnd()) {
        _cursor = _resumeAt;
        _stop = _resumeEnd;
        _resumeAt = _resumeEnd = nullptr;
    }
    if ((_flags & RX_FREESPACING) &&
        (_lexState == kLexExtended || _lexState == kLexBasic || _lexState == kLexExtBound ||
         _lexState == kLexBasicBound))
        skipSpace();
    if (atEnd()) {
        switch (_lexState) {
        case kLexBracket:
        case kLexCollating:
        case kLexEquivalence:
        case kLexClass:
            return fail(RX_ERR_BRACKET);
        case kLexExtBound:
        case kLexBasicBound:
            return fail(RX_ERR_BRACE);
        default:
            return ret(kTokEnd);
        }
    }
    const Ch c = *_cursor++;
    switch (_lexState) {
    case kLexLiteral:
        return ret(kTokPlain, Traits::value(c));
    case kLexExtBound:
        if (isDigit(c)) return ret(kTokDigit, c - '0');
        if (c == ',') return ret(',');
        if (c == '}') {
            _lexState = kLexExtended;
            if ((_flags & RX_SYNTAX_ADVBIT) && next1('?')) {
                ++_cursor;
                note(RX_USES_NONPOSIX);
                return ret('}', 0);
            }
            return ret('}', 1);
        }
        return fail(RX_ERR_BOUND);
    case kLexBasicBound:
        if (isDigit(c)) return ret(kTokDigit, c - '0');
        if (c == ',') return ret(',');
        if (c == '\\' && next1('}')) {
            ++_cursor;
            _lexState = kLexBasic;
            return ret('}', 1);
        }
        return fail(RX_ERR_BOUND);
    case kLexBracket:
        return lexBracket(c);
    case kLexCollating:
    case kLexEquivalence:
    case kLexClass: {
        const char closer = _lexState == kLexCollating ? '.' : _lexState == kLexEquivalence ? '=' : ':';
        if (c == closer && next1(']')) {
            ++_cursor;
            _lexState = kLexBracket;
            return ret(kTokNameEnd, closer);
        }
        return ret(kTokPlain, Traits::value(c));
    }
    case kLexBasic:
        return lexBasic(c);
    default:
        return lexExtended(c);
    }
}

template <class Ch>
bool Compiler<Ch>::lexBracket(Ch c)
{
    switch (c) {
    case ']':
        if (_prevToken == '[') return ret(kTokPlain, c);
        _lexState = (_flags & RX_SYNTAX_EXT) ? kLexExtended : kLexBasic;
        return ret(']');
    case '\\': {
        note(RX_USES_BRACKETESC);
        if (!(_flags & RX_SYNTAX_ADVBIT)) return ret(kTokPlain, c);
        note(RX_USES_NONPOSIX);
        if (atEnd()) return fail(RX_ERR_ESCAPE);
        if (!lexEscape()) return false;
        if (_token == kTokPlain) return true;
        if (_token == kTokClass) {
            switch (_value) {
            case 'd': nest(kInDigit<Ch>.text, kInDigit<Ch>.length); break;
            case 's': nest(kInSpace<Ch>.text, kInSpace<Ch>.length); break;
            case 'w': nest(kInWord<Ch>.text, kInWord<Ch>.length); break;
            default: return fail(RX_ERR_ESCAPE);
            }
            _token = _prevToken;
            return next();
        }
        return fail(RX_ERR_ESCAPE);
    }
    case '-':
        if (_prevToken == '[' || next1(']')) return ret(kTokPlain, c);
        return ret(kTokRange, c);
    case '[':
        if (atEnd()) return fail(RX_ERR_BRACKET);
        switch (*_cursor) {
        case '.':
            ++_cursor;
            _lexState = kLexCollating;
            return ret(kTokCollating);
        case '=':
            ++_cursor;
            _lexState = kLexEquivalence;
            note(RX_USES_LOCALE);
            return ret(kTokEquivalence);
        case ':':
            ++_cursor;
            _lexState = kLexClass;
            note(RX_USES_LOCALE);
            return ret(kTokClass);
        default:
            return ret(kTokPlain, c);
        }
    default:
        return ret(kTokPlain, Traits::value(c));
    }
}

template <class Ch>
bool Compiler<Ch>::lexBasic(Ch c)
{
    switch (c) {
    case '*':
        if (_prevToken == kTokNone || _prevToken == '(' || _prevToken == '^') return ret(kTokPlain, c);
        return ret('*', 1);
    case '[':
        return lexExtended(c);  // brackets and word-edge brackets read alike
    case '.':
        return ret('.');
    case '^':
        if (_prevToken == kTokNone) return ret('^');
        if (_prevToken == '(') {
            note(RX_USES_UNSPECIFIED);
            return ret('^');
        }
        return ret(kTokPlain, c);
    case '$':
        if (_flags & RX_FREESPACING) skipSpace();
        if (atEnd()) return ret('$');
        if (have(2) && _cursor[0] == '\\' && _cursor[1] == ')') {
            note(RX_USES_UNSPECIFIED);
            return ret('$');
        }
        return ret(kTokPlain, c);
    case '\\':
        break;
    default:
        return ret(kTokPlain, Traits::value(c));
    }
    if (atEnd()) return fail(RX_ERR_ESCAPE);
    const Ch e = *_cursor++;
    switch (e) {
    case '{':
        _lexState = kLexBasicBound;
        note(RX_USES_BOUNDS);
        return ret('{');
    case '(':
        return ret('(', 1);
    case ')':
        return ret(')');
    case '<':
        note(RX_USES_NONPOSIX);
        return ret('<');
    case '>':
        note(RX_USES_NONPOSIX);
        return ret('>');
    default:
        if (e >= '1' && e <= '9') {
            note(RX_USES_BACKREF);
            return ret(kTokBackref, e - '0');
        }
        if (isAlnum(e)) note(RX_USES_ESCALNUM | RX_USES_UNSPECIFIED);
        return ret(kTokPlain, Traits::value(e));
    }
}

template <class Ch>
bool Compiler<Ch>::lexExtended(Ch c)
{
    switch (c) {
    case '(':
        if ((_flags & RX_SYNTAX_ADVBIT) && next1('?')) {
            note(RX_USES_NONPOSIX);
            ++_cursor;
            if (atEnd()) return fail(RX_ERR_REPEAT);
            switch (*_cursor++) {
            case ':':
                return ret('(', 0);
            case '#':
                while (!atEnd() && *_cursor != ')') ++_cursor;
                if (!atEnd()) ++_cursor;
                _token = _prevToken;
                return next();
            case '=':
                note(RX_USES_LOOKAHEAD);
                return ret(kTokLookahead, 1);
            case '!':
                note(RX_USES_LOOKAHEAD);
                return ret(kTokLookahead, 0);
            default:
                return fail(RX_ERR_REPEAT);
            }
        }
        return ret('(', (_flags & RX_NOGROUPS) ? 0 : 1);
    case ')':
        if (_prevToken == '(') note(RX_USES_UNSPECIFIED);
        return ret(')', c);
    case '*':
    case '+':
    case '?':
        if ((_flags & RX_SYNTAX_ADVBIT) && next1('?')) {
            ++_cursor;
            note(RX_USES_NONPOSIX);
            return ret(c, 0);
        }
        return ret(c, 1);
    case '{':
        if (_flags & RX_FREESPACING) skipSpace();
        if (atEnd() || !isDigit(*_cursor)) {
            note(RX_USES_LITERALBRACE | RX_USES_UNSPECIFIED);
            return ret(kTokPlain, c);
        }
        note(RX_USES_BOUNDS);
        _lexState = kLexExtBound;
        return ret('{');
    case '[':
        if (have(6) && _cursor[0] == '[' && _cursor[1] == ':' && (_cursor[2] == '<' || _cursor[2] == '>') &&
            _cursor[3] == ':' && _cursor[4] == ']' && _cursor[5] == ']') {
            const Ch which = _cursor[2];
            _cursor += 6;
            note(RX_USES_NONPOSIX);
            return ret(which == '<' ? '<' : '>');
        }
        _lexState = kLexBracket;
        if (next1('^')) {
            ++_cursor;
            return ret('[', 0);
        }
        return ret('[', 1);
    case '.':
        return ret('.');
    case '^':
        return ret('^');
    case '$':
        return ret('$');
    case '|':
        return ret('|');
    case '\\':
        break;
    default:
        return ret(kTokPlain, Traits::value(c));
    }
    if (atEnd()) return fail(RX_ERR_ESCAPE);
    if (!(_flags & RX_SYNTAX_ADVBIT)) {
        if (isAlnum(*_cursor)) note(RX_USES_ESCALNUM | RX_USES_UNSPECIFIED);
        return ret(kTokPlain, Traits::value(*_cursor++));
    }
    if (!lexEscape()) return false;
    if (_token == kTokClass) {
        switch (_value) {
        case 'd': nest(kDigit<Ch>.text, kDigit<Ch>.length); break;
        case 'D': nest(kNotDigit<Ch>.text, kNotDigit<Ch>.length); break;
        case 's': nest(kSpace<Ch>.text, kSpace<Ch>.length); break;
        case 'S': nest(kNotSpace<Ch>.text, kNotSpace<Ch>.length); break;
        case 'w': nest(kWord<Ch>.text, kWord<Ch>.length); break;
        case 'W': nest(kNotWord<Ch>.text, kNotWord<Ch>.length); break;
        default: return fail(RX_ERR_INTERNAL);
        }
        _token = _prevToken;
        return next();
    }
    return true;
}

template <class Ch>
bool Compiler<Ch>::lexEscape()
{
    const Ch c = *_cursor++;
    if (!isAlnum(c)) return ret(kTokPlain, Traits::value(c));
    note(RX_USES_NONPOSIX);
    uint32_t n;
    switch (c) {
    case 'a':
        return ret(kTokPlain, collatingCode(kAlert<Ch>.text, kAlert<Ch>.length));
    case 'A':
        return ret(kTokStringStart);
    case 'b':
        return ret(kTokPlain, '\b');
    case 'B':
        return ret(kTokPlain, '\\');
    case 'c':
        note(RX_USES_UNPORTABLE);
        if (atEnd()) return fail(RX_ERR_ESCAPE);
        return ret(kTokPlain, Traits::value(static_cast<Ch>(*_cursor++ & 037)));
    case 'd':
    case 'D':
    case 's':
    case 'S':
    case 'w':
    case 'W':
        note(RX_USES_LOCALE);
        return ret(kTokClass, c);
    case 'e':
        note(RX_USES_UNPORTABLE);
        return ret(kTokPlain, collatingCode(kEsc<Ch>.text, kEsc<Ch>.length));
    case 'f':
        return ret(kTokPlain, '\f');
    case 'm':
        return ret('<');
    case 'M':
        return ret('>');
    case 'n':
        return ret(kTokPlain, '\n');
    case 'r':
        return ret(kTokPlain, '\r');
    case 't':
        return ret(kTokPlain, '\t');
    case 'u':
        n = lexDigits(16, 4, 4);
        if (_sink.failed()) return fail(RX_ERR_ESCAPE);
        return ret(kTokPlain, Traits::fromNumber(n));
    case 'U':
        n = lexDigits(16, 8, 8);
        if (_sink.failed()) return fail(RX_ERR_ESCAPE);
        return ret(kTokPlain, Traits::fromNumber(n));
    case 'v':
        return ret(kTokPlain, '\v');
    case 'x':
        note(RX_USES_UNPORTABLE);
        n = lexDigits(16, 1, 255);
        if (_sink.failed()) return fail(RX_ERR_ESCAPE);
        return ret(kTokPlain, Traits::fromNumber(n));
    case 'y':
        note(RX_USES_LOCALE);
        return ret(kTokWordBoundary);
    case 'Y':
        note(RX_USES_LOCALE);
        return ret(kTokNotWordBoundary);
    case 'Z':
        return ret(kTokStringEnd);
    case '0':
        break;
    default:
        if (c >= '1' && c <= '9') {
            const Ch* save = _cursor;
            --_cursor;
            n = lexDigits(10, 1, 255);
            if (_sink.failed()) return fail(RX_ERR_ESCAPE);
            // One digit, or a number within the groups seen so far, refers
            // back; anything else is read again as an octal code.
            if (_cursor == save || (n > 0 && n <= static_cast<uint32_t>(_groupsSeen))) {
                note(RX_USES_BACKREF);
                return ret(kTokBackref, static_cast<int32_t>(n));
            }
            _cursor = save;
            break;
        }
        return fail(RX_ERR_ESCAPE);
    }
    note(RX_USES_UNPORTABLE);
    --_cursor;
    n = lexDigits(8, 1, 3);
    if (_sink.failed()) return fail(RX_ERR_ESCAPE);
    return ret(kTokPlain, Traits::fromNumber(n));
}

template class Compiler<char>;
template class Compiler<wchar_t>;

}  // namespace Karu::IMPL::rx
