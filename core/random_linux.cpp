// The operating system's random source on Linux: getrandom(2), never a weaker fallback.
#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "qm_core.h"

extern "C" int qm_random_bytes(void* buf, size_t n) {
    if (!buf) return QM_EARG;
    uint8_t* p = static_cast<uint8_t*>(buf);
    size_t got = 0;
    while (got < n) {
        ssize_t r = getrandom(p + got, n - got, 0);
        if (r < 0) {
            if (errno == EINTR) continue;
            std::memset(buf, 0, n);
            return QM_RANDOM_FAILED;
        }
        got += size_t(r);
    }
    return QM_OK;
}
