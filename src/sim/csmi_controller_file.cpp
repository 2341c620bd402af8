// A controller's description in the machine file:
//
//   {"port": 2,
//    "csmi": true, "noCsmiError": "ERROR_INVALID_FUNCTION",
//    "driver": {"name": "qsas", "description": "QSIM SAS HBA", "version": [2, 1, 0, 7],
//               "csmiVersion": [0, 82]},
//    "config": {"boardId": "0x10001000", "controllerFlags": 1, "serialNumber": "QC01"},
//    "numberOfPhys": 8,
//    "phys": [{"phy": 0, "portIdentifier": 0, "negotiatedLinkRate": 10, ...,
//              "identify": {"deviceType": 16, "initiatorProtocol": 15, "sasAddress": "..."},
//              "attached": {"targetProtocol": 1, "sasAddress": "5000000000000b02"},
//              "drive": "ssd0"}],
//    "faults": [{"code": 25, "nth": 2, "returnCode": 3, "execute": true},
//               {"code": 20, "error": "ERROR_IO_DEVICE"}]}
//
// Numbers are JSON integers or texts ("0x1F"). A link end that is described has deviceType 16
// (an end device) unless it says otherwise; Identify.phyIdentifier defaults to the phy number.
// numberOfPhys defaults to the highest phy described plus one. Driver names longer than 80
// bytes fill all 81 bytes of their field with no NUL.
#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "sim/call_log.hpp"
#include "sim/csmi_controller.hpp"
#include "sim/json_fields.hpp"
#include "sim/machine.hpp"

namespace sim {

namespace {

using nlohmann::json;

constexpr std::uint8_t kEndDevice = 0x10;

// A negative value and one that is not a number are refused in the same words.
constexpr NumberRefusal kRefusal = NumberRefusal::Joined;

// A Windows error by name ("ERROR_IO_DEVICE") or number.
bool read_error(const json& object, const char* key, const std::string& where, win32::DWORD& out,
                std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    const json& value = object[key];
    if (value.is_string() && error_from_name(value.get<std::string>(), out)) {
        return true;
    }
    std::uint64_t number = 0;
    if (!read_number(value, field_path(where, key), 0xFFFFFFFFu, number, error, kRefusal)) {
        return false;
    }
    out = static_cast<win32::DWORD>(number);
    return true;
}

// [major, minor, ...]: up to count 16-bit numbers.
bool read_revisions(const json& object, const char* key, const std::string& where,
                    std::uint16_t* const* out, std::size_t count, std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    const json& value = object[key];
    if (!value.is_array() || value.size() > count) {
        return fail(error, field_path(where, key),
                    "must be an array of at most " + std::to_string(count) + " numbers");
    }
    std::vector<std::uint64_t> numbers;
    if (!read_numbers(value, field_path(where, key), 0xFFFF, numbers, error, kRefusal)) {
        return false;
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        *out[i] = static_cast<std::uint16_t>(numbers[i]);
    }
    return true;
}

bool read_sas_address(const json& object, const std::string& where,
                      std::array<std::uint8_t, 8>& out, std::string& error) {
    if (!object.contains("sasAddress")) {
        return true;
    }
    const json& value = object["sasAddress"];
    const std::string text = value.is_string() ? value.get<std::string>() : std::string();
    if (text.size() != 16 ||
        text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return fail(error, field_path(where, "sasAddress"),
                    "must be a text of 16 hexadecimal digits");
    }
    for (std::size_t i = 0; i < 8; ++i) {
        out[i] = static_cast<std::uint8_t>(std::stoul(text.substr(2 * i, 2), nullptr, 16));
    }
    return true;
}

bool read_link_end(const json& object, const std::string& where, CsmiLinkEnd& end,
                   std::string& error) {
    if (!check_keys(object, where,
                    {"deviceType", "restricted", "initiatorProtocol", "targetProtocol",
                     "sasAddress", "phyIdentifier", "signalClass"},
                    error)) {
        return false;
    }
    end.deviceType = kEndDevice;
    return read_field(object, "deviceType", where, end.deviceType, error, kRefusal) &&
           read_field(object, "restricted", where, end.restricted, error, kRefusal) &&
           read_field(object, "initiatorProtocol", where, end.initiatorProtocol, error, kRefusal) &&
           read_field(object, "targetProtocol", where, end.targetProtocol, error, kRefusal) &&
           read_sas_address(object, where, end.sasAddress, error) &&
           read_field(object, "phyIdentifier", where, end.phyIdentifier, error, kRefusal) &&
           read_field(object, "signalClass", where, end.signalClass, error, kRefusal);
}

bool read_phy(const json& object, const std::string& where, CsmiController& controller,
              std::size_t& index, std::string& error) {
    if (!check_keys(object, where,
                    {"phy", "portIdentifier", "negotiatedLinkRate", "minimumLinkRate",
                     "maximumLinkRate", "phyChangeCount", "autoDiscover", "phyFeatures", "identify",
                     "attached", "drive"},
                    error)) {
        return false;
    }
    if (!object.contains("phy")) {
        return fail(error, where, "needs its phy number");
    }
    std::uint64_t number = 0;
    if (!read_number(object["phy"], field_path(where, "phy"), controller.phys.size() - 1, number,
                     error, kRefusal)) {
        return false;
    }
    index = static_cast<std::size_t>(number);
    CsmiPhy phy;
    phy.identify.phyIdentifier = static_cast<std::uint8_t>(index);
    if (object.contains("identify")) {
        if (!read_link_end(object["identify"], field_path(where, "identify"), phy.identify,
                           error)) {
            return false;
        }
        if (!object["identify"].contains("phyIdentifier")) {
            phy.identify.phyIdentifier = static_cast<std::uint8_t>(index);
        }
    }
    if (object.contains("attached") &&
        !read_link_end(object["attached"], field_path(where, "attached"), phy.attached, error)) {
        return false;
    }
    if (!read_field(object, "portIdentifier", where, phy.portIdentifier, error, kRefusal) ||
        !read_field(object, "negotiatedLinkRate", where, phy.negotiatedLinkRate, error, kRefusal) ||
        !read_field(object, "minimumLinkRate", where, phy.minimumLinkRate, error, kRefusal) ||
        !read_field(object, "maximumLinkRate", where, phy.maximumLinkRate, error, kRefusal) ||
        !read_field(object, "phyChangeCount", where, phy.phyChangeCount, error, kRefusal) ||
        !read_field(object, "autoDiscover", where, phy.autoDiscover, error, kRefusal) ||
        !read_field(object, "phyFeatures", where, phy.phyFeatures, error, kRefusal) ||
        !read_text(object, "drive", where, phy.driveId, error)) {
        return false;
    }
    if (!phy.driveId.empty() && find_drive(machine(), phy.driveId) == nullptr) {
        return fail(error, field_path(where, "drive"), "no drive with id \"" + phy.driveId + "\"");
    }
    controller.phys[index] = phy;
    return true;
}

bool read_fault(const json& object, const std::string& where, CsmiFault& fault,
                std::string& error) {
    if (!check_keys(object, where, {"code", "nth", "onward", "error", "returnCode", "execute"},
                    error)) {
        return false;
    }
    if (!read_field(object, "code", where, fault.controlCode, error, kRefusal) ||
        !read_field(object, "nth", where, fault.nth, error, kRefusal) ||
        !read_bool(object, "onward", where, fault.onward, error) ||
        !read_error(object, "error", where, fault.error, error) ||
        !read_field(object, "returnCode", where, fault.returnCode, error, kRefusal) ||
        !read_bool(object, "execute", where, fault.execute, error)) {
        return false;
    }
    if (fault.error == 0 && fault.returnCode == 0) {
        return fail(error, where, "needs an error or a returnCode that is not 0");
    }
    return true;
}

} // namespace

bool csmi_controller_from_json(const json& description, CsmiController& controller,
                               std::string& error) {
    controller = CsmiController{};
    if (!check_keys(description, "",
                    {"port", "csmi", "noCsmiError", "statusFis", "driver", "config", "numberOfPhys",
                     "phys", "faults"},
                    error)) {
        return false;
    }
    if (!description.contains("port")) {
        return fail(error, "", "a controller needs a port number");
    }
    std::uint64_t port = 0;
    if (!read_number(description["port"], "port", 9999, port, error, kRefusal)) {
        return false;
    }
    controller.port = static_cast<int>(port);
    if (!read_bool(description, "csmi", "", controller.csmi, error) ||
        !read_bool(description, "statusFis", "", controller.statusFis, error) ||
        !read_error(description, "noCsmiError", "", controller.noCsmiError, error)) {
        return false;
    }

    if (description.contains("driver")) {
        const json& driver = description["driver"];
        std::uint16_t* const version[] = {&controller.majorRevision, &controller.minorRevision,
                                          &controller.buildRevision, &controller.releaseRevision};
        std::uint16_t* const csmiVersion[] = {&controller.csmiMajorRevision,
                                              &controller.csmiMinorRevision};
        if (!check_keys(driver, "driver", {"name", "description", "version", "csmiVersion"},
                        error) ||
            !read_text(driver, "name", "driver", controller.driverName, error) ||
            !read_text(driver, "description", "driver", controller.driverDescription, error) ||
            !read_revisions(driver, "version", "driver", version, 4, error) ||
            !read_revisions(driver, "csmiVersion", "driver", csmiVersion, 2, error)) {
            return false;
        }
    }
    if (description.contains("config")) {
        const json& config = description["config"];
        if (!check_keys(config, "config", {"boardId", "controllerFlags", "serialNumber"}, error) ||
            !read_field(config, "boardId", "config", controller.boardId, error, kRefusal) ||
            !read_field(config, "controllerFlags", "config", controller.controllerFlags, error,
                        kRefusal) ||
            !read_text(config, "serialNumber", "config", controller.serialNumber, error)) {
            return false;
        }
    }

    std::size_t highest = 0;
    bool anyPhy = false;
    if (description.contains("phys")) {
        const json& phys = description["phys"];
        if (!phys.is_array()) {
            return fail(error, "phys", "must be an array");
        }
        std::set<std::size_t> seen;
        for (std::size_t i = 0; i < phys.size(); ++i) {
            const std::string where = "phys[" + std::to_string(i) + "]";
            std::size_t index = 0;
            if (!read_phy(phys[i], where, controller, index, error)) {
                return false;
            }
            if (!seen.insert(index).second) {
                return fail(error, where, "phy " + std::to_string(index) + " is described twice");
            }
            highest = std::max(highest, index);
            anyPhy = true;
        }
    }
    controller.numberOfPhys = static_cast<std::uint8_t>(anyPhy ? highest + 1 : 0);
    if (!read_field(description, "numberOfPhys", "", controller.numberOfPhys, error, kRefusal)) {
        return false;
    }

    if (description.contains("faults")) {
        const json& faults = description["faults"];
        if (!faults.is_array()) {
            return fail(error, "faults", "must be an array");
        }
        for (std::size_t i = 0; i < faults.size(); ++i) {
            CsmiFault fault;
            if (!read_fault(faults[i], "faults[" + std::to_string(i) + "]", fault, error)) {
                return false;
            }
            controller.faults.push_back(fault);
        }
    }
    return true;
}

} // namespace sim
