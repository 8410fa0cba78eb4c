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

}  // namespace Karu::IMPL
