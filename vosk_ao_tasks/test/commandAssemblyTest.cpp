#include <vosk/ao_tasks/commandAssembly.hpp>
#include <vosk/test/support.hpp>

namespace {

using vosk::ao_tasks::CommandAssembly;
using vosk::defs::VoskControlMode;
using namespace vosk::defs;

// The elements of each input count from a base of its own.
constexpr float U4 = 10'000.0F;
constexpr float TT_REF = 20'000.0F;
constexpr float GPAO = 30'000.0F;
constexpr float INS_HO = 40'000.0F;
constexpr float NOTHING = -1.0F;

// Of modes 0 to 7: tip/tilt, cascade, high order.
constexpr std::array<std::array<float, 3>, 8> SOURCES{{{NOTHING, NOTHING, NOTHING},
                                                       {U4, GPAO, GPAO},
                                                       {TT_REF, INS_HO, INS_HO},
                                                       {U4, INS_HO, INS_HO},
                                                       {GPAO, GPAO, GPAO},
                                                       {U4, GPAO, INS_HO},
                                                       {GPAO, GPAO, INS_HO},
                                                       {NOTHING, NOTHING, NOTHING}}};

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
    for (const std::uint32_t cascade_modes : {3U, 52U}) {
        const CommandAssembly assembly{{cascade_modes}};
        for (std::size_t mode = 0; mode < SOURCES.size(); ++mode) {
            std::array<float, M4_CMD_SIZE> command{};
            command.fill(-7.0F);
            assembly.Work(u4, gpao, ins_ho, tt_ref, command, static_cast<VoskControlMode>(mode));
            for (std::size_t i = 0; i < command.size(); ++i) {
                const std::size_t part = i < TIP_TILT_SIZE ? 0 : i < cascade_modes ? 1 : 2;
                const float base = i < INS_CMD_SIZE ? SOURCES[mode][part] : NOTHING;
                ASSERT_EQ(command[i], base == NOTHING ? 0.0F : base + static_cast<float>(i))
                    << "mode " << mode << ", element " << i;
            }
        }
    }
}

TEST(CommandAssembly, RefusesCascadeModesOutOfRange) {
    for (const std::uint32_t value : {2U, 53U})
        EXPECT_THROW((CommandAssembly{{value}}), std::runtime_error) << value;
}

}  // namespace
