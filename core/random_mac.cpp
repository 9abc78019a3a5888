// The operating system's random source on macOS.
#include <Security/SecRandom.h>

#include <cstring>

#include "qm_core.h"

extern "C" int qm_random_bytes(void* buf, size_t n) {
    if (!buf) return QM_EARG;
    if (SecRandomCopyBytes(kSecRandomDefault, n, buf) != errSecSuccess) {
        std::memset(buf, 0, n);
        return QM_RANDOM_FAILED;
    }
    return QM_OK;
}
