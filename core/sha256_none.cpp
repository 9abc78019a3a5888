// Architectures without a hardware SHA-256 path use the portable code only.
#include "sha256_impl.h"

namespace qm::sha256_detail {
BlockFn hardware_blocks() { return nullptr; }
const char* hardware_name() { return "none"; }
}  // namespace qm::sha256_detail
