#include "endpointConfig.hpp"

#include <fmt/format.h>
#include <strings.h>

#include <lumolib/utilities.hpp>
#include <oru/configng/pliConfigReview.hpp>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <type_traits>

namespace vosk::lumo {

namespace {

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

    // Within the bounds of the layer. Under a review the field stays as it is for a value beyond them, and
    // the layer can be built.
    template <class T>
    void ReadWithin(const char* key, std::type_identity_t<T> least, std::type_identity_t<T> most,
                    T& field) const {
        if (!Has(key)) return;
        const T value = GetParam<T>(m_node, key);
        if (value < least || value > most)
            return RefuseKey(key, fmt::format(" must lie between {} and {}", least, most));
        field = value;
    }

    // In a run the socket refuses an unknown interface, and the log has all its settings.
    void ReadInterface(std::string& name) const {
        Read("iface_name", name);
        if (name.empty() || pktwire::HasInterface(name)) return;
        if (oru::configng::PliConfigReview::Current() == nullptr) return;
        RefuseKey("iface_name", fmt::format(": no network interface \"{}\"", name));
        name.clear();
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
        if (value < 0) RefuseKey("qudex_topic", " must not be negative");
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

    void RefuseKey(const char* key, const std::string& text) const {
        Refuse(m_node, key, fmt::format("ERR: {}.{}{}", m_node.GetPath(), key, text));
    }

    Ipv4 GetAddress(const char* key) const {
        const auto text = GetParam<std::string>(m_node, key);
        try {
            return Ipv4{text};
        } catch (const std::runtime_error& failure) {
            RefuseKey(key, fmt::format(": {}", failure.what()));
            return {};
        }
    }

    const PliConfigInstanceNode& m_node;
};

template <class Value>
std::string TextOrNothing(const std::optional<Value>& value) {
    return value ? fmt::format("{}", *value) : std::string{};
}

}  // namespace

std::string TextOrNothing(const std::optional<Ipv4>& address) {
    return address ? std::string{*address} : std::string{};
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
    keys.ReadInterface(cfg.iface_name);
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
    keys.ReadWithin("buf_packets", 0, pktwire::qudex::Receiver::MAX_BUF_PACKETS, cfg.buf_packets);
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
    keys.ReadWithin("data_unit_size", 1, std::numeric_limits<std::uint8_t>::max(), cfg.data_unit_size);
    keys.ReadWithin("buf_samples", 0, pktwire::lspx::Receiver::MAX_BUF_SAMPLES, cfg.buf_samples);
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
    keys.ReadWithin("sample_size", 0, pktwire::qudex::Sender::MAX_SAMPLE_SIZE, cfg.sample_size);
    keys.ReadWithin("niovs", 0, pktwire::qudex::Sender::MAX_NIOVS, cfg.niovs);
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

}  // namespace vosk::lumo
