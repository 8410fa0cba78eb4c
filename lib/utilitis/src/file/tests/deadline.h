// A deadline for a test that starts threads or processes, or that could
// block on a file: past it the whole test program ends with a message, so
// a hang (a lock never let go, a child that never ends) fails the test
// instead of stopping the run.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace KaruTest {

class Deadline {
public:
    Deadline(std::chrono::seconds limit, std::string what) : _what(std::move(what))
    {
        _watch = std::thread([this, limit] {
            std::unique_lock<std::mutex> hold(_lock);
            if (!_done.wait_for(hold, limit, [this] { return _finished; })) {
                std::fprintf(stderr, "deadline passed: %s\n", _what.c_str());
                std::fflush(stderr);
                std::_Exit(86);
            }
        });
    }
    ~Deadline()
    {
        {
            std::lock_guard<std::mutex> hold(_lock);
            _finished = true;
        }
        _done.notify_all();
        _watch.join();
    }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

private:
    std::string _what;
    std::mutex _lock;
    std::condition_variable _done;
    bool _finished = false;
    std::thread _watch;
};

}  // namespace KaruTest
