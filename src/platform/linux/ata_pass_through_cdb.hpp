// The SAT command that carries an ATA_PASS_THROUGH_DIRECT request to the drive: ATA
// PASS-THROUGH(16) with CK_COND set, so that the translator returns the drive's output
// registers in the sense data whether the command succeeded or not.
#pragma once

#include <cstdint>

#include "platform/win32.hpp"

namespace linux_backend {

enum class DataPhase { None, In, Out };

struct AtaPassThroughCdb {
    std::uint8_t bytes[16];
    DataPhase phase;
};

// False, with nothing built, when the request cannot be carried as it stands: a wrong Length,
// flags this backend does not carry (DMA, no-multiple, unknown bits), both directions at once,
// a data flag without length or buffer, or a length without a data flag.
bool build_ata_pass_through_cdb(const win32::ATA_PASS_THROUGH_DIRECT& request,
                                AtaPassThroughCdb& cdb);

} // namespace linux_backend
