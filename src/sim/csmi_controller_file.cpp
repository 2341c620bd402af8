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

#include "sim/call_log.hpp"
#include "sim/csmi_controller.hpp"
#include "sim/machine.hpp"

namespace sim {

namespace {

using nlohmann::json;

constexpr std::uint8_t kEndDevice = 0x10;

bool fail(std::string& error, const std::string& where, const std::string& what) {
    error = where.empty() ? what : where + ": " + what;
    return false;
}

std::string at(const std::string& where, const std::string& key) {
    return where.empty() ? key : where + "." + key;
}

bool check_keys(const json& object, const std::string& where, const std::set<std::string>& allowed,
                std::string& error) {
    if (!object.is_object()) {
        return fail(error, where, "must be an object");
    }
    for (const auto& item : object.items()) {
        if (item.key() != "comment" && allowed.count(item.key()) == 0) {
            return fail(error, where, "unknown key \"" + item.key() + "\"");
        }
    }
    return true;
}

bool to_number(const json& value, const std::string& where, std::uint64_t maximum,
               std::uint64_t& out, std::string& error) {
    if (value.is_number_unsigned()) {
        out = value.get<std::uint64_t>();
    } else if (value.is_string()) {
        const std::string text = value.get<std::string>();
        const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
        const std::string digits = hex ? text.substr(2) : text;
        if (digits.empty() || digits.size() > 16 ||
            digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") !=
                std::string::npos) {
            return fail(error, where, "\"" + text + "\" is not a number");
        }
        out = std::stoull(digits, nullptr, hex ? 16 : 10);
    } else {
        return fail(error, where, "must be a number that is not negative");
    }
    if (out > maximum) {
        return fail(error, where, std::to_string(out) + " is above " + std::to_string(maximum));
    }
    return true;
}

template <typename T>
bool read_number(const json& object, const char* key, const std::string& where, T& out,
                 std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    std::uint64_t value = 0;
    if (!to_number(object[key], at(where, key), static_cast<T>(~T{0}), value, error)) {
        return false;
    }
    out = static_cast<T>(value);
    return true;
}

bool read_bool(const json& object, const char* key, const std::string& where, bool& out,
               std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    if (!object[key].is_boolean()) {
        return fail(error, at(where, key), "must be true or false");
    }
    out = object[key].get<bool>();
    return true;
}

bool read_text(const json& object, const char* key, const std::string& where, std::string& out,
               std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    if (!object[key].is_string()) {
        return fail(error, at(where, key), "must be a text");
    }
    out = object[key].get<std::string>();
    return true;
}

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
    if (!to_number(value, at(where, key), 0xFFFFFFFFu, number, error)) {
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
        return fail(error, at(where, key),
                    "must be an array of at most " + std::to_string(count) + " numbers");
    }
    for (std::size_t i = 0; i < value.size(); ++i) {
        std::uint64_t number = 0;
        if (!to_number(value[i], at(where, key) + "[" + std::to_string(i) + "]", 0xFFFF, number,
                       error)) {
            return false;
        }
        *out[i] = static_cast<std::uint16_t>(number);
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
        return fail(error, at(where, "sasAddress"), "must be a text of 16 hexadecimal digits");
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
    return read_number(object, "deviceType", where, end.deviceType, error) &&
           read_number(object, "restricted", where, end.restricted, error) &&
           read_number(object, "initiatorProtocol", where, end.initiatorProtocol, error) &&
           read_number(object, "targetProtocol", where, end.targetProtocol, error) &&
           read_sas_address(object, where, end.sasAddress, error) &&
           read_number(object, "phyIdentifier", where, end.phyIdentifier, error) &&
           read_number(object, "signalClass", where, end.signalClass, error);
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
    if (!to_number(object["phy"], at(where, "phy"), controller.phys.size() - 1, number, error)) {
        return false;
    }
    index = static_cast<std::size_t>(number);
    CsmiPhy phy;
    phy.identify.phyIdentifier = static_cast<std::uint8_t>(index);
    if (object.contains("identify")) {
        if (!read_link_end(object["identify"], at(where, "identify"), phy.identify, error)) {
            return false;
        }
        if (!object["identify"].contains("phyIdentifier")) {
            phy.identify.phyIdentifier = static_cast<std::uint8_t>(index);
        }
    }
    if (object.contains("attached") &&
        !read_link_end(object["attached"], at(where, "attached"), phy.attached, error)) {
        return false;
    }
    if (!read_number(object, "portIdentifier", where, phy.portIdentifier, error) ||
        !read_number(object, "negotiatedLinkRate", where, phy.negotiatedLinkRate, error) ||
        !read_number(object, "minimumLinkRate", where, phy.minimumLinkRate, error) ||
        !read_number(object, "maximumLinkRate", where, phy.maximumLinkRate, error) ||
        !read_number(object, "phyChangeCount", where, phy.phyChangeCount, error) ||
        !read_number(object, "autoDiscover", where, phy.autoDiscover, error) ||
        !read_number(object, "phyFeatures", where, phy.phyFeatures, error) ||
        !read_text(object, "drive", where, phy.driveId, error)) {
        return false;
    }
    if (!phy.driveId.empty() && find_drive(machine(), phy.driveId) == nullptr) {
        return fail(error, at(where, "drive"), "no drive with id \"" + phy.driveId + "\"");
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
    if (!read_number(object, "code", where, fault.controlCode, error) ||
        !read_number(object, "nth", where, fault.nth, error) ||
        !read_bool(object, "onward", where, fault.onward, error) ||
        !read_error(object, "error", where, fault.error, error) ||
        !read_number(object, "returnCode", where, fault.returnCode, error) ||
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
    if (!check_keys(
            description, "",
            {"port", "csmi", "noCsmiError", "driver", "config", "numberOfPhys", "phys", "faults"},
            error)) {
        return false;
    }
    if (!description.contains("port")) {
        return fail(error, "", "a controller needs a port number");
    }
    std::uint64_t port = 0;
    if (!to_number(description["port"], "port", 9999, port, error)) {
        return false;
    }
    controller.port = static_cast<int>(port);
    if (!read_bool(description, "csmi", "", controller.csmi, error) ||
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
            !read_number(config, "boardId", "config", controller.boardId, error) ||
            !read_number(config, "controllerFlags", "config", controller.controllerFlags, error) ||
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
    if (!read_number(description, "numberOfPhys", "", controller.numberOfPhys, error)) {
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
