// A simulated machine with one CSMI controller on port 2 for the CSMI tests: a SATA drive on
// phy 0, a SAS target on phy 1, an expander on phy 3, the same SATA drive on the wide port of
// phys 4 and 5, and phy 31 populated.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sim/byte_order.hpp"
#include "sim/machine.hpp"
#include "transport/device_context.hpp"

namespace csmi_test {

inline const char* const kControllerPhys = R"([
  {"phy": 0, "portIdentifier": 0, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 1, "sasAddress": "5000000000000b02"}, "drive": "d0"},
  {"phy": 1, "portIdentifier": 1, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 8, "sasAddress": "5000000000000c03"}},
  {"phy": 3, "portIdentifier": 3, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"deviceType": 32, "targetProtocol": 2, "sasAddress": "5000000000000e05"}},
  {"phy": 4, "portIdentifier": 7, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 4, "sasAddress": "0000000500000000"}, "drive": "d1"},
  {"phy": 5, "portIdentifier": 7, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 4, "sasAddress": "0000000500000000"}, "drive": "d1"},
  {"phy": 31, "portIdentifier": 9, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
   "attached": {"targetProtocol": 1, "sasAddress": "5000000000001f1f"}, "drive": "d0"}
])";

// Loads the machine; controllerExtra is spliced into the controller's object (", \"faults\": ...").
inline void load(const std::string& controllerExtra = "") {
    const std::string json = std::string(R"({
  "drives": [{"id": "d0", "model": "QSIM CSMI DRIVE", "serial": "QC1", "firmware": "QC010000"},
             {"id": "d1", "model": "QSIM WIDE DRIVE", "serial": "QW1", "firmware": "QW010000"}],
  "controllers": [{"port": 2, "driver": {"name": "qsas"}, "phys": )") +
                             kControllerPhys + controllerExtra + "}]}";
    std::string error;
    sim::reset_machine();
    ASSERT_TRUE(sim::load_machine(json, ".", error)) << error;
}

inline sim::CsmiController& controller() {
    return sim::machine().controllers.at(0);
}

inline std::size_t count_calls(const char* function) {
    std::size_t count = 0;
    for (const sim::CallRecord& record : sim::machine().log) {
        count += record.function == function ? 1 : 0;
    }
    return count;
}

inline const sim::CallRecord& last_call(const char* function) {
    const auto& log = sim::machine().log;
    for (auto it = log.rbegin(); it != log.rend(); ++it) {
        if (it->function == function) {
            return *it;
        }
    }
    static const sim::CallRecord none;
    return none;
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
