#include "judge/accounting.hpp"

#include <vosk/test/support.hpp>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using namespace testing;

// A run of ten valid commands, 2 ms apart from second 100 on, all under INS control and all answered. Each
// test takes something away.
class Books : public ::testing::Test {
protected:
    static constexpr std::size_t COMMANDS = 10;

    Books() {
        m_scenario.expect.min_setpoints = 0;
        m_scenario.expect.max_exceptions = 0.5;
        m_facts.status_time = At(1s);
        m_facts.modes = {{defs::VoskControlMode::INS_DRIVEN_CASCADE, At(-50ms), At(-40ms)}};
        for (std::size_t i = 0; i < COMMANDS; ++i) {
            m_commands.push_back(
                {i, At(2ms * i), At(2ms * i + 10us), static_cast<defs::sample_id_t>(i), true, {}});
            SetpointRecord setpoint;
            setpoint.planned = At(2ms * i + 1200us);
            setpoint.arrived = setpoint.planned + 20us;
            setpoint.sample_id = static_cast<defs::sample_id_t>(i + 1);
            setpoint.in_order = setpoint.marked_valid = true;
            setpoint.answer = AnswerFate::Sent;
            setpoint.answer_sent = setpoint.arrived + 50us;
            m_setpoints.push_back(setpoint);
            CheckedSetpoint checked;
            checked.setpoint = checked.command.emplace(i);
            checked.content = Content::AsPredicted;
            checked.prior_answer = i == 0 ? PriorAnswer::NotShown : PriorAnswer::Taken;
            m_checked.push_back(checked);
        }
    }

    static time_point At(std::chrono::nanoseconds offset) { return time_point{100s + offset}; }

    // The setpoint of this command never came; `made` tells whether a sample ID was spent on it.
    enum class Made { Yes, No };
    void TakeAway(std::size_t command, Made made) {
        const auto gone = m_checked.begin() + static_cast<std::ptrdiff_t>(command);
        m_setpoints.erase(m_setpoints.begin() + static_cast<std::ptrdiff_t>(command));
        m_checked.erase(gone);
        for (std::size_t i = command; i < m_checked.size(); ++i) {
            m_checked[i].setpoint = i;
            if (made == Made::No) --m_setpoints[i].sample_id;
        }
    }

    Accounts Make() {
        m_facts.commands = m_commands;
        m_facts.setpoints = m_setpoints;
        m_facts.checked = m_checked;
        if (!m_facts.host_exit) m_facts.host_exit = 0;
        return MakeAccounts(m_scenario, m_facts);
    }

    Scenario m_scenario;
    RunFacts m_facts;
    std::vector<CommandRecord> m_commands;
    std::vector<SetpointRecord> m_setpoints;
    std::vector<CheckedSetpoint> m_checked;
};

TEST_F(Books, HoldWhenAllIsWell) {
    const Accounts accounts = Make();
    EXPECT_THAT(accounts.violations, IsEmpty());
    EXPECT_EQ(accounts.Count(CommandFate::AsPredicted), COMMANDS);
    EXPECT_EQ(accounts.valid_in_ins_control, COMMANDS);
    EXPECT_EQ(accounts.exceptions, 0U);
    EXPECT_EQ(accounts.answers.in_time, COMMANDS);
}

TEST_F(Books, TellOverwrittenFromLateByTheSampleIds) {
    TakeAway(6, Made::No);
    TakeAway(3, Made::Yes);
    m_facts.status.counts.late_setpoints = 1;
    m_facts.status.counts.missing_answers = 1;
    const Accounts accounts = Make();
    EXPECT_EQ(accounts.fates[3], CommandFate::Late);
    EXPECT_EQ(accounts.fates[6], CommandFate::Overwritten);
    EXPECT_EQ(accounts.exceptions, 2U);
    EXPECT_THAT(accounts.violations, IsEmpty());
}

TEST_F(Books, FindASetpointThatWasLostInSilence) {
    TakeAway(3, Made::Yes);
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("1 setpoints went without")));
    m_facts.status.counts.missing_answers = 1;
    EXPECT_EQ(Make().fates[3], CommandFate::Replaced);
    EXPECT_THAT(Make().violations, IsEmpty());
    m_facts.incomplete_setpoints = 1;
    EXPECT_EQ(Make().fates[3], CommandFate::Incomplete);
    EXPECT_THAT(Make().violations, IsEmpty());
}

TEST_F(Books, TakeTheHostsWordForALateSetpointAtTheEndAndNobodysForMore) {
    TakeAway(9, Made::Yes);
    EXPECT_EQ(Make().fates[9], CommandFate::Unexplained);
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("nothing tells why")));
    m_facts.status.counts.late_setpoints = 1;
    EXPECT_EQ(Make().fates[9], CommandFate::Late);
    EXPECT_THAT(Make().violations, IsEmpty());
}

TEST_F(Books, RefuseTooManyExceptions) {
    TakeAway(3, Made::No);
    m_scenario.expect.max_exceptions = 0.1;
    EXPECT_THAT(Make().violations, IsEmpty());
    m_scenario.expect.max_exceptions = 0.09;
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("1 exceptions in 10 valid commands")));
}

TEST_F(Books, PutTheRigsOwnHarmDownToTheRig) {
    TakeAway(4, Made::No);
    m_commands[4].fault = FaultKind::Corrupt;
    const Accounts accounts = Make();
    EXPECT_EQ(accounts.fates[4], CommandFate::Harmed);
    EXPECT_EQ(accounts.exceptions, 0U);
    // A duplicated packet excuses nothing.
    m_commands[4].fault = FaultKind::Duplicate;
    EXPECT_EQ(Make().fates[4], CommandFate::Overwritten);
}

TEST_F(Books, LeaveOutWhatTheHandoverThrowsAwayButNoMore) {
    m_facts.modes = {{defs::VoskControlMode::INS_DRIVEN_CASCADE, At(1ms), At(3ms)}};
    // Commands 0 and 1 were sent before the host said yes; 2 is thrown away.
    for (int i = 0; i < 3; ++i) TakeAway(0, Made::No);
    const Accounts accounts = Make();
    EXPECT_EQ(accounts.fates[1], CommandFate::NotForM4);
    EXPECT_EQ(accounts.fates[2], CommandFate::AtHandover);
    EXPECT_EQ(accounts.fates[3], CommandFate::AsPredicted);
    EXPECT_EQ(accounts.valid_in_ins_control, 8U);
    EXPECT_THAT(accounts.violations, IsEmpty());
}

TEST_F(Books, CountInvalidCommandsAsNoneOfM4s) {
    TakeAway(5, Made::No);
    m_commands[5].valid = false;
    EXPECT_EQ(Make().fates[5], CommandFate::NotForM4);
    EXPECT_EQ(Make().valid_in_ins_control, 9U);
}

TEST_F(Books, KnowWhenM4WasAwayAndWhenItWasBackInStep) {
    for (int i = 0; i < 3; ++i) TakeAway(4, Made::Yes);
    m_facts.m4_absences = {{At(9ms), At(15ms)}};
    m_facts.status.counts.missing_answers = 3;
    m_checked[4].prior_answer = PriorAnswer::NotShown;  // command 7, the first after the return
    const Accounts accounts = Make();
    for (std::size_t i = 4; i < 7; ++i) EXPECT_EQ(accounts.fates[i], CommandFate::M4Away);
    EXPECT_EQ(accounts.exceptions, 0U);
    ASSERT_EQ(accounts.recoveries.size(), 1U);
    EXPECT_EQ(accounts.recoveries[0].first_setpoint, 220us);
    EXPECT_EQ(accounts.recoveries[0].in_step, 2220us);
    EXPECT_THAT(accounts.violations, IsEmpty());
    m_scenario.expect.recovery = 2ms;
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("not in step within 2 ms")));
}

TEST_F(Books, ExcuseEverythingBehindTheHostsStop) {
    while (m_checked.size() > 6) TakeAway(6, Made::No);
    m_facts.stop_asked = At(13ms);
    m_facts.stop_took = 30ms;
    const Accounts accounts = Make();
    for (std::size_t i = 6; i < COMMANDS; ++i) EXPECT_EQ(accounts.fates[i], CommandFate::HostStopped);
    EXPECT_THAT(accounts.violations, IsEmpty());
    m_facts.host_exit = 143;
    m_facts.stop_took = 10s;
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("code 143"), HasSubstr("more than 3000 ms")));
}

TEST_F(Books, CountAnswersByFate) {
    m_setpoints[1].answer_sent = m_setpoints[1].planned + 501us;
    m_setpoints[2].answer = AnswerFate::WrongSampleId;
    m_setpoints[3].answer = AnswerFate::Harmed;
    m_setpoints[4].answer = AnswerFate::NotSent;
    m_setpoints[7].answer_sent =
        m_setpoints[7].planned + 301us;  // 1 us less than the answer's travel is left
    for (std::size_t i : {2U, 3U, 4U, 5U, 7U, 8U}) m_checked[i].prior_answer = PriorAnswer::NotTaken;
    const Accounts accounts = Make();
    EXPECT_EQ(accounts.answers.in_time, 5U);
    EXPECT_EQ(accounts.answers.close, 1U);
    EXPECT_EQ(accounts.answers.late, 1U);
    EXPECT_EQ(accounts.answers.wrong_id, 1U);
    EXPECT_EQ(accounts.answers.harmed, 1U);
    EXPECT_EQ(accounts.answers.not_sent, 1U);
    // Only the one before setpoint 7 was sent in time, and it counts against the host.
    EXPECT_EQ(accounts.answers.not_taken, 1U);
    EXPECT_EQ(accounts.exceptions, 1U);
}

TEST_F(Books, HoldTheHostToItsCountOfOverwrittenCommands) {
    TakeAway(3, Made::No);
    m_facts.at_rest = true;
    HostStream& stream = m_facts.status.streams["AO_WAVEFRONT_CMD_INPUT"];
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("1 commands were never taken up")));
    stream.lost = 1;
    EXPECT_THAT(Make().violations, IsEmpty());
}

TEST_F(Books, JudgeTheSendTime) {
    m_setpoints[3].arrived = m_setpoints[3].planned + 501us;
    m_checked[4].prior_answer = PriorAnswer::NotTaken;  // no second exception of the one before
    EXPECT_EQ(Make().sent_late, 1U);
    EXPECT_EQ(Make().exceptions, 1U);
    EXPECT_THAT(Make().violations, IsEmpty());
    m_scenario.expect.send_margin = 501us;
    EXPECT_EQ(Make().sent_late, 0U);
    m_setpoints[5].arrived = m_setpoints[5].planned - 2us;
    EXPECT_THAT(Make().violations, ElementsAre(HasSubstr("1 setpoints reached M4 before")));
}

TEST_F(Books, BookNoCommandTwice) {
    m_checked[5].command = 4;
    m_checked[4].content = Content::Wrong;
    m_facts.modes[0].done = At(11ms);  // command 5 is nobody's
    const Accounts accounts = Make();
    EXPECT_EQ(accounts.fates[4], CommandFate::WrongContent);
    EXPECT_THAT(accounts.violations, Contains(HasSubstr("1 setpoints belong to a command that had one")));
}

TEST_F(Books, NameEveryOtherBreach) {
    m_checked[2].content = Content::Wrong;
    m_checked[3].content = Content::Unchecked;
    m_setpoints[4].in_order = false;
    m_setpoints[5].marked_valid = false;
    m_setpoints[8].sample_id = 3;
    m_facts.foreign_packets = 1;
    m_facts.log_overflow = 1;
    m_facts.trouble = "the host ended by itself";
    m_scenario.expect.min_setpoints = 10;
    const Accounts accounts = Make();
    EXPECT_THAT(
        accounts.violations,
        ElementsAre("the host ended by itself", HasSubstr("1 commands led to setpoints with wrong content"),
                    HasSubstr("1 setpoints went unchecked"), HasSubstr("2 setpoints came with packets"),
                    HasSubstr("1 setpoints are not marked"), HasSubstr("1 packets at M4's port"),
                    HasSubstr("1 records did not fit"), HasSubstr("6 setpoints went without"),
                    HasSubstr("only 8 setpoints")));
}

}  // namespace
}  // namespace vosk::rig
