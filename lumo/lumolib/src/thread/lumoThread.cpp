#include <lumolib/lumoThread.hpp>

#include <numa.h>
#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

#include <lumolib/utilities.hpp>

#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vosk::lumo {

namespace {

using common::LogAndThrow;
using common::LogDebug;
using common::LogError;
using common::LogTrace;
using common::LogWarn;
using oru::configng::PliConfigInstanceNode;

// A stop waits for one receiver after the other.
constexpr std::chrono::seconds LONG_TIMEOUT{1};

int GetPriority(const PliConfigInstanceNode& node) {
    const int priority = GetParamOr(node, "priority", nodepin::default_priority);
    if (priority < 0 || priority > nodepin::MAX_PRIORITY) {
        Refuse(
            node, "priority",
            fmt::format("ERR: {}.priority must lie between 0 and {}", node.GetPath(), nodepin::MAX_PRIORITY));
    }
    return priority;
}

}  // namespace

Thread::Thread(const std::string& name, const PliConfigInstanceNode& node, const std::string& description)
    : m_name{name}, m_description{description} {
    LogDebug("Setting up {} thread", m_name);
    if (!node.IsMap()) LogAndThrow(fmt::format("Thread {}, configuration not recognized", m_name));
    if (!node.Has("busy")) {
        Refuse(node, "busy",
               fmt::format("{}: busy-waiting configuration not found (missing busy: true/false)", m_name));
    }
    m_busy = GetParamOr(node, "busy", m_busy);
    m_cpu = GetParamOr(node, "cpu", m_cpu);
    m_numa_placement.SetPriority(GetPriority(node));
    LogTrace("Thread {}: CPU = {}, busy waiting = {}", m_name, m_cpu, m_busy ? 1 : 0);
    m_synchronizer = common::MakeWaitSynchronizer(m_busy);
    m_numa_buf_size = GetParamOr(node, "numa_buf_size", m_numa_buf_size);
    if (m_cpu >= 0 && ::numa_available() != -1) SetUpPlacement(node);
}

Thread::~Thread() {
    VOSK_ASSERT(!m_worker.joinable());
}

void Thread::SetUpPlacement(const PliConfigInstanceNode& node) {
    LogDebug("{}: NUMA available, setting CPU binding = {}", m_name, m_cpu);
    if (!m_numa_placement.BindTo(m_cpu)) {
        return WarnOf(node, "cpu", fmt::format("Thread {}, CPU binding has failed", m_name));
    }
    if (m_numa_buf_size != 0) SetUpBuffer(node);
}

void Thread::SetUpBuffer(const PliConfigInstanceNode& node) {
    LogDebug("Thread {}, setting NUMA buffer, size = {}", m_name, m_numa_buf_size);
    const auto log_free_failed = [name = m_name](const std::error_code& error) {
        LogError("Thread {}, nodepin::Free has failed, code = {}, message = {}", name, error.value(),
                 error.message());
    };
    if (const auto error = m_numa_placement.ProvideBuffer(m_numa_buf_size, log_free_failed)) {
        WarnOf(node, "numa_buf_size",
               fmt::format("Thread {}, setting NUMA buffer has failed, code = {}, message = {}", m_name,
                           error.value(), error.message()));
    }
}

std::size_t Thread::SetupDiagnosticStreams(const PliConfigInstanceNode& node,
                                           const pktwire::UdpTxSocket::Config& udp_cfg,
                                           const pktwire::qudex::Sender::Config& qudex_cfg) {
    if (!m_diagnostic_streams.empty()) {
        LogWarn("Thread {}, diagnostic streams are already setup, ignoring!", m_name);
        return 0;
    }
    if (!node.Has("diagnostic_streams")) return 0;
    const PliConfigInstanceNode streams = node["diagnostic_streams"];
    if (!streams.IsSequence()) return 0;
    for (const auto& element : streams) {
        std::string description;
        m_diagnostic_streams.push_back(
            std::make_shared<TxQudex>(element, udp_cfg, qudex_cfg, MemoryResource(), description));
        LogDebug("Thread {}, inserted diagnostic stream: {}", m_name, description);
    }
    return m_diagnostic_streams.size();
}

void Thread::SendDiagnosticBytes(defs::sample_id_t sample_id, const atomclk::AtomClk::time_point& time,
                                 gsl::span<const std::byte> sample,
                                 const atomclk::AtomClk::time_point& log_time) {
    for (const auto& stream : m_diagnostic_streams) {
        pktwire::qudex::Sender& sender = stream->QudexSender();
        sender.SetSampleId(sample_id);
        const std::error_code error = sender.SendSample(sample, time, std::nullopt);
        if (!IsSent(error)) {
            LogWarn("{} ::SendSample(): {}", m_name, error.message());
        } else if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
            LogTrace("{} sent diagnostic sample at {}, sample_id = {}", m_name, GetTimeString(log_time),
                     sample_id);
        }
    }
}

std::future<void> Thread::Start() {
    if (m_worker.joinable()) {
        LogAndThrow(fmt::format("Thread {} has been started and not been stopped since", m_name));
    }
    LogTrace("Starting thread {}: {}", m_name, m_description);
    std::promise<void> started;
    std::future<void> ready = started.get_future();
    m_has_ended_by_itself.store(false);
    common::SetRunning(m_running, true);
    try {
        m_worker = nodepin::MakeThread(m_name, m_numa_placement.Policies(),
                                       [this, started = std::move(started)]() mutable { TryWork(started); });
    } catch (const std::exception& error) {
        common::SetRunning(m_running, false);
        LogError("Thread {} has failed to start with: {}", m_name, error.what());
        throw;
    }
    LogTrace("Started thread {}: {}", m_name, m_description);
    return ready;
}

void Thread::Stop() noexcept {
    common::SetRunning(m_running, false);
    if (!m_worker.joinable()) return;
    LogTrace("Stopping thread {}", m_name);
    m_worker.join();
    m_failure = nullptr;
    LogTrace("Stopped thread {}", m_name);
}

bool Thread::WaitUntil(const atomclk::AtomClk::time_point& time) const {
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        LogTrace("{} waiting until {}", m_name, GetTimeString(time));
    }
    return m_synchronizer->WaitUntil(time, m_running);
}

void Thread::TryWork(std::promise<void>& started) {
    m_priority_given.store(nodepin::PriorityOfThisThread());
    try {
        Work(started);
    } catch (const std::exception& failure) {
        LogError("Thread {}, caught an excepion, details = {}", m_name, failure.what());
        m_failure = std::current_exception();
        try {
            started.set_exception(m_failure);
        } catch (const std::future_error&) {  // ready long since, so that nobody waits for the news
            LogError("Problem detected in {}::Work(): {}", m_name, failure.what());
        }
    }
    m_has_ended_by_itself.store(IsRunning());
    common::SetRunning(m_running, false);
}

RxThread::RxThread(const std::string& name, const PliConfigInstanceNode& node, const std::string& description,
                   std::chrono::microseconds default_timeout)
    : Thread{name, node, description},
      m_timeout{GetNonNegativeDurationParamOr(node, "timeout", default_timeout)} {
    if (m_timeout == m_timeout.zero() && !m_busy) {
        WarnOf(node, "timeout", fmt::format("Thread {}, polls without rest, having no timeout", m_name));
    }
    if (m_timeout > LONG_TIMEOUT) {
        WarnOf(node, "timeout",
               fmt::format("Thread {}, may hold up each stop by its timeout, {} ms", m_name,
                           std::chrono::duration_cast<std::chrono::milliseconds>(m_timeout).count()));
    }
}

TxThread::TxThread(const std::string& name, const PliConfigInstanceNode& node, const std::string& description,
                   std::chrono::microseconds default_send_interval,
                   std::chrono::microseconds default_send_offset)
    : Thread{name, node, description},
      m_send_interval{GetNonNegativeDurationParamOr(node, "send_interval", default_send_interval)},
      m_send_offset{GetBoundedDurationParamOr(node, "send_offset", default_send_offset)} {}

}  // namespace vosk::lumo
