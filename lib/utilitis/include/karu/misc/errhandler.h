// The fatal-error handler installs itself before main in every program that
// links the library; there is nothing to call. This is only the repeat that
// a freshly forked child runs.
#pragma once

namespace Karu::IMPL {
// Installs the handlers again, without the once-only guard.
void ReinstallErrorHandlers() noexcept;
}  // namespace Karu::IMPL
