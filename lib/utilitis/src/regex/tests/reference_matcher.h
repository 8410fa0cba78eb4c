// A reference for the engine's matching, written from the documented rules
// alone: a backtracking matcher over short subjects that tries every way a
// pattern can match and picks the one the rules prefer. It shares no code
// with the engine: no automata, no colours, characters compared directly.
//
// The syntax is the part of the advanced syntax the random tests generate:
// the letters a-d, ".", bracket expressions of letters ("[ab]", "[^a]",
// "[a-c]"), capturing and non-capturing groups, "|", the quantifiers
// * + ? {m} {m,} {m,n} and their non-greedy forms, back-references \1-\9,
// and "^" and "$" (string ends, or line ends too in line mode).
//
// The rules, as the engine documents them:
//  - the match starts at the leftmost position where the pattern (a
//    back-reference read as any text of its group's language) can match;
//    from there the ends it could reach are tried longest first, or
//    shortest first when the pattern as a whole prefers the shortest; the
//    first end at which the exact rules below hold is the match. With
//    back-references, an end that is already the extreme (the start, or
//    the string's end when shortest) ends the search if it fails;
//  - groups follow the subexpression tree the parser builds: a branch is
//    cut after each atom that captures, refers back, or brings a preference
//    that clashes with the branch so far; the part before it (a "leaf") is
//    matched as a whole, the rest of the branch hangs to its right;
//  - a concatenation puts its split as far right as it can (as far left
//    when its left side prefers the shortest); an alternation of parts that
//    capture takes the first branch that holds;
//  - an atom repeated m to n times is m-1 to n-1 iterations followed by a
//    last one, which alone reports its captures; each iteration starts with
//    the atom's groups unset;
//  - a back-reference matches copies of its group's text, as many as its
//    quantifier allows, where its group's language also matches (anchors
//    in the group hold in the new place).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace rxref {

constexpr int kOpen = -1;  // an open upper bound

struct Alt;

// One quantified atom of a branch.
struct Piece {
    enum Kind { kSet, kAnchor, kGroup, kRef } kind = kSet;
    std::string set;         // kSet: the characters it matches
    bool negated = false;    // kSet: all but those (except a line feed in line mode)
    char anchor = 0;         // kAnchor: '^' or '$'
    int group = 0;           // kGroup: its number, 0 if it doesn't capture; kRef: the group
    const Alt* content = nullptr;  // kGroup
    int min = 1, max = 1;
    int prefer = 0;          // 0 none, 1 greedy, 2 non-greedy
};
using Branch = std::vector<Piece>;
struct Alt {
    std::vector<Branch> branches;
};

// The engine's tree flags, reproduced: a node's own preference, and what
// makes an atom need a node of its own.
constexpr uint8_t kLonger = 1, kShorter = 2, kMixed = 4, kCapture = 8, kBackref = 0x10;
constexpr uint8_t kPref = 3, kMessy = kMixed | kCapture | kBackref;
inline uint8_t up(uint8_t f)
{
    return static_cast<uint8_t>((f & ~kPref) | (((f << 2) & (f << 1)) & kMixed));
}
inline uint8_t merge(uint8_t a, uint8_t b)
{
    return static_cast<uint8_t>(up(a | b) | ((a & kPref) ? (a & kPref) : (b & kPref)));
}

struct Node {
    char op = '=';      // '=' leaf, '.', '|', '(', 'b', '*'
    uint8_t flags = 0;
    int group = 0;
    int min = 1, max = 1;
    Node* left = nullptr;
    Node* right = nullptr;
    Branch content;     // '=': what the leaf matches, as a whole
    const Node* body = nullptr;  // '*': the atom repeated
    int firstGroup = 0, lastGroup = -1;
};

struct Result {
    bool compiled = true;
    bool matched = false;
    std::vector<std::pair<int, int>> groups;  // group 0 first; -1,-1 unset
};

class Matcher {
public:
    // Returns false if the pattern lies outside the supported syntax.
    bool parse(const std::string& pattern, bool lineMode)
    {
        _p = pattern;
        _i = 0;
        _line = lineMode;
        _groups = 0;
        _closed.assign(1, nullptr);
        _error = false;
        _root = parseAlt();
        if (_i != _p.size()) return false;
        if (!_bad) _tree = build(*_root);
        return !_bad;
    }

    Result run(const std::string& subject)
    {
        Result out;
        if (_error) {
            out.compiled = false;
            return out;
        }
        _s = subject;
        const bool shorter = _tree->flags & kShorter;
        for (int begin = 0; begin <= static_cast<int>(_s.size()); ++begin) {
            std::vector<int> ends;
            for (int e = begin; e <= static_cast<int>(_s.size()); ++e)
                if (language(*_root, begin, e)) ends.push_back(e);
            if (ends.empty()) continue;
            for (size_t k = 0; k < ends.size(); ++k) {
                const int e = shorter ? ends[k] : ends[ends.size() - 1 - k];
                _caps.assign(static_cast<size_t>(_groups) + 1, {-1, -1});
                if (exact(_tree, begin, e, [] { return true; })) {
                    out.matched = true;
                    _caps[0] = {begin, e};
                    out.groups = _caps;
                    return out;
                }
                if (_refs && (shorter ? e == static_cast<int>(_s.size()) : e == begin)) return out;
            }
            if (!_refs) return out;  // without references the first end always holds
        }
        return out;
    }

    int groups() const { return _groups; }

private:
    // ---- parsing ----

    bool at(char c) const { return _i < _p.size() && _p[_i] == c; }

    const Alt* parseAlt()
    {
        _alts.emplace_back();
        Alt& alt = _alts.back();
        alt.branches.push_back(parseBranch());
        while (at('|')) {
            ++_i;
            alt.branches.push_back(parseBranch());
        }
        return &alt;
    }

    Branch parseBranch()
    {
        Branch b;
        while (_i < _p.size() && !at('|') && !at(')')) {
            Piece p;
            const char c = _p[_i++];
            if (c == '^' || c == '$') {
                p.kind = Piece::kAnchor;
                p.anchor = c;
                b.push_back(p);
                continue;  // no quantifier may follow an anchor
            } else if (c == '.') {
                p.negated = true;
            } else if (c >= 'a' && c <= 'd') {
                p.set = std::string(1, c);
            } else if (c == '[') {
                if (at('^')) {
                    p.negated = true;
                    ++_i;
                }
                while (_i < _p.size() && !at(']')) {
                    if (_i + 2 < _p.size() && _p[_i + 1] == '-' && _p[_i + 2] != ']') {
                        for (char x = _p[_i]; x <= _p[_i + 2]; ++x) p.set += x;
                        _i += 3;
                    } else {
                        p.set += _p[_i++];
                    }
                }
                if (!at(']')) _bad = true;
                ++_i;
            } else if (c == '(') {
                p.kind = Piece::kGroup;
                if (_p.compare(_i, 2, "?:") == 0) {
                    _i += 2;
                } else {
                    p.group = ++_groups;
                    _closed.push_back(nullptr);
                }
                p.content = parseAlt();
                if (!at(')')) _bad = true;
                ++_i;
                if (p.group) _closed[static_cast<size_t>(p.group)] = p.content;
            } else if (c == '\\' && _i < _p.size() && _p[_i] >= '1' && _p[_i] <= '9') {
                p.kind = Piece::kRef;
                p.group = _p[_i++] - '0';
                if (p.group > _groups || _closed[static_cast<size_t>(p.group)] == nullptr) _error = true;
                _refs = true;
            } else {
                _bad = true;
                return b;
            }
            quantifier(p);
            b.push_back(p);
        }
        return b;
    }

    int number()
    {
        int n = 0;
        while (_i < _p.size() && _p[_i] >= '0' && _p[_i] <= '9') n = n * 10 + (_p[_i++] - '0');
        return n;
    }

    void quantifier(Piece& p)
    {
        auto lazy = [&] {
            if (at('?')) {
                ++_i;
                return 2;
            }
            return 1;
        };
        if (at('*') || at('+') || at('?')) {
            const char q = _p[_i++];
            p.min = q == '+' ? 1 : 0;
            p.max = q == '?' ? 1 : kOpen;
            p.prefer = lazy();
        } else if (at('{')) {
            ++_i;
            p.min = p.max = number();
            if (at(',')) {
                ++_i;
                p.max = at('}') ? kOpen : number();
                if (p.max != kOpen && p.max < p.min) _error = true;
                ++_i;
                p.prefer = lazy();
            } else {
                ++_i;
                if (at('?')) ++_i;  // {m}? has no preference either
            }
        }
        if (p.min == 0 && p.max == 0) {
            // The atom is gone, and so are its groups for references.
            for (int g = groupsIn(p); g <= _groups; ++g) _closed[static_cast<size_t>(g)] = nullptr;
        }
    }

    // The first group number inside a piece (one past the last if none).
    int groupsIn(const Piece& p) const
    {
        if (p.kind != Piece::kGroup) return _groups + 1;
        int first = _groups + 1;
        std::function<void(const Piece&)> scan = [&](const Piece& q) {
            if (q.kind != Piece::kGroup) return;
            if (q.group) first = std::min(first, q.group);
            for (const Branch& b : q.content->branches)
                for (const Piece& r : b) scan(r);
        };
        scan(p);
        return first;
    }

    // ---- the tree, as the parser builds it ----

    Node* node(char op, uint8_t flags)
    {
        _nodes.emplace_back();
        _nodes.back().op = op;
        _nodes.back().flags = flags;
        return &_nodes.back();
    }

    Node* build(const Alt& alt)
    {
        Node* first = node('|', kLonger);
        Node* chain = first;
        for (size_t i = 0; i < alt.branches.size(); ++i) {
            if (i) {
                chain->right = node('|', kLonger);
                chain = chain->right;
            }
            chain->left = branch(alt.branches[i], 0);
            chain->flags |= up(chain->flags | chain->left->flags);
            if (chain->flags & ~first->flags)
                for (Node* t = first; t != chain; t = t->right) t->flags |= chain->flags;
        }
        if (alt.branches.size() == 1) return first->left;
        if (!(first->flags & kMessy)) {
            first->op = '=';
            first->left = first->right = nullptr;
            Piece whole;
            whole.kind = Piece::kGroup;
            whole.content = &alt;
            first->content = {whole};
        }
        return first;
    }

    Node* branch(const Branch& b, size_t from)
    {
        Node* top = node('=', 0);
        for (size_t i = from; i < b.size(); ++i) {
            const Piece& p = b[i];
            if (p.kind == Piece::kAnchor) {
                top->content.push_back(p);
                continue;
            }
            if (p.min == 0 && p.max == 0) continue;
            const uint8_t prefer = p.prefer == 1 ? kLonger : p.prefer == 2 ? kShorter : 0;
            Node* atom = nullptr;
            if (p.kind == Piece::kGroup) {
                atom = build(*p.content);
                if (p.group) {
                    Node* g = node('(', atom->flags | kCapture);
                    g->group = p.group;
                    g->left = atom;
                    atom = g;
                }
            } else if (p.kind == Piece::kRef) {
                atom = node('b', kBackref);
                atom->group = p.group;
            }
            const uint8_t f = static_cast<uint8_t>(top->flags | prefer | (atom ? atom->flags : 0));
            const bool capture = p.kind == Piece::kGroup && p.group;
            if (!capture && p.kind != Piece::kRef && !(up(f) & kMessy)) {
                top->flags = f;
                top->content.push_back(p);
                continue;
            }
            // The rest of the branch hangs below this atom.
            Piece once = p;
            once.min = once.max = 1;
            once.prefer = 0;
            if (!atom) {
                atom = node('=', 0);
                atom->content = {once};
            }
            Node* before = node('=', top->flags);
            before->content = top->content;
            top->content.clear();
            Node* t = node('.', merge(prefer, atom->flags));
            t->left = atom;
            Node** slot = &t->left;
            top->op = '.';
            top->left = before;
            top->right = t;
            int m = p.min;
            const int n = p.max;
            if (m == 0) {
                const uint8_t fa = merge(prefer, atom->flags);
                Node* alt = node('|', fa);
                alt->left = atom;
                alt->right = node('|', fa & kPref);
                alt->right->left = node('=', 0);
                *slot = alt;
                slot = &alt->left;
                m = 1;
            }
            if (p.kind == Piece::kRef) {
                atom->min = m;
                atom->max = n;
                atom->flags |= merge(prefer, atom->flags);
            } else if (!(m == 1 && n == 1)) {
                const uint8_t fc = merge(prefer, atom->flags);
                Node* cat = node('.', fc);
                Node* first = node('=', fc & kPref);
                Piece rest = once;
                rest.min = m - 1;
                rest.max = n == kOpen ? kOpen : n - 1;
                first->content = {rest};
                if (atom->flags & kBackref) {
                    first->op = '*';
                    first->min = rest.min;
                    first->max = rest.max;
                    first->body = atom;
                    first->firstGroup = groupsIn(p);
                    first->lastGroup = lastGroupIn(p);
                }
                cat->left = first;
                cat->right = atom;
                *slot = cat;
            }
            t->right = i + 1 < b.size() ? branch(b, i + 1) : node('=', 0);
            t->flags |= merge(t->flags, t->right->flags);
            top->flags |= merge(top->flags, t->flags);
            return top;
        }
        return top;
    }

    int lastGroupIn(const Piece& p) const
    {
        int last = 0;
        std::function<void(const Piece&)> scan = [&](const Piece& q) {
            if (q.kind != Piece::kGroup) return;
            last = std::max(last, q.group);
            for (const Branch& b : q.content->branches)
                for (const Piece& r : b) scan(r);
        };
        scan(p);
        return last;
    }

    // ---- matching a language: every way, with continuations ----

    using Then = std::function<bool(int)>;

    bool atStart(int p) const { return p == 0 || (_line && _s[static_cast<size_t>(p) - 1] == '\n'); }
    bool atEnd(int p) const
    {
        return p == static_cast<int>(_s.size()) || (_line && _s[static_cast<size_t>(p)] == '\n');
    }

    bool one(const Piece& p, int at, const Then& then)
    {
        switch (p.kind) {
        case Piece::kSet: {
            if (at >= static_cast<int>(_s.size())) return false;
            const char c = _s[static_cast<size_t>(at)];
            const bool in = p.set.find(c) != std::string::npos;
            if (p.negated ? (in || (_line && c == '\n')) : !in) return false;
            return then(at + 1);
        }
        case Piece::kAnchor:
            return (p.anchor == '^' ? atStart(at) : atEnd(at)) && then(at);
        case Piece::kGroup:
            return alt(*p.content, at, then);
        case Piece::kRef:
            // Read as any text of the group's language.
            return alt(*_closed[static_cast<size_t>(p.group)], at, then);
        }
        return false;
    }

    // Iterations of a piece from `count` on; an iteration that takes
    // nothing ends the repetition (it could be repeated without end).
    bool repeat(const Piece& p, int count, int at, const Then& then)
    {
        if (count >= p.min && then(at)) return true;
        if (p.max != kOpen && count >= p.max) return false;
        return one(p, at, [&](int next) { return (next != at || count < p.min) && repeat(p, count + 1, next, then); });
    }

    bool sequence(const Branch& b, size_t i, int at, const Then& then)
    {
        if (i == b.size()) return then(at);
        return repeat(b[i], 0, at, [&](int next) { return sequence(b, i + 1, next, then); });
    }

    bool alt(const Alt& a, int at, const Then& then)
    {
        for (const Branch& b : a.branches)
            if (sequence(b, 0, at, then)) return true;
        return false;
    }

    bool language(const Alt& a, int b, int e)
    {
        return alt(a, b, [e](int p) { return p == e; });
    }

    bool leaf(const Branch& content, int b, int e)
    {
        return sequence(content, 0, b, [e](int p) { return p == e; });
    }

    // ---- the exact rules over the tree ----

    using Next = std::function<bool()>;

    bool exact(const Node* t, int b, int e, const Next& next)
    {
        switch (t->op) {
        case '=':
            return leaf(t->content, b, e) && next();
        case '(': {
            const auto saved = _caps[static_cast<size_t>(t->group)];
            if (exact(t->left, b, e, [&] {
                    _caps[static_cast<size_t>(t->group)] = {b, e};
                    if (next()) return true;
                    _caps[static_cast<size_t>(t->group)] = saved;
                    return false;
                }))
                return true;
            return false;
        }
        case '.': {
            const bool shorter = t->left->flags & kShorter;
            for (int k = 0; k <= e - b; ++k) {
                const int mid = shorter ? b + k : e - k;
                if (exact(t->left, b, mid, [&] { return exact(t->right, mid, e, next); })) return true;
            }
            return false;
        }
        case '|':
            for (const Node* c = t; c; c = c->right)
                if (exact(c->left, b, e, next)) return true;
            return false;
        case 'b':
            return reference(t, b, e) && next();
        case '*':
            return iterations(t, 0, b, e) && next();
        }
        return false;
    }

    bool reference(const Node* t, int b, int e)
    {
        const auto g = _caps[static_cast<size_t>(t->group)];
        if (g.first < 0) return false;
        const int len = g.second - g.first;
        int count = 0;
        if (len == 0) {
            if (b != e) return false;
            count = t->min;
        } else {
            int p = b;
            while (p + len <= e && (t->max == kOpen || count < t->max) &&
                   _s.compare(static_cast<size_t>(p), static_cast<size_t>(len), _s, static_cast<size_t>(g.first),
                              static_cast<size_t>(len)) == 0) {
                p += len;
                ++count;
            }
            if (p != e || count < t->min) return false;
        }
        // The group's language must hold here too.
        Piece copies;
        copies.kind = Piece::kGroup;
        copies.content = _closed[static_cast<size_t>(t->group)];
        copies.min = t->min;
        copies.max = t->max;
        return leaf({copies}, b, e);
    }

    // k more iterations of the atom, each with its groups unset, to end at e.
    bool iterations(const Node* t, int count, int b, int e)
    {
        if (count >= t->min && b == e) return true;
        if (t->max != kOpen && count >= t->max) return false;
        for (int q = b; q <= e; ++q) {
            if (q == b && count >= t->min) continue;  // an empty iteration adds nothing
            const auto saved = _caps;
            for (int g = t->firstGroup; g <= t->lastGroup; ++g) _caps[static_cast<size_t>(g)] = {-1, -1};
            const bool holds = exact(t->body, b, q, [] { return true; });
            _caps = saved;
            if (holds && iterations(t, count + 1, q, e)) return true;
        }
        return false;
    }

    std::string _p;
    size_t _i = 0;
    bool _line = false;
    bool _bad = false;    // outside the supported syntax
    bool _error = false;  // a pattern the engine refuses
    bool _refs = false;
    int _groups = 0;
    std::vector<const Alt*> _closed;  // group contents by number, once closed
    std::deque<Alt> _alts;
    std::deque<Node> _nodes;
    const Alt* _root = nullptr;
    Node* _tree = nullptr;
    std::string _s;
    std::vector<std::pair<int, int>> _caps;
};

}  // namespace rxref
