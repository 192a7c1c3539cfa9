#include <vosk/ao_tasks/commandAssembly.hpp>
#include <vosk/ao_tasks/commandSplitting.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using vosk::ao_tasks::CommandAssembly;
using vosk::ao_tasks::CommandSplitting;
using vosk::defs::VoskControlMode;
using namespace vosk::defs;

// Inputs whose elements tell where they come from: a base a source, plus the element of the command.
constexpr float U4 = 10'000.0F;
constexpr float TT_REF = 20'000.0F;
constexpr float GPAO = 30'000.0F;
constexpr float INS_HO = 40'000.0F;
constexpr float NOTHING = -1.0F;

struct Expected {
    std::uint32_t mode;
    float tip_tilt;
    float cascade;
    float high_order;
    std::array<bool, 4> uses;  // U4, GPAO, INS high order, pair of the command
};

constexpr std::array<Expected, 8> TABLE{{
    {0, NOTHING, NOTHING, NOTHING, {false, false, false, false}},
    {1, U4, GPAO, GPAO, {true, true, false, false}},
    {2, TT_REF, INS_HO, INS_HO, {false, false, true, true}},
    {3, U4, INS_HO, INS_HO, {true, false, true, false}},
    {4, GPAO, GPAO, GPAO, {false, true, false, false}},
    {5, U4, GPAO, INS_HO, {true, true, true, false}},
    {6, GPAO, GPAO, INS_HO, {false, true, true, false}},
    {7, NOTHING, NOTHING, NOTHING, {false, false, false, false}},
}};

template <std::size_t N>
std::array<float, N> Counting(float first) {
    std::array<float, N> values{};
    std::iota(values.begin(), values.end(), first);
    return values;
}

TEST(CommandAssembly, RoutesTheInputsByMode) {
    const auto u4 = Counting<TIP_TILT_SIZE>(U4);
    const auto tt_ref = Counting<TIP_TILT_SIZE>(TT_REF);
    const auto gpao = Counting<INS_CMD_SIZE>(GPAO);
    const auto ins_ho = Counting<HIGH_ORDER_SIZE>(INS_HO + TIP_TILT_SIZE);
    for (const std::uint32_t cascade_modes : {3U, 20U, 52U}) {
        const CommandAssembly assembly{{cascade_modes}};
        for (const Expected& row : TABLE) {
            const auto mode = static_cast<VoskControlMode>(row.mode);
            std::array<float, M4_CMD_SIZE> command{};
            command.fill(-7.0F);
            assembly.Work(u4, gpao, ins_ho, tt_ref, command, mode);

            const auto expected_at = [&](std::size_t i) {
                const float base = i < TIP_TILT_SIZE   ? row.tip_tilt
                                   : i < cascade_modes ? row.cascade
                                   : i < INS_CMD_SIZE  ? row.high_order
                                                       : NOTHING;
                return base == NOTHING ? 0.0F : base + static_cast<float>(i);
            };
            for (std::size_t i = 0; i < command.size(); ++i) {
                ASSERT_EQ(command[i], expected_at(i)) << "mode " << row.mode << ", element " << i;
            }
            EXPECT_EQ((std::array{assembly.IsUsingU4FsTtInput(mode), assembly.IsUsingGpaoCmdInput(mode),
                                  assembly.IsUsingInsHoInput(mode), assembly.IsUsingTtRefInput(mode)}),
                      row.uses)
                << "mode " << row.mode;
        }
    }
}

TEST(CommandAssembly, RefusesModesOutOfRange) {
    for (const std::uint32_t value : {0U, 1U, 2U, 53U, 0xFFFFFFFFU}) {
        try {
            CommandAssembly{{value}};
            ADD_FAILURE() << value << " was taken";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "ERR: Incorrect 'ho_cascade_modes' value = " + std::to_string(value));
        }
    }
}

TEST(CommandSplitting, CutsAllElements) {
    const auto command = Counting<WAVEFRONT_CMD_SIZE>(0.0F);
    std::array<float, TIP_TILT_SIZE> first{};
    std::array<float, TIP_TILT_SIZE> second{};
    std::array<float, HIGH_ORDER_SIZE> high_order{};
    CommandSplitting{}.Work(command, first, second, high_order);
    EXPECT_EQ(first, (std::array{0.0F, 1.0F}));
    EXPECT_EQ(second, (std::array{2.0F, 3.0F}));
    EXPECT_EQ(high_order, Counting<HIGH_ORDER_SIZE>(4.0F));
}

}  // namespace
