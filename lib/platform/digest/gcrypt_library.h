// libgcrypt's own start-up.
#pragma once

// Must have been called before any other use of libgcrypt in the process; again costs nothing.
// Callable from any thread.
void EnsureGcrypt();
