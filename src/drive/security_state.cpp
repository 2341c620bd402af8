#include "drive/drive_info.hpp"
#include "drive/identify.hpp"

namespace {
constexpr std::uint16_t kSecurityEnabled = 1u << 1;
constexpr std::uint16_t kSecurityLocked = 1u << 2;
constexpr std::uint16_t kSecurityFrozen = 1u << 3;
} // namespace

const char* security_state_label(std::uint32_t state) {
    static const char* const labels[] = {"SEC0", "SEC1", "SEC2", "SEC3", "SEC4", "SEC5", "SEC6"};
    return state < sizeof labels / sizeof labels[0] ? labels[state] : nullptr;
}

// Bit 0 (supported) is not consulted: a drive that reports enabled is treated as enabled.
std::uint32_t security_state_from_word(std::uint16_t securityWord) {
    const bool enabled = (securityWord & kSecurityEnabled) != 0;
    const bool locked = (securityWord & kSecurityLocked) != 0;
    const bool frozen = (securityWord & kSecurityFrozen) != 0;
    if (frozen) {
        return enabled ? SEC6 : SEC2;
    }
    if (enabled) {
        return locked ? SEC4 : SEC5;
    }
    return SEC1;
}
