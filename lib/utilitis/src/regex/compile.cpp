// rxcomp: the order of compilation around the one parsing pass.
//
// After the parse the tree is numbered and pruned, then every node and every
// look-ahead constraint gets its own automaton copied out of the main graph
// and optimised alone; only then is the main graph optimised into the search
// automaton, which carries an implicit leading ".*" unless anchored. The
// per-node copies must be taken before the main graph is optimised, since
// optimising rewrites the states the tree points at.
#include "compiler.h"
#include "lines.h"
#include "prefilter.h"

#include <new>

namespace Karu::IMPL::rx {

namespace {

void releaseObject(RxObject* object)
{
    if (object == nullptr || object->magic != RX_OBJECT_MAGIC) return;
    auto* internals = static_cast<Internals*>(object->internals);
    if (internals) internals->magic = 0;
    delete internals;
    object->internals = nullptr;
    object->magic = 0;
}

const RxOps kNarrowOps = {&releaseObject};
const RxOps kWideOps = {&releaseObject};

}  // namespace

template <class Ch>
Compiler<Ch>::Compiler(RxObject* object, const Ch* pattern, size_t length, int flags)
    : _object(object), _cursor(pattern), _stop(pattern + length), _flags(flags)
{
}

template <class Ch>
Compiler<Ch>::~Compiler()
{
    _child.reset();
    _nfa.reset();  // before the colour map it chains arcs on
}

template <class Ch>
void Compiler<Ch>::directors()
{
    if (have(4) && _cursor[0] == '*' && _cursor[1] == '*' && _cursor[2] == '*') {
        switch (_cursor[3]) {
        case '=':
            note(RX_USES_NONPOSIX);
            _flags = (_flags | RX_LITERAL) & ~0xE3;
            _cursor += 4;
            return;
        case '?':
            _sink.set(RX_ERR_DIRECTOR);
            return;
        case ':':
            note(RX_USES_NONPOSIX);
            _flags |= RX_SYNTAX_ADV;
            _cursor += 4;
            break;
        default:
            _sink.set(RX_ERR_REPEAT);
            return;
        }
    }
    if ((_flags & RX_SYNTAX_ADV) != RX_SYNTAX_ADV) return;
    if (!(have(3) && _cursor[0] == '(' && _cursor[1] == '?')) return;
    const Ch first = _cursor[2];
    if (!((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z'))) return;
    note(RX_USES_NONPOSIX);
    _cursor += 2;
    for (; !atEnd() && ((*_cursor >= 'a' && *_cursor <= 'z') || (*_cursor >= 'A' && *_cursor <= 'Z')); ++_cursor) {
        switch (*_cursor) {
        case 'b': _flags &= ~(RX_SYNTAX_ADV | RX_LITERAL); break;
        case 'c': _flags &= ~RX_FOLDCASE; break;
        case 'e': _flags = (_flags | RX_SYNTAX_EXT) & ~(RX_SYNTAX_ADVBIT | RX_LITERAL); break;
        case 'i': _flags |= RX_FOLDCASE; break;
        case 'm':
        case 'n': _flags |= RX_DOTNONL | RX_LINEANCHORS; break;
        case 'p': _flags = (_flags | RX_DOTNONL) & ~RX_LINEANCHORS; break;
        case 'q': _flags = (_flags | RX_LITERAL) & ~RX_SYNTAX_ADV; break;
        case 's': _flags &= ~(RX_DOTNONL | RX_LINEANCHORS); break;
        case 't': _flags &= ~RX_FREESPACING; break;
        case 'w': _flags = (_flags & ~RX_DOTNONL) | RX_LINEANCHORS; break;
        case 'x': _flags |= RX_FREESPACING; break;
        default: _sink.set(RX_ERR_OPTION); return;
        }
    }
    if (!next1(')')) {
        _sink.set(RX_ERR_OPTION);
        return;
    }
    ++_cursor;
    if (_flags & RX_LITERAL) _flags &= ~0xE0;
}

template <class Ch>
int Compiler<Ch>::numberTree(Subexpr* t, int start)
{
    int i = start;
    t->id = i++;
    if (t->left) i = numberTree(t->left, i);
    if (t->right) i = numberTree(t->right, i);
    return i;
}

// A walk of the main graph from a node's begin, not past its end, that
// stops at kSmallSpan states: whether the node's part is that small, and,
// with `onlyEmpty`, holds nothing but empty arcs (the tail the parser puts
// after a group, a {0}), so that the node matches only the empty string.
template <class Ch>
bool Compiler<Ch>::smallSpan(const Subexpr& t, bool onlyEmpty)
{
    ++_walkStamp;
    std::vector<State*> work{t.begin};
    t.begin->walk = _walkStamp;
    int seen = 1;
    while (!work.empty()) {
        State* s = work.back();
        work.pop_back();
        if (s == t.end) continue;
        if (onlyEmpty && s->outCount == 0) return false;
        for (Arc* a = s->outs; a; a = a->outNext) {
            if (onlyEmpty && a->type != kEmpty) return false;
            if (a->to->walk == _walkStamp) continue;
            if (++seen > kSmallSpan) return false;
            a->to->walk = _walkStamp;
            work.push_back(a->to);
        }
    }
    return true;
}

template <class Ch>
void Compiler<Ch>::markTree(Subexpr* t)
{
    t->flags |= kInUse;
    if (t->op == '=' && t->begin && (t->begin == t->end || smallSpan(*t, true))) t->flags |= kEmptyOnly;
    if (t->left) markTree(t->left);
    if (t->right) markTree(t->right);
}

// Which nodes get an automaton of their own. The matcher walks a
// concatenation's left side to find where it may end, and asks whether the
// right side spans the rest; it asks an alternation's branches whether they
// span the whole. A node that is asked answers by its own automaton when it
// is a leaf or small, and otherwise from its children's answers (see
// dissect.cpp). Giving every node an automaton would copy, for a branch of k
// groups, the rest of the branch k times: quadratic in the pattern.
template <class Ch>
void Compiler<Ch>::planAutomata(Subexpr* t, Need need)
{
    const bool leaf = t->op == '=' || t->op == 'b' || t->op == '*';
    // A node that matches only the empty string answers without one.
    bool own = !(t->flags & kEmptyOnly) &&
               (need == kNeedOwn || (need == kNeedAnswer && (leaf || smallSpan(*t, false))));
    if (t->op == 'b' || t->op == '*') own = true;  // checked in place of every iteration
    if (own) t->flags |= kOwnAutomaton;
    const Need inner = need == kNeedAnswer && !own ? kNeedAnswer : kNeedNone;
    switch (t->op) {
    case '(':
        planAutomata(t->left, inner);
        break;
    case '.':
        if (t->left->flags & kEmptyOnly) {
            planAutomata(t->left, kNeedNone);
            planAutomata(t->right, inner);
        } else if (t->right->flags & kEmptyOnly) {
            planAutomata(t->right, kNeedNone);
            planAutomata(t->left, inner);
        } else {
            planAutomata(t->left, kNeedOwn);
            planAutomata(t->right, kNeedAnswer);
        }
        break;
    case '|':
        for (Subexpr* c = t; c; c = c->right) {
            c->flags |= kInUse;
            planAutomata(c->left, kNeedOwn);
        }
        break;
    case '*':
        // Each iteration is found by the repeated atom's own automaton.
        const_cast<Subexpr*>(t->body)->flags |= kOwnAutomaton;
        break;
    default:
        break;
    }
}

template <class Ch>
long Compiler<Ch>::buildNodeAutomaton(Subexpr& t)
{
    if (_sink.failed()) return 0;
    if (!_child)
        _child = std::make_unique<Nfa>(_internals->colourMap, _sink, _nfa.get());
    else
        _child->reset();
    Nfa& child = *_child;
    {
        const PassTimer timer(kPassCopy);
        child.copyBetween(*_nfa, t.begin, t.end, child.bodyStart, child.bodyEnd);
    }
    child.assignPseudoColours();
    const long bits = child.optimise(_trace);
    child.compact(t.automaton);
    return bits;
}

template <class Ch>
long Compiler<Ch>::buildAutomata(Subexpr* t)
{
    if (t->left) buildAutomata(t->left);
    if (t->right) buildAutomata(t->right);
    if (!(t->flags & kOwnAutomaton)) return 0;
    if (_trace) {
        if (t->id)
            std::fprintf(_trace, "\n\n\n========= TREE NODE %d ==========\n", t->id);
        else
            std::fprintf(_trace, "\n\n\n========= TREE NODE %p ==========\n", static_cast<void*>(t));
    }
    return buildNodeAutomaton(*t);
}

template <class Ch>
void Compiler<Ch>::dumpTree(const Subexpr* t, FILE* out) const
{
    if (t == nullptr) {
        std::fputs("null tree\n", out);
        return;
    }
    char number[32];
    if (t->id)
        std::snprintf(number, sizeof number, "%d", t->id);
    else
        std::snprintf(number, sizeof number, "%p", static_cast<const void*>(t));
    std::fprintf(out, "%s. `%c'", number, t->op);
    if (t->flags & kLonger) std::fputs(" longest", out);
    if (t->flags & kShorter) std::fputs(" shortest", out);
    if (t->flags & kMixed) std::fputs(" hasmixed", out);
    if (t->flags & kCapture) std::fputs(" hascapture", out);
    if (t->flags & kBackref) std::fputs(" hasbackref", out);
    if (!(t->flags & kInUse)) std::fputs(" UNUSED", out);
    if (t->groupNo != 0) std::fprintf(out, " (#%d)", t->groupNo);
    if (t->min != 1 || t->max != 1) {
        std::fprintf(out, " {%d,", t->min);
        if (t->max != RX_OPEN_BOUND) std::fprintf(out, "%d", t->max);
        std::fputc('}', out);
    }
    if (t->begin && t->end) std::fprintf(out, " %ld-%ld", static_cast<long>(t->begin->number), static_cast<long>(t->end->number));
    auto childName = [](const Subexpr* c, char* buf, size_t size) {
        if (c->id)
            std::snprintf(buf, size, "%d", c->id);
        else
            std::snprintf(buf, size, "%p", static_cast<const void*>(c));
    };
    char name[32];
    if (t->left) {
        childName(t->left, name, sizeof name);
        std::fprintf(out, " L:%s", name);
    }
    if (t->right) {
        childName(t->right, name, sizeof name);
        std::fprintf(out, " R:%s", name);
    }
    std::fputc('\n', out);
    if (!t->automaton.empty()) std::fputs("\n\n", out);
    if (t->left) dumpTree(t->left, out);
    if (t->right) dumpTree(t->right, out);
}

template <class Ch>
int Compiler<Ch>::run()
{
    _groupTable.assign(10, nullptr);  // most patterns have few groups
    _object->magic = RX_OBJECT_MAGIC;
    _object->groupCount = 0;
    _object->info = 0;
    _object->unitSize = Traits::kUnitSize;
    _object->endPointer = nullptr;
    _object->internals = nullptr;
    _object->ops = Traits::kWide ? &kWideOps : &kNarrowOps;
    _trace = (_flags & RX_TRACEOUT) ? stdout : nullptr;

    _internals = std::make_unique<Internals>();
    _internals->colourMap.init(Traits::kWide, &_sink);
    _nfa = std::make_unique<Nfa>(_internals->colourMap, _sink, nullptr);

    if (!(_flags & RX_LITERAL)) directors();
    if (!_sink.failed()) lexStart();
    if (!_sink.failed() && (_flags & (RX_DOTNONL | RX_LINEANCHORS))) {
        _newlineColour = _internals->colourMap.splitChar('\n');
        _internals->colourMap.settle(*_nfa);
    }
    {
        const PassTimer timer(kPassParse);
        if (!_sink.failed()) _tree = parseAlternation(kTokEnd, kTokPlain, _nfa->bodyStart, _nfa->bodyEnd);
        if (!_sink.failed() && !see(kTokEnd)) _sink.set(RX_ERR_PAREN);
        _nfa->assignPseudoColours();
    }
    if (_trace && !_sink.failed()) {
        std::fputs("\n\n\n========= RAW ==========\n", _trace);
        dumpTree(_tree, _trace);
        std::fflush(_trace);
    }
    if (!_sink.failed()) {
        _internals->nodeCount = numberTree(_tree, 1);
        markTree(_tree);
        planAutomata(_tree, kNeedOwn);
        _tree->flags |= kOwnAutomaton;  // the search runs it, whatever it matches
        if (_trace) {
            std::fputs("\n\n\n========= TREE FIXED ==========\n", _trace);
            dumpTree(_tree, _trace);
            std::fflush(_trace);
        }
        _info |= buildAutomata(_tree);
    }
    for (size_t i = 1; i < _lookaheads.size() && !_sink.failed(); ++i) {
        if (_trace) std::fprintf(_trace, "\n\n\n========= LA%zu ==========\n", i);
        buildNodeAutomaton(_lookaheads[i]);
    }
    if (!_sink.failed() && (_tree->flags & kShorter)) _info |= RX_PREFERS_SHORTEST;
    // The tree's automata are made; the search automaton, and the root's
    // which gives the candidate ends, may now take one-character groups and
    // their references exactly, where that can't change the match (see
    // exactPairs.cpp).
    if (!_sink.failed() && !_pairs.empty() && !(_tree->flags & kShorter) && !(_info & RX_CAN_BE_EMPTY)) {
        exactPairs();
        _tree->automaton = CompactNfa{};
        buildNodeAutomaton(*_tree);
    }
    if (!_sink.failed()) {
        if (_trace) std::fputs("\n\n\n========= SEARCH ==========\n", _trace);
        _nfa->optimise(_trace);
        _nfa->makeSearch();
        _nfa->compact(_internals->search);
        if (_trace) std::fflush(_trace);
    }
    return finish();
}

template <class Ch>
int Compiler<Ch>::finish()
{
    _child.reset();
    _nfa.reset();
    if (_sink.failed()) {
        _internals.reset();
        _object->magic = 0;
        _object->internals = nullptr;
        return _sink.err;
    }
    Internals& in = *_internals;
    for (auto& n : _allNodes)
        if (n && (n->flags & kInUse)) in.nodes.push_back(std::move(n));
    in.tree = _tree;
    in.lookaheads = std::move(_lookaheads);
    in.compFlags = _flags;
    in.info = _info;
    in.groupCount = static_cast<size_t>(_groupsSeen);
    in.unitSize = Traits::kUnitSize;
    int slots = 0;
    in.search.cacheSlot = slots++;
    for (auto& n : in.nodes)
        if (!n->automaton.empty()) n->automaton.cacheSlot = slots++;
    for (size_t i = 1; i < in.lookaheads.size(); ++i) in.lookaheads[i].automaton.cacheSlot = slots++;
    in.automatonCount = slots;
    analysePrefilter(in);
    if (staysWithinLines(in)) _info |= RX_STAYS_IN_LINES;
    if (matchesOnlyAscii(in)) _info |= RX_MATCHES_ASCII;
    in.info = _info;
    in.magic = kInternalsMagic;
    _object->groupCount = in.groupCount;
    _object->info = _info;
    _object->internals = _internals.release();
    return RX_OK;
}

template class Compiler<char>;
template class Compiler<wchar_t>;

template <class Ch>
int compilePattern(RxObject* object, const Ch* pattern, size_t length, int flags) noexcept
{
    if (object == nullptr) return RX_ERR_ARGUMENT;
    object->magic = 0;
    object->internals = nullptr;
    if (pattern == nullptr) return RX_ERR_ARGUMENT;
    if ((flags & RX_LITERAL) && (flags & 0xE3)) return RX_ERR_ARGUMENT;
    if ((flags & RX_SYNTAX_ADVBIT) && !(flags & RX_SYNTAX_EXT)) return RX_ERR_ARGUMENT;
    try {
        Compiler<Ch> compiler(object, pattern, length, flags);
        return compiler.run();
    } catch (const std::bad_alloc&) {
        object->magic = 0;
        object->internals = nullptr;
        return RX_ERR_MEMORY;
    } catch (...) {
        object->magic = 0;
        object->internals = nullptr;
        return RX_ERR_INTERNAL;
    }
}

template int compilePattern<char>(RxObject*, const char*, size_t, int) noexcept;
template int compilePattern<wchar_t>(RxObject*, const wchar_t*, size_t, int) noexcept;

}  // namespace Karu::IMPL::rx
