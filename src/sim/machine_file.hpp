// The machine file: a JSON description of drives, disks, controllers and faults, and the state
// the drives keep across power cycles, written back into it when quenmark-sim ends.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace sim {

// The built-in demo machine: \\.\PhysicalDrive0 with a mode-3 capable SSD, \\.\PhysicalDrive1
// with a disk that takes only mode 0x07.
nlohmann::json demo_machine();

// Reads and loads a machine file; relative file names in it are relative to its folder.
bool load_machine_file(const std::string& path, std::string& error);
// The loaded document with every drive's "state" brought up to date.
nlohmann::json machine_document_with_state();
bool save_machine_file(const std::string& path, std::string& error);

} // namespace sim
