// The out-of-line part of the shared buffer: advice to the system about
// large blocks.
#include <karu/string/buffer.h>

#include <sys/mman.h>

namespace Karu::IMPL {

namespace {
constexpr uintptr_t kLargePage = uintptr_t(2) << 20;
}  // namespace

void AdviseLargeBlock(void* data, size_t bytes) noexcept
{
    if (bytes < kLargeBlockBytes)
        return;
    // Only whole large pages inside the block, so that a large page never
    // straddles memory the block does not own.
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kLargePage - 1) & ~(kLargePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kLargePage - 1);
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

void AdviseSmallPages(void* data, size_t bytes) noexcept
{
    // A large page costs one fault, but its 2 MB must be cleared at once,
    // and on a virtual machine that hands freed memory back to its host a
    // fresh large page is often memory the host must first provide again:
    // the first touch of a 200 MB block took from 0.03 s to 2 s here, where
    // small pages took 0.12 to 0.3 s every time. A block filled once and
    // soon given back (a file's new content on its way to the file) takes
    // the steady cost.
    constexpr uintptr_t kPage = 4096;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kPage - 1) & ~(kPage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kPage - 1);
    if (bytes >= kLargeBlockBytes && end > begin)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_NOHUGEPAGE);
}

}  // namespace Karu::IMPL
