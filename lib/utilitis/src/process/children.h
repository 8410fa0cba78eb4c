// The register of the children that CProcess::Create started, which the
// exit table's handler reaps; shared by the process and exit-table sources.
#pragma once

#include <sys/types.h>

namespace Karu::IMPL {

// The child `pid` is the library's to reap. A child that has ended already
// is reaped at once and its status kept.
void NoteChild(pid_t pid);
// The child was reaped by a wait of the library's own: its slot goes.
void ForgetChild(pid_t pid) noexcept;
// The kept status of a child that the handler reaped; the slot goes with
// `remove`.
bool TakeChildStatus(pid_t pid, int& status, bool remove) noexcept;

}  // namespace Karu::IMPL
