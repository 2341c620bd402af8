// The ATA drive model: what one drive answers to one command, before any injected fault.
#pragma once

#include <cstdint>
#include <string>

#include "sim/ata_command.hpp"
#include "sim/drive.hpp"

namespace sim {

// data holds length bytes: the drive writes up to length bytes of a data-in phase and reads
// the length bytes of a data-out phase. note receives what the drive made of the command.
AtaOutcome execute_on_drive(Drive& drive, const AtaCommand& command, DataPhase phase,
                            std::uint8_t* data, std::uint32_t length, std::string& note);

} // namespace sim
