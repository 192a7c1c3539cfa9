#include "judge/fieldAccount.hpp"

#include "disturbance.hpp"
#include "peers/pfsPeer.hpp"

#include <vosk/test/support.hpp>

#include <cmath>
#include <functional>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

TEST(SkyRotation, IsTheParallacticAngleWithItsSign) {
    // On the meridian, south of the zenith of a southern site: the pole lies behind the zenith.
    const TipTilt meridian = SkyToM5({1.0, 0.0}, {0.0, SITE_LATITUDE + 0.3});
    EXPECT_NEAR(meridian.tip, -1.0, 1e-12);
    // tan q = cos(latitude) / (sin(latitude) cos(d)) six hours west of it.
    const double q = std::atan2(std::cos(SITE_LATITUDE), std::sin(SITE_LATITUDE) * std::cos(0.5));
    const TipTilt sky = M5ToSky({1.0, 0.0}, {std::acos(0.0), 0.5});
    EXPECT_NEAR(sky.tip, std::cos(q), 1e-12);
    EXPECT_NEAR(sky.tilt, std::sin(q), 1e-12);
    const TipTilt back = SkyToM5(sky, {std::acos(0.0), 0.5});
    EXPECT_NEAR(back.tip, 1.0, 1e-12);
    EXPECT_NEAR(back.tilt, 0.0, 1e-12);
}

// Twelve seconds of a loop that does what it must, and then what a test spoils of it.
struct Night {
    Scenario scenario;
    std::vector<Sample<defs::WfsPayload>> errors;
    std::vector<Sample<defs::M5PttAct::Payload>> positions;
    std::vector<Sample<pfs::PFSTargetData>> measurements;
    std::vector<FieldRecord> flowgraph;
    std::vector<Sample<defs::M5Command::Payload>> m5_commands;
    std::vector<Sample<pfs::PFSCorrection>> pfs_corrections;
    std::vector<Sample<defs::MSCorrection>> ms_corrections;
    time_point first{1000s};

    // `delay`: whole intervals by which M5 gets each command too late.
    explicit Night(std::size_t delay = 0) {
        scenario.streams.emplace();
        scenario.expect.max_exceptions = 0.004;
        const StreamSettings& settings = *scenario.streams;
        const Disturbance disturbance(settings.disturbance, scenario.seed);
        std::vector<TipTilt> commands{{}};
        TipTilt m5;
        for (std::uint32_t k = 0; k < 600; ++k) {
            const time_point begin = first + k * settings.interval;
            const double seconds = std::chrono::duration<double>(begin - first).count();
            const TipTilt light = disturbance.At(seconds);
            const TipTilt error{light.tip - m5.tip, light.tilt - m5.tilt};
            commands.push_back({settings.leak * commands.back().tip + settings.gain * error.tip,
                                settings.leak * commands.back().tilt + settings.gain * error.tilt});
            AddMeasurement(begin + settings.MeasurementOffset(), seconds, m5, k);
            AddRound(begin, error, commands.back(), k);
            const std::size_t last = commands.size() - 1;
            Follow(m5, commands[last - std::min(last, delay + 1)], 15.0 / 20.0);
            Follow(m5, commands[last - std::min(last, delay)], 5.0 / 20.0);
        }
    }

    static void Follow(TipTilt& m5, TipTilt target, double lags) {
        const double left = std::exp(-lags);
        m5 = {target.tip + (m5.tip - target.tip) * left, target.tilt + (m5.tilt - target.tilt) * left};
    }

    void AddMeasurement(time_point time, double seconds, TipTilt m5, std::uint32_t k) {
        const Pointing pointing = PointingAt(seconds);
        Sample<pfs::PFSTargetData> measurement{k + 1, time, time, {}};
        for (auto& probe : measurement.record.guide_probes) probe.tip = seconds;
        measurement.record.pointing.values = {pointing.hour_angle, pointing.declination, 0.0, 0.0, seconds};
        measurements.push_back(measurement);
        const TipTilt turned = SkyToM5(m5, pointing);
        positions.push_back({k + 1, time, time, {0.0, turned.tip, turned.tilt, {}}});
    }

    void AddRound(time_point begin, TipTilt error, TipTilt command, std::uint32_t k) {
        const StreamSettings& settings = *scenario.streams;
        Sample<defs::WfsPayload> sample{k + 1, begin, begin, {}};
        FieldRecord record;
        record.delivery = Delivery::Done;
        record.in.timestamp = begin + settings.InputOffset();
        record.in.sample_id = record.out.sample_id = k + 1;
        record.taken = record.given = record.out.timestamp = record.in.timestamp + 100us;
        for (std::size_t i = 0; i < 4; ++i) {
            sample.record.blocks[i].x = error.tip;
            sample.record.blocks[i].y = error.tilt;
            record.in.img_centroid_error[i] = {static_cast<float>(error.tip), static_cast<float>(error.tilt)};
        }
        errors.push_back(sample);
        const auto& pointing = measurements.back().record.pointing.values;
        for (auto& probe : record.in.gp_tt) probe.tip = static_cast<float>(pointing[4]);
        record.in.pointing_value = static_cast<float>(pointing[4]);
        const auto& m5 = positions.back().record;
        const TipTilt on_sky = M5ToSky({m5.tip, m5.tilt}, {pointing[0], pointing[1]});
        record.in.m5 = {static_cast<float>(on_sky.tip), static_cast<float>(on_sky.tilt)};
        const auto part = [&](double share) {
            return defs::FloatVectorTT{static_cast<float>(share * command.tip),
                                       static_cast<float>(share * command.tilt)};
        };
        record.out.m5 = part(settings.m5_share);
        record.out.ms = part(settings.ms_share);
        record.out.u4_tt = part(settings.u4_share);
        record.out.pfs = record.in.gp_tt;
        flowgraph.push_back(record);

        const time_point due = begin + settings.interval + settings.CommandOffset();
        const TipTilt turned = SkyToM5({record.out.m5.tip, record.out.m5.tilt}, {pointing[0], pointing[1]});
        m5_commands.push_back({k + 1, due, due + 100us, {0.0, turned.tip, turned.tilt}});
        Sample<pfs::PFSCorrection> correction{k + 1, due, due + 100us, {}};
        for (auto& probe : correction.record.guide_probes) {
            probe.tip = static_cast<double>(pointing[4]);
            probe.flag = 1;
        }
        pfs_corrections.push_back(correction);
        ms_corrections.push_back({k + 1, due, due + 100us, {due, record.out.ms.tip, record.out.ms.tilt, 1}});
    }

    FieldAccounts Judge() const {
        return MakeFieldAccounts(scenario, {errors,
                                            positions,
                                            measurements,
                                            flowgraph,
                                            m5_commands,
                                            pfs_corrections,
                                            ms_corrections,
                                            {},
                                            first,
                                            first + 12s});
    }
};

TEST(FieldAccount, LetsALoopPassThatDoesWhatItMust) {
    const FieldAccounts accounts = Night().Judge();
    EXPECT_THAT(accounts.violations, ::testing::IsEmpty());
    EXPECT_LT(accounts.loop.error_rms, 1e-5);
    for (const HopAccount& hop : accounts.hops) EXPECT_GT(hop.right, 500U) << hop.name;
}

TEST(FieldAccount, KnowsThatAMeasurementTakenTwiceChangesNothing) {
    Night night;
    FieldRecord& last = night.flowgraph.back();
    const FieldRecord& before = night.flowgraph[night.flowgraph.size() - 2];
    last.in.img_centroid_error = before.in.img_centroid_error;
    last.out.m5 = before.out.m5;
    last.out.ms = before.out.ms;
    last.out.u4_tt = before.out.u4_tt;
    EXPECT_EQ(night.Judge().wrong_answers, 0U);
    last.out.m5.tip += 0.01F;
    EXPECT_EQ(night.Judge().wrong_answers, 1U);
}

TEST(FieldAccount, SeesASampleOfExtraDelay) {
    const FieldAccounts accounts = Night(1).Judge();
    EXPECT_THAT(accounts.violations, ::testing::Contains(::testing::HasSubstr("off its prediction")));
}

TEST(FieldAccount, FindsEachSpoiledSample) {
    struct Case {
        const char* expected;
        std::function<void(Night&)> spoil;
    };
    const std::vector<Case> cases{
        {"M5 command: wrong", [](Night& n) { n.m5_commands[300].record.tip *= 1.001; }},
        {"M5 command: wrong", [](Night& n) { n.m5_commands[300].stamped += 20ms; }},
        {"M5 command: missing",
         [](Night& n) { n.m5_commands.erase(n.m5_commands.begin() + 300, n.m5_commands.begin() + 304); }},
        {"M5 command: missing",
         [](Night& n) {
             for (int i = 300; i < 304; ++i) n.m5_commands[static_cast<std::size_t>(i)].moved += 4ms;
         }},
        {"M5 command: missing",
         [](Night& n) {
             for (int i = 300; i < 304; ++i) n.m5_commands[static_cast<std::size_t>(i)].id += 1000;
         }},
        {"PFS correction: wrong", [](Night& n) { n.pfs_corrections[300].record.guide_probes[2].tilt = 0.5; }},
        {"PFS correction: wrong", [](Night& n) { n.pfs_corrections[300].record.guide_probes[1].flag = 0; }},
        {"MS correction: wrong", [](Night& n) { n.ms_corrections[300].record.flag = 0; }},
        {"ECMWFSim errors in fs_in: wrong",
         [](Night& n) {
             std::swap(n.flowgraph[300].in.img_centroid_error[0].tip,
                       n.flowgraph[300].in.img_centroid_error[0].tilt);
         }},
        {"M5 position in fs_in: wrong", [](Night& n) { n.flowgraph[300].in.m5.tilt *= -1.0F; }},
        {"M5 position in fs_in: missing",
         [](Night& n) {
             for (std::size_t i = 300; i < 304; ++i) n.flowgraph[i].in.m5 = n.flowgraph[299].in.m5;
         }},
        {"fs_in lost",
         [](Night& n) { n.flowgraph.erase(n.flowgraph.begin() + 300, n.flowgraph.begin() + 304); }},
        {"what its law makes", [](Night& n) { n.flowgraph[300].out.m5.tip += 0.01F; }},
        {"off the grid", [](Night& n) { n.flowgraph[300].in.timestamp += 1us; }},
    };
    for (const Case& each : cases) {
        Night night;
        each.spoil(night);
        EXPECT_THAT(night.Judge().violations, ::testing::Contains(::testing::HasSubstr(each.expected)));
    }
}

}  // namespace
}  // namespace vosk::rig
