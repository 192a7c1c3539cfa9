#include "peers/m4Peer.hpp"

#include "peers/loopback.hpp"

#include <fmt/format.h>
#include <nodepin/nodepin.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t SETPOINT_TOPIC = 402;
constexpr std::uint32_t ANSWER_TOPIC = 403;
constexpr std::uint32_t FEEDBACK_TOPIC = 404;
constexpr const char* NOT_COUNTED = "the host keeps no count of this stream";

// The checking thread may fall behind by a whole run of common length; 350 MB.
constexpr std::size_t LARGEST_RING = 16384;

constexpr defs::sample_id_t WRONG_ID_STEP = 1000;
// How often the thread looks whether it is to die, return or stop.
constexpr auto LOOK_ROUND = 2ms;

pktwire::qudex::Receiver::Config ReceiverConfig() {
    pktwire::qudex::Receiver::Config config;
    config.topic = SETPOINT_TOPIC;
    config.num_frames = defs::M4Setpoint::SEGMENTS.size();
    return config;
}

// M4 tells its sensors until the host has ended.
std::size_t ExpectedFeedback(const Scenario& scenario) {
    return static_cast<std::size_t>(scenario.m4.feedback_rate * (scenario.duration.count() + 10.0));
}

}  // namespace

M4Peer::Life::Life(std::uint16_t port) : socket(port), receiver(ReceiverConfig(), socket, nullptr) {}

M4Peer::Outlet::Outlet(const Scenario& scenario, Stream stream, std::uint16_t to, std::uint32_t topic)
    : port(to),
      socket(LoopbackTo(to), nullptr),
      faulty_socket(socket),
      sender(CheckedSamples(topic, 3), faulty_socket, nullptr),
      faults(scenario, stream) {}

M4Peer::M4Peer(const Scenario& scenario, Ports& ports, std::shared_ptr<Mirror> mirror)
    : m_scenario(scenario),
      m_feedback_period(scenario.FeedbackPeriod()),
      m_port(ports.Take()),
      m_mirror(std::move(mirror)),
      m_log(scenario.ExpectedSetpoints()),
      m_feedback_log(ExpectedFeedback(scenario)),
      m_ring(std::min<std::size_t>(scenario.ExpectedSetpoints(), LARGEST_RING)),
      m_answers(scenario, Stream::SetpointApplied, ports.Take(), ANSWER_TOPIC),
      m_feedback(scenario, Stream::Feedback, ports.Take(), FEEDBACK_TOPIC) {}

M4Peer::~M4Peer() {
    Stop();
}

void M4Peer::AddTo(HostDocument& document) const {
    using std::chrono::microseconds;
    microseconds interval{2000};
    microseconds offset{0};
    if (m_scenario.telescope) {
        interval = m_scenario.streams->interval;
        // The host counts from the grid point behind the moment.
        offset = m_scenario.telescope->m4_offset - interval;
    }
    document.AddOutput("m4", "output", m_port, SETPOINT_TOPIC, interval, offset);
    document.AddInput("m4", "input", m_answers.port, ANSWER_TOPIC);
    document.AddInput("m4", "feedback", m_feedback.port, FEEDBACK_TOPIC);
}

void M4Peer::Start(time_point first) {
    m_first = first;
    m_life = std::make_unique<Life>(m_port);
    PlanFeedback(first);
    m_running = true;
    m_thread = nodepin::MakeThread("M4", {{}, {}, m_scenario.host.PeerPriority()}, [this] { Run(); });
}

void M4Peer::TakeStep(const StepAction& action) {
    if (const auto* life = std::get_if<SetM4Alive>(&action)) m_wanted_alive = life->alive;
}

std::string M4Peer::Progress() const {
    return fmt::format("{} setpoints", m_received.load(std::memory_order_relaxed));
}

void M4Peer::Stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

PeerAccount M4Peer::Account(const RunFacts& facts) const {
    std::vector<time_point> arrivals;
    std::vector<time_point> answers;
    FaultCounts answer_faults;
    for (const SetpointRecord& setpoint : m_log.Entries()) {
        arrivals.push_back(setpoint.arrived);
        if (setpoint.answer_sent != time_point{}) answers.push_back(setpoint.answer_sent);
        answer_faults.Add(setpoint.answer_fault);
    }
    StreamFigures feedback;
    feedback.name = "M4 feedback";
    feedback.sent = m_feedback_counter;
    feedback.remark = NOT_COUNTED;
    const auto period = m_scenario.CommandPeriod();
    const HostCounts& counts = facts.status.counts;

    PeerAccount account;
    account.streams = {FiguresOfReceived("am:setpoint", arrivals, period, facts, "M4_OUTPUT", m_incomplete),
                       FiguresOfSent("am:setpoint_applied", answers, period, facts, "M4_INPUT"), feedback};
    account.faults =
        FiguresOfFaults(m_scenario, Stream::SetpointApplied, answer_faults,
                        fmt::format("{}; {} answers missing, {} foreign", HostCountsOf(facts, "M4_INPUT"),
                                    counts.missing_answers, counts.foreign_answers));
    for (const FaultFigures& fault :
         FiguresOfFaults(m_scenario, Stream::Feedback, m_feedback_faults, NOT_COUNTED))
        account.faults.push_back(fault);
    return account;
}

void M4Peer::Run() {
    while (m_running) {
        LiveOrDie();
        const time_point now = AtomClk::now();
        if (!m_life) {
            SleepUntil(now + LOOK_ROUND);
            continue;
        }
        SendDueAnswers(now);
        if (now >= m_feedback_due) SendFeedback(now);
        Receive(now);
    }
    for (PendingAnswer& answer : m_pending) answer.waiting = false;
    PublishSettled();
    if (m_life) Die();
}

void M4Peer::LiveOrDie() {
    const bool wanted = m_wanted_alive.load(std::memory_order_relaxed);
    if (wanted == (m_life != nullptr)) return;
    if (!wanted) {
        m_absences.Begin(AtomClk::now());
        Die();
        return;
    }
    m_life = std::make_unique<Life>(m_port);
    const time_point now = AtomClk::now();
    PlanFeedback(now);
    m_absences.End(now);
}

void M4Peer::Die() {
    m_foreign += m_life->receiver.GetCounters().foreign;
    m_life.reset();
    for (PendingAnswer& answer : m_pending) answer.waiting = false;
    PublishSettled();
}

time_point M4Peer::NextDue() const {
    time_point due = m_feedback_due;
    for (const PendingAnswer& answer : m_pending)
        if (answer.waiting) due = std::min(due, answer.due);
    return due;
}

void M4Peer::Receive(time_point now) {
    const auto timeout = std::clamp<std::chrono::nanoseconds>(NextDue() - now, 0ns, LOOK_ROUND);
    const auto [error, handle] = m_life->receiver.ReceiveSample(WritableBytesOf(m_setpoint), timeout);
    if (!error && handle)
        TakeSetpoint(*handle->first);
    else if (error && error != std::errc::timed_out)
        ++m_incomplete;
}

void M4Peer::TakeSetpoint(const pktwire::qudex::Packet& packet) {
    SetpointRecord* record = m_log.Append();
    if (record == nullptr) return;
    const std::size_t index = m_log.WrittenCount() - 1;
    const auto arrival = m_life->socket.Find(packet.SampleId());
    *record = {};
    record->sample_id = packet.SampleId();
    record->planned = packet.Timestamp();
    record->arrived = arrival ? arrival->first : AtomClk::now();
    record->in_order = arrival && arrival->in_order;
    record->marked_valid = m_setpoint.valid == 1;
    std::copy(m_setpoint.setpoint.begin(), m_setpoint.setpoint.end(), m_values.begin());
    record->digest = DigestOf(std::span(m_values).first<defs::INS_CMD_SIZE>());
    record->slot = m_ring.Take();
    if (record->slot != SetpointRecord::NO_SLOT) m_ring[record->slot] = m_values;
    if (m_mirror) {
        std::array<double, defs::GPAO_CMD_SIZE> leading{};
        std::copy_n(m_values.begin(), leading.size(), leading.begin());
        m_mirror->Follow(record->arrived, leading);
    }
    m_feedback_record.values = m_setpoint.setpoint;
    m_received.fetch_add(1, std::memory_order_relaxed);
    ScheduleAnswer(index, record->arrived);
    SendDueAnswers(AtomClk::now());
    PublishSettled();
}

void M4Peer::ScheduleAnswer(std::size_t record, time_point arrived) {
    const auto free = std::find_if(m_pending.begin(), m_pending.end(),
                                   [](const PendingAnswer& answer) { return !answer.waiting; });
    if (free == m_pending.end()) return;  // the record says that no answer was sent
    free->waiting = true;
    free->record = record;
    free->fault = m_answers.faults.Next(arrived - m_first);
    free->due = arrived + m_scenario.m4.answer_delay;
    if (free->fault && free->fault->kind == FaultKind::Delay) free->due += free->fault->delay;
    free->payload.setpoint = m_setpoint.setpoint;
    free->payload.applied_sample_id = m_log.Written(record).sample_id;
}

void M4Peer::SendDueAnswers(time_point now) {
    bool any = false;
    for (PendingAnswer& answer : m_pending) {
        if (!answer.waiting || answer.due > now) continue;
        SendAnswer(answer);
        any = true;
    }
    if (any) PublishSettled();
}

void M4Peer::SendAnswer(PendingAnswer& answer) {
    SetpointRecord& record = m_log.Written(answer.record);
    defs::sample_id_t sample_id = record.sample_id;
    record.answer = AnswerFate::Sent;
    if (answer.fault) {
        record.answer_fault = answer.fault->kind;
        if (HarmOf(answer.fault->kind) == Harm::Certain) record.answer = AnswerFate::Harmed;
        if (answer.fault->kind == FaultKind::WrongSampleId) {
            record.answer = AnswerFate::WrongSampleId;
            sample_id += WRONG_ID_STEP;
        }
        m_answers.faulty_socket.Arm(*answer.fault);
    }
    record.answer_sent = AtomClk::now();
    answer.payload.applied_time = record.answer_sent;
    m_answers.sender.SetSampleId(sample_id);
    static_cast<void>(m_answers.sender.SendSample(BytesOf(answer.payload), record.answer_sent, {}));
    static_cast<void>(m_answers.faulty_socket.Release());
    answer.waiting = false;
}

void M4Peer::PlanFeedback(time_point grid_point) {
    m_feedback_grid = m_feedback_due = grid_point;
    m_feedback_fault = m_feedback.faults.Next(grid_point - m_first);
    if (m_feedback_fault) m_feedback_due += m_feedback_fault->delay;
}

void M4Peer::SendFeedback(time_point now) {
    m_feedback_record.counter = ++m_feedback_counter;
    defs::sample_id_t sample_id = m_feedback_counter;
    if (m_feedback_fault) {
        if (m_feedback_fault->kind == FaultKind::WrongSampleId) sample_id += WRONG_ID_STEP;
        m_feedback.faulty_socket.Arm(*m_feedback_fault);
        m_feedback_faults.Add(m_feedback_fault->kind);
    }
    if (FeedbackRecord* record = m_feedback_log.Append()) {
        *record = {now, DigestOf(m_values),
                   m_feedback_fault ? std::optional(m_feedback_fault->kind) : std::nullopt};
        m_feedback_log.Publish(m_feedback_log.WrittenCount());
    }
    m_feedback.sender.SetSampleId(sample_id);
    static_cast<void>(m_feedback.sender.SendSample(BytesOf(m_feedback_record), now, {}));
    static_cast<void>(m_feedback.faulty_socket.Release());
    // Points of the grid that have passed are left out; the others stay where they are.
    time_point next = m_feedback_grid;
    while (next <= now) next += m_feedback_period;
    PlanFeedback(next);
}

void M4Peer::PublishSettled() {
    std::size_t settled = m_log.WrittenCount();
    for (const PendingAnswer& answer : m_pending)
        if (answer.waiting) settled = std::min(settled, answer.record);
    m_log.Publish(settled);
}

}  // namespace vosk::rig
