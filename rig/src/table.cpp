#include "table.hpp"

#include <fmt/format.h>

#include <iterator>

namespace vosk::rig {
namespace {

using Output = std::back_insert_iterator<std::string>;

void WriteStreams(Output out, const Figures& figures) {
    fmt::format_to(out, "\n{:<20} {:>8} {:>8} {:>6} {:>8} {:>9} {:>11}\n", "stream", "sent", "received",
                   "lost", "invalid", "rate, Hz", "jitter, us");
    for (const StreamFigures& stream : figures.streams) {
        const StreamCells cells = CellsOf(stream);
        fmt::format_to(out, "{:<20} {:>8} {:>8} {:>6} {:>8} {:>9} {:>11}  {}\n", stream.name, cells[0],
                       cells[1], cells[2], cells[3], cells[4], cells[5], stream.remark);
    }
}

void WriteTimes(Output out, const Figures& figures) {
    fmt::format_to(out, "\n{:<44} {:>9} {:>9} {:>9}\n", "time, us", "p50", "p99", "max");
    const auto line = [&](const char* name, const Spread& spread) {
        fmt::format_to(out, "{:<44} {:>9.1f} {:>9.1f} {:>9.1f}\n", name, spread.p50, spread.p99, spread.max);
    };
    line("command: actual less planned send time", figures.instrument);
    line("setpoint: actual less planned send time", figures.lateness);
    line("command sent to setpoint received", figures.command_to_setpoint);
    line("setpoint received to answer sent", figures.answer);
}

void WriteCommands(Output out, const RunFacts& facts, const Accounts& accounts) {
    fmt::format_to(out, "\nhost and peers at {} priority\n", facts.realtime ? "real-time" : "ordinary");
    fmt::format_to(out, "{} commands sent, {} of them valid and under INS control\n", facts.commands.size(),
                   accounts.valid_in_ins_control);
    if (facts.instrument_overruns > 0)
        fmt::format_to(out, "  {:>8}  {:<14} never sent, as the rig itself woke too late\n",
                       facts.instrument_overruns, "rig overran");
    for (std::size_t i = 0; i < COMMAND_FATES; ++i) {
        if (accounts.count[i] == 0) continue;
        const auto fate = static_cast<CommandFate>(i);
        fmt::format_to(out, "  {:>8}  {:<14} {}\n", accounts.count[i], NameOf(fate), MeaningOf(fate));
    }
    fmt::format_to(out, "  {:>8}  {:<14} the step limit scaled the setpoint\n", accounts.velocity_limited,
                   "step limited");
    fmt::format_to(out, "  {:>8}  {:<14} the position limit scaled the setpoint\n", accounts.gap_limited,
                   "gap limited");
    if (accounts.retimed > 0)
        fmt::format_to(out,
                       "  {:>8}  {:<14} sent at the time of an invalid command that came at once after it\n",
                       accounts.retimed, "retimed");
}

void WriteAnswers(Output out, const RunFacts& facts, const AnswerCounts& answers) {
    fmt::format_to(out,
                   "\nanswers of M4: {} in time, {} close, {} late, {} with a wrong ID, {} harmed, {} not "
                   "sent; {} in time but "
                   "not taken\n",
                   answers.in_time, answers.close, answers.late, answers.wrong_id, answers.harmed,
                   answers.not_sent, answers.not_taken);
    fmt::format_to(
        out,
        "host's log: {} setpoints not sent in time, {} answers missing, {} with a foreign ID, {} receive "
        "errors, {} lines dropped\n",
        facts.complaints.unsent_setpoints, facts.complaints.missing_answers, facts.complaints.foreign_answers,
        facts.complaints.receive_errors, facts.status.log_dropped);
}

void WriteHistory(Output out, const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                  const Figures& figures) {
    fmt::format_to(out, "\nhandover and mode changes, s after the first command\n");
    for (const auto& [time, what] : figures.handover) fmt::format_to(out, "  {:>10.6f}  {}\n", time, what);
    for (const Step& step : scenario.steps)
        if (!std::holds_alternative<SetMode>(step.action))
            fmt::format_to(out, "  {:>10.6f}  step: {}\n", step.at.count(), ToString(step));
    for (const Recovery& recovery : accounts.recoveries) {
        const auto text = [](const auto& duration) {
            return duration ? fmt::format("{:.3f} ms", MicrosecondsOf(*duration) / 1e3)
                            : std::string("never");
        };
        fmt::format_to(out, "  {:>10.6f}  M4 is back: first setpoint after {}, in step after {}\n",
                       SecondsSince(facts, recovery.returned), text(recovery.first_setpoint),
                       text(recovery.in_step));
    }
    if (facts.stop_took)
        fmt::format_to(out, "  the host ended {:.1f} ms after it was told to, with code {}\n",
                       MicrosecondsOf(*facts.stop_took) / 1e3, facts.host_exit ? *facts.host_exit : -1);
}

}  // namespace

std::string MakeTable(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                      const Figures& figures) {
    std::string text;
    const Output out(text);
    WriteStreams(out, figures);
    WriteTimes(out, figures);
    WriteCommands(out, facts, accounts);
    WriteAnswers(out, facts, accounts.answers);
    WriteHistory(out, scenario, facts, accounts, figures);
    fmt::format_to(out,
                   "\nexceptions (overwritten, late, replaced, incomplete, answer not taken): {} = {:.3f} %, "
                   "allowed {:.3g} %\n",
                   accounts.exceptions, 100.0 * accounts.ExceptionShare(),
                   100.0 * scenario.expect.max_exceptions);
    if (accounts.Holds()) {
        fmt::format_to(out, "VERDICT: holds\n");
    } else {
        fmt::format_to(out, "VERDICT: does not hold\n");
        for (const std::string& violation : accounts.violations) fmt::format_to(out, "  - {}\n", violation);
    }
    return text;
}

}  // namespace vosk::rig
