// What the tool prints about itself: the usage text, the table of known
// encodings and the groups of conversions that lose nothing.
#pragma once

namespace Karu {

// The whole usage text on standard output, flushed.
void ShowUsage();
// One row per known encoding: name, code page, description.
void ListEncodings();
// The conversion groups, from-column beside to-column.
void ListCompatible();

}  // namespace Karu
