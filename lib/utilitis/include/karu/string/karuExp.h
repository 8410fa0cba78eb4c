// The library's exception family, the composer of its messages, and the
// declared-exception contracts of its functions.
//
// Every failure travels as a class of one tree rooted in karuExp; the class
// says which subsystem failed, `code` what failed, and `message` all a human
// needs. A message is a head line ("Class::Function - what failed\n"),
// indented detail lines of one common label width ("  name  = value\n"), and
// for a failure caught from a lower layer "@ " followed by the whole lower
// message, so that a chain reads from the outermost operation down to the
// root cause.
//
// Contracts. A library function lists the classes it may let out:
//
//     void CDir::ReadFile(...) try { ... } KARU_THROWS(fileExp, dirExp)
//
// Anything else that tries to leave it goes to the unexpected handler
// (SetUnexpectedHandler), which by default terminates. The handler runs while
// the offending exception is still the current one, so it can inspect it with
// a bare rethrow.
#pragma once

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <vector>

#include <karu/string/stringEx.h>

namespace Karu {

class karuExp {
public:
    karuExp(const stringEx& message, int32_t code) : message(message), code(code) {}
    virtual ~karuExp() = default;

    stringEx message;
    int32_t code;
};

#define KARU_DECLARE_EXCEPTION(name, parent)  \
    class name : public parent {              \
    public:                                   \
        using parent::parent;                 \
    }

KARU_DECLARE_EXCEPTION(utilExp, karuExp);
KARU_DECLARE_EXCEPTION(ioExp, utilExp);
KARU_DECLARE_EXCEPTION(dirExp, ioExp);
KARU_DECLARE_EXCEPTION(fileExp, ioExp);
KARU_DECLARE_EXCEPTION(sysfileExp, fileExp);
KARU_DECLARE_EXCEPTION(cfileExp, fileExp);
KARU_DECLARE_EXCEPTION(fmppExp, fileExp);
KARU_DECLARE_EXCEPTION(pipeExp, sysfileExp);
KARU_DECLARE_EXCEPTION(isxfExp, ioExp);
KARU_DECLARE_EXCEPTION(shmemExp, ioExp);
KARU_DECLARE_EXCEPTION(syssrvExp, utilExp);
KARU_DECLARE_EXCEPTION(tconvExp, syssrvExp);
KARU_DECLARE_EXCEPTION(libiconvExp, tconvExp);
KARU_DECLARE_EXCEPTION(libicuExp, tconvExp);
KARU_DECLARE_EXCEPTION(dlllExp, syssrvExp);
KARU_DECLARE_EXCEPTION(threadExp, syssrvExp);
KARU_DECLARE_EXCEPTION(tlsExp, syssrvExp);
KARU_DECLARE_EXCEPTION(timeExp, syssrvExp);
KARU_DECLARE_EXCEPTION(procExp, syssrvExp);
KARU_DECLARE_EXCEPTION(regExp, syssrvExp);
KARU_DECLARE_EXCEPTION(syncExp, utilExp);
KARU_DECLARE_EXCEPTION(mutexExp, syncExp);
KARU_DECLARE_EXCEPTION(eventExp, syncExp);
KARU_DECLARE_EXCEPTION(semExp, syncExp);
KARU_DECLARE_EXCEPTION(auxExp, utilExp);
KARU_DECLARE_EXCEPTION(logExp, auxExp);
KARU_DECLARE_EXCEPTION(csvExp, auxExp);

// ---- errno descriptions -------------------------------------------------------

// One row of a call's errno table: the library's own sentence for an errno.
struct ErrnoText {
    int error;
    const char* text;
};
using ErrnoTable = std::initializer_list<ErrnoText>;

// The table's sentence for `error`, or "unexpect system error: " and the
// system's own description when the call does not expect that errno.
stringEx ErrnoDescription(int error, ErrnoTable table);

// ---- message composition ------------------------------------------------------

// Builds a message: head, aligned detail lines, and an optional wrapped cause.
// Labels are padded to the widest label of the message when Text() runs.
class ExpMessage {
public:
    // `head` is the whole first line, its line feed included where wanted.
    explicit ExpMessage(const stringEx& head) : _head(head) {}

    ExpMessage& Detail(const stringEx& label, const stringEx& value);
    ExpMessage& Detail(const stringEx& label, int64_t value);
    // "error code" and "error desc" lines for a failed system call.
    ExpMessage& Errno(int error, ErrnoTable table);
    // Free text after the detail lines, as it stands.
    ExpMessage& Text(const stringEx& text);
    // "@ " and the whole message of a caught exception; ends the message.
    ExpMessage& Cause(const karuExp& cause);
    ExpMessage& Cause(const stringEx& causeMessage);

    stringEx Str() const;
    operator stringEx() const { return Str(); }

private:
    struct Line {
        stringEx label;  // empty: free text
        stringEx value;
    };
    stringEx _head;
    std::vector<Line> _lines;
    stringEx _cause;
    bool _hasCause = false;
};

// Throws E with the composed message and code; the usual way to raise.
template <class E>
[[noreturn]] void Throw(const ExpMessage& message, int32_t code)
{
    throw E(message.Str(), code);
}

// ---- declared-exception contracts ----------------------------------------------

using unexpected_handler = void (*)();

// Installs the handler for exceptions that break a function's contract and
// returns the previous one. The handler must not return; if it does, the
// process terminates.
unexpected_handler SetUnexpectedHandler(unexpected_handler handler) noexcept;
unexpected_handler GetUnexpectedHandler() noexcept;

namespace IMPL {

[[noreturn]] void CallUnexpected() noexcept;

template <class E>
bool CurrentIs() noexcept
{
    try {
        throw;
    } catch (const E&) {
        return true;
    } catch (...) {
        return false;
    }
}

// Called from a catch (...) handler: lets the current exception go on if it
// is one of Allowed, hands it to the unexpected handler otherwise.
template <class... Allowed>
[[noreturn]] void EnforceContract()
{
    if ((CurrentIs<Allowed>() || ... || false))
        throw;
    CallUnexpected();
}

}  // namespace IMPL

// The handler clause of a function-try-block: `f() try { ... } KARU_THROWS(a, b)`.
// KARU_THROWS() lets nothing out.
#define KARU_THROWS(...) \
    catch (...) { ::Karu::IMPL::EnforceContract<__VA_ARGS__>(); }

// A destructor that fails raises its exception only when no other exception
// is already passing through the stack.
inline bool MayThrowFromDestructor() noexcept
{
    return std::uncaught_exceptions() == 0;
}

}  // namespace Karu
