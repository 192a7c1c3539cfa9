#include <lumolib/ecmwfSimInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/utilities.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

namespace vosk::lumo {

namespace {

constexpr long USERS_WITHOUT_CAMERA = 2;  // the registry, and this thread

// Of all threads that use these resamplers only the cameras are made before this one.
void WarnOfAnotherProducer(const oru::configng::PliConfigInstanceNode& node, long users,
                           defs::Camera camera) {
    if (users <= USERS_WITHOUT_CAMERA) return;
    WarnOf(node, fmt::format("the camera {} feeds the same resampler: field stabilisation will see now a "
                             "measured error, now a simulated one",
                             to_string(camera)));
}

}  // namespace

ECMWFSimInput::ECMWFSimInput(const oru::configng::PliConfigInstanceNode& node)
    : QudexInput{"ECMWFSimInput",
                 node,
                 1,
                 {log4cplus::WARN_LOG_LEVEL,
                  "ECMWFSimInput: ReceiveSample(): ", RuntimeMonitor::GetInstance().m_ecmwf_input_state}},
      m_sync{Exchange<EcmWfSimDataSync>()},
      m_statistics{RuntimeMonitor::GetInstance().m_ecmwf_statistics} {
    if (node.Has("shm_topic")) node["shm_topic"].PassOver();  // that is for LibMain::SetupDataSync
    for (unsigned i = 0; i < m_resamplers.size(); ++i) {
        const defs::Camera camera{i};
        m_resamplers[i] = GetCentroidResampler(node, camera);
        WarnOfAnotherProducer(node, m_resamplers[i].use_count(), camera);
    }
}

void ECMWFSimInput::OnSample(const defs::WfsPayload& payload, const pktwire::qudex::Packet& first,
                             time_point now) {
    const auto id = first.SampleId();
    m_sync->SetData(payload, id, atomclk::AtomClk::now());
    for (std::size_t i = 0; i < m_resamplers.size(); ++i) {
        const auto& block = payload.blocks[i];
        if (CanGoOn({block.x, block.y}, m_name, id))
            m_resamplers[i]->AddSample({block.timestamp, id, {0.0, block.x, block.y}});
    }
    if (common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
        common::LogDebug("\tReceived ECMWFSim input at {}, SampleId = {}", GetTimeString(now), id);
    }
    m_statistics->UpdateTsReceived(now);
}

}  // namespace vosk::lumo
