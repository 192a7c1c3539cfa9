#include "judge/contentCheck.hpp"

#include <vosk/test/support.hpp>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

// A small loop in single precision, as the system has it: two managed modes on two actuators, so narrow a
// step limit that what M4 applied before shows in every setpoint.
class ContentCheckTest : public ::testing::Test {
protected:
    static constexpr std::size_t COMMANDS = 12;
    static constexpr float VELOCITY = 0.01F;

    ContentCheckTest() : m_commands(COMMANDS), m_wavefront(m_scenario.instrument, m_scenario.seed) {
        ModalBasis basis{2, std::vector<float>(defs::M4_CMD_SIZE * 2, 0.0F)};
        basis.matrix[0] = 1.0F;
        basis.matrix[3] = 1.0F;
        m_scenario.host.managed_modes = 2;
        for (std::size_t i = 0; i < COMMANDS; ++i) {
            *m_commands.Append() = {i, TimeOf(i), TimeOf(i), static_cast<defs::sample_id_t>(i), true, {}};
        }
        m_commands.Publish(COMMANDS);
        Change(defs::VoskControlMode::INS_DRIVEN_SEQUENTIAL, time_point{50s});
        m_check = std::make_unique<ContentCheck>(m_scenario, basis, SaturationLimits{VELOCITY, 1000.0F},
                                                 m_commands, m_modes);
    }

    static time_point TimeOf(std::size_t command) {
        return time_point{100s + 2ms * static_cast<std::int64_t>(command)};
    }

    // What the system makes of a command after M4 applied `applied`.
    std::vector<float> MakeSetpoint(
        std::size_t command, const std::vector<float>& applied,
        const std::vector<float>& reference = std::vector<float>(defs::M4_CMD_SIZE)) {
        std::vector<float> wire(defs::WAVEFRONT_CMD_SIZE);
        m_wavefront.Make(command, std::span<float, defs::WAVEFRONT_CMD_SIZE>(wire));
        std::vector<float> setpoint(defs::M4_CMD_SIZE, 0.0F);
        for (std::size_t i = 0; i < defs::INS_CMD_SIZE; ++i) setpoint[i] = wire[i + 2];
        for (std::size_t i = 0; i < reference.size(); ++i) setpoint[i] += reference[i];
        const float step = std::max(std::abs(setpoint[0] - applied[0]), std::abs(setpoint[1] - applied[1]));
        const float factor = std::min(VELOCITY / step, 1.0F);
        for (std::size_t i = 0; i < 2; ++i) setpoint[i] = applied[i] + factor * (setpoint[i] - applied[i]);
        return setpoint;
    }

    SetpointRecord Record(std::size_t command, defs::sample_id_t sample_id, AnswerFate answer) const {
        SetpointRecord record;
        record.arrived = record.planned = TimeOf(command) + m_scenario.host.m4_send_delay;
        record.sample_id = sample_id;
        record.answer = answer;
        if (answer != AnswerFate::NotSent) record.answer_sent = record.arrived;
        return record;
    }
    static SetpointRing::Vector Kept(const std::vector<float>& vector) {
        SetpointRing::Vector kept{};
        std::copy(vector.begin(), vector.end(), kept.begin());
        return kept;
    }
    CheckedSetpoint Check(std::size_t command, defs::sample_id_t sample_id, const std::vector<float>& vector,
                          AnswerFate answer = AnswerFate::Sent) {
        const SetpointRecord record = Record(command, sample_id, answer);
        const SetpointRing::Vector kept = Kept(vector);
        const ContentCheck::Item item{0, &record, &kept};
        return m_check->Check(std::span(&item, 1)).front();
    }
    void Change(defs::VoskControlMode mode, time_point time) {
        m_modes.Complete(m_modes.Ask(mode, time), time);
    }

    const std::vector<float> m_flat = std::vector<float>(defs::M4_CMD_SIZE, 0.0F);
    Scenario m_scenario;
    AppendLog<CommandRecord> m_commands;
    ModeTimeline m_modes;
    WavefrontGenerator m_wavefront;
    std::unique_ptr<ContentCheck> m_check;
};

TEST_F(ContentCheckTest, FollowsTheAnswersFromSetpointToSetpoint) {
    const auto first = MakeSetpoint(0, m_flat);
    const CheckedSetpoint checked_first = Check(0, 1, first);
    EXPECT_EQ(checked_first.content, Content::AsPredicted);
    EXPECT_EQ(checked_first.command, 0U);
    EXPECT_TRUE(checked_first.velocity_limited);
    const auto second = MakeSetpoint(1, first);
    const CheckedSetpoint taken = Check(1, 2, second);
    EXPECT_EQ(taken.content, Content::AsPredicted);
    EXPECT_EQ(taken.prior_answer, PriorAnswer::Taken);
    const CheckedSetpoint not_taken = Check(2, 3, MakeSetpoint(2, m_flat));
    EXPECT_EQ(not_taken.content, Content::AsPredicted);
    EXPECT_EQ(not_taken.prior_answer, PriorAnswer::NotTaken);
}

TEST_F(ContentCheckTest, RefusesAnAnswerThatCouldNotBeTaken) {
    for (const AnswerFate answer : {AnswerFate::NotSent, AnswerFate::WrongSampleId}) {
        const auto first = MakeSetpoint(0, m_flat);
        Check(0, 1, first, answer);
        EXPECT_EQ(Check(1, 2, MakeSetpoint(1, first)).content, Content::Wrong);
    }
    // Sample ID 4 was spent on a setpoint that never left.
    EXPECT_EQ(Check(3, 5, MakeSetpoint(3, m_flat)).content, Content::AsPredicted);
    EXPECT_EQ(Check(4, 7, MakeSetpoint(4, MakeSetpoint(3, m_flat))).content, Content::Wrong);
}

TEST_F(ContentCheckTest, GivesTheContentOfAValidCommandTheTimeOfAnInvalidOne) {
    m_commands.Written(2).valid = m_commands.Written(3).valid = false;
    const CheckedSetpoint checked = Check(3, 1, MakeSetpoint(1, m_flat));
    EXPECT_EQ(checked.content, Content::AsPredicted);
    EXPECT_EQ(checked.command, 1U);
    EXPECT_TRUE(checked.retimed);
    m_commands.Written(0).valid = false;
    EXPECT_EQ(Check(0, 2, MakeSetpoint(0, m_flat)).content, Content::NoCommand);
}

TEST_F(ContentCheckTest, FindsAWrongElementAnywhere) {
    for (const std::size_t element : {0U, 1U, 2U, 2600U, 4865U, 4866U, 5351U}) {
        auto setpoint = MakeSetpoint(0, m_flat);
        setpoint[element] += 1e-4F;
        EXPECT_EQ(Check(0, 1, setpoint).content, Content::Wrong) << element;
    }
    EXPECT_EQ(Check(5, 1, MakeSetpoint(4, m_flat)).content, Content::Wrong);  // of another command
}

TEST_F(ContentCheckTest, KnowsATimeThatBelongsToNoCommand) {
    SetpointRecord record = Record(3, 1, AnswerFate::Sent);
    record.planned += 1ns;
    const ContentCheck::Item item{0, &record, nullptr};
    EXPECT_EQ(m_check->Check(std::span(&item, 1)).front().content, Content::NoCommand);
}

TEST_F(ContentCheckTest, TakesEitherModeWhileOneIsBeingChanged) {
    m_modes.Ask(defs::VoskControlMode::INS_DRIVEN_CASCADE, TimeOf(0));
    auto cascade = MakeSetpoint(1, m_flat);
    cascade[0] = cascade[1] = 0.0F;
    EXPECT_EQ(Check(0, 1, MakeSetpoint(0, m_flat)).content, Content::AsPredicted);
    EXPECT_EQ(Check(1, 3, cascade).content, Content::AsPredicted);
}

TEST_F(ContentCheckTest, TakesUpTheReferenceShapeAtASecondHandover) {
    const auto first = MakeSetpoint(0, m_flat);
    Check(0, 1, first);
    Change(defs::VoskControlMode::TEL_DRIVEN, TimeOf(2));
    Change(defs::VoskControlMode::INS_DRIVEN_SEQUENTIAL, TimeOf(3));
    // The one before the handover and the one after it in one go: the reference shape is what was applied
    // between.
    const auto last = MakeSetpoint(1, first);
    const auto after = MakeSetpoint(5, last, last);
    const std::array records{Record(1, 2, AnswerFate::Sent), Record(5, 3, AnswerFate::Sent)};
    const std::array vectors{Kept(last), Kept(after)};
    const std::array<ContentCheck::Item, 2> items{
        {{0, &records[0], &vectors[0]}, {1, &records[1], &vectors[1]}}};
    for (const CheckedSetpoint& checked : m_check->Check(items))
        EXPECT_EQ(checked.content, Content::AsPredicted);
    EXPECT_EQ(Check(6, 4, MakeSetpoint(6, after, last)).content, Content::AsPredicted);
    EXPECT_EQ(Check(7, 6, MakeSetpoint(7, m_flat)).content, Content::Wrong);
}

}  // namespace
}  // namespace vosk::rig
