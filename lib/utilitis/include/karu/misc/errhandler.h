// The fatal-error handler installs itself before main in every program that
// links the library; there is nothing to call. Here are only the repeat that
// a freshly forked child runs, and the hold that keeps the handler's object
// in a program.
#pragma once

// Defined in the handler's object. A static library hands a program only the
// objects it refers to, and nothing calls into the handler; so the objects
// every program of the library uses (the exception family's messages, the
// log) refer to this, and the handler comes along however the program is
// linked.
extern "C" int karu_error_handler_anchor;

#define KARU_KEEP_ERROR_HANDLER()                                                                      \
    namespace {                                                                                        \
    [[gnu::used]] int* const karu_keep_error_handler = &karu_error_handler_anchor;                     \
    }

namespace Karu::IMPL {
// Installs the handlers again, without the once-only guard.
void ReinstallErrorHandlers() noexcept;
}  // namespace Karu::IMPL
