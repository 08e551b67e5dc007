// The library wants to be initialised once, before its other functions, by whoever comes first.
#include "lib/platform/digest/gcrypt_library.h"

#include <gcrypt.h>

#include "lib/platform/assertion.h"

void EnsureGcrypt() {
  static const bool ready = [] {
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) return true;
    if (!gcry_check_version(GCRYPT_VERSION)) return false;
    // Locked memory is a fixed small pool, used up by the first few threads; secrets are wiped
    // instead.
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  LATTIX_ASSERT(ready);
}
