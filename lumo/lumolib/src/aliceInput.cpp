#include <lumolib/aliceInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/utilities.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

#include <string>

namespace vosk::lumo {

using oru::configng::PliConfigInstanceNode;

namespace {

using Pixel = decltype(VisImgDataAlice::pixels)::value_type;

pktwire::UdpRxSocket::Config UdpDefaults() {
    pktwire::UdpRxSocket::Config config{};
    config.rxbuf_size = 450000;
    return config;
}

// The topic has no default here.
pktwire::qudex::Receiver::Config QudexDefaults(const PliConfigInstanceNode& node) {
    pktwire::qudex::Receiver::Config config{};
    config.topic = static_cast<std::uint32_t>(GetParam<int>(node, "qudex_topic"));
    config.num_frames = 62;
    return config;
}

pktwire::lspx::Receiver::Config LspxDefaults() {
    pktwire::lspx::Receiver::Config config{};
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = sizeof(defs::TransportTimepoint);
    config.data_unit_size = sizeof(Pixel);
    config.buf_samples = 2;
    return config;
}

bool IsImaging(defs::Camera camera) {
    return camera <= defs::Camera::IMG_PDS;
}

}  // namespace

defs::Camera GetImagingCamera(const PliConfigInstanceNode& node, const char* user) {
    auto camera = defs::Camera::IMG_GP1;
    const auto id = node["camera_id"];
    oru::configng::Attempt(id, [&] {
        const auto given = defs::CAMERAS.at(id.As<std::string>());
        if (!IsImaging(given))
            common::LogAndThrow(fmt::format("{}: Invalid camera ID: {}", user, to_string(given)));
        camera = given;
    });
    return camera;
}

std::shared_ptr<ImgDataSyncAlice> FramesOf(defs::Camera camera, bool busy) {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<ImgDataSyncAlice>(
        static_cast<ImgDataSyncAlice::InstanceTag>(camera), busy);
}

AliceInput::AliceInput(const PliConfigInstanceNode& node)
    : LspxInput{"Alice_" + GetParam<std::string>(node, "camera_id"),
                node,
                UdpDefaults(),
                QudexDefaults(node),
                LspxDefaults(),
                {log4cplus::WARN_LOG_LEVEL, "ReceiveSample: ",
                 RuntimeMonitor::GetInstance().Of(GetImagingCamera(node, "AliceInput")).state}},
      m_camera{GetImagingCamera(node, "AliceInput")},
      m_img_sync{FramesOf(m_camera, m_busy)},
      m_statistics{RuntimeMonitor::GetInstance().Of(m_camera).statistics} {
    RequireForm(node, sizeof(Pixel), sizeof(m_exposure));
}

AliceInput::Received AliceInput::Receive() {
    return m_lspx_receiver->ReceiveSample(gsl::as_writable_bytes(gsl::span{&m_exposure, 1}),
                                          gsl::as_writable_bytes(gsl::span{&m_frame, 1}), {}, m_timeout);
}

// The status byte is not looked at: the camera sets it for reasons that don't spoil a centroid.
void AliceInput::OnSample(const Leader& leader, const Trailer& /*trailer*/, time_point now) {
    const auto id = leader.SampleId();
    if (leader.NumUnits() != m_frame.pixels.size()) {
        // Behind its end stand the pixels of an earlier frame.
        common::LogWarn("ReceiveSample: ALICE image of {} pixels, not {}, sample_id = {}", leader.NumUnits(),
                        m_frame.pixels.size(), id);
        return m_account.RecordInvalid(now);
    }
    m_img_sync->SetData(m_frame, id, now);
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\tReceived ALICE image for {}, at {}, sample_id = {}", m_qudex_cfg.topic,
                         GetTimeString(now), id);
    }
    m_statistics->Update(m_exposure, now);
    m_account.RecordValid(now);
}

}  // namespace vosk::lumo
