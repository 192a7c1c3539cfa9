#pragma once

// The enumerations of the control state, with their text forms.
// All text forms throw std::runtime_error "Unknown enum value." on a value outside the enumeration.

#include <cstdint>
#include <map>
#include <string>

namespace vosk::defs {

// Who drives M4, and with which inputs.
enum class VoskControlMode : std::uint32_t {
    TEL_DRIVEN = 1,
    INS_DRIVEN_SEQUENTIAL = 2,
    INS_DRIVEN_CASCADE = 3,
    TEL_DRIVEN_WITH_GPAO_TT = 4,
    HIGH_ORDER_CASCADE = 5,
    HIGH_ORDER_CASCADE_WITH_GPAO_TT = 6,
};

constexpr bool IsInsDriven(VoskControlMode mode) noexcept {
    return mode == VoskControlMode::INS_DRIVEN_SEQUENTIAL || mode == VoskControlMode::INS_DRIVEN_CASCADE;
}

enum class Camera : std::uint32_t { IMG_GP1, IMG_GP2, IMG_GP3, IMG_PDS, WFS_GP1, WFS_GP2, WFS_GP3, WFS_PDS };

// The one way from a `camera_id` text to a Camera: CAMERAS.at(text), which throws std::out_of_range.
extern const std::map<std::string, Camera> CAMERAS;

enum class AoCommandSource : std::uint32_t { NONE, CCS, INS, OFF };

}  // namespace vosk::defs

namespace vosk {

std::string to_string(defs::VoskControlMode mode);
std::string to_string(defs::Camera camera);
std::string to_string(defs::AoCommandSource source);  // "NONE", "CCS/TEL", "INS", "OFF"

}  // namespace vosk
