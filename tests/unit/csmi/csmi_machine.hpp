// A simulated machine with one CSMI controller on port 2 for the CSMI tests: a SATA drive on
// phy 0, an STP link on phy 5 of port 7, and phy 31 populated.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "sim/byte_order.hpp"
#include "sim/machine.hpp"
#include "transport/device_context.hpp"

namespace csmi_test {

// Loads the machine; controllerExtra is spliced into the controller's object (", \"faults\": ...").
inline void load(const std::string& controllerExtra = "") {
    const std::string json = std::string(R"({
  "drives": [{"id": "d0", "model": "QSIM CSMI DRIVE", "serial": "QC1", "firmware": "QC010000"}],
  "controllers": [{"port": 2, "driver": {"name": "qsas"}, "phys": [
  {"phy": 0, "portIdentifier": 0, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 1, "sasAddress": "5000000000000b02"}, "drive": "d0"},
  {"phy": 5, "portIdentifier": 7, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 4, "sasAddress": "0000000500000000"}},
  {"phy": 31, "portIdentifier": 9, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 1, "sasAddress": "5000000000001f1f"}, "drive": "d0"}
  ])") + controllerExtra + "}]}";
    std::string error;
    sim::reset_machine();
    ASSERT_TRUE(sim::load_machine(json, ".", error)) << error;
}

// The 64-byte phy entry of the table the controller answers, as raw bytes: a context holds it
// so after a selection.
inline void put_phy_entry(DeviceContext& context, std::uint8_t phyIdentifier,
                          std::uint8_t portIdentifier, const std::uint8_t (&attached)[8]) {
    std::memset(context.phyEntity, 0, sizeof context.phyEntity);
    context.phyEntity[0] = 0x10;
    context.phyEntity[20] = phyIdentifier;
    context.phyEntity[28] = portIdentifier;
    context.phyEntity[36] = 0x10;
    std::memcpy(context.phyEntity + 48, attached, 8);
}

} // namespace csmi_test
