#include <lumolib/lumoRxTx.hpp>

#include <vosk/common/logger.hpp>

#include <lumolib/utilities.hpp>

#include <cstdint>
#include <stdexcept>

#include "endpointConfig.hpp"

namespace vosk::lumo {

namespace {

using oru::configng::PliConfigInstanceNode;

// Whether the value is given; false only under a review.
bool Require(bool given, const PliConfigInstanceNode& node, const char* key, const std::string& what) {
    if (!given) Refuse(node, key, what + " is required");
    return given;
}

// An LSPX sample has packets of several kinds. False only under a review.
bool RequireFrames(std::uint16_t num_frames, std::uint16_t least, const PliConfigInstanceNode& node) {
    if (num_frames >= least) return true;
    Refuse(node, "num_frames", fmt::format("ERR: {}.num_frames must be at least {}", node.GetPath(), least));
    return false;
}

// Null only under a review, which goes on with the keys of the layers above.
template <class Layer, class... Args>
std::unique_ptr<Layer> BuildLayer(const PliConfigInstanceNode& node, const char* layer,
                                  const std::string& details, Args&&... args) {
    try {
        return std::make_unique<Layer>(std::forward<Args>(args)...);
    } catch (const std::runtime_error& failure) {
        common::LogError("{}, details = {}{}", layer, failure.what(), details);
        auto* const review = oru::configng::PliConfigReview::Current();
        if (review == nullptr) common::ThrowLogged(failure.what());
        review->AddProblem(node, failure.what());
        return nullptr;
    }
}

void Describe(DescriptionRef description, const char* what, const PliConfigInstanceNode& node,
              const char* address_key, std::uint16_t port, std::uint32_t topic) {
    if (!description) return;
    description->get() =
        fmt::format("{}: {}:{}, topic ID: {}", what, GetParam<std::string>(node, address_key), port, topic);
}

// What a stream met besides its samples, at the end of its life. Silent if that was nothing.
void LogMishaps(const pktwire::UdpRxSocket::Config& udp_cfg, std::uint32_t topic,
                const pktwire::RxCounters& met) noexcept try {
    const auto mishaps = met.missed + met.dropped + met.given_up + met.refused + met.lost + met.stale +
                         met.foreign + met.malformed + met.short_ones + met.long_ones + met.checksum +
                         met.duplicate + met.unexpected;
    if (mishaps == 0) return;
    common::LogInfo(
        "Receiver on {}:{}, topic ID: {}: {} packets, {} samples; samples missed: {}, given up: {}, "
        "refused: {}; packets dropped by the kernel: {}, lost: {}, stale: {}, foreign: {}, malformed: {}, "
        "too short: {}, too long: {}, of wrong checksum: {}, duplicate: {}, "
        "of another kind than asked for: {}",
        TextOrNothing(udp_cfg.ip.listen), udp_cfg.udp.listen, topic, met.packets, met.samples, met.missed,
        met.given_up, met.refused, met.dropped, met.lost, met.stale, met.foreign, met.malformed,
        met.short_ones, met.long_ones, met.checksum, met.duplicate, met.unexpected);
} catch (const std::exception&) {
    // A line of the log is not worth the program's end.
}

}  // namespace

Rx::Rx(const PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
       std::pmr::memory_resource* memory)
    : m_udp_cfg{ReadOver(udp_cfg, node)} {
    Require(m_udp_cfg.udp.listen != 0, node, "listen_udp", "Rx::Rx: udp_cfg.udp.listen");
    Require(!m_udp_cfg.ip.listen || m_udp_cfg.ip.listen->IsGiven(), node, "listen_ip",
            "Rx::Rx: udp_cfg.ip.listen");
    Require(!m_udp_cfg.iface_name.empty(), node, "iface_name", "Rx::Rx: udp_cfg.iface_name");
    m_socket = BuildLayer<pktwire::UdpRxSocket>(node, "Rx::Rx could not construct pktwire::UdpRxSocket",
                                                Details(m_udp_cfg), m_udp_cfg, memory);
}

RxQudex::RxQudex(const PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
                 const pktwire::qudex::Receiver::Config& qudex_cfg, std::pmr::memory_resource* memory,
                 DescriptionRef description)
    : Rx{node, udp_cfg, memory}, m_qudex_cfg{ReadOver(qudex_cfg, node)} {
    const bool has_frames =
        Require(m_qudex_cfg.num_frames != 0, node, "num_frames", "RxQudex::RxQudex: qudex_cfg.num_frames");
    if (has_frames && m_socket) {
        m_receiver = BuildLayer<pktwire::qudex::Receiver>(
            node, "RxQudex::RxQudex could not construct pktwire::qudex::Receiver", "", m_qudex_cfg, *m_socket,
            memory);
    }
    Describe(description, "QUDEX receiver listening on", node, "listen_ip", m_udp_cfg.udp.listen,
             m_qudex_cfg.topic);
}

RxQudex::~RxQudex() {
    if (m_receiver) LogMishaps(m_udp_cfg, m_qudex_cfg.topic, m_receiver->GetCounters());
}

RxLspx::RxLspx(const PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
               const pktwire::qudex::Receiver::Config& qudex_cfg,
               const pktwire::lspx::Receiver::Config& lspx_cfg, std::pmr::memory_resource* memory,
               DescriptionRef description)
    : RxQudex{node, udp_cfg, qudex_cfg, memory, std::nullopt}, m_lspx_cfg{ReadOver(lspx_cfg, node)} {
    const bool has_frames = RequireFrames(m_qudex_cfg.num_frames, pktwire::lspx::Receiver::MIN_FRAMES, node);
    if (has_frames && m_receiver) {
        pktwire::lspx::Receiver::QudexReceiver receiver{m_receiver.release(),
                                                        std::default_delete<pktwire::qudex::Receiver>{}};
        m_lspx_receiver = BuildLayer<pktwire::lspx::Receiver>(
            node, "RxLspx::RxLspx could not construct pktwire::lspx::Receiver", "", m_lspx_cfg,
            std::move(receiver), memory);
    }
    Describe(description, "LSPX receiver listening on", node, "listen_ip", m_udp_cfg.udp.listen,
             m_qudex_cfg.topic);
}

RxLspx::~RxLspx() {
    if (m_lspx_receiver) LogMishaps(m_udp_cfg, m_qudex_cfg.topic, m_lspx_receiver->GetCounters());
}

Tx::Tx(const PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
       std::pmr::memory_resource* memory)
    : m_udp_cfg{ReadOver(udp_cfg, node)} {
    const bool has_address = Require(m_udp_cfg.ip.dst.IsGiven(), node, "ip_dest", "Tx::Tx: udp_cfg.ip.dst");
    const bool has_port = Require(m_udp_cfg.udp.dst != 0, node, "udp_dest", "Tx::Tx: udp_cfg.udp.dst");
    if (has_address && has_port) {
        m_socket = BuildLayer<pktwire::UdpTxSocket>(node, "Tx::Tx could not construct pktwire::UdpTxSocket",
                                                    Details(m_udp_cfg), m_udp_cfg, memory);
    }
}

TxQudex::TxQudex(const PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
                 const pktwire::qudex::Sender::Config& qudex_cfg, std::pmr::memory_resource* memory,
                 DescriptionRef description)
    : Tx{node, udp_cfg, memory}, m_qudex_cfg{ReadOver(qudex_cfg, node)} {
    const bool has_frames =
        Require(m_qudex_cfg.num_frames != 0, node, "num_frames", "TxQudex::TxQudex: qudex_cfg.num_frames");
    if (has_frames && m_socket) {
        m_sender = BuildLayer<pktwire::qudex::Sender>(
            node, "TxQudex::TxQudex could not construct pktwire::qudex::Sender", "", m_qudex_cfg, *m_socket,
            memory);
    }
    Describe(description, "QUDEX sender to", node, "ip_dest", m_udp_cfg.udp.dst, m_qudex_cfg.topic);
}

TxLspx::TxLspx(const PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
               const pktwire::qudex::Sender::Config& qudex_cfg, const pktwire::lspx::Sender::Config& lspx_cfg,
               std::pmr::memory_resource* memory, DescriptionRef description)
    : TxQudex{node, udp_cfg, qudex_cfg, memory, std::nullopt}, m_lspx_cfg{ReadOver(lspx_cfg, node)} {
    const bool has_size =
        Require(m_lspx_cfg.frame_size != 0, node, "frame_size", "TxLspx::TxLspx: lspx_cfg.frame_size");
    const bool has_frames = RequireFrames(m_qudex_cfg.num_frames, pktwire::lspx::Sender::MIN_FRAMES, node);
    if (has_size && has_frames && m_sender) {
        m_lspx_sender = BuildLayer<pktwire::lspx::Sender>(
            node, "TxLspx::TxLspx could not construct pktwire::lspx::Sender", "", m_lspx_cfg, *m_sender);
    }
    Describe(description, "LSPX sender to", node, "ip_dest", m_udp_cfg.udp.dst, m_qudex_cfg.topic);
}

}  // namespace vosk::lumo
