// The compile state and the one pass that reads a pattern: the lexer
// (lexer.cpp) hands tokens to the parser (parser.cpp), which writes the
// automaton arc by arc and builds the subexpression tree alongside; compile.cpp
// drives the steps around them. There is no token list and no syntax tree of
// its own: the tree only tells the matcher where the automaton alone is not
// enough (captures, back-references, mixed preferences).
#pragma once

#include "classes.h"
#include "internals.h"

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Karu::IMPL::rx {

// Lexer states.
enum LexState : int {
    kLexExtended = 1,
    kLexBasic = 2,
    kLexLiteral = 3,
    kLexExtBound = 4,
    kLexBasicBound = 5,
    kLexBracket = 6,
    kLexCollating = 7,
    kLexEquivalence = 8,
    kLexClass = 9,
};

// Token codes: single characters, so that an operator token is the operator.
enum Token : int {
    kTokNone = 'n',
    kTokEnd = 'e',
    kTokPlain = 'p',
    kTokDigit = 'd',
    kTokBackref = 'b',
    kTokCollating = 'I',
    kTokEquivalence = 'E',
    kTokClass = 'C',
    kTokNameEnd = 'X',
    kTokRange = 'R',
    kTokLookahead = 'L',
    kTokStringStart = 'A',
    kTokStringEnd = 'Z',
    kTokWordBoundary = 'w',
    kTokNotWordBoundary = 'W',
};

template <class Ch>
class Compiler {
public:
    Compiler(RxObject* object, const Ch* pattern, size_t length, int flags);
    ~Compiler();
    int run();

private:
    using Traits = CharTraits<Ch>;

    // lexer.cpp
    void lexStart();
    bool next();
    bool lexExtended(Ch c);
    bool lexBasic(Ch c);
    bool lexBracket(Ch c);
    bool lexEscape();
    void skipSpace();
    void nest(const Ch* text, size_t length);
    uint32_t lexDigits(int base, int minLength, int maxLength);
    bool ret(int token, int32_t value = 0)
    {
        _token = token;
        _value = value;
        return true;
    }
    bool fail(int e)
    {
        _sink.set(e);
        _token = kTokEnd;
        return false;
    }
    bool atEnd() const { return _cursor >= _stop; }
    bool have(size_t n) const { return static_cast<size_t>(_stop - _cursor) >= n; }
    bool next1(char c) const { return !atEnd() && *_cursor == static_cast<Ch>(c); }
    bool see(int t) const { return _token == t; }
    bool eat(int t) { return see(t) && next(); }
    void note(long bits) { _info |= bits; }

    // parser.cpp
    Subexpr* parseAlternation(int stopper, int type, State* init, State* final);
    Subexpr* parseBranch(int stopper, int type, State* left, State* right, bool partial);
    void parseQuantifiedAtom(int stopper, int type, State* lp, State* rp, Subexpr* top);
    int scanNumber();
    const Ch* bracketEnd() const;
    void bracket(State* lp, State* rp);
    void complementBracket(State* lp, State* rp);
    void bracketPart(State* lp, State* rp);
    bool scanName(std::vector<Ch>& name);
    int32_t element(const std::vector<Ch>& name);
    void oneChar(int32_t c, State* lp, State* rp);
    void addVector(const CharVector& v, State* lp, State* rp);
    void addCases(int32_t c, CharVector& v);
    void addRange(int32_t from, int32_t to, CharVector& v);
    void wordChars();
    void word(int dir, State* lp, State* rp);
    void nonWord(int dir, State* lp, State* rp);
    Subexpr* node(char op, uint8_t flags, State* begin, State* end);
    void freeTree(Subexpr* t);

    // exactPairs.cpp
    void notePair(int kind, int groupNo, const Subexpr& atom);
    std::vector<uint32_t> oneCharacter(State* begin, State* end);
    void exactPairs();

    // compile.cpp
    enum Need { kNeedNone, kNeedAnswer, kNeedOwn };
    // A node spanning more states than this answers from its children.
    static constexpr int kSmallSpan = 64;
    void directors();
    int numberTree(Subexpr* t, int start);
    void markTree(Subexpr* t);
    bool smallSpan(const Subexpr& t, bool onlyEmpty);
    void planAutomata(Subexpr* t, Need need);
    long buildAutomata(Subexpr* t);
    long buildNodeAutomaton(Subexpr& t);
    void dumpTree(const Subexpr* t, FILE* out) const;
    int finish();

    RxObject* _object;
    const Ch* _cursor;
    const Ch* _stop;
    const Ch* _resumeAt = nullptr;
    const Ch* _resumeEnd = nullptr;
    ErrorSink _sink;
    int _flags;
    long _info = 0;
    int _prevToken = kTokNone;
    int _token = kTokNone;
    int32_t _value = 0;
    int _lexState = kLexExtended;
    int _groupsSeen = 0;
    std::vector<Subexpr*> _groupTable;
    std::unique_ptr<Internals> _internals;
    std::unique_ptr<Nfa> _nfa;
    std::unique_ptr<Nfa> _child;  // the copy each node's automaton is made in
    colour _newlineColour = kNoColour;
    State* _wordSet = nullptr;
    Subexpr* _tree = nullptr;
    std::vector<std::unique_ptr<Subexpr>> _allNodes;
    std::vector<Subexpr*> _spareNodes;
    CharVector _vector;
    std::vector<Subexpr> _lookaheads;
    FILE* _trace = nullptr;
    int _walkStamp = 0;
    int _branch = 0;       // the branch being parsed, numbered as met
    int _branchCount = 0;
    // Groups of one character, by number, and the pairs of such a group and
    // a reference to it in the same branch (see exactPairs.cpp).
    struct OneCharGroup {
        State* begin = nullptr;
        State* end = nullptr;
        int branch = 0;
        std::vector<uint32_t> chars;
    };
    struct ExactPair {
        State* groupBegin;
        State* groupEnd;
        State* refBegin;
        State* refEnd;
        std::vector<uint32_t> chars;
    };
    std::vector<OneCharGroup> _oneChar;
    std::vector<ExactPair> _pairs;
    // The colours each bracket text came to, and the colour map's version
    // then, and what it noted of the pattern.
    struct BracketColours {
        uint64_t version = 0;
        std::vector<colour> colours;
        long info = 0;
    };
    std::map<std::basic_string<Ch>, BracketColours> _brackets;
};

}  // namespace Karu::IMPL::rx
