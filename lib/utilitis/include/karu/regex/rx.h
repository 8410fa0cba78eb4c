// The regular-expression automaton engine: compile a pattern into an
// automaton over colours (classes of characters the pattern cannot tell
// apart), then match by a lazily built deterministic automaton, with a
// dissection pass for sub-matches and back-references.
//
// The engine exists in two builds from one source: a narrow one over bytes
// (`char`, unit size 1) and a wide one over `wchar_t` (unit size 4). `rxcomp`
// and `rxexec` are overloaded on the unit type; `rxfree` works on either kind
// of object, since the object carries its own releasing routine.
//
// The engine never throws and never prints (except the compile trace that
// RX_TRACEOUT asks for). It answers with the integer results below; the first
// error met during a compile wins.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Karu {

// Compile flags. The values are part of the interface: callers combine them
// numerically.
constexpr int RX_SYNTAX_BASIC = 0;    // POSIX basic syntax
constexpr int RX_SYNTAX_EXT = 1;      // POSIX extended syntax
constexpr int RX_SYNTAX_ADVBIT = 2;   // the advanced additions; only with RX_SYNTAX_EXT
constexpr int RX_SYNTAX_ADV = 3;      // extended plus advanced
constexpr int RX_LITERAL = 4;         // the whole pattern is a literal string
constexpr int RX_FOLDCASE = 8;        // case-insensitive
constexpr int RX_NOGROUPS = 0x10;     // "(" doesn't capture, no group reporting
constexpr int RX_FREESPACING = 0x20;  // white space and # comments ignored
constexpr int RX_DOTNONL = 0x40;      // "." and [^...] don't match newline
constexpr int RX_LINEANCHORS = 0x80;  // ^ and $ also match around newlines
constexpr int RX_WANTDETAILS = 0x200; // fill RxDetails in rxexec
constexpr int RX_ANCHORSTART = 0x400; // implicitly anchored at the string start
constexpr int RX_SELFTEST = 0x1000;   // test aid: [[=x=]] is x and y
constexpr int RX_TRACEOUT = 0x2000;   // print compile progress on standard output

// Execute flags.
constexpr int RX_NOLINESTART = 1;   // the string doesn't start a line
constexpr int RX_NOLINEEND = 2;     // the string's end doesn't end a line
constexpr int RX_RANGEGIVEN = 4;    // accepted and ignored
constexpr int RX_TRACEWALK = 8;     // reserved, no visible effect
constexpr int RX_SMALLCACHE = 0x20; // only 7 state-set slots in the matcher's cache

// Analysis bits in RxObject::info: what the compiled pattern uses.
constexpr long RX_USES_BACKREF = 1;
constexpr long RX_USES_LOOKAHEAD = 2;
constexpr long RX_USES_BOUNDS = 4;
constexpr long RX_USES_LITERALBRACE = 8;
constexpr long RX_USES_ESCALNUM = 0x10;
constexpr long RX_USES_LONEPAREN = 0x20;
constexpr long RX_USES_BRACKETESC = 0x40;
constexpr long RX_USES_NONPOSIX = 0x80;
constexpr long RX_USES_UNSPECIFIED = 0x100;
constexpr long RX_USES_UNPORTABLE = 0x200;
constexpr long RX_USES_LOCALE = 0x400;
constexpr long RX_CAN_BE_EMPTY = 0x800;
constexpr long RX_NEVER_MATCHES = 0x1000;
constexpr long RX_PREFERS_SHORTEST = 0x2000;
// Every match lies within one line (none takes a line feed, no look-ahead),
// and the string start is judged as a place after a line feed: a text cut
// just after line feeds gives, piece by piece, the matches of the whole,
// except for empty matches at a cut (see RX_CAN_BE_EMPTY).
constexpr long RX_STAYS_IN_LINES = 0x4000;
// Every match is a non-empty run of ASCII characters, and what the pattern
// reads around a match tells only a line feed and the string's ends from the
// rest: in the UTF-8 bytes of a text it finds what it finds in the text. The
// wide build reads a character beyond U+FFFF by its low 16 bits, so there it
// holds for texts without such characters.
constexpr long RX_MATCHES_ASCII = 0x8000;

// Results of rxcomp and rxexec. 14 is not used.
constexpr int RX_OK = 0;
constexpr int RX_NOMATCH = 1;
constexpr int RX_ERR_DIRECTOR = 2;  // "***?" director
constexpr int RX_ERR_COLLATE = 3;   // unknown collating element or equivalence class
constexpr int RX_ERR_CLASS = 4;     // unknown character class
constexpr int RX_ERR_ESCAPE = 5;    // bad or unfinished escape
constexpr int RX_ERR_BACKREF = 6;   // back-reference to a missing or open group
constexpr int RX_ERR_BRACKET = 7;   // unterminated bracket expression
constexpr int RX_ERR_PAREN = 8;     // parentheses don't balance
constexpr int RX_ERR_BRACE = 9;     // unterminated brace
constexpr int RX_ERR_BOUND = 10;    // bad content of a brace
constexpr int RX_ERR_RANGE = 11;    // invalid range in a bracket
constexpr int RX_ERR_MEMORY = 12;   // out of memory
constexpr int RX_ERR_REPEAT = 13;   // quantifier without operand, bad "(?" form or director
constexpr int RX_ERR_INTERNAL = 15; // internal inconsistency, or matcher cache exhausted
constexpr int RX_ERR_ARGUMENT = 16; // invalid argument
constexpr int RX_ERR_WIDTH = 17;    // object of the other unit size
constexpr int RX_ERR_OPTION = 18;   // invalid embedded option

// Limits.
constexpr int RX_MAX_REPEAT = 255;     // largest count in a bound
constexpr int RX_OPEN_BOUND = 256;     // internal value of an open upper bound

struct RxObject;

// The table of operations a compiled object carries: the releasing routine
// of the build that made it.
struct RxOps {
    void (*release)(RxObject* object);
};

// A compiled pattern as callers hold it. Callers provide the storage; rxcomp
// fills it and rxfree releases what it points to.
struct RxObject {
    int magic;                // 0xFED7 while valid, 0 after release
    size_t groupCount;        // number of capturing groups
    long info;                // RX_USES_* and friends
    int unitSize;             // 1 narrow, 4 wide
    const void* endPointer;   // reserved; the pattern length is always given
    void* internals;          // private to the engine
    const RxOps* ops;         // releasing routine of this build
};

constexpr int RX_OBJECT_MAGIC = 0xFED7;

// One entry of the match array: unit offsets from the string passed in, end
// exclusive; both -1 for a group that took no part.
struct RxMatch {
    int64_t start;
    int64_t end;
};

// Filled by rxexec only for objects compiled with RX_WANTDETAILS.
struct RxDetails {
    int64_t coldStart;  // earliest offset at which a match could still have begun
    int64_t end;        // end of the string
};

// Compile `length` units of `pattern` into `object`. Returns RX_OK or an error;
// on error everything allocated is released and object->magic is 0.
int rxcomp(RxObject* object, const char* pattern, size_t length, int flags) noexcept;
int rxcomp(RxObject* object, const wchar_t* pattern, size_t length, int flags) noexcept;

// Match `length` units of `string`. Writes `matchCount` entries of `matches`
// on success (entries beyond the pattern's groups get -1). Returns RX_OK,
// RX_NOMATCH or an error. Several threads may run it on one object at once.
int rxexec(const RxObject* object, const char* string, size_t length, RxDetails* details,
           size_t matchCount, RxMatch* matches, int flags) noexcept;
int rxexec(const RxObject* object, const wchar_t* string, size_t length, RxDetails* details,
           size_t matchCount, RxMatch* matches, int flags) noexcept;

// Release a compiled object of either build; null does nothing.
void rxfree(RxObject* object) noexcept;

// A short English text for a result code. Writes at most `size` bytes,
// terminated, into `buffer` when it is not null, and returns the size the
// whole text needs including its terminator.
size_t rxerror(int code, char* buffer, size_t size) noexcept;

// The same text as a static string; "unknown result" for a code not listed.
const char* rxerrorText(int code) noexcept;

}  // namespace Karu
