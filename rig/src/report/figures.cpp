#include "report/figures.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace vosk::rig {
namespace {

// Rate and jitter of a stream from the times of its samples. Gaps in which nothing was due are left out: a
// period counts if it is shorter than `longest`.
void MeasurePeriods(StreamFigures& stream, const std::vector<time_point>& times, double longest_us) {
    double sum = 0.0;
    double squares = 0.0;
    std::size_t count = 0;
    for (std::size_t i = 1; i < times.size(); ++i) {
        const double period = MicrosecondsOf(times[i] - times[i - 1]);
        if (period > longest_us) continue;
        sum += period;
        squares += period * period;
        ++count;
    }
    if (count == 0 || sum <= 0.0) return;
    const double mean = sum / static_cast<double>(count);
    stream.rate = 1e6 / mean;
    stream.jitter = std::sqrt(std::max(squares / static_cast<double>(count) - mean * mean, 0.0));
}

// Half as long again as a period, as the shortest gap that a missing sample leaves is two.
constexpr double LONGEST_PERIOD = 1.5;

const HostStream* Find(const HostStatus& status, const char* name) {
    const auto found = status.streams.find(name);
    return found == status.streams.end() ? nullptr : &found->second;
}

StreamFigures CommandFigures(const RunFacts& facts, double period_us) {
    StreamFigures stream;
    stream.name = "wavefront command";
    std::vector<time_point> times;
    for (const CommandRecord& command : facts.commands) {
        times.push_back(command.sent);
        stream.sent += command.sent <= facts.status_time ? 1 : 0;
    }
    MeasurePeriods(stream, times, LONGEST_PERIOD * period_us);
    if (const HostStream* host = Find(facts.status, "AO_WAVEFRONT_CMD_INPUT")) {
        stream.counted = true;
        stream.received = host->samples;
        stream.invalid = host->invalid;
        stream.lost = host->lost;
    }
    stream.remark = "invalid: marked so, or broken";
    return stream;
}

StreamFigures SetpointFigures(const RunFacts& facts, double period_us) {
    StreamFigures stream;
    stream.name = "am:setpoint";
    std::vector<time_point> times;
    for (const SetpointRecord& setpoint : facts.setpoints) {
        times.push_back(setpoint.arrived);
        stream.received += setpoint.arrived <= facts.status_time ? 1 : 0;
    }
    MeasurePeriods(stream, times, LONGEST_PERIOD * period_us);
    if (const HostStream* host = Find(facts.status, "M4_OUTPUT")) {
        stream.counted = true;
        stream.sent = host->samples;
        const std::uint64_t arrived = stream.received + facts.incomplete_setpoints;
        if (facts.at_rest) stream.lost = stream.sent - std::min(stream.sent, arrived);
    }
    stream.invalid = facts.incomplete_setpoints;
    stream.remark = "sent: as the host counts";
    return stream;
}

StreamFigures AnswerFigures(const RunFacts& facts, double period_us) {
    StreamFigures stream;
    stream.name = "am:setpoint_applied";
    std::vector<time_point> times;
    for (const SetpointRecord& setpoint : facts.setpoints) {
        if (setpoint.answer_sent == time_point{}) continue;
        times.push_back(setpoint.answer_sent);
        stream.sent += setpoint.answer_sent <= facts.status_time ? 1 : 0;
    }
    MeasurePeriods(stream, times, LONGEST_PERIOD * period_us);
    if (const HostStream* host = Find(facts.status, "M4_INPUT")) {
        stream.counted = true;
        stream.received = host->samples;
        stream.invalid = host->invalid;
        stream.lost = host->lost;
    }
    return stream;
}

StreamFigures FeedbackFigures(const FeedbackCounts& feedback) {
    StreamFigures stream;
    stream.name = "M4 feedback";
    stream.sent = feedback.sent;
    stream.remark = "the host keeps no count of this stream";
    return stream;
}

std::vector<FaultFigures> CountFaults(const Scenario& scenario, const RunFacts& facts,
                                      const FeedbackCounts& feedback) {
    FaultCounts commands;
    for (const CommandRecord& command : facts.commands) commands.Add(command.fault);
    FaultCounts answers;
    for (const SetpointRecord& setpoint : facts.setpoints) answers.Add(setpoint.answer_fault);
    const auto reported = [&](const char* name) {
        const HostStream* host = Find(facts.status, name);
        return host ? fmt::format("host: {} invalid, {} lost, {} packets dropped by the kernel",
                                  host->invalid, host->lost, host->dropped_packets)
                    : std::string();
    };
    struct Row {
        Stream stream;
        const FaultCounts& counts;
        std::string reported;
    };
    const std::array<Row, 3> rows{
        {{Stream::WavefrontCommand, commands, reported("AO_WAVEFRONT_CMD_INPUT")},
         {Stream::SetpointApplied, answers,
          fmt::format("{}; {} answers missing, {} foreign", reported("M4_INPUT"),
                      facts.status.counts.missing_answers, facts.status.counts.foreign_answers)},
         {Stream::Feedback, feedback.faults, "the host keeps no count of this stream"}}};
    std::vector<FaultFigures> faults;
    for (const Row& row : rows) {
        std::string told = row.reported;
        for (std::size_t i = 0; i < FAULT_KINDS; ++i) {
            const auto kind = static_cast<FaultKind>(i);
            const bool named = std::any_of(
                scenario.faults.begin(), scenario.faults.end(),
                [&](const FaultRule& rule) { return rule.stream == row.stream && rule.kind == kind; });
            if (named)
                faults.push_back({row.stream, kind, row.counts.Of(kind), std::exchange(told, std::string())});
        }
    }
    return faults;
}

}  // namespace

double MicrosecondsOf(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

double SecondsSince(const RunFacts& facts, time_point time) {
    return std::chrono::duration<double>(time - facts.start).count();
}

StreamCells CellsOf(const StreamFigures& stream) {
    const auto if_known = [](bool known, const std::string& text) { return known ? text : std::string("-"); };
    return {fmt::to_string(stream.sent),
            if_known(stream.counted, fmt::to_string(stream.received)),
            stream.lost ? fmt::to_string(*stream.lost) : "-",
            if_known(stream.counted, fmt::to_string(stream.invalid)),
            if_known(stream.rate > 0.0, fmt::format("{:.2f}", stream.rate)),
            if_known(stream.rate > 0.0, fmt::format("{:.1f}", stream.jitter))};
}

Spread SpreadOf(std::vector<double> values) {
    if (values.empty()) return {};
    std::sort(values.begin(), values.end());
    const auto at = [&](double share) {
        return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
    };
    return {values.front(), at(0.5), at(0.99), values.back()};
}

Figures MakeFigures(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                    const FeedbackCounts& feedback) {
    Figures figures;
    double period_us = 1e12;
    for (std::size_t i = 1; i < facts.commands.size(); ++i)
        period_us = std::min(period_us,
                             MicrosecondsOf(facts.commands[i].time_stamp - facts.commands[i - 1].time_stamp));
    figures.streams.push_back(CommandFigures(facts, period_us));
    figures.streams.push_back(SetpointFigures(facts, period_us));
    figures.streams.push_back(AnswerFigures(facts, period_us));
    figures.streams.push_back(FeedbackFigures(feedback));
    if (!facts.at_rest)
        for (StreamFigures& stream : figures.streams)
            if (stream.counted) stream.remark = "counted in mid-flow, with a sample or two on their way";
    figures.faults = CountFaults(scenario, facts, feedback);

    std::vector<double> instrument;
    for (const CommandRecord& command : facts.commands)
        if (!command.fault) instrument.push_back(MicrosecondsOf(command.sent - command.time_stamp));
    figures.instrument = SpreadOf(std::move(instrument));

    std::vector<double> lateness;
    std::vector<double> command_to_setpoint;
    std::vector<double> answer;
    for (const CheckedSetpoint& checked : facts.checked) {
        const SetpointRecord& setpoint = facts.setpoints[checked.setpoint];
        lateness.push_back(MicrosecondsOf(setpoint.arrived - setpoint.planned));
        if (checked.command)
            command_to_setpoint.push_back(
                MicrosecondsOf(setpoint.arrived - facts.commands[*checked.command].sent));
        if (setpoint.answer == AnswerFate::Sent)
            answer.push_back(MicrosecondsOf(setpoint.answer_sent - setpoint.arrived));
    }
    figures.lateness = SpreadOf(std::move(lateness));
    figures.command_to_setpoint = SpreadOf(std::move(command_to_setpoint));
    figures.answer = SpreadOf(std::move(answer));

    for (const ModeTimeline::Change& change : facts.modes) {
        const auto mode = vosk::to_string(change.mode);
        figures.history.emplace_back(SecondsSince(facts, change.asked), "rig asks for " + mode);
        if (change.done != time_point::max())
            figures.history.emplace_back(SecondsSince(facts, change.done), "host confirms " + mode);
    }
    for (const Step& step : scenario.steps)
        if (!std::holds_alternative<SetMode>(step.action) && step.at < scenario.duration)
            figures.history.emplace_back(step.at.count(), "step: " + ToString(step));
    for (const Recovery& recovery : accounts.recoveries) {
        const auto text = [](const auto& duration) {
            return duration ? fmt::format("{:.3f} ms", MicrosecondsOf(*duration) / 1e3)
                            : std::string("never");
        };
        figures.history.emplace_back(SecondsSince(facts, recovery.returned),
                                     fmt::format("M4 is back: first setpoint after {}, in step after {}",
                                                 text(recovery.first_setpoint), text(recovery.in_step)));
    }
    for (const HostEvent& event : facts.status.events)
        figures.history.emplace_back(SecondsSince(facts, event.time), "host: " + event.text);
    for (const CheckedSetpoint& checked : facts.checked) {
        if (!checked.command) continue;
        figures.history.emplace_back(SecondsSince(facts, facts.setpoints[checked.setpoint].arrived),
                                     "first setpoint at M4");
        break;
    }
    std::stable_sort(figures.history.begin(), figures.history.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    return figures;
}

}  // namespace vosk::rig
