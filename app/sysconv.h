// Wide text to and from the bytes of the system's encoding, for names and
// values that meet the environment. Never fails: what cannot be converted
// becomes "?".
#pragma once

#include <karu/string/stringEx.h>

namespace Karu {

stringEx SysNarrow(const wstringEx& text);
wstringEx SysWiden(const stringEx& bytes);

}  // namespace Karu
