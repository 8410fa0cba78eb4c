// CPipe: one end of an anonymous pipe, read and written like a CSysFile.
//
// SIGPIPE is ignored in every program of the library, so a write to a pipe
// whose reader has gone raises "error writing pipe, pipe has been broken"
// instead of ending the process.
#pragma once

#include <cstdint>

#include <karu/file/sysfile.h>

namespace Karu {

class CPipe : public CSysFile {
public:
    CPipe() noexcept = default;

    // The two ends of a fresh pipe, both close-on-exec.
    static void CreatePair(CPipe& reader, CPipe& writer);

    // Another descriptor for the same end.
    void Duplicate(CPipe& target);
    // Bytes that a read would return now without waiting.
    uint64_t GetTotalBytesCouldBeReadNow();
    // Waits until the end can be read (data or end of file) or written;
    // false at expiry. kWaitForever never expires.
    bool WaitReadable(uint32_t milliseconds);
    bool WaitWritable(uint32_t milliseconds);
    // Not available for pipes here: always raises.
    uint64_t Peek(void* buffer, uint64_t count);

    static constexpr uint32_t kWaitForever = 0xFFFFFFFF;

private:
    bool __Wait(short events, uint32_t milliseconds);
};

}  // namespace Karu
