#include "bench.hpp"
#include "cameraSender.hpp"

#include <pktwire/lspx.hpp>

#include <sys/socket.h>

#include <array>
#include <memory>
#include <stdexcept>

// Receiving a camera frame that waits in the socket: only the receiver's own cost counts, no sender's pace
// and no wake-up. The reference reads the same datagrams one behind the other into one buffer and looks at
// none.

namespace vosk::bench {

namespace {

constexpr std::uint64_t SOCKET_BUFFER = 64U << 20U;
constexpr int WARM_UP = 20;
constexpr int ROUNDS = 300;

struct LargeSocket {
    static pktwire::UdpRxSocket::Config Config() {
        pktwire::UdpRxSocket::Config config;
        config.ip.listen = pktwire::Ipv4{"127.0.0.1"};
        config.rxbuf_size = SOCKET_BUFFER;
        return config;
    }

    pktwire::UdpRxSocket socket{Config(), nullptr};
};

class Ours {
public:
    explicit Ours(const Camera& camera)
        : m_receiver{Config(), Qudex(camera), nullptr}, m_frame(camera.pixels * 2UL) {}

    std::uint16_t Port() const { return m_rx.socket.LocalPort(); }
    void ReceiveFrame() {
        std::array<std::byte, 8> info{};
        if (m_receiver.ReceiveSample(info, m_frame, {}, std::chrono::seconds{1}).first) {
            throw std::runtime_error("the frame is not whole");
        }
    }

private:
    static pktwire::lspx::Receiver::Config Config() {
        pktwire::lspx::Receiver::Config config;
        config.leader_extended_info_size = 8;
        config.data_unit_size = 2;
        return config;
    }
    pktwire::lspx::Receiver::QudexReceiver Qudex(const Camera& camera) {
        pktwire::qudex::Receiver::Config config;
        config.num_frames = camera.num_frames;
        auto receiver = std::make_unique<pktwire::qudex::Receiver>(config, m_rx.socket, nullptr);
        return {receiver.release(), std::default_delete<pktwire::qudex::Receiver>{}};
    }

    LargeSocket m_rx;
    pktwire::lspx::Receiver m_receiver;
    std::vector<std::byte> m_frame;
};

class Bare {
public:
    static constexpr std::size_t BATCH = 10;  // as many as ours reads at a time
    static constexpr std::size_t HEADERS =
        sizeof(pktwire::wire::QudexHeader) + sizeof(pktwire::wire::LspxHeader);

    explicit Bare(const Camera& camera)
        : m_num_frames{camera.num_frames},
          m_packet_size{HEADERS +
                        2UL * ((camera.pixels + camera.num_frames - 3UL) / (camera.num_frames - 2UL))},
          m_buffer(m_packet_size * camera.num_frames) {}

    std::uint16_t Port() const { return m_rx.socket.LocalPort(); }
    void ReceiveFrame() {
        std::array<mmsghdr, BATCH> messages{};
        std::array<iovec, BATCH> iovs{};
        for (std::size_t read = 0; read < m_num_frames;) {
            const std::size_t count = std::min(BATCH, m_num_frames - read);
            for (std::size_t i = 0; i < count; ++i) {
                iovs[i] = {m_buffer.data() + (read + i) * m_packet_size, m_packet_size};
                messages[i].msg_hdr.msg_iov = &iovs[i];
                messages[i].msg_hdr.msg_iovlen = 1;
            }
            std::error_code error;
            read += m_rx.socket.ReceiveBatch(std::span{messages}.first(count), error);
            if (error) throw std::runtime_error("a packet is missing: " + error.message());
        }
    }

private:
    LargeSocket m_rx;
    std::size_t m_num_frames;
    std::size_t m_packet_size;
    std::vector<std::byte> m_buffer;
};

Row Measure(const Camera& camera) {
    Ours ours{camera};
    Bare bare{camera};
    CameraSender to_ours{camera, ours.Port()};
    CameraSender to_bare{camera, bare.Port()};
    std::vector<double> ours_us;
    std::vector<double> bare_us;
    for (int round = 0; round < WARM_UP + ROUNDS; ++round) {
        to_ours.SendFrame();
        const double our_time = TimeUs([&] { ours.ReceiveFrame(); });
        to_bare.SendFrame();
        const double bare_time = TimeUs([&] { bare.ReceiveFrame(); });
        if (round < WARM_UP) continue;
        ours_us.push_back(our_time);
        bare_us.push_back(bare_time);
    }
    // The machine's neighbours only ever add.
    return {"LSPX frame received, " + camera.name + ", 10th percentile", "bare recvmmsg into one buffer",
            "us", Percentile(ours_us, 0.1), Percentile(bare_us, 0.1)};
}

}  // namespace

std::vector<Row> BenchLspxReceive() {
    return {Measure({"1.6 MB in 206 packets", 206, 783360, {}}),
            Measure({"8.4 MB in 943 packets", 943, 4194304, {}})};
}

}  // namespace vosk::bench
