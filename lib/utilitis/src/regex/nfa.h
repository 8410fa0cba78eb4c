// The automaton graph the parser writes into, its optimiser and its compact
// form for the matchers.
//
// The parser extends a mutable graph of states and arcs of several kinds:
// plain arcs on colours, empty arcs, string and line constraints, look-ahead
// and look-behind colour constraints, and references to look-ahead
// sub-patterns. optimise() (optimise.cpp) removes the empty arcs it can
// without the graph growing past a small factor, pulls start constraints back
// to the entry and pushes end constraints forward to the exit, where they
// become plain arcs on pseudo colours that stand for the string's ends; then
// compact() packs the graph into two arrays. Empty arcs that stay are followed
// by the matcher when it builds a state set. The subtle parts are the
// constraint moves (a constraint that meets an arc it contradicts deletes the
// arc, which is how `a^b` becomes impossible), loops of arcs that consume
// nothing (which a constraint could travel round for ever), and the search
// form, whose entry must be split from states reachable after progress so that
// the matcher can tell where a match could still begin.
//
// Every operation on the graph costs time independent of its size: arcs are
// found by an index on (type, colour, from, to), so that adding an arc does
// not search the arcs a state already has.
#pragma once

#include "colourmap.h"

#include <cstdio>
#include <map>
#include <memory>
#include <vector>

namespace Karu::IMPL::rx {

struct Arc {
    int type = 0;
    colour co = 0;
    State* from = nullptr;
    State* to = nullptr;
    Arc* outNext = nullptr;
    Arc* outPrev = nullptr;
    Arc* inNext = nullptr;
    Arc* inPrev = nullptr;
    Arc* colNext = nullptr;
    Arc* colPrev = nullptr;
    Arc* hashNext = nullptr;  // chain of the arc index
};

struct State {
    int number = 0;   // -1 once freed
    char role = 0;    // '@' entry, '>' exit
    int inCount = 0;
    Arc* ins = nullptr;
    int outCount = 0;
    Arc* outs = nullptr;
    State* mark = nullptr;  // scratch for graph walks
    int walk = 0;           // scratch for graph walks
    int guardBehind = 0;    // the condition a copy made by the optimiser holds (0: none)
    int guardAhead = 0;
    State* next = nullptr;
    State* prev = nullptr;
};

// The matcher's form: per state a row of (colour, target), first a header
// whose colour is 1 for a no-progress state, last a terminator of colour -1.
// An empty arc that optimise() kept has colour kEmptyArc: the matcher adds its
// target to every state set that holds its source.
constexpr colour kEmptyArc = -2;
struct CompactArc {
    colour co;
    int32_t to;
};

struct CompactNfa {
    int stateCount = 0;
    int colourCount = 0;
    int flags = 0;  // kHasLookahead, kHasEmpty
    int entry = 0;
    int exit = 0;
    colour startColours[2] = {0, 0};
    colour endColours[2] = {0, 0};
    int cacheSlot = -1;  // index of its matching cache among the pattern's automata
    std::vector<uint32_t> rows;  // index of each state's header in arcs
    std::vector<CompactArc> arcs;
    bool empty() const noexcept { return rows.empty(); }
};
constexpr int kHasLookahead = 1;
constexpr int kHasEmpty = 2;

// What each stage of compiling costs, for the benchmark that shows it. The
// compiler adds to the record a thread points at, when it points at one.
enum CompilePass : int {
    kPassParse,        // lexing and parsing, with the colour map
    kPassCopy,         // copying a node's part of the graph into its own
    kPassCleanup,      // dropping states off every path
    kPassFold,         // merging states that empty arcs make equivalent
    kPassLoops,        // unrolling loops that consume nothing
    kPassEmpties,      // removing empty arcs
    kPassConstraints,  // pulling and pushing constraints to the ends
    kPassCompact,      // search form and the matcher's arrays
    kPassCount
};
struct PassTimes {
    double seconds[kPassCount] = {};
    long automata = 0;  // automata optimised
};
extern thread_local PassTimes* passTimes;

// Adds the time from its making to its end to one pass, when asked to.
class PassTimer {
public:
    explicit PassTimer(CompilePass pass) noexcept;
    ~PassTimer();
    PassTimer(const PassTimer&) = delete;
    PassTimer& operator=(const PassTimer&) = delete;

private:
    CompilePass _pass;
    long long _start = 0;
};

class Nfa {
public:
    Nfa(ColourMap& map, ErrorSink& sink, Nfa* parent);
    ~Nfa();
    Nfa(const Nfa&) = delete;
    Nfa& operator=(const Nfa&) = delete;
    // Empties a copy's graph for another, keeping its memory.
    void reset();

    State* entry = nullptr;
    State* bodyStart = nullptr;
    State* bodyEnd = nullptr;
    State* exit = nullptr;
    colour startColours[2] = {kNoColour, kNoColour};
    colour endColours[2] = {kNoColour, kNoColour};

    bool failed() const noexcept { return _sink.failed(); }
    void fail(int e) noexcept { _sink.set(e); }
    ColourMap& map() noexcept { return _map; }
    bool isMain() const noexcept { return _parent == nullptr; }

    State* stateCreate();
    void stateRelease(State* s);  // no arcs left
    void stateDrop(State* s);     // frees its arcs first
    void arcAdd(int type, colour co, State* from, State* to);
    void arcCopy(const Arc* a, State* from, State* to) { arcAdd(a->type, a->co, from, to); }
    void arcRemove(Arc* a);
    // Gives an arc another colour; it goes if the graph has that arc already.
    void recolour(Arc* a, colour co);
    Arc* findArc(State* s, int type, colour co) const noexcept;

    void moveInArcs(State* oldS, State* newS);
    void moveOutArcs(State* oldS, State* newS);
    void copyInArcs(State* oldS, State* newS);
    void copyOutArcs(State* oldS, State* newS);
    void cloneOuts(State* old, State* from, State* to, int type);

    int stateCount() const noexcept { return _stateCount; }
    long arcCount() const noexcept { return _liveArcs; }

    void deleteBetween(State* left, State* right);
    // Copies the graph between start and stop of `src` between from and to
    // of this automaton (src may be this one).
    void copyBetween(Nfa& src, State* start, State* stop, State* from, State* to);
    void repeatBetween(State* left, State* right, int m, int n);

    void assignPseudoColours();
    long optimise(FILE* trace);
    void makeSearch();
    void compact(CompactNfa& out);

    void dump(FILE* out) const;

private:
    // optimise.cpp
    void cleanup();
    void foldEmpties();
    void mergeCycles();
    void breakZeroWidthLoops();
    void unrollLoop(const std::vector<State*>& loop);
    void removeEmpties();
    void resolveConstraints();
    std::vector<State*> zeroWidthOrder();
    State* guard(State* u, int k, bool before, std::map<std::pair<State*, int>, State*>& made);
    long analyse();
    std::vector<std::vector<State*>> zeroWidthComponents(bool emptyOnly);
    bool hasConditions() const;

    void begin();
    Arc* takeArc();
    void deleteWalk(State* s);
    void repeatCopies(State* left, State* right, int m, int n);
    Arc*& bucket(int type, colour co, const State* from, const State* to) noexcept;
    void indexInsert(Arc* a);
    void indexErase(Arc* a) noexcept;
    void indexGrow();

    ColourMap& _map;
    ErrorSink& _sink;
    Nfa* _parent;
    State* _head = nullptr;
    State* _tail = nullptr;
    int _stateCount = 0;
    int _liveStates = 0;
    long _arcCount = 0;   // arcs ever made (the pool's size)
    long _liveArcs = 0;
    std::vector<Arc*> _index;  // buckets of the arc index, a power of two
    // Scratch of the passes, kept with the graph: a copy for a tree node is
    // made for every node, small ones by the thousand.
    struct Frame {
        State* s;
        Arc* next;
    };
    std::vector<State*> _work;
    std::vector<std::pair<State*, Arc*>> _walkStack;
    std::vector<int> _tarjanIndex;
    std::vector<int> _tarjanLow;
    std::vector<char> _tarjanOnStack;
    std::vector<State*> _tarjanStack;
    std::vector<Frame> _tarjanFrames;
    std::vector<State*> _copySeen;
    std::vector<State*> _copyWork;
    State* _spareStates = nullptr;
    Arc* _spareArcs = nullptr;
    std::vector<std::unique_ptr<State[]>> _stateBlocks;
    size_t _stateBlock = 0;  // the block states are taken from
    size_t _stateBlockUsed = 0;
    std::vector<std::unique_ptr<Arc[]>> _arcBatches;
    size_t _arcBatch = 0;
    size_t _arcBatchUsed = 0;
};

}  // namespace Karu::IMPL::rx
