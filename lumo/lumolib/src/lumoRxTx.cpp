#include <lumolib/lumoRxTx.hpp>

#include <strings.h>
#include <vosk/common/logger.hpp>

#include <lumolib/utilities.hpp>

#include <cstdint>
#include <stdexcept>

namespace vosk::lumo {

namespace {

using common::LogAndThrow;
using oru::configng::PliConfigInstanceNode;
using pktwire::Ipv4;

// Reads keys over defaults: a field changes only if the node is a map that holds its key.
class Keys {
public:
    explicit Keys(const PliConfigInstanceNode& node) : m_node{node} {}

    template <class T>
    void Read(const char* key, T& field) const {
        if (Has(key)) field = GetParam<T>(m_node, key);
    }

    void Read(const char* key, Ipv4& field) const {
        if (Has(key)) field = GetAddress(key);
    }

    void Read(const char* key, std::optional<Ipv4>& field) const {
        if (Has(key)) field = GetAddress(key);
    }

    void ReadTopic(std::uint32_t& topic) const {
        if (!Has("qudex_topic")) return;
        const int value = GetParam<int>(m_node, "qudex_topic");
        if (value < 0) LogAndThrow(fmt::format("ERR: {}.qudex_topic must not be negative", m_node.GetPath()));
        topic = static_cast<std::uint32_t>(value);
    }

    // A negative CPU means no CPU, here as in the thread's own placement.
    void ReadCpu(std::optional<std::uint32_t>& cpu) const {
        int value = -1;
        Read("cpu", value);
        if (value >= 0) cpu = static_cast<std::uint32_t>(value);
    }

    void ReadMicroseconds(const char* key, std::optional<std::int64_t>& field) const {
        if (Has(key)) field = GetParam<int>(m_node, key);
    }

    // One text stands for one flag, any other for the other.
    void ReadFlag(const char* key, const char* text, std::uint8_t flag, std::uint8_t other_flag,
                  std::uint8_t& field) const {
        if (!Has(key)) return;
        field = ::strcasecmp(GetParam<std::string>(m_node, key).c_str(), text) == 0 ? flag : other_flag;
    }

    void ReadEndianness(std::uint8_t& endianness) const {
        ReadFlag("endianness", "BE", pktwire::lspx::BIG_ENDIAN_UNITS, pktwire::lspx::LITTLE_ENDIAN_UNITS,
                 endianness);
    }

private:
    bool Has(const char* key) const { return m_node.IsMap() && m_node.Has(key); }

    Ipv4 GetAddress(const char* key) const {
        const auto text = GetParam<std::string>(m_node, key);
        try {
            return Ipv4{text};
        } catch (const std::runtime_error& failure) {
            LogAndThrow(fmt::format("ERR: {}.{}: {}", m_node.GetPath(), key, failure.what()));
        }
    }

    const PliConfigInstanceNode& m_node;
};

template <class Value>
std::string TextOrNothing(const std::optional<Value>& value) {
    return value ? fmt::format("{}", *value) : std::string{};
}

std::string TextOrNothing(const std::optional<Ipv4>& address) {
    return address ? std::string{*address} : std::string{};
}

// What went into a layer is told in the log, next to what the layer has to say about it.
template <class Make, class Details>
auto BuildOrLog(const char* layer, Make make, Details details) {
    try {
        return make();
    } catch (const std::runtime_error& failure) {
        common::LogError("{}, details = {}{}", layer, failure.what(), details());
        throw;
    }
}

template <class Make>
auto BuildOrLog(const char* layer, Make make) {
    return BuildOrLog(layer, make, [] { return ""; });
}

std::string Details(const pktwire::UdpRxSocket::Config& cfg) {
    return fmt::format(
        ", m_udp_cfg.ip.listen = {}, m_udp_cfg.udp.listen = {}, m_udp_cfg.iface_name = {}, "
        "m_udp_cfg.rxbuf_size = {}, m_udp_cfg.incoming_cpu = {}, m_udp_cfg.busy_poll = {}",
        TextOrNothing(cfg.ip.listen), cfg.udp.listen, cfg.iface_name, cfg.rxbuf_size,
        TextOrNothing(cfg.incoming_cpu), TextOrNothing(cfg.busy_poll));
}

std::string Details(const pktwire::UdpTxSocket::Config& cfg) {
    return fmt::format(
        ", m_udp_cfg.ip.dst = {}, m_udp_cfg.ip.src = {}, m_udp_cfg.ip.time_to_live = {}, "
        "m_udp_cfg.udp.checksum_enable = {}, m_udp_cfg.udp.dst = {}, m_udp_cfg.udp.src = {}, "
        "m_udp_cfg.txbuf_size = {}",
        std::string{cfg.ip.dst}, TextOrNothing(cfg.ip.src), cfg.ip.time_to_live,
        cfg.udp.checksum_enable ? 1 : 0, cfg.udp.dst, cfg.udp.src, cfg.txbuf_size);
}

pktwire::UdpRxSocket::Config ReadOver(pktwire::UdpRxSocket::Config cfg, const PliConfigInstanceNode& node) {
    const Keys keys{node};
    keys.Read("listen_udp", cfg.udp.listen);
    keys.Read("listen_ip", cfg.ip.listen);
    keys.Read("iface_name", cfg.iface_name);
    keys.ReadCpu(cfg.incoming_cpu);
    keys.Read("rxbuf_size", cfg.rxbuf_size);
    keys.ReadMicroseconds("busy_poll", cfg.busy_poll);
    return cfg;
}

pktwire::qudex::Receiver::Config ReadOver(pktwire::qudex::Receiver::Config cfg,
                                          const PliConfigInstanceNode& node) {
    const Keys keys{node};
    keys.ReadTopic(cfg.topic);
    keys.Read("num_frames", cfg.num_frames);
    keys.Read("buf_packets", cfg.buf_packets);
    keys.Read("checksum_force_ignore", cfg.checksum_force_ignore);
    return cfg;
}

pktwire::lspx::Receiver::Config ReadOver(pktwire::lspx::Receiver::Config cfg,
                                         const PliConfigInstanceNode& node) {
    const Keys keys{node};
    keys.ReadEndianness(cfg.endianness);
    keys.Read("leader_extended_info_size", cfg.leader_extended_info_size);
    keys.Read("trailer_extended_info_size", cfg.trailer_extended_info_size);
    keys.Read("leading_padding_size", cfg.leading_padding_size);
    keys.Read("data_unit_size", cfg.data_unit_size);
    keys.Read("buf_samples", cfg.buf_samples);
    return cfg;
}

pktwire::UdpTxSocket::Config ReadOver(pktwire::UdpTxSocket::Config cfg, const PliConfigInstanceNode& node) {
    const Keys keys{node};
    keys.Read("ip_dest", cfg.ip.dst);
    keys.Read("ip_src", cfg.ip.src);
    keys.Read("ip_time_to_live", cfg.ip.time_to_live);
    keys.Read("udp_dest", cfg.udp.dst);
    keys.Read("udp_src", cfg.udp.src);
    keys.Read("udp_checksum_enable", cfg.udp.checksum_enable);
    keys.Read("txbuf_size", cfg.txbuf_size);
    return cfg;
}

pktwire::qudex::Sender::Config ReadOver(pktwire::qudex::Sender::Config cfg,
                                        const PliConfigInstanceNode& node) {
    const Keys keys{node};
    keys.ReadTopic(cfg.topic);
    keys.Read("component_id", cfg.component_id);
    keys.Read("num_frames", cfg.num_frames);
    keys.Read("qudex_checksum_enable", cfg.checksum_enable);
    keys.Read("sample_size", cfg.sample_size);
    keys.Read("niovs", cfg.niovs);
    return cfg;
}

pktwire::lspx::Sender::Config ReadOver(pktwire::lspx::Sender::Config cfg, const PliConfigInstanceNode& node) {
    const Keys keys{node};
    keys.ReadFlag("source", "REAL", pktwire::lspx::REAL_SOURCE, pktwire::lspx::OTHER_SOURCE, cfg.source);
    keys.ReadEndianness(cfg.endianness);
    keys.Read("leader_extended_info_size", cfg.leader_extended_info_size);
    keys.Read("trailer_extended_info_size", cfg.trailer_extended_info_size);
    keys.Read("frame_size", cfg.frame_size);
    keys.Read("leading_padding_size", cfg.leading_padding_size);
    return cfg;
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
    if (met.stale + met.given_up + met.refused + met.foreign + met.malformed == 0) return;
    common::LogInfo(
        "Receiver on {}:{}, topic ID: {}: {} packets, {} samples; samples given up: {}, refused: {}; "
        "packets lost: {}, stale: {}, foreign: {}, malformed: {}, too short: {}, too long: {}, "
        "of wrong checksum: {}, duplicate: {}",
        TextOrNothing(udp_cfg.ip.listen), udp_cfg.udp.listen, topic, met.packets, met.samples, met.given_up,
        met.refused, met.lost, met.stale, met.foreign, met.malformed, met.short_ones, met.long_ones,
        met.checksum, met.duplicate);
} catch (const std::exception&) {
    // A line of the log is not worth the program's end.
}

}  // namespace

Rx::Rx(const PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
       std::pmr::memory_resource* memory)
    : m_udp_cfg{ReadOver(udp_cfg, node)} {
    if (m_udp_cfg.udp.listen == 0) LogAndThrow("Rx::Rx: udp_cfg.udp.listen is required");
    if (m_udp_cfg.ip.listen && !m_udp_cfg.ip.listen->IsGiven()) {
        LogAndThrow("Rx::Rx: udp_cfg.ip.listen is required");
    }
    if (m_udp_cfg.iface_name.empty()) LogAndThrow("Rx::Rx: udp_cfg.iface_name is required");
    m_socket = BuildOrLog(
        "Rx::Rx could not construct pktwire::UdpRxSocket",
        [&] { return std::make_unique<pktwire::UdpRxSocket>(m_udp_cfg, memory); },
        [this] { return Details(m_udp_cfg); });
}

RxQudex::RxQudex(const PliConfigInstanceNode& node, const pktwire::UdpRxSocket::Config& udp_cfg,
                 const pktwire::qudex::Receiver::Config& qudex_cfg, std::pmr::memory_resource* memory,
                 DescriptionRef description)
    : Rx{node, udp_cfg, memory}, m_qudex_cfg{ReadOver(qudex_cfg, node)} {
    if (m_qudex_cfg.num_frames == 0) LogAndThrow("RxQudex::RxQudex: qudex_cfg.num_frames is required");
    m_receiver = BuildOrLog("RxQudex::RxQudex could not construct pktwire::qudex::Receiver", [&] {
        return std::make_unique<pktwire::qudex::Receiver>(m_qudex_cfg, *m_socket, memory);
    });
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
    m_lspx_receiver = BuildOrLog("RxLspx::RxLspx could not construct pktwire::lspx::Receiver", [&] {
        pktwire::lspx::Receiver::QudexReceiver receiver{m_receiver.release(),
                                                        std::default_delete<pktwire::qudex::Receiver>{}};
        return std::make_unique<pktwire::lspx::Receiver>(m_lspx_cfg, std::move(receiver), memory);
    });
    Describe(description, "LSPX receiver listening on", node, "listen_ip", m_udp_cfg.udp.listen,
             m_qudex_cfg.topic);
}

RxLspx::~RxLspx() {
    LogMishaps(m_udp_cfg, m_qudex_cfg.topic, m_lspx_receiver->GetCounters());
}

Tx::Tx(const PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
       std::pmr::memory_resource* memory)
    : m_udp_cfg{ReadOver(udp_cfg, node)} {
    if (!m_udp_cfg.ip.dst.IsGiven()) LogAndThrow("Tx::Tx: udp_cfg.ip.dst is required");
    if (m_udp_cfg.udp.dst == 0) LogAndThrow("Tx::Tx: udp_cfg.udp.dst is required");
    m_socket = BuildOrLog(
        "Tx::Tx could not construct pktwire::UdpTxSocket",
        [&] { return std::make_unique<pktwire::UdpTxSocket>(m_udp_cfg, memory); },
        [this] { return Details(m_udp_cfg); });
}

TxQudex::TxQudex(const PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
                 const pktwire::qudex::Sender::Config& qudex_cfg, std::pmr::memory_resource* memory,
                 DescriptionRef description)
    : Tx{node, udp_cfg, memory}, m_qudex_cfg{ReadOver(qudex_cfg, node)} {
    if (m_qudex_cfg.num_frames == 0) LogAndThrow("TxQudex::TxQudex: qudex_cfg.num_frames is required");
    m_sender = BuildOrLog("TxQudex::TxQudex could not construct pktwire::qudex::Sender", [&] {
        return std::make_unique<pktwire::qudex::Sender>(m_qudex_cfg, *m_socket, memory);
    });
    Describe(description, "QUDEX sender to", node, "ip_dest", m_udp_cfg.udp.dst, m_qudex_cfg.topic);
}

TxLspx::TxLspx(const PliConfigInstanceNode& node, const pktwire::UdpTxSocket::Config& udp_cfg,
               const pktwire::qudex::Sender::Config& qudex_cfg, const pktwire::lspx::Sender::Config& lspx_cfg,
               std::pmr::memory_resource* memory, DescriptionRef description)
    : TxQudex{node, udp_cfg, qudex_cfg, memory, std::nullopt}, m_lspx_cfg{ReadOver(lspx_cfg, node)} {
    if (m_lspx_cfg.frame_size == 0) LogAndThrow("TxLspx::TxLspx: lspx_cfg.frame_size is required");
    m_lspx_sender = BuildOrLog("TxLspx::TxLspx could not construct pktwire::lspx::Sender", [&] {
        return std::make_unique<pktwire::lspx::Sender>(m_lspx_cfg, *m_sender);
    });
    Describe(description, "LSPX sender to", node, "ip_dest", m_udp_cfg.udp.dst, m_qudex_cfg.topic);
}

}  // namespace vosk::lumo
