// The library ends a program that faults with its own fatal record and status
// 255. Under the fuzzer that record would come without the input that caused
// it, so every target gives the fatal signals, terminate and the allocation
// handler back to their defaults before the fuzzer sets up its own handlers,
// which keep the input as a crash file.
#include <csignal>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <new>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    for (int fault : {SIGILL, SIGTRAP, SIGFPE, SIGBUS, SIGSEGV, SIGSYS, SIGABRT})
        std::signal(fault, SIG_DFL);
    std::set_terminate([] { std::abort(); });
    std::set_new_handler(nullptr);
    return 0;
}
