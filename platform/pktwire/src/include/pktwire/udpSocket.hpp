#pragma once

// UDP sockets, and the two interfaces through which the packet layers see them, so that a test can put
// packets into a receiver without a kernel. A socket belongs to one thread; its constructor reports every
// setting that can't work by std::runtime_error and logs ("pktwire") every setting that the system clamps or
// refuses but that the stream can live without.

#include <pktwire/ipv4.hpp>

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <system_error>

namespace pktwire {

class RxSocket {
public:
    virtual ~RxSocket() = default;

    // The most datagrams that one ReceiveBatch gives.
    virtual std::size_t BatchSize() const noexcept = 0;
    // Fills the messages' iovecs with waiting datagrams, in order of arrival, and sets their msg_len and
    // msg_flags. Never waits. Returns how many came; 0 goes with an error, std::errc::operation_would_block
    // if none was waiting.
    virtual std::size_t ReceiveBatch(std::span<mmsghdr> messages, std::error_code& error) noexcept = 0;
    // Waits until a datagram is there: error 0, std::errc::timed_out or what the system says.
    virtual std::error_code WaitReadable(std::chrono::nanoseconds timeout) noexcept = 0;
    // Datagrams that the kernel dropped since the socket was opened; wraps. 0 where nobody counts them.
    virtual std::uint32_t Dropped() const noexcept { return 0; }
};

class TxSocket {
public:
    virtual ~TxSocket() = default;

    // Sends all messages in order. After ECONNREFUSED, which is about an earlier datagram, the rest is still
    // sent and the code is returned at the end; any other error ends the call. Waits at most 1 ms in all for
    // room to send.
    virtual std::error_code Send(std::span<mmsghdr> messages) noexcept = 0;
};

namespace detail {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) noexcept : m_fd{fd} {}
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const noexcept { return m_fd; }

private:
    int m_fd;
};

}  // namespace detail

// Of this machine.
bool HasInterface(const std::string& name) noexcept;

// A bound socket. A multicast listening address is joined on the interface.
class UdpRxSocket final : public RxSocket {
public:
    struct Config {
        struct Udp {
            std::uint16_t listen = 0;  // port; 0 takes any free one
        } udp;
        struct Ip {
            std::optional<Ipv4> listen;  // empty: every address of the machine
        } ip;
        std::uint64_t batch_size = 10;          // datagrams per system call, 1 to 64
        std::uint64_t rxbuf_size = 0;           // bytes of socket buffer; 0 leaves the system's default
        std::string iface_name;                 // empty: any interface
        std::chrono::nanoseconds spin_time{0};  // how long a wait polls before it sleeps
        std::optional<std::int64_t>
            busy_poll;  // microseconds that the kernel polls the device (SO_BUSY_POLL)
        std::optional<std::uint32_t> incoming_cpu;  // CPU that is to process incoming packets
    };

    // Nothing is allocated; the resource is there because every layer takes one.
    UdpRxSocket(const Config& config, std::pmr::memory_resource* memory);

    std::size_t BatchSize() const noexcept override { return m_batch_size; }
    std::size_t ReceiveBatch(std::span<mmsghdr> messages, std::error_code& error) noexcept override;
    std::error_code WaitReadable(std::chrono::nanoseconds timeout) noexcept override;
    std::uint32_t Dropped() const noexcept override;

    std::uint16_t LocalPort() const;
    // Bytes of socket buffer that the system granted, its own overhead included.
    std::uint64_t GrantedBuffer() const;

private:
    detail::FileDescriptor m_fd;
    std::size_t m_batch_size;
    std::chrono::nanoseconds m_spin_time;
};

// A socket connected to one destination, so that a refusal by the peer is heard.
class UdpTxSocket final : public TxSocket {
public:
    struct Config {
        struct Udp {
            std::uint16_t src = 0;  // 0: any free port
            std::uint16_t dst = 0;
            bool checksum_enable = false;
        } udp;
        struct Ip {
            std::optional<Ipv4> src;  // empty: the system's choice
            Ipv4 dst;
            std::uint8_t time_to_live = 0;  // 0: the system's default
        } ip;
        std::uint64_t txbuf_size = 0;  // bytes of socket buffer; 0 leaves the system's default
    };

    UdpTxSocket(const Config& config, std::pmr::memory_resource* memory);

    std::error_code Send(std::span<mmsghdr> messages) noexcept override;

    std::uint16_t LocalPort() const;

private:
    detail::FileDescriptor m_fd;
};

}  // namespace pktwire
