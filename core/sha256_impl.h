// Internal to the core: the SHA-256 block functions and the hardware path's discovery.
#pragma once
#include <cstddef>
#include <cstdint>

namespace qm::sha256_detail {

using BlockFn = void (*)(uint32_t state[8], const uint8_t* blocks, size_t nblocks);

extern const uint32_t K[64];
void blocks_portable(uint32_t state[8], const uint8_t* blocks, size_t nblocks);

// The processor's SHA-256 instructions when this build has them and the CPU reports
// them, else null. Each architecture supplies its own file.
BlockFn hardware_blocks();
const char* hardware_name();

}  // namespace qm::sha256_detail
