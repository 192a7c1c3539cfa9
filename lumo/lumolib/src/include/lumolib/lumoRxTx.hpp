#pragma once

// The network endpoints of the streaming threads: each level owns one layer of pktwire, configured from the
// stream's node over the stream's defaults. Built at set-up with the thread that inherits or holds it, so
// that a bad configuration shows before any thread runs; used by that thread alone from then on.
//
// All constructors take the stream's node, from which they read the keys that a map holds, the stream's
// default configuration, and the memory that pktwire's buffers come from (may be null), and, in the streaming
// layers, the string that is to receive a line for the thread's description. They throw std::runtime_error,
// logged at ERROR beforehand, if a required value is missing or pktwire refuses what it was given. Under a
// PliConfigReview they note that instead, and the layer is null, as are those above it.

#include <oru/configng/pliConfig.hpp>
#include <pktwire/lspx.hpp>
#include <pktwire/qudex.hpp>
#include <pktwire/udpSocket.hpp>

#include <functional>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <system_error>

namespace vosk::lumo {

using DescriptionRef = std::optional<std::reference_wrapper<std::string>>;

// Whether a sample counts as sent. A peer that isn't there is no failure of ours: it may come up at any time.
inline bool IsSent(const std::error_code& error) noexcept {
    return !error || error == std::errc::connection_refused;
}

// Keys: `listen_udp` (required), `listen_ip`, `iface_name` (required), `cpu`, `rxbuf_size`, `busy_poll`.
class Rx {
public:
    Rx(const oru::configng::PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
       std::pmr::memory_resource* memory);
    virtual ~Rx() = default;
    Rx(const Rx&) = delete;
    Rx& operator=(const Rx&) = delete;

protected:
    pktwire::UdpRxSocket::Config m_udp_cfg;
    std::unique_ptr<pktwire::RxSocket> m_socket;
};

// Keys: `qudex_topic`, `num_frames` (required), `buf_packets`, `checksum_force_ignore`. A description needs
// `listen_ip`. At the end of its life it logs what it met besides good samples, if anything.
class RxQudex : public Rx {
public:
    RxQudex(const oru::configng::PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
            const pktwire::qudex::Receiver::Config& qudex_cfg, std::pmr::memory_resource* memory,
            DescriptionRef description);
    ~RxQudex() override;

protected:
    pktwire::qudex::Receiver::Config m_qudex_cfg;
    std::unique_ptr<pktwire::qudex::Receiver> m_receiver;
};

// Keys: `endianness`, `leader_extended_info_size`, `trailer_extended_info_size`, `leading_padding_size`,
// `data_unit_size`, `buf_samples`. A description needs `listen_ip`.
class RxLspx : public RxQudex {
public:
    RxLspx(const oru::configng::PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
           const pktwire::qudex::Receiver::Config& qudex_cfg, const pktwire::lspx::Receiver::Config& lspx_cfg,
           std::pmr::memory_resource* memory, DescriptionRef description);
    ~RxLspx() override;

protected:
    pktwire::lspx::Receiver::Config m_lspx_cfg;
    std::unique_ptr<pktwire::lspx::Receiver> m_lspx_receiver;  // has taken m_receiver over, which is null
};

// Keys: `ip_dest` (required), `ip_src`, `ip_time_to_live`, `udp_dest` (required), `udp_src`,
// `udp_checksum_enable`, `txbuf_size`.
class Tx {
public:
    Tx(const oru::configng::PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
       std::pmr::memory_resource* memory);
    virtual ~Tx() = default;
    Tx(const Tx&) = delete;
    Tx& operator=(const Tx&) = delete;

protected:
    pktwire::UdpTxSocket::Config m_udp_cfg;
    std::unique_ptr<pktwire::TxSocket> m_socket;
};

// Keys: `qudex_topic`, `component_id`, `num_frames` (required), `qudex_checksum_enable`, `sample_size`,
// `niovs`. A description needs `ip_dest`.
class TxQudex : public Tx {
public:
    TxQudex(const oru::configng::PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
            const pktwire::qudex::Sender::Config& qudex_cfg, std::pmr::memory_resource* memory,
            DescriptionRef description);

    pktwire::qudex::Sender& QudexSender() noexcept { return *m_sender; }

protected:
    pktwire::qudex::Sender::Config m_qudex_cfg;
    std::unique_ptr<pktwire::qudex::Sender> m_sender;
};

// Keys: `source`, `endianness`, `leader_extended_info_size`, `trailer_extended_info_size`, `frame_size`
// (required), `leading_padding_size`. A description needs `ip_dest`.
class TxLspx : public TxQudex {
public:
    TxLspx(const oru::configng::PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
           const pktwire::qudex::Sender::Config& qudex_cfg, const pktwire::lspx::Sender::Config& lspx_cfg,
           std::pmr::memory_resource* memory, DescriptionRef description);

    pktwire::lspx::Sender& LspxSender() noexcept { return *m_lspx_sender; }

protected:
    pktwire::lspx::Sender::Config m_lspx_cfg;
    std::unique_ptr<pktwire::lspx::Sender> m_lspx_sender;  // uses m_sender
};

}  // namespace vosk::lumo
