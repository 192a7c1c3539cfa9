#include <pktwire/udpSocket.hpp>

#include <linux/sock_diag.h>
#include <log4cplus/logger.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <stdexcept>

namespace pktwire {

namespace {

constexpr std::uint64_t MAX_BATCH = 64;
// How long one call waits for room in the socket buffer, all its packets together. The samples of a control
// loop are worth nothing later, and the loop can't stand still for them.
constexpr std::chrono::milliseconds MAX_SEND_STALL{1};

std::error_code LastError() noexcept {
    return {errno, std::system_category()};
}

// In a program that set up no log, the text goes nowhere, without a complaint by the log library.
void Log(log4cplus::LogLevel level, const std::string& text) {
    log4cplus::Logger logger = log4cplus::Logger::getInstance("pktwire");
    if (logger.getAllAppenders().empty() && log4cplus::Logger::getRoot().getAllAppenders().empty()) return;
    if (logger.isEnabledFor(level)) logger.forcedLog(level, text);
}

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what + ": " + LastError().message());
}

int OpenUdpSocket() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) Fail("no UDP socket to be had");
    return fd;
}

template <class T>
bool SetOption(int fd, int level, int option, const T& value) noexcept {
    return ::setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

// For settings without which the stream still works.
template <class T>
void SetOptionOrWarn(int fd, int level, int option, const T& value, const std::string& name) {
    if (SetOption(fd, level, option, value)) return;
    Log(log4cplus::WARN_LOG_LEVEL, "the system refuses " + name + ": " + LastError().message());
}

int GetOption(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof(value);
    if (::getsockopt(fd, SOL_SOCKET, option, &value, &size) != 0) Fail("a socket's setting can't be read");
    return value;
}

struct BufferOption {
    int option;
    int forced;  // not limited by the system's maximum, for the privileged
    const char* name;
};
constexpr BufferOption RX_BUFFER{SO_RCVBUF, SO_RCVBUFFORCE, "receive buffer"};
constexpr BufferOption TX_BUFFER{SO_SNDBUF, SO_SNDBUFFORCE, "send buffer"};

void SetBuffer(int fd, const BufferOption& buffer, std::uint64_t size) {
    if (size == 0) return;
    // The kernel doubles what it is given, for its own bookkeeping, and reports the double.
    const int asked = static_cast<int>(std::min<std::uint64_t>(size, std::numeric_limits<int>::max() / 2));
    if (!SetOption(fd, SOL_SOCKET, buffer.forced, asked)) SetOption(fd, SOL_SOCKET, buffer.option, asked);
    const int granted = GetOption(fd, buffer.option) / 2;
    const std::string text = std::string{buffer.name} + " of " + std::to_string(size) + " bytes asked for, " +
                             std::to_string(granted) + " granted";
    const bool enough = static_cast<std::uint64_t>(granted) >= size;
    Log(enough ? log4cplus::DEBUG_LOG_LEVEL : log4cplus::WARN_LOG_LEVEL, text);
}

std::string Endpoint(const Ipv4& ip, std::uint16_t port) {
    return (ip.IsGiven() ? std::string{ip} : "*") + ":" + std::to_string(port);
}

sockaddr_in ToSockaddr(const Ipv4& ip, std::uint16_t port) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = ip.ToNetwork();
    return address;
}

void Bind(int fd, const Ipv4& ip, std::uint16_t port) {
    const sockaddr_in address = ToSockaddr(ip, port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("can't bind to " + Endpoint(ip, port));
    }
}

std::uint16_t GetLocalPort(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) Fail("no local address");
    return ntohs(address.sin_port);
}

// Binds the socket to the interface and returns its index, 0 for none.
int BindToInterface(int fd, const std::string& name) {
    if (name.empty()) return 0;
    const unsigned index = ::if_nametoindex(name.c_str());
    if (index == 0) Fail("no network interface \"" + name + "\"");
    if (::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(),
                     static_cast<socklen_t>(name.size() + 1)) != 0) {
        if (errno != EPERM) Fail("can't bind to network interface \"" + name + "\"");
        Log(log4cplus::WARN_LOG_LEVEL, "no permission to bind to network interface \"" + name +
                                           "\": packets of other interfaces are heard as well");
    }
    return static_cast<int>(index);
}

void JoinGroup(int fd, const Ipv4& group, int interface_index) {
    ip_mreqn request{};
    request.imr_multiaddr = group.ToNetwork();
    request.imr_ifindex = interface_index;
    if (!SetOption(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, request)) {
        Fail("can't join multicast group " + std::string{group});
    }
    SetOptionOrWarn(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0, "to hear the joined group only");
}

std::error_code Poll(int fd, short events, std::chrono::nanoseconds timeout) noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    const timespec wait{seconds.count(), (timeout - seconds).count()};
    pollfd request{fd, events, 0};
    const int ready = ::ppoll(&request, 1, &wait, nullptr);
    if (ready > 0) return {};
    if (ready == 0) return std::make_error_code(std::errc::timed_out);
    return errno == EINTR ? std::error_code{} : LastError();
}

}  // namespace

detail::FileDescriptor::~FileDescriptor() {
    ::close(m_fd);
}

bool HasInterface(const std::string& name) noexcept {
    return ::if_nametoindex(name.c_str()) != 0;
}

UdpRxSocket::UdpRxSocket(const Config& config, std::pmr::memory_resource* /*memory*/)
    : m_fd{OpenUdpSocket()},
      m_batch_size{static_cast<std::size_t>(std::clamp<std::uint64_t>(config.batch_size, 1, MAX_BATCH))},
      m_spin_time{config.spin_time} {
    const int fd = m_fd.Get();
    const Ipv4 listen = config.ip.listen.value_or(Ipv4{});
    SetBuffer(fd, RX_BUFFER, config.rxbuf_size);
    const int interface_index = BindToInterface(fd, config.iface_name);
    // Several programs may listen to one group; a unicast port has one owner, and a second one is a mistake.
    if (listen.IsMulticast()) SetOptionOrWarn(fd, SOL_SOCKET, SO_REUSEADDR, 1, "to share a multicast port");
    Bind(fd, listen, config.udp.listen);
    if (listen.IsMulticast()) JoinGroup(fd, listen, interface_index);
    if (config.busy_poll) {
        const auto microseconds =
            std::clamp<std::int64_t>(*config.busy_poll, 0, std::numeric_limits<int>::max());
        SetOptionOrWarn(fd, SOL_SOCKET, SO_BUSY_POLL, static_cast<int>(microseconds), "busy polling");
    }
    if (config.incoming_cpu) {
        SetOptionOrWarn(fd, SOL_SOCKET, SO_INCOMING_CPU, static_cast<int>(*config.incoming_cpu),
                        "incoming CPU " + std::to_string(*config.incoming_cpu));
    }
}

std::size_t UdpRxSocket::ReceiveBatch(std::span<mmsghdr> messages, std::error_code& error) noexcept {
    const auto count = static_cast<unsigned>(std::min(messages.size(), m_batch_size));
    int read = 0;
    do {
        read = ::recvmmsg(m_fd.Get(), messages.data(), count, MSG_DONTWAIT, nullptr);
    } while (read < 0 && errno == EINTR);
    if (read >= 0) {
        error.clear();
        return static_cast<std::size_t>(read);
    }
    error = LastError();
    return 0;
}

std::error_code UdpRxSocket::WaitReadable(std::chrono::nanoseconds timeout) noexcept {
    if (m_spin_time > std::chrono::nanoseconds::zero()) {
        const auto start = std::chrono::steady_clock::now();
        const auto spin = std::min(m_spin_time, timeout);
        do {
            const std::error_code error = Poll(m_fd.Get(), POLLIN, std::chrono::nanoseconds::zero());
            if (error != std::errc::timed_out) return error;
        } while (std::chrono::steady_clock::now() - start < spin);
        timeout -= spin;
    }
    return Poll(m_fd.Get(), POLLIN, timeout);
}

// This count is exact at once. That of SO_RXQ_OVFL comes with a datagram and holds the drops before it only.
std::uint32_t UdpRxSocket::Dropped() const noexcept {
    std::array<std::uint32_t, SK_MEMINFO_VARS> figures{};
    socklen_t size = sizeof(figures);
    ::getsockopt(m_fd.Get(), SOL_SOCKET, SO_MEMINFO, figures.data(), &size);
    return figures[SK_MEMINFO_DROPS];
}

std::uint16_t UdpRxSocket::LocalPort() const {
    return GetLocalPort(m_fd.Get());
}

std::uint64_t UdpRxSocket::GrantedBuffer() const {
    return static_cast<std::uint64_t>(GetOption(m_fd.Get(), SO_RCVBUF));
}

UdpTxSocket::UdpTxSocket(const Config& config, std::pmr::memory_resource* /*memory*/)
    : m_fd{OpenUdpSocket()} {
    const int fd = m_fd.Get();
    const Ipv4 src = config.ip.src.value_or(Ipv4{});
    if (!config.ip.dst.IsGiven() || config.udp.dst == 0) {
        throw std::runtime_error("a sender needs a destination address and port");
    }
    SetBuffer(fd, TX_BUFFER, config.txbuf_size);
    if (!config.udp.checksum_enable)
        SetOptionOrWarn(fd, SOL_SOCKET, SO_NO_CHECK, 1, "to leave out UDP checksums");
    if (config.ip.time_to_live != 0) {
        const int time_to_live = config.ip.time_to_live;
        SetOptionOrWarn(fd, IPPROTO_IP, IP_TTL, time_to_live, "the time to live");
        SetOptionOrWarn(fd, IPPROTO_IP, IP_MULTICAST_TTL, time_to_live,
                        "the time to live of multicast packets");
    }
    if (config.ip.dst.IsMulticast() && src.IsGiven()) {
        SetOptionOrWarn(fd, IPPROTO_IP, IP_MULTICAST_IF, src.ToNetwork(),
                        "the interface of the source address");
    }
    if (src.IsGiven() || config.udp.src != 0) {
        // Streams to several destinations may share a source port.
        SetOptionOrWarn(fd, SOL_SOCKET, SO_REUSEADDR, 1, "to share a source port");
        Bind(fd, src, config.udp.src);
    }
    const sockaddr_in dst = ToSockaddr(config.ip.dst, config.udp.dst);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&dst), sizeof(dst)) != 0) {
        Fail("no way to " + Endpoint(config.ip.dst, config.udp.dst));
    }
}

std::error_code UdpTxSocket::Send(std::span<mmsghdr> messages) noexcept {
    std::error_code result;
    bool retried = false;  // the first of `messages`, after a refusal
    std::optional<std::chrono::steady_clock::time_point> stall_end;
    while (!messages.empty()) {
        const int sent = ::sendmmsg(m_fd.Get(), messages.data(), static_cast<unsigned>(messages.size()),
                                    MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            messages = messages.subspan(static_cast<std::size_t>(sent));
            retried = false;
            continue;
        }
        const std::error_code error = LastError();
        if (error == std::errc::interrupted) continue;
        if (error == std::errc::operation_would_block) {
            const auto now = std::chrono::steady_clock::now();
            if (!stall_end) stall_end = now + MAX_SEND_STALL;
            if (now >= *stall_end || Poll(m_fd.Get(), POLLOUT, *stall_end - now)) return error;
            continue;
        }
        if (error != std::errc::connection_refused) return error;
        // Tells of an earlier datagram and kept this one from leaving. The peer may be back by now.
        result = error;
        if (retried) messages = messages.subspan(1);
        retried = !retried;
    }
    return result;
}

std::uint16_t UdpTxSocket::LocalPort() const {
    return GetLocalPort(m_fd.Get());
}

}  // namespace pktwire
