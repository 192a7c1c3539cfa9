#pragma once

// Builds an M4 command from up to four inputs: the control mode is the routing table of the AO path, and here
// it takes effect. Owned by Executor and used on its thread. An input that the mode does not use is not read,
// so its lock need not be held.

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <cstdint>
#include <span>

namespace vosk::ao_tasks {

class CommandAssembly {
public:
    struct Config {
        // The first element of an M4 command that comes from the high-order input in the two cascade modes;
        // those below come from GPAO. 3 to 52.
        std::uint32_t ho_cascade_modes = 0;
    };

    static constexpr std::uint32_t LOWEST_HO_CASCADE_MODES = defs::TIP_TILT_SIZE + 1;
    static constexpr std::uint32_t HIGHEST_HO_CASCADE_MODES = defs::GPAO_CMD_SIZE;

    // Throws std::runtime_error if the value is out of range.
    static void VetHoCascadeModes(std::uint32_t ho_cascade_modes);

    // Throws std::runtime_error on a bad value.
    explicit CommandAssembly(const Config& config);

    // Which inputs a mode reads. False for a value that is no mode.
    bool IsUsingU4FsTtInput(defs::VoskControlMode mode) const;
    bool IsUsingGpaoCmdInput(defs::VoskControlMode mode) const;
    bool IsUsingInsHoInput(defs::VoskControlMode mode) const;
    bool IsUsingTtRefInput(defs::VoskControlMode mode) const;

    // Writes all of m4_command: the INS modes by the mode's routing, zeroes behind them. Element i of
    // ins_high_order belongs to element i + 2 of the command; the other inputs lie as in the command.
    // A value that is no mode gives a command of zeroes.
    void Work(std::span<const float, defs::TIP_TILT_SIZE> u4_fs_tt,
              std::span<const float, defs::INS_CMD_SIZE> gpao_command,
              std::span<const float, defs::HIGH_ORDER_SIZE> ins_high_order,
              std::span<const float, defs::TIP_TILT_SIZE> tt_ref,
              std::span<float, defs::M4_CMD_SIZE> m4_command, defs::VoskControlMode mode) const;

private:
    std::uint32_t ho_cascade_modes;
};

}  // namespace vosk::ao_tasks
