#include <vosk/defs/controlMode.hpp>

#include <stdexcept>

namespace vosk::defs {

const std::map<std::string, Camera> CAMERAS{
    {"IMG_GP1", Camera::IMG_GP1}, {"IMG_GP2", Camera::IMG_GP2}, {"IMG_GP3", Camera::IMG_GP3},
    {"IMG_PDS", Camera::IMG_PDS}, {"WFS_GP1", Camera::WFS_GP1}, {"WFS_GP2", Camera::WFS_GP2},
    {"WFS_GP3", Camera::WFS_GP3}, {"WFS_PDS", Camera::WFS_PDS},
};

}  // namespace vosk::defs

namespace vosk {

namespace {

[[noreturn]] void ThrowUnknown() {
    throw std::runtime_error("Unknown enum value.");
}

}  // namespace

std::string to_string(defs::VoskControlMode mode) {
    using enum defs::VoskControlMode;
    switch (mode) {
        case TEL_DRIVEN:
            return "TEL_DRIVEN";
        case INS_DRIVEN_SEQUENTIAL:
            return "INS_DRIVEN_SEQUENTIAL";
        case INS_DRIVEN_CASCADE:
            return "INS_DRIVEN_CASCADE";
        case TEL_DRIVEN_WITH_GPAO_TT:
            return "TEL_DRIVEN_WITH_GPAO_TT";
        case HIGH_ORDER_CASCADE:
            return "HIGH_ORDER_CASCADE";
        case HIGH_ORDER_CASCADE_WITH_GPAO_TT:
            return "HIGH_ORDER_CASCADE_WITH_GPAO_TT";
    }
    ThrowUnknown();
}

std::string to_string(defs::Camera camera) {
    for (const auto& [text, value] : defs::CAMERAS) {
        if (value == camera) return text;
    }
    ThrowUnknown();
}

std::string to_string(defs::AoCommandSource source) {
    using enum defs::AoCommandSource;
    switch (source) {
        case NONE:
            return "NONE";
        case CCS:
            return "CCS/TEL";
        case INS:
            return "INS";
        case OFF:
            return "OFF";
    }
    ThrowUnknown();
}

}  // namespace vosk
