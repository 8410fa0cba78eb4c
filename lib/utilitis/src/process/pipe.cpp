// CPipe; see pipe.h.
#include <karu/process/pipe.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace Karu {

void CPipe::CreatePair(CPipe& reader, CPipe& writer)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        Throw<pipeExp>(ExpMessage("CPipe::CreatePair - failed create pipe pair\n")
                           .Errno(errno, {{EMFILE, "the maximum file descriptors are currently open in the calling process"},
                                          {ENFILE, "the maximum allowable number of files is currently open in the system"}}),
                       1);
    reader.Attach(fds[0], stringEx("unnamed pipe for receiving"));
    writer.Attach(fds[1], stringEx("unnamed pipe for sending"));
}

void CPipe::Duplicate(CPipe& target)
{
    int fd;
    do {
        fd = fcntl(Descriptor(), F_DUPFD_CLOEXEC, 0);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        Throw<pipeExp>(ExpMessage("CPipe::Duplicate - failed duplicate file descriptor\n")
                           .Errno(errno, {{EBADF, "invalid file descriptor"},
                                          {EMFILE, "the number of file descriptors in use by this process would exceed"}}),
                       36);
    target.Attach(fd, Path());
}

uint64_t CPipe::GetTotalBytesCouldBeReadNow()
{
    int available = 0;
    if (ioctl(Descriptor(), FIONREAD, &available) != 0)
        Throw<pipeExp>(ExpMessage("CPipe::GetTotalBytesCouldBeReadNow - failed execute ioctl command\n")
                           .Errno(errno, {{EBADF, "invalid file descriptor"}}),
                       35);
    return uint64_t(available);
}

bool CPipe::__Wait(short events, uint32_t milliseconds)
{
    pollfd entry{Descriptor(), events, 0};
    const int timeout = milliseconds == kWaitForever ? -1 : int(milliseconds > INT_MAX ? INT_MAX : milliseconds);
    int result;
    do {
        // A restart after a signal waits the whole time again; close enough
        // for a wait that exists to avoid spinning.
        result = poll(&entry, 1, timeout);
    } while (result < 0 && errno == EINTR);
    if (result < 0)
        Throw<pipeExp>(ExpMessage("CPipe::Wait - failed wait for the pipe\n")
                           .Errno(errno, {{EAGAIN, "the allocation of internal data structures failed"},
                                          {ENOMEM, "the allocation of internal data structures failed"},
                                          {EINVAL, "nfds is greater than OPEN_MAX, or at least one fd is not qualified"}}),
                       38);
    return result > 0;
}

bool CPipe::WaitReadable(uint32_t milliseconds)
{
    return __Wait(POLLIN, milliseconds);
}

bool CPipe::WaitWritable(uint32_t milliseconds)
{
    return __Wait(POLLOUT, milliseconds);
}

uint64_t CPipe::Peek(void*, uint64_t)
{
    Throw<pipeExp>(ExpMessage("CPipe::Peek - pipe peek is not support on this platform"), 39);
}

}  // namespace Karu
