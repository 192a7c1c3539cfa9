#include "figures.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

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
    std::uint64_t marked_invalid = 0;
    std::vector<time_point> times;
    for (const CommandRecord& command : facts.commands) {
        times.push_back(command.sent);
        if (command.sent > facts.status_time) continue;
        ++stream.sent;
        marked_invalid += command.valid ? 0 : 1;
    }
    MeasurePeriods(stream, times, LONGEST_PERIOD * period_us);
    if (const HostStream* host = Find(facts.status, "AO_WAVEFRONT_CMD_INPUT")) {
        stream.counted = true;
        stream.received = host->samples + marked_invalid;
        stream.invalid = host->invalid;
    }
    stream.lost = static_cast<std::int64_t>(stream.sent) - static_cast<std::int64_t>(stream.received);
    stream.remark = "invalid: as the host counts, broken samples included";
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
    }
    stream.invalid = facts.incomplete_setpoints;
    stream.lost = static_cast<std::int64_t>(stream.sent) - static_cast<std::int64_t>(stream.received);
    stream.remark = "sent: as the host counts";
    return stream;
}

StreamFigures AnswerFigures(const RunFacts& facts, const AnswerCounts& answers, double period_us) {
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
    }
    stream.lost = static_cast<std::int64_t>(stream.sent) - static_cast<std::int64_t>(stream.received);
    if (answers.harmed > 0) stream.remark = fmt::format("{} of them harmed by the rig", answers.harmed);
    return stream;
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
            if_known(stream.counted, fmt::to_string(stream.lost)),
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
    return {at(0.5), at(0.99), values.back()};
}

Figures MakeFigures(const RunFacts& facts, const Accounts& accounts, const FeedbackCounts& feedback) {
    Figures figures;
    double period_us = 1e12;
    for (std::size_t i = 1; i < facts.commands.size(); ++i)
        period_us = std::min(period_us,
                             MicrosecondsOf(facts.commands[i].time_stamp - facts.commands[i - 1].time_stamp));
    figures.streams.push_back(CommandFigures(facts, period_us));
    figures.streams.push_back(SetpointFigures(facts, period_us));
    figures.streams.push_back(AnswerFigures(facts, accounts.answers, period_us));
    StreamFigures feedback_stream;
    feedback_stream.name = "M4 feedback";
    feedback_stream.sent = feedback.sent;
    feedback_stream.remark = "the host keeps no count of this stream";
    figures.streams.push_back(feedback_stream);
    if (facts.stop_asked)
        for (StreamFigures& stream : figures.streams)
            if (stream.counted) stream.remark = "counted in mid-flow, with a sample or two on their way";

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
        figures.handover.emplace_back(SecondsSince(facts, change.asked), "rig asks for " + mode);
        if (change.done != time_point::max())
            figures.handover.emplace_back(SecondsSince(facts, change.done), "host confirms " + mode);
    }
    for (const HostEvent& event : facts.status.events)
        figures.handover.emplace_back(SecondsSince(facts, event.time), "host: " + event.text);
    for (const CheckedSetpoint& checked : facts.checked) {
        if (!checked.command) continue;
        figures.handover.emplace_back(SecondsSince(facts, facts.setpoints[checked.setpoint].arrived),
                                      "first setpoint at M4");
        break;
    }
    std::stable_sort(figures.handover.begin(), figures.handover.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    return figures;
}

}  // namespace vosk::rig
