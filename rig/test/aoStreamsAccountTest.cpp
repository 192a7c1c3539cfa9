#include "judge/aoStreamsAccount.hpp"

#include <vosk/test/support.hpp>

#include <functional>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

// A second of commands that M4 follows, with two handovers, and then what a test spoils of it.
struct Night {
    Scenario scenario;
    std::vector<CommandRecord> commands;
    std::vector<SetpointRecord> setpoints;
    std::vector<FeedbackRecord> feedback;
    std::array<std::vector<AoSample>, AO_STREAMS> samples;
    std::vector<ModeTimeline::Change> modes;
    time_point first{1000s};

    Night() {
        scenario.instrument.rate = 100.0;
        scenario.host.m4_send_delay = 3ms;
        scenario.host.m4_response_timeout = 2ms;
        scenario.ao_streams = AoStreamSettings{{1ms, 2ms, 6ms, 7ms}, 1ms};
        const auto change = [&](defs::VoskControlMode mode, std::chrono::milliseconds at) {
            modes.push_back({mode, first + at, first + at + 100us});
        };
        change(defs::VoskControlMode::INS_DRIVEN_CASCADE, 95ms);
        change(defs::VoskControlMode::TEL_DRIVEN, 395ms);
        change(defs::VoskControlMode::INS_DRIVEN_SEQUENTIAL, 595ms);
        AoSample applied;
        for (std::uint32_t i = 0; i < 100; ++i) {
            const time_point time = first + i * 10ms;
            commands.push_back({i, time, time + 10us, i + 1, true, std::nullopt});
            feedback.push_back({time, DigestOf(Values(i)), std::nullopt});
            const bool second = i >= 62;
            if ((i >= 12 && i < 40) || second) {
                setpoints.push_back(Setpoint(time, i));
                applied.data_time = setpoints.back().answer_sent;
                applied.status = second ? 0x900 : 0x500;
                applied.digest = DigestOf(Values(i, second ? 39 : 0));
            }
            if (i == 10 || i == 60) applied.status = 0;
            AoSample sensors;
            sensors.status = 1;
            sensors.digest = feedback.back().digest;
            Add(0, {}, i);
            Add(1, {}, i);
            Add(2, applied, i);
            Add(3, sensors, i);
        }
    }

    // Number 0 is zero, and so is no reference shape.
    static std::vector<float> Values(std::uint32_t number, std::uint32_t reference = 0) {
        std::vector<float> values(defs::INS_CMD_SIZE);
        for (std::size_t i = 0; i < values.size(); ++i) {
            const float shape = 1.0F / (3.0F + static_cast<float>(i));
            values[i] = static_cast<float>(number * number) * shape -
                        static_cast<float>(reference * reference) * shape;
        }
        return values;
    }

    static SetpointRecord Setpoint(time_point time, std::uint32_t number) {
        SetpointRecord setpoint;
        setpoint.planned = setpoint.arrived = time + 3ms;
        setpoint.digest = DigestOf(Values(number));
        setpoint.answer = AnswerFate::Sent;
        setpoint.answer_sent = time + 3ms + 50us;
        return setpoint;
    }

    void Add(std::size_t stream, AoSample sample, std::uint32_t command) {
        const time_point time = commands[command].time_stamp;
        sample.id = commands[command].sample_id;
        sample.stamped = time + scenario.ao_streams->delays[stream];
        sample.arrived = sample.stamped + 20us;
        sample.receive_time = time + 50us;
        samples[stream].push_back(sample);
    }

    AoStreamsAccounts Judge() const {
        AoStreamsFacts facts;
        facts.commands = commands;
        for (std::size_t i = 0; i < AO_STREAMS; ++i) facts.samples[i] = samples[i];
        facts.setpoints = setpoints;
        facts.feedback = feedback;
        facts.modes = modes;
        facts.until = time_point::max();
        return MakeAoStreamsAccounts(scenario, facts);
    }
};

TEST(AoStreamsAccount, LetsStreamsPassThatTellWhatMirrorsGot) {
    const AoStreamsAccounts accounts = Night().Judge();
    EXPECT_THAT(accounts.violations, ::testing::IsEmpty());
    for (const AoStreamAccount& stream : accounts.streams) EXPECT_EQ(stream.right, 100U);
}

TEST(AoStreamsAccount, FindsEachSpoiledSample) {
    struct Case {
        const char* expected;
        std::function<void(Night&)> spoil;
    };
    const auto erase = [](Night& night, std::size_t stream) {
        night.samples[stream].erase(night.samples[stream].begin() + 50);
    };
    const std::vector<Case> cases{
        {"applied: samples with wrong", [](Night& n) { n.samples[2][20].digest.sum += 1e-9; }},
        {"applied: samples with wrong", [](Night& n) { n.samples[2][20].status = 0x900; }},
        {"applied: samples with wrong", [](Night& n) { n.samples[2][20].status = 0; }},
        {"applied: samples with wrong", [](Night& n) { n.samples[2][20].data_time += 1ns; }},
        // The reference shape was not taken out once.
        {"applied: samples with wrong", [](Night& n) { n.samples[2][80].digest = n.setpoints[46].digest; }},
        {"m5_ptt_act: samples with wrong", [](Night& n) { n.samples[0][20].status = 1; }},
        {"m5_ptt_act: samples with wrong", [](Night& n) { n.samples[0][20].receive_time -= 100us; }},
        {"cap_sens_act: samples with wrong", [](Night& n) { n.samples[3][20].id += 1; }},
        {"cap_sens_act: samples with wrong", [](Night& n) { n.samples[3][20].stamped += 1us; }},
        {"cap_sens_act: samples with wrong", [](Night& n) { n.samples[3][20].arrived -= 30us; }},
        {"applied: missing, late or old: 2",
         [](Night& n) {
             for (const std::size_t i : {20UL, 21UL}) {
                 n.samples[2][i].data_time = n.samples[2][i - 2].data_time;
                 n.samples[2][i].digest = DigestOf(Night::Values(static_cast<std::uint32_t>(i - 2)));
             }
         }},
        {"cap_sens_act: missing, late or old: 2",
         [](Night& n) { n.samples[3][20].digest = n.samples[3][21].digest = n.feedback[18].digest; }},
        {"u4: missing, late or old: 2",
         [](Night& n) {
             n.samples[1][20].arrived += 2ms;
             n.samples[1][21].arrived += 2ms;
         }},
        {"1 beats have some", [&](Night& n) { erase(n, 1); }},
        {"1 beats have their AO samples in another order",
         [](Night& n) { n.samples[0][20].arrived += 1100us; }},
    };
    for (const Case& each : cases) {
        Night night;
        each.spoil(night);
        EXPECT_THAT(night.Judge().violations, ::testing::Contains(::testing::HasSubstr(each.expected)));
    }
}

TEST(AoStreamsAccount, ToldApartAreBeatsThatTheHostDroppedAndThoseThatItSkipped) {
    Night night;
    for (auto& stream : night.samples) stream.erase(stream.begin() + 50);
    EXPECT_EQ(night.Judge().skipped, 1U);
    night.samples[3][49].arrived += 5ms;
    EXPECT_EQ(night.Judge().dropped, 1U);
    night.commands[50].fault = FaultKind::Drop;
    EXPECT_EQ(night.Judge().harmed, 1U);
}

}  // namespace
}  // namespace vosk::rig
