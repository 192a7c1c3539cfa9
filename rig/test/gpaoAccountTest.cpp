#include "judge/gpaoAccount.hpp"

#include "portableRandom.hpp"

#include <vosk/test/support.hpp>

#include <cmath>
#include <functional>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

constexpr double NOISE = 0.01;  // of each coefficient

ModeValues LightAt(Seconds time) {
    ModeValues light{};
    for (std::size_t mode = 0; mode < light.size(); ++mode)
        light[mode] = std::sin(time.count() * (20.0 + static_cast<double>(mode)));
    return light;
}

// Eight seconds of a flowgraph that does what it must but for its death from 3 to 4.5 s, and of a sensor that
// loses frame 50; then what a test spoils of it.
struct Night {
    Scenario scenario;
    std::vector<FrameRecord> frames;
    std::vector<GpaoRecord> records;
    std::vector<Absences::Absence> absences;
    time_point first{1000s};

    // `last`: whether the answer before the death was given; an open one was not.
    explicit Night(Delivery last = Delivery::Done) {
        scenario.gpao.emplace().tt_gain = 0.2;
        scenario.cameras.emplace_back();
        absences = {{first + 3s, first + 4500ms}};
        PortableRandom random(1);
        std::uint32_t counted = 0;
        ModeValues command{};
        common::shmif::GpaoVector told{};
        for (std::uint32_t k = 0; k < 400; ++k) {
            const time_point time = first + k * 20ms;
            frames.push_back({k, {time - first, k}, {}, time, time, time + 4ms, k + 1, std::nullopt});
            if (k == 50) frames.back().fault = FaultKind::Drop;
            if (k == 50) continue;
            ++counted;
            if (k >= 150 && k < 230) continue;
            GpaoRecord record;
            record.life = k < 150 ? 0 : 1;
            record.delivery = k == 149 ? last : Delivery::Done;
            record.in.timestamp = time + 4300us;
            record.in.sample_id = record.out.sample_id = record.out.input_sample_id = counted;
            record.taken = record.out.timestamp = time + 4400us;
            record.given = time + 4500us;
            record.out.input_timestamp = record.in.timestamp;
            record.in.last_gpao_cmd = told;
            if (k == 230) std::copy(told.begin(), told.end(), command.begin());
            const ModeValues light = LightAt(time - first);
            for (std::size_t mode = 0; mode < light.size(); ++mode) {
                const float seen = static_cast<float>(light[mode] + NOISE * random.Normal());
                record.in.coefficients[mode] = seen;
                command[mode] = 0.99 * command[mode] + (mode < 2 ? 0.2 : 0.3) * double{seen} / 0.3;
                record.out.gpao_cmd[mode] = static_cast<float>(command[mode]);
            }
            if (record.delivery == Delivery::Done) told = record.out.gpao_cmd;
            records.push_back(record);
        }
    }

    void Erase(std::size_t from, std::size_t to) {
        const auto begin = records.begin();
        records.erase(begin + static_cast<std::ptrdiff_t>(from), begin + static_cast<std::ptrdiff_t>(to));
    }
    void Each(std::size_t from, std::size_t to, const std::function<void(GpaoRecord&)>& change) {
        for (std::size_t i = from; i < to; ++i) change(records[i]);
    }

    GpaoAccounts Judge() const {
        GpaoFacts facts;
        facts.frames = frames;
        facts.flowgraph = records;
        facts.absences = absences;
        facts.truth = LightAt;
        facts.predict = [](Seconds time) {
            CoefficientPrediction prediction{LightAt(time), {}};
            prediction.sigma.fill(NOISE);
            return prediction;
        };
        facts.first = first;
        facts.until = first + 8s;
        return MakeGpaoAccounts(scenario, facts);
    }
};

TEST(GpaoAccount, ClosesWithADeathAndALostFrame) {
    for (const Delivery last : {Delivery::Done, Delivery::Open}) {
        const GpaoAccounts accounts = Night(last).Judge();
        EXPECT_THAT(accounts.violations, ::testing::IsEmpty());
        EXPECT_EQ(accounts.frames.right, 319U);
        EXPECT_EQ(accounts.dead, 80U);
    }
}

TEST(GpaoAccount, FindsEachSpoiledRecord) {
    struct Case {
        const char* expected;
        std::function<void(Night&)> spoil;
    };
    const std::vector<Case> cases{
        {"coefficients of no whole frame", [](Night& n) { n.records[99].in.coefficients[7] += 1.0F; }},
        {"coefficients of no whole frame", [](Night& n) { n.frames[70].fault = FaultKind::Corrupt; }},
        {"more than 7 times", [](Night& n) { n.records[99].in.coefficients[7] += 0.1F; }},
        {"scatter 1.",
         [](Night& n) {
             n.Each(0, 319, [](GpaoRecord& r) {
                 for (float& value : r.in.coefficients) value += 0.005F;
             });
         }},
        {"gpao_in lost", [](Night& n) { n.Erase(90, 95); }},
        {"missing in gpao_in", [](Night& n) { n.Erase(90, 95); }},
        {"missing in gpao_in", [](Night& n) { n.Erase(149, 220); }},  // 1.4 s after its start
        {"missing in gpao_in", [](Night& n) { n.Each(90, 95, [](GpaoRecord& r) { r.taken += 6ms; }); }},
        {"without a sample ID",
         [](Night& n) {
             n.Erase(90, 95);
             n.Each(90, 314, [](GpaoRecord& r) { r.in.sample_id -= 5; });
         }},
        {"an ID that no frame", [](Night& n) { n.records[99].in.sample_id += 1; }},
        {"what its law makes", [](Night& n) { n.records[99].out.gpao_cmd[1] += 0.001F; }},
        {"what its law makes", [](Night& n) { n.records[99].out.input_timestamp += 1ns; }},
        {"that nobody gave", [](Night& n) { n.records[99].in.last_gpao_cmd[0] += 0.001F; }},
        {"an old command",
         [](Night& n) {
             for (std::size_t i = 90; i < 95; ++i)
                 n.records[i].in.last_gpao_cmd = n.records[i - 2].out.gpao_cmd;
         }},
        {"that nobody applied", [](Night& n) { n.records[99].in.applied_m4_cmd[51] = 1.0F; }},
    };
    for (const Case& each : cases) {
        Night night;
        each.spoil(night);
        EXPECT_THAT(night.Judge().violations, ::testing::Contains(::testing::HasSubstr(each.expected)));
    }
}

}  // namespace
}  // namespace vosk::rig
