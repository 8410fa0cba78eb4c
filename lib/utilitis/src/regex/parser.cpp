// The parser: recursive descent that writes the automaton as it reads and
// builds the subexpression tree beside it.
//
// Each routine receives the two states between which its construct must fit.
// The subtle part is parseQuantifiedAtom's hard path: when an atom captures,
// refers back, or brings a preference that clashes with the branch so far,
// the rest of the branch is parsed *below* the atom's node, so the tree's
// shape alone gives POSIX's rule that earlier subexpressions take priority.
// x{m,n} becomes x{m-1,n-1} followed by x, so captures come from the last
// iteration, and back-references copy the referenced group's automaton only
// after the skeleton is built, since the group may be that very skeleton.
#include "compiler.h"

#include <algorithm>

namespace Karu::IMPL::rx {

template <class Ch>
Subexpr* Compiler<Ch>::node(char op, uint8_t flags, State* begin, State* end)
{
    Subexpr* t;
    if (!_spareNodes.empty()) {
        t = _spareNodes.back();
        _spareNodes.pop_back();
        *t = Subexpr{};
    } else {
        _allNodes.push_back(std::make_unique<Subexpr>());
        t = _allNodes.back().get();
    }
    t->op = op;
    t->flags = flags;
    t->begin = begin;
    t->end = end;
    return t;
}

template <class Ch>
void Compiler<Ch>::freeTree(Subexpr* t)
{
    if (!t) return;
    freeTree(t->left);
    freeTree(t->right);
    t->left = t->right = nullptr;
    _spareNodes.push_back(t);
}

template <class Ch>
Subexpr* Compiler<Ch>::parseAlternation(int stopper, int type, State* init, State* final)
{
    Subexpr* branches = node('|', kLonger, init, final);
    Subexpr* branch = branches;
    bool first = true;
    const int outerBranch = _branch;
    do {
        if (!first) {
            branch->right = node('|', kLonger, init, final);
            branch = branch->right;
        }
        first = false;
        _branch = ++_branchCount;
        State* left = _nfa->stateCreate();
        State* right = _nfa->stateCreate();
        if (_sink.failed()) return branches;
        _nfa->arcAdd(kEmpty, 0, init, left);
        _nfa->arcAdd(kEmpty, 0, right, final);
        branch->left = parseBranch(stopper, type, left, right, false);
        if (_sink.failed()) return branches;
        branch->flags |= flagsUp(branch->flags | branch->left->flags);
        if ((branch->flags & ~branches->flags) != 0)
            for (Subexpr* t = branches; t != branch; t = t->right) t->flags |= branch->flags;
    } while (eat('|'));
    _branch = outerBranch;

    if (!see(stopper)) {
        _sink.set(RX_ERR_PAREN);
        _token = kTokEnd;
        return branches;
    }
    if (branch == branches) {
        Subexpr* only = branch->left;
        branch->left = nullptr;
        freeTree(branches);
        return only;
    }
    if (!(branches->flags & kMessy)) {
        freeTree(branches->left);
        freeTree(branches->right);
        branches->left = branches->right = nullptr;
        branches->op = '=';
    }
    return branches;
}

template <class Ch>
Subexpr* Compiler<Ch>::parseBranch(int stopper, int type, State* left, State* right, bool partial)
{
    State* lp = left;
    bool content = false;
    Subexpr* t = node('=', 0, left, right);
    while (!see('|') && !see(stopper) && !see(kTokEnd)) {
        if (content) {
            lp = _nfa->stateCreate();
            if (_sink.failed()) return t;
            _nfa->moveInArcs(right, lp);
        }
        content = true;
        parseQuantifiedAtom(stopper, type, lp, right, t);
        if (_sink.failed()) return t;
    }
    if (!content) {
        if (!partial) note(RX_USES_UNSPECIFIED);
        _nfa->arcAdd(kEmpty, 0, left, right);
    }
    return t;
}

template <class Ch>
int Compiler<Ch>::scanNumber()
{
    int n = 0;
    while (see(kTokDigit) && n < RX_MAX_REPEAT) {
        n = n * 10 + _value;
        next();
    }
    if (see(kTokDigit) || n > RX_MAX_REPEAT) {
        _sink.set(RX_ERR_BOUND);
        _token = kTokEnd;
        return 0;
    }
    return n;
}

template <class Ch>
void Compiler<Ch>::parseQuantifiedAtom(int stopper, int type, State* lp, State* rp, Subexpr* top)
{
    Nfa& nfa = *_nfa;
    Subexpr* atom = nullptr;
    int groupNo = 0;
    const int groupsBefore = _groupsSeen;
    const int atomType = _token;
    int kind = atomType;  // '(' only for a capturing group
    State* s;
    State* s2;

    switch (atomType) {
    case '^':
        nfa.arcAdd(kStart, 1, lp, rp);
        if (_flags & RX_LINEANCHORS) nfa.arcAdd(kBehind, _newlineColour, lp, rp);
        next();
        return;
    case '$':
        nfa.arcAdd(kEnd, 1, lp, rp);
        if (_flags & RX_LINEANCHORS) nfa.arcAdd(kAhead, _newlineColour, lp, rp);
        next();
        return;
    case kTokStringStart:
        nfa.arcAdd(kStart, 1, lp, rp);
        nfa.arcAdd(kStart, 0, lp, rp);
        next();
        return;
    case kTokStringEnd:
        nfa.arcAdd(kEnd, 1, lp, rp);
        nfa.arcAdd(kEnd, 0, lp, rp);
        next();
        return;
    case '<':
        wordChars();
        s = nfa.stateCreate();
        if (!s) return;
        nonWord(kBehind, lp, s);
        word(kAhead, s, rp);
        return;
    case '>':
        wordChars();
        s = nfa.stateCreate();
        if (!s) return;
        word(kBehind, lp, s);
        nonWord(kAhead, s, rp);
        return;
    case kTokWordBoundary:
        wordChars();
        s = nfa.stateCreate();
        if (!s) return;
        nonWord(kBehind, lp, s);
        word(kAhead, s, rp);
        s = nfa.stateCreate();
        if (!s) return;
        word(kBehind, lp, s);
        nonWord(kAhead, s, rp);
        return;
    case kTokNotWordBoundary:
        wordChars();
        s = nfa.stateCreate();
        if (!s) return;
        word(kBehind, lp, s);
        word(kAhead, s, rp);
        s = nfa.stateCreate();
        if (!s) return;
        nonWord(kBehind, lp, s);
        nonWord(kAhead, s, rp);
        return;
    case kTokLookahead: {
        const int positive = _value;
        next();
        s = nfa.stateCreate();
        s2 = nfa.stateCreate();
        if (_sink.failed()) return;
        Subexpr* t = parseAlternation(')', kTokLookahead, s, s2);
        freeTree(t);
        if (_sink.failed()) return;
        next();
        if (_lookaheads.empty()) _lookaheads.emplace_back();  // entry 0 is never used
        Subexpr con;
        con.groupNo = positive;
        con.begin = s;
        con.end = s2;
        _lookaheads.push_back(std::move(con));
        if (_lookaheads.size() > static_cast<size_t>(kMaxColours)) {
            _sink.set(RX_ERR_MEMORY);
            return;
        }
        nfa.arcAdd(kLookRef, static_cast<colour>(_lookaheads.size() - 1), lp, rp);
        return;
    }
    case '*':
    case '+':
    case '?':
    case '{':
        _sink.set(RX_ERR_REPEAT);
        _token = kTokEnd;
        return;
    case ')':
        if ((_flags & RX_SYNTAX_ADV) != RX_SYNTAX_EXT) {
            _sink.set(RX_ERR_PAREN);
            _token = kTokEnd;
            return;
        }
        note(RX_USES_LONEPAREN);
        [[fallthrough]];
    case kTokPlain:
        oneChar(atomType == ')' ? ')' : _value, lp, rp);
        _internals->colourMap.settle(nfa);
        if (_sink.failed()) return;
        next();
        break;
    case '[': {
        // A bracket met before with the colour map unchanged since takes
        // the same colours: a class of the wide build (\w is some 50,000
        // characters there) costs its size each time it is split again.
        const Ch* end = bracketEnd();
        std::basic_string<Ch> key;
        if (end) {
            key.assign(1, static_cast<Ch>(_value ? '[' : '^'));
            key.append(_cursor, end);
            const auto known = _brackets.find(key);
            if (known != _brackets.end() && known->second.version == _internals->colourMap.version()) {
                for (const colour c : known->second.colours) nfa.arcAdd(kPlain, c, lp, rp);
                note(known->second.info);
                _cursor = end;
                _lexState = (_flags & RX_SYNTAX_EXT) ? kLexExtended : kLexBasic;
                _token = ']';
                next();
                break;
            }
        }
        const long infoBefore = _info;
        _info = 0;
        if (_value == 1)
            bracket(lp, rp);
        else
            complementBracket(lp, rp);
        if (_sink.failed()) return;
        if (end) {
            BracketColours& known = _brackets[key];
            known.version = _internals->colourMap.version();
            known.info = _info;
            known.colours.clear();
            for (Arc* a = lp->outs; a; a = a->outNext)
                if (a->to == rp && a->type == kPlain) known.colours.push_back(a->co);
        }
        _info |= infoBefore;
        next();
        break;
    }
    case '.':
        _internals->colourMap.arcsForAll(nfa, kPlain, (_flags & RX_DOTNONL) ? _newlineColour : kNoColour, lp, rp);
        next();
        break;
    case '(': {
        const bool capture = type != kTokLookahead && _value == 1;
        if (capture) {
            groupNo = ++_groupsSeen;
            if (static_cast<size_t>(groupNo) >= _groupTable.size())
                _groupTable.resize(static_cast<size_t>(groupNo) + groupNo / 2 + 1, nullptr);
        } else {
            kind = kTokPlain;  // anything but a capture
        }
        next();
        s = nfa.stateCreate();
        s2 = nfa.stateCreate();
        if (_sink.failed()) return;
        nfa.arcAdd(kEmpty, 0, lp, s);
        nfa.arcAdd(kEmpty, 0, s2, rp);
        atom = parseAlternation(')', kTokPlain, s, s2);
        if (_sink.failed()) return;
        next();
        if (capture) {
            _groupTable[static_cast<size_t>(groupNo)] = atom;
            Subexpr* t = node('(', static_cast<uint8_t>(atom->flags | kCapture), lp, rp);
            t->groupNo = groupNo;
            t->left = atom;
            atom = t;
        }
        break;
    }
    case kTokBackref:
        if (type == kTokLookahead || _value <= 0 || static_cast<size_t>(_value) >= _groupTable.size() ||
            _groupTable[static_cast<size_t>(_value)] == nullptr) {
            _sink.set(RX_ERR_BACKREF);
            _token = kTokEnd;
            return;
        }
        groupNo = _value;
        atom = node('b', kBackref, lp, rp);
        atom->groupNo = groupNo;
        nfa.arcAdd(kEmpty, 0, lp, rp);  // a placeholder until the group is copied in
        next();
        break;
    default:
        _sink.set(RX_ERR_INTERNAL);
        _token = kTokEnd;
        return;
    }

    // The quantifier.
    int m = 1;
    int n = 1;
    uint8_t prefer = 0;
    switch (_token) {
    case '*':
        m = 0;
        n = RX_OPEN_BOUND;
        prefer = _value ? kLonger : kShorter;
        next();
        break;
    case '+':
        m = 1;
        n = RX_OPEN_BOUND;
        prefer = _value ? kLonger : kShorter;
        next();
        break;
    case '?':
        m = 0;
        n = 1;
        prefer = _value ? kLonger : kShorter;
        next();
        break;
    case '{':
        next();
        m = scanNumber();
        if (eat(',')) {
            n = see(kTokDigit) ? scanNumber() : RX_OPEN_BOUND;
            if (m > n) {
                _sink.set(RX_ERR_BOUND);
                _token = kTokEnd;
                return;
            }
            prefer = _value ? kLonger : kShorter;  // {m,n} states a preference
        } else {
            n = m;  // {m} passes the atom's preference through
        }
        if (!see('}')) {
            _sink.set(RX_ERR_BOUND);
            _token = kTokEnd;
            return;
        }
        next();
        break;
    default:
        break;
    }
    if (_sink.failed()) return;

    if (m == 0 && n == 0) {
        // {0} cancels the atom altogether, its capture slot included.
        // Groups inside the cancelled atom can't be referred to either.
        freeTree(atom);
        for (int g = groupsBefore + 1; g <= _groupsSeen; ++g) _groupTable[static_cast<size_t>(g)] = nullptr;
        nfa.deleteBetween(lp, rp);
        nfa.arcAdd(kEmpty, 0, lp, rp);
        return;
    }

    uint8_t f = static_cast<uint8_t>(top->flags | prefer | (atom ? atom->flags : 0));
    if (kind != '(' && kind != kTokBackref && !(flagsUp(f) & kMessy)) {
        if (!(m == 1 && n == 1)) nfa.repeatBetween(lp, rp, m, n);
        freeTree(atom);
        top->flags = f;
        return;
    }

    // The hard path: the rest of the branch will hang below this atom.
    if (!atom) atom = node('=', 0, lp, rp);
    s = nfa.stateCreate();
    s2 = nfa.stateCreate();
    if (_sink.failed()) return;
    nfa.moveOutArcs(lp, s);
    nfa.moveInArcs(rp, s2);
    atom->begin = s;
    atom->end = s2;
    s = nfa.stateCreate();   // prefix
    s2 = nfa.stateCreate();  // bypass
    if (_sink.failed()) return;
    nfa.arcAdd(kEmpty, 0, lp, s);
    nfa.arcAdd(kEmpty, 0, lp, s2);

    Subexpr* t = node('.', flagsMerge(prefer, atom->flags), lp, rp);
    t->left = atom;
    Subexpr** atomSlot = &t->left;
    top->left = node('=', top->flags, top->begin, lp);
    top->op = '.';
    top->right = t;

    if (kind == kTokBackref) {
        nfa.deleteBetween(atom->begin, atom->end);
        const Subexpr* group = _groupTable[static_cast<size_t>(groupNo)];
        nfa.copyBetween(nfa, group->begin, group->end, atom->begin, atom->end);
        if (_sink.failed()) return;
    }

    const bool bypass = m == 0;
    if (m == 0) {
        // A back-reference gets its bypass after the repeat below, which
        // for an open bound moves the atom's in-arcs into its loop: the
        // bypass would become a way into the loop that no copy checks.
        if (kind != kTokBackref) nfa.arcAdd(kEmpty, 0, s2, atom->end);
        f = flagsMerge(prefer, atom->flags);
        Subexpr* alt = node('|', f, lp, atom->end);
        alt->left = atom;
        alt->right = node('|', static_cast<uint8_t>(f & kPrefMask), s2, atom->end);
        alt->right->left = node('=', 0, s2, atom->end);
        *atomSlot = alt;
        atomSlot = &alt->left;
        m = 1;
    }

    if (kind == kTokBackref) {
        nfa.arcAdd(kEmpty, 0, s, atom->begin);
        nfa.repeatBetween(atom->begin, atom->end, m, n);
        if (bypass) nfa.arcAdd(kEmpty, 0, s2, atom->end);
        atom->min = static_cast<int16_t>(m);
        atom->max = static_cast<int16_t>(n);
        atom->flags |= flagsMerge(prefer, atom->flags);
    } else if (m == 1 && n == 1) {
        nfa.arcAdd(kEmpty, 0, s, atom->begin);
    } else {
        nfa.copyBetween(nfa, atom->begin, atom->end, s, atom->begin);
        nfa.repeatBetween(s, atom->begin, m - 1, n == RX_OPEN_BOUND ? n : n - 1);
        f = flagsMerge(prefer, atom->flags);
        Subexpr* cat = node('.', f, s, atom->end);
        cat->left = node('=', static_cast<uint8_t>(f & kPrefMask), s, atom->begin);
        if (atom->flags & kBackref) {
            // The automaton takes a back-reference for any text of its
            // group's language; every iteration must be checked.
            Subexpr* first = cat->left;
            first->op = '*';
            first->flags |= kBackref;
            first->min = static_cast<int16_t>(m - 1);
            first->max = static_cast<int16_t>(n == RX_OPEN_BOUND ? n : n - 1);
            first->body = atom;
            first->firstGroup = groupsBefore + 1;
            first->lastGroup = _groupsSeen;
        }
        cat->right = atom;
        *atomSlot = cat;
    }
    if (_sink.failed()) return;
    if (!bypass && m == 1 && n == 1) notePair(kind, groupNo, *atom);

    t = top->right;
    if (!(see('|') || see(stopper) || see(kTokEnd))) {
        t->right = parseBranch(stopper, type, atom->end, rp, true);
    } else {
        nfa.arcAdd(kEmpty, 0, atom->end, rp);
        t->right = node('=', 0, atom->end, rp);
    }
    t->flags |= flagsMerge(t->flags, t->right->flags);
    top->flags |= flagsMerge(top->flags, t->flags);
}

// ---- brackets and characters ----

template <class Ch>
void Compiler<Ch>::addRange(int32_t from, int32_t to, CharVector& v)
{
    const int64_t span = static_cast<int64_t>(to) - from;
    const uint32_t mask = Traits::kMask;
    if (span >= static_cast<int64_t>(mask)) {
        v.ranges.emplace_back(0, mask);
        return;
    }
    if constexpr (Traits::kWide) {
        if (from < 0 || static_cast<uint32_t>(to) > mask) {
            // Above the basic plane a unit's slot is not its low 16 bits
            // throughout (see CharTraits): each unit of the range is placed
            // by itself, and the slots taken become ranges.
            std::vector<bool> taken(static_cast<size_t>(mask) + 1);
            for (int64_t u = from; u <= to; ++u) taken[Traits::index(static_cast<int32_t>(u))] = true;
            for (uint32_t s = 0; s <= mask; ++s) {
                if (!taken[s]) continue;
                uint32_t e = s;
                while (e < mask && taken[e + 1]) ++e;
                v.ranges.emplace_back(s, e);
                s = e;
            }
            return;
        }
    }
    const uint32_t lo = Traits::index(from);
    const uint32_t hi = Traits::index(to);
    if (lo <= hi) {
        v.ranges.emplace_back(lo, hi);
    } else {  // wraps past the top of the alphabet
        v.ranges.emplace_back(lo, mask);
        v.ranges.emplace_back(0, hi);
    }
}

template <class Ch>
void Compiler<Ch>::addCases(int32_t c, CharVector& v)
{
    v.chars.push_back(Traits::index(c));
    int32_t forms[3];
    const int n = caseVariants<Ch>(c, forms);
    for (int i = 0; i < n; ++i) v.chars.push_back(Traits::index(forms[i]));
}

template <class Ch>
void Compiler<Ch>::addVector(const CharVector& v, State* lp, State* rp)
{
    ColourMap& map = _internals->colourMap;
    for (uint32_t c : v.chars) {
        if (_sink.failed()) return;
        _nfa->arcAdd(kPlain, map.splitChar(c), lp, rp);
    }
    for (const auto& r : v.ranges) {
        if (_sink.failed()) return;
        map.splitRange(r.first, r.second, *_nfa, lp, rp);
    }
}

template <class Ch>
void Compiler<Ch>::oneChar(int32_t c, State* lp, State* rp)
{
    if (!(_flags & RX_FOLDCASE)) {
        _nfa->arcAdd(kPlain, _internals->colourMap.splitChar(Traits::index(c)), lp, rp);
        return;
    }
    _vector.clear();
    addCases(c, _vector);
    addVector(_vector, lp, rp);
}

// Where the bracket under the cursor ends (past its "]"), or null for one
// this doesn't follow: escapes, whose reading depends on the syntax, or an
// unterminated one, which the parser will report.
template <class Ch>
const Ch* Compiler<Ch>::bracketEnd() const
{
    const Ch* p = _cursor;
    if (p < _stop && *p == ']') ++p;  // first, it is a member
    while (p < _stop) {
        const Ch c = *p;
        if (c == '\\') return nullptr;
        if (c == '[' && p + 1 < _stop && (p[1] == ':' || p[1] == '.' || p[1] == '=')) {
            const Ch close = p[1];
            for (p += 2; p + 1 < _stop && !(p[0] == close && p[1] == ']'); ++p) {
            }
            if (p + 1 >= _stop) return nullptr;
            p += 2;
            continue;
        }
        if (c == ']') return p + 1;
        ++p;
    }
    return nullptr;
}

template <class Ch>
void Compiler<Ch>::bracket(State* lp, State* rp)
{
    next();
    while (!see(']') && !see(kTokEnd)) bracketPart(lp, rp);
    _internals->colourMap.settle(*_nfa);
}

template <class Ch>
void Compiler<Ch>::complementBracket(State* lp, State* rp)
{
    State* left = _nfa->stateCreate();
    State* right = _nfa->stateCreate();
    if (_sink.failed()) return;
    bracket(left, right);
    if (_flags & RX_DOTNONL) _nfa->arcAdd(kPlain, _newlineColour, left, right);
    if (_sink.failed()) return;
    _internals->colourMap.complementArcs(*_nfa, kPlain, left, lp, rp);
    _nfa->stateDrop(left);
    _nfa->stateDrop(right);
}

template <class Ch>
bool Compiler<Ch>::scanName(std::vector<Ch>& name)
{
    name.clear();
    next();
    while (see(kTokPlain)) {
        name.push_back(static_cast<Ch>(_value));
        next();
    }
    if (!see(kTokNameEnd)) return false;
    next();
    return !_sink.failed();
}

template <class Ch>
int32_t Compiler<Ch>::element(const std::vector<Ch>& name)
{
    if (name.size() != 1) note(RX_USES_LOCALE);
    const int32_t code = collatingCode(name.data(), name.size());
    if (code < 0 && name.size() != 1) {
        _sink.set(RX_ERR_COLLATE);
        _token = kTokEnd;
    }
    return code;
}

template <class Ch>
void Compiler<Ch>::bracketPart(State* lp, State* rp)
{
    std::vector<Ch> name;
    int32_t start = 0;
    int32_t end = 0;
    const bool fold = _flags & RX_FOLDCASE;
    switch (_token) {
    case kTokRange:
        _sink.set(RX_ERR_RANGE);
        _token = kTokEnd;
        return;
    case kTokPlain:
        start = _value;
        next();
        if (!see(kTokRange)) {
            oneChar(start, lp, rp);
            return;
        }
        break;
    case kTokCollating:
        if (!scanName(name)) return;
        if (name.empty()) {
            _sink.set(RX_ERR_COLLATE);
            _token = kTokEnd;
            return;
        }
        start = element(name);
        if (_sink.failed()) return;
        break;
    case kTokEquivalence: {
        if (!scanName(name)) return;
        if (name.empty()) {
            _sink.set(RX_ERR_COLLATE);
            _token = kTokEnd;
            return;
        }
        start = element(name);
        if (_sink.failed()) return;
        _vector.clear();
        if ((_flags & RX_SELFTEST) && start == 'x') {
            _vector.chars.push_back('x');
            _vector.chars.push_back('y');
            if (fold) {
                _vector.chars.push_back('X');
                _vector.chars.push_back('Y');
            }
        } else if (fold) {
            addCases(start, _vector);
        } else {
            _vector.chars.push_back(Traits::index(start));
        }
        addVector(_vector, lp, rp);
        return;
    }
    case kTokClass:
        if (!scanName(name)) return;
        _vector.clear();
        if (name.empty() || !namedClass<Ch>(name.data(), name.size(), fold, _vector)) {
            _sink.set(RX_ERR_CLASS);
            _token = kTokEnd;
            return;
        }
        addVector(_vector, lp, rp);
        return;
    default:
        _sink.set(RX_ERR_INTERNAL);
        _token = kTokEnd;
        return;
    }

    if (see(kTokRange)) {
        next();
        switch (_token) {
        case kTokPlain:
        case kTokRange:
            end = _value;
            next();
            break;
        case kTokCollating:
            if (!scanName(name)) return;
            if (name.empty()) {
                _sink.set(RX_ERR_COLLATE);
                _token = kTokEnd;
                return;
            }
            end = element(name);
            if (_sink.failed()) return;
            break;
        default:
            _sink.set(RX_ERR_RANGE);
            _token = kTokEnd;
            return;
        }
    } else {
        end = start;
    }
    if (start != end) note(RX_USES_UNPORTABLE);
    if (start > end) {
        _sink.set(RX_ERR_RANGE);
        _token = kTokEnd;
        return;
    }
    _vector.clear();
    if (!fold) {
        addRange(start, end, _vector);
    } else {
        const int64_t count = std::min<int64_t>(static_cast<int64_t>(end) - start + 1, 65536);
        for (int64_t i = 0; i < count; ++i) addCases(static_cast<int32_t>(start + i), _vector);
    }
    addVector(_vector, lp, rp);
}

// ---- word edges ----

template <class Ch>
void Compiler<Ch>::wordChars()
{
    if (_wordSet) {
        next();
        return;
    }
    State* left = _nfa->stateCreate();
    State* right = _nfa->stateCreate();
    if (_sink.failed()) return;
    static constexpr Ch kText[] = {'[', '[', ':', 'a', 'l', 'n', 'u', 'm', ':', ']', '_', ']'};
    nest(kText, sizeof kText / sizeof kText[0]);
    next();
    bracket(left, right);
    next();
    if (_sink.failed()) return;
    _wordSet = left;
}

template <class Ch>
void Compiler<Ch>::word(int dir, State* lp, State* rp)
{
    _nfa->cloneOuts(_wordSet, lp, rp, dir);
}

template <class Ch>
void Compiler<Ch>::nonWord(int dir, State* lp, State* rp)
{
    const int anchor = dir == kAhead ? kEnd : kStart;
    _nfa->arcAdd(anchor, 1, lp, rp);
    _nfa->arcAdd(anchor, 0, lp, rp);
    _internals->colourMap.complementArcs(*_nfa, dir, _wordSet, lp, rp);
}

template class Compiler<char>;
template class Compiler<wchar_t>;

}  // namespace Karu::IMPL::rx
