// The listings of encodings and compatible conversions; they print their
// tables once the conversion layer is wired in.
#include "usage.h"

namespace Karu {

void ListEncodings() {}
void ListCompatible() {}

}  // namespace Karu
