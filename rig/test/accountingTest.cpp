#include "judge/accounting.hpp"

#include "judge/hostJudge.hpp"

#include <vosk/test/support.hpp>

#include <functional>
#include <map>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using Fates = std::map<std::size_t, CommandFate>;

time_point At(std::chrono::nanoseconds offset) {
    return time_point{100s + offset};
}

// A run of ten valid commands, 2 ms apart from second 100 on, all under INS control and all answered. Each
// case takes something away.
struct Books {
    static constexpr std::size_t COMMANDS = 10;
    enum class Made { Yes, No };

    // Without some setpoints: each the n-th that is left then, and whether a sample ID was spent on it.
    explicit Books(const std::vector<std::pair<std::size_t, Made>>& gone = {}) {
        scenario.expect.min_setpoints = 0;
        scenario.expect.max_exceptions = 0.5;
        run.status_time = At(1s);
        run.modes = {{defs::VoskControlMode::INS_DRIVEN_CASCADE, At(-50ms), At(-40ms)}};
        run.host_exit = 0;
        for (std::size_t i = 0; i < COMMANDS; ++i) {
            const auto sample_id = static_cast<defs::sample_id_t>(i + 1);
            commands.push_back({i, At(2ms * i), At(2ms * i + 10us), sample_id, true, {}});
            SetpointRecord setpoint;
            setpoint.planned = At(2ms * i + 1200us);
            setpoint.arrived = setpoint.planned + 20us;
            setpoint.sample_id = sample_id;
            setpoint.in_order = setpoint.marked_valid = true;
            setpoint.answer = AnswerFate::Sent;
            setpoint.answer_sent = setpoint.arrived + 50us;
            setpoints.push_back(setpoint);
            CheckedSetpoint result;
            result.setpoint = result.command.emplace(i);
            result.content = Content::AsPredicted;
            result.prior_answer = i == 0 ? PriorAnswer::NotShown : PriorAnswer::Taken;
            checked.push_back(result);
        }
        for (const auto& [index, made] : gone) {
            setpoints.erase(setpoints.begin() + static_cast<std::ptrdiff_t>(index));
            checked.erase(checked.begin() + static_cast<std::ptrdiff_t>(index));
            for (std::size_t i = index; i < checked.size(); ++i) {
                checked[i].setpoint = i;
                if (made == Made::No) --setpoints[i].sample_id;
            }
        }
    }

    Books& Counting(std::initializer_list<std::uint64_t HostCounts::*> counts) {
        for (const auto count : counts) ++(run.status.counts.*count);
        return *this;
    }
    Books& With(const std::function<void(Books&)>& change) {
        change(*this);
        return *this;
    }
    Accounts Make() {
        loop.commands = commands;
        loop.setpoints = setpoints;
        loop.checked = checked;
        return MakeAccounts(scenario, run, loop);
    }
    // `fates`: of the commands that did not go as predicted; `violations`: how each begins.
    void Expect(const Fates& fates, std::uint64_t exceptions, const std::vector<std::string>& violations = {},
                int line = __builtin_LINE()) {
        SCOPED_TRACE(line);
        const Accounts accounts = Make();
        Fates found;
        for (std::size_t i = 0; i < COMMANDS; ++i)
            if (accounts.fates[i] != CommandFate::AsPredicted) found[i] = accounts.fates[i];
        EXPECT_EQ(found, fates);
        EXPECT_EQ(accounts.exceptions, exceptions);
        std::vector<Matcher<std::string>> beginnings;
        for (const std::string& violation : violations) beginnings.emplace_back(StartsWith(violation));
        EXPECT_THAT(accounts.violations, ElementsAreArray(beginnings));
    }

    Scenario scenario;
    RunFacts run;
    LoopFacts loop;
    std::vector<CommandRecord> commands;
    std::vector<SetpointRecord> setpoints;
    std::vector<CheckedSetpoint> checked;
};

constexpr auto YES = Books::Made::Yes;
constexpr auto NO = Books::Made::No;
constexpr auto LATE = &HostCounts::late_setpoints;
constexpr auto MISSING = &HostCounts::missing_answers;
using enum CommandFate;

TEST(Books, NameWhatBecameOfACommandWithoutSetpoint) {
    Books().Expect({}, 0);
    Books({{6, NO}, {3, YES}}).Counting({LATE, MISSING}).Expect({{3, Late}, {6, Overwritten}}, 2);
    Books({{3, YES}}).Expect({{3, Replaced}}, 1, {"1 setpoints went without"});
    Books({{3, YES}})
        .With([](Books& books) { books.run.status_time = books.setpoints[2].planned + 600us; })
        .Expect({{3, Replaced}}, 1);
    Books({{3, YES}})
        .Counting({MISSING})
        .With([](Books& books) { books.loop.incomplete_setpoints = 1; })
        .Expect({{3, Incomplete}}, 1);
    Books({{9, YES}}).Expect({{9, Unexplained}}, 0, {"1 commands led to no setpoint"});
    const auto losing = [](std::uint64_t lost) {
        return [lost](Books& books) {
            books.run.at_rest = true;
            books.run.status.streams["AO_WAVEFRONT_CMD_INPUT"].lost = lost;
        };
    };
    Books({{3, NO}}).With(losing(0)).Expect({{3, Overwritten}}, 1, {"1 commands were never taken"});
    Books({{3, NO}}).With(losing(1)).Expect({{3, Overwritten}}, 1);
    for (const auto& [fault, fate, exceptions] :
         {std::tuple(FaultKind::Corrupt, Harmed, 0U), std::tuple(FaultKind::Duplicate, Overwritten, 1U)})
        Books({{4, NO}})
            .With([fault = fault](Books& books) { books.commands[4].fault = fault; })
            .Expect({{4, fate}}, exceptions);
    Books({{5, NO}}).With([](Books& books) { books.commands[5].valid = false; }).Expect({{5, NotForM4}}, 0);
    // Commands 0 and 1 were sent before the host said yes; 2 is thrown away.
    Books({{0, NO}, {0, NO}, {0, NO}})
        .With([](Books& books) {
            books.run.modes = {{defs::VoskControlMode::INS_DRIVEN_CASCADE, At(1ms), At(3ms)}};
        })
        .Expect({{0, NotForM4}, {1, NotForM4}, {2, AtHandover}}, 0);
    Books({{9, NO}, {8, NO}, {7, NO}})
        .With([](Books& books) { books.run.stop_asked = At(16ms); })
        .Expect({{7, HostStopped}, {8, HostStopped}, {9, HostStopped}}, 0);
}

TEST(Books, JudgeTheSetpoints) {
    const auto arriving = [](std::chrono::nanoseconds late) {
        return [late](Books& books) { books.setpoints[3].arrived = books.setpoints[3].planned + late; };
    };
    Books().With(arriving(500us)).Expect({}, 0);
    // No second exception for the answer that came too late with it.
    Books()
        .With(arriving(500001ns))
        .With([](Books& books) { books.checked[4].prior_answer = PriorAnswer::NotTaken; })
        .Expect({}, 1);
    Books().With(arriving(-1001ns)).Expect({}, 0, {"1 setpoints reached M4 before"});
    const auto allowing = [](double share) {
        return [share](Books& books) { books.scenario.expect.max_exceptions = share; };
    };
    Books({{3, NO}}).With(allowing(0.1)).Expect({{3, Overwritten}}, 1);
    Books({{3, NO}}).With(allowing(0.09)).Expect({{3, Overwritten}}, 1, {"1 exceptions in 10 valid"});
    Books()
        .With([](Books& books) { books.checked[5].command = 4; })
        .Expect({{5, Overwritten}}, 1, {"1 setpoints belong to a command that had one"});
    Books()
        .Counting({&HostCounts::kept_back_setpoints})
        .With([](Books& books) {
            books.checked[2].content = Content::Wrong;
            books.checked[3].content = Content::Unchecked;
            books.setpoints[4].in_order = books.setpoints[5].marked_valid = false;
            books.setpoints[8].sample_id = 3;
            books.loop.foreign_packets = books.loop.log_overflow = 1;
            books.scenario.expect.min_setpoints = 9;
        })
        .Expect({{2, WrongContent}, {3, Unchecked}}, 0,
                {"1 commands led to setpoints with wrong", "1 setpoints went unchecked",
                 "2 setpoints came with packets", "1 setpoints are not marked", "1 packets at M4's port",
                 "1 records did not fit", "1 setpoints were kept back", "6 setpoints went without",
                 "only 8 setpoints"});
}

TEST(Books, CountAnswersByFate) {
    Books books;
    books.setpoints[1].answer_sent = books.setpoints[1].planned + 501us;
    books.setpoints[2].answer = AnswerFate::WrongSampleId;
    books.setpoints[3].answer = AnswerFate::Harmed;
    books.setpoints[4].answer = AnswerFate::NotSent;
    // 1 us less than the answer's travel is left.
    books.setpoints[7].answer_sent = books.setpoints[7].planned + 301us;
    for (const std::size_t i : {2U, 3U, 4U, 5U, 7U, 8U})
        books.checked[i].prior_answer = PriorAnswer::NotTaken;
    const AnswerCounts answers = books.Make().answers;
    EXPECT_THAT((std::vector{answers.in_time, answers.close, answers.late, answers.wrong_id, answers.harmed,
                             answers.not_sent}),
                ElementsAre(5, 1, 1, 1, 1, 1));
    // Only the one before setpoint 7 was sent in time, and it counts against the host.
    EXPECT_EQ(answers.not_taken, 1U);
    // Unless the rig shuffled it, or sent a foreign answer just before it.
    books.setpoints[6].answer_fault = FaultKind::Reorder;
    EXPECT_EQ(books.Make().answers.not_taken, 0U);
    books.setpoints[6].answer_fault = FaultKind::Duplicate;
    EXPECT_EQ(books.Make().answers.not_taken, 1U);
    books.setpoints[5].answer_fault = FaultKind::WrongSampleId;
    EXPECT_EQ(books.Make().answers.not_taken, 0U);
    books.setpoints[5].answer_sent -= 200us;  // a whole period before the setpoint
    EXPECT_EQ(books.Make().answers.not_taken, 1U);
}

TEST(Books, KnowWhenM4WasBackInStep) {
    Books books({{4, YES}, {4, YES}, {4, YES}});
    books.loop.m4_absences = {{At(9ms), At(15ms)}};
    books.run.status.counts.missing_answers = 3;
    books.checked[4].prior_answer = PriorAnswer::NotShown;  // command 7, the first after the return
    books.scenario.expect.recovery = 2ms;
    const Accounts accounts = books.Make();
    ASSERT_EQ(accounts.recoveries.size(), 1U);
    EXPECT_EQ(accounts.recoveries[0].first_setpoint, 220us);
    EXPECT_EQ(accounts.recoveries[0].in_step, 2220us);
    books.Expect({{4, M4Away}, {5, M4Away}, {6, M4Away}}, 0, {"after M4 came back, setpoints"});
}

TEST(JudgeHost, NamesWhatTheHostBroke) {
    RunFacts facts;
    EXPECT_THAT(JudgeHost({}, facts), ElementsAre(HasSubstr("did not end")));
    facts.host_exit = 0;
    facts.stop_took = 3s;
    EXPECT_THAT(JudgeHost({}, facts), IsEmpty());
    facts.status.counts.failed_mode_changes = facts.status.counts.clock_steps = 1;
    facts.stop_took = 3001ms;
    facts.host_exit = 143;
    facts.trouble = "interrupted";
    EXPECT_THAT(JudgeHost({}, facts), SizeIs(5));
}

}  // namespace
}  // namespace vosk::rig
