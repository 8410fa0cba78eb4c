// Shortcuts for common encodings; see fastcodec.h.
#include "fastcodec.h"

namespace Karu::IMPL {

std::unique_ptr<CFastCodec> MakeFastCodec(const stringEx&, const ProbeDecode&, const ProbeEncode&)
{
    return nullptr;
}

}  // namespace Karu::IMPL
