// Whether every match of a pattern stays within one line, and judges the
// start of a string as it judges a place after a line feed. Such a pattern
// finds in a text cut just after its line feeds, piece by piece, exactly what
// it finds in the whole text, so a caller may work a large text a piece at a
// time. Read off the automata after compiling: no arc between a start and an
// end may take the colour of the line feed (the first step reads the context
// before a match and the last the character after it, so those two may), and
// every automaton's first step must lead to the same states from the
// string-start context as from a line feed. Look-ahead reads past the match,
// so a pattern with it is never said to stay within lines.
#pragma once

#include "internals.h"

namespace Karu::IMPL::rx {

bool staysWithinLines(const Internals& in);

// Whether every match is a non-empty run of ASCII characters and the only
// contexts around a match the pattern tells apart are a line feed, the ends
// of the string and any other character. Such a pattern finds in the UTF-8
// bytes of a text what it finds in the text. Read off the tree's automata:
// between the first step and the last no arc takes a colour holding a
// character beyond ASCII, and the first and the last step treat alike every
// colour that holds a character other than the line feed.
bool matchesOnlyAscii(const Internals& in);

}  // namespace Karu::IMPL::rx
