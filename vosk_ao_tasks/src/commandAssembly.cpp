#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <vosk/ao_tasks/commandAssembly.hpp>

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace vosk::ao_tasks {

namespace {

using defs::VoskControlMode;

enum class Input { NONE, U4_FS_TT, TT_REF, GPAO, INS_HO };

// Where the three parts of a command come from.
struct Route {
    Input tip_tilt = Input::NONE;    // elements 0 and 1
    Input cascade = Input::NONE;     // from element 2 up to ho_cascade_modes
    Input high_order = Input::NONE;  // from there to the end of the INS modes

    constexpr bool Uses(Input input) const {
        return tip_tilt == input || cascade == input || high_order == input;
    }
};

constexpr Route RouteOf(VoskControlMode mode) {
    switch (mode) {
        case VoskControlMode::TEL_DRIVEN:
            return {Input::U4_FS_TT, Input::GPAO, Input::GPAO};
        case VoskControlMode::INS_DRIVEN_SEQUENTIAL:
            return {Input::TT_REF, Input::INS_HO, Input::INS_HO};
        case VoskControlMode::INS_DRIVEN_CASCADE:
            return {Input::U4_FS_TT, Input::INS_HO, Input::INS_HO};
        case VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT:
            return {Input::GPAO, Input::GPAO, Input::GPAO};
        case VoskControlMode::HIGH_ORDER_CASCADE:
            return {Input::U4_FS_TT, Input::GPAO, Input::INS_HO};
        case VoskControlMode::HIGH_ORDER_CASCADE_WITH_GPAO_TT:
            return {Input::GPAO, Input::GPAO, Input::INS_HO};
    }
    return {};
}

}  // namespace

void CommandAssembly::VetHoCascadeModes(std::uint32_t ho_cascade_modes) {
    if (ho_cascade_modes >= LOWEST_HO_CASCADE_MODES && ho_cascade_modes <= HIGHEST_HO_CASCADE_MODES) return;
    throw std::runtime_error{fmt::format("ERR: Incorrect 'ho_cascade_modes' value = {}", ho_cascade_modes)};
}

CommandAssembly::CommandAssembly(const Config& config) : ho_cascade_modes{config.ho_cascade_modes} {
    VetHoCascadeModes(ho_cascade_modes);
    spdlog::trace("AO Command Assembly block: ho_cascade_modes = {}", ho_cascade_modes);
}

bool CommandAssembly::IsUsingU4FsTtInput(VoskControlMode mode) const {
    return RouteOf(mode).Uses(Input::U4_FS_TT);
}

bool CommandAssembly::IsUsingGpaoCmdInput(VoskControlMode mode) const {
    return RouteOf(mode).Uses(Input::GPAO);
}

bool CommandAssembly::IsUsingInsHoInput(VoskControlMode mode) const {
    return RouteOf(mode).Uses(Input::INS_HO);
}

bool CommandAssembly::IsUsingTtRefInput(VoskControlMode mode) const {
    return RouteOf(mode).Uses(Input::TT_REF);
}

void CommandAssembly::Work(std::span<const float, defs::TIP_TILT_SIZE> u4_fs_tt,
                           std::span<const float, defs::INS_CMD_SIZE> gpao_command,
                           std::span<const float, defs::HIGH_ORDER_SIZE> ins_high_order,
                           std::span<const float, defs::TIP_TILT_SIZE> tt_ref,
                           std::span<float, defs::M4_CMD_SIZE> m4_command, VoskControlMode mode) const {
    // Copies elements of the command from the input, if it has any: element `first` up to `last`.
    const auto copy = [&](Input input, std::size_t first, std::size_t last) {
        const auto copy_from = [&](std::span<const float> source, std::size_t first_of_source) {
            const auto part = source.subspan(first - first_of_source, last - first);
            std::copy(part.begin(), part.end(), m4_command.begin() + static_cast<std::ptrdiff_t>(first));
        };
        switch (input) {
            case Input::NONE:
                return;
            case Input::U4_FS_TT:
                return copy_from(u4_fs_tt, 0);
            case Input::TT_REF:
                return copy_from(tt_ref, 0);
            case Input::GPAO:
                return copy_from(gpao_command, 0);
            case Input::INS_HO:
                return copy_from(ins_high_order, defs::TIP_TILT_SIZE);
        }
    };

    std::fill(m4_command.begin(), m4_command.end(), 0.0F);
    const Route route = RouteOf(mode);
    copy(route.tip_tilt, 0, defs::TIP_TILT_SIZE);
    copy(route.cascade, defs::TIP_TILT_SIZE, ho_cascade_modes);
    copy(route.high_order, ho_cascade_modes, defs::INS_CMD_SIZE);
}

}  // namespace vosk::ao_tasks
