#include "sim/csmi_controller.hpp"

namespace sim {

bool csmi_controller_from_json(const nlohmann::json& description, CsmiController& controller,
                               std::string& error) {
    if (!description.contains("port") || !description["port"].is_number_integer()) {
        error = "a controller needs a port number";
        return false;
    }
    controller.port = description["port"].get<int>();
    return true;
}

win32::DWORD csmi_miniport(Machine&, CsmiController&, std::uint8_t*, win32::DWORD, win32::DWORD,
                           win32::DWORD* bytesReturned) {
    if (bytesReturned != nullptr) {
        *bytesReturned = 0;
    }
    return ERROR_INVALID_FUNCTION;
}

} // namespace sim
