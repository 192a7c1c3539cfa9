#include <lumolib/libMain.hpp>

#include <cblas.h>
#include <numa.h>
#include <sys/mman.h>

#include <chrono>
#include <future>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/statistics.hpp>
#include <lumolib/threadTable.hpp>
#include <lumolib/utilities.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <utility>
#include <vector>
#include <vosk/common/logger.hpp>
#include <vosk/common/shmif/shmIf.hpp>

namespace vosk::lumo {

using common::LogDebug;
using common::LogTrace;
using oru::configng::PliConfigInstanceNode;

namespace {

constexpr std::chrono::seconds START_LIMIT{3};
constexpr std::size_t ECMWFSIM_TOPICS = 4;  // one a guide probe, and the PDS

}  // namespace

int SetRTParameters() {
#ifdef VOSK_SANITIZED
    return 0;
#else
    return ::mlockall(MCL_CURRENT | MCL_FUTURE);
#endif
}

LibMain::ShmSession::ShmSession(const std::string& name) : m_name{name} {
    common::shmif::ShmIf::Setup(m_name);
}

LibMain::ShmSession::~ShmSession() {
    common::shmif::ShmIf::Teardown();
}

LibMain::LibMain(const std::string& shm_prefix) : m_shm_session{shm_prefix} {
    if (::numa_available() == -1) common::LogWarn("NUMA not available");
    SetRTParameters();
    // Products run on the worker thread that asks for them, and nowhere else.
    ::openblas_set_num_threads(1);
    LogTrace("lumo library initialized");
}

void LibMain::SetupThreads(const gim::Config& config) {
    LogDebug("Setting up threads...");
    DataSyncManager::CreateInstance();
    ResamplerManager::CreateInstance(config, "resamplers");
    RuntimeMonitor::CreateInstance(config);

    const auto& document = config.GetDocument();
    if (!document) common::LogAndThrow("ERR: no configuration document is loaded");
    const PliConfigInstanceNode cfg = document->Instances()["cfg"];
    oru::configng::Attempt(cfg, [&] {
        if (cfg.GetKind() != oru::configng::PliConfigNodeKind::UNDEFINED) {
            RuntimeMonitor::EnableStatistics(cfg);
            MakeThreads(cfg, CameraAndCommandSections());
        }
        SetupQUDEX(cfg);
        SetupGnuRadioInputOutput(cfg);
    });
}

void LibMain::SetupQUDEX(const PliConfigInstanceNode& node) {
    if (node.GetKind() != oru::configng::PliConfigNodeKind::MAP) {
        LogTrace("M4/M5/PFS/MS config invalid or missing, skipping..");
        return;
    }
    MakeThreads(node, QudexSections());
}

void LibMain::SetupGnuRadioInputOutput(const PliConfigInstanceNode& node) {
    if (node.GetKind() != oru::configng::PliConfigNodeKind::MAP) {
        LogTrace("GNU Radio Input/Output config invalid or missing, skipping..");
        return;
    }
    MakeThreads(node, FlowgraphSections());
}

void LibMain::SetupDataSync(const PliConfigInstanceNode& node) {
    if (!node.IsMap() || !node.Has("ecmwfsim")) return;
    const PliConfigInstanceNode simulation = node["ecmwfsim"];
    if (!simulation.IsMap() || !simulation.Has("input")) return;
    const auto topics = GetVectorParam<std::string>(simulation["input"][0], "shm_topic");
    if (topics.size() != ECMWFSIM_TOPICS) {
        common::LogAndThrow("ERR: ECMWFSim must be configured with SHM topics for all GPs, plus the PDS");
    }
}

void LibMain::StartThreads() {
    LogDebug("Starting all threads...");
    RuntimeMonitor::GetInstance().Reset();
    Starting starting;
    for (auto& [name, thread] : m_threads) starting.emplace_back(name, thread->Start());
    WaitForStarts(starting, atomclk::AtomClk::now() + START_LIMIT);
}

// wait_until re-reads the deadline's own clock after each wake-up.
void LibMain::WaitForStarts(Starting& starting, defs::time_point deadline) {
    for (auto& [name, started] : starting) {
        if (started.wait_until(deadline) != std::future_status::ready)
            common::LogAndThrow("Thread " + name + " failed to start on time");
        started.get();
    }
}

void LibMain::StopThreads() {
    LogDebug("Stopping all threads...");
    for (auto& [name, thread] : m_threads) thread->Stop();
    for (const auto& statistics : RuntimeMonitor::GetInstance().m_statistics) statistics->Print();
}

void LibMain::SetVoskMode(defs::VoskControlMode mode, std::optional<defs::Camera> camera) {
    LogTrace("Changing VOSK Control Mode to {}.", to_string(mode));
    VoskTelescopeStateManager::SetCurrentControlMode(mode);
    if (!camera) return;
    LogTrace("Changing Active Camera FS to {}.", to_string(*camera));
    VoskTelescopeStateManager::SetActiveCameraFS(*camera);
}

defs::VoskControlMode LibMain::GetControlMode() {
    return VoskTelescopeStateManager::GetCurrentControlMode();
}

defs::Camera LibMain::GetActiveCameraFs() {
    return VoskTelescopeStateManager::GetActiveCameraFs();
}

void LibMain::MakeThreads(const PliConfigInstanceNode& cfg, std::span<const SectionEntry> sections) {
    WalkElements(cfg, sections, [this](const StreamEntry& entry, const PliConfigInstanceNode& element) {
        MakeThreads(entry, element);
    });
}

// Not every failure names its place in the document.
void LibMain::MakeThreads(const StreamEntry& entry, const PliConfigInstanceNode& element) try {
    entry.make(element, [&](std::unique_ptr<Thread> thread) {
        if (m_threads.contains(thread->GetName()))
            WarnOf(element, "replaces another thread of the name " + thread->GetName());
        EnterThread(std::move(thread));
    });
} catch (const common::Logged&) {
    common::LogInfo("{}: {} can't be set up", element.GetWhere(), element.GetPath());
    throw;
} catch (const std::exception& error) {
    common::LogError("{}: {}: {}", element.GetWhere(), element.GetPath(), error.what());
    throw;
}

void LibMain::EnterThread(std::unique_ptr<Thread> thread) {
    const std::string name = thread->GetName();
    m_threads[name] = std::move(thread);
}

}  // namespace vosk::lumo
