#pragma once

// The control socket: a Unix stream socket that only the owner of the host may use. Each line that a client
// sends gets one line in reply. What clients can cost is bounded: how many there are, how long a line is, and
// how much one may have in work; who breaks a bound is told so and let go. Never blocks. Control thread.

#include "lineBuffer.hpp"
#include "uniqueFd.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace vosk::host {

inline constexpr std::size_t MAX_CLIENTS = 16;

class ControlSocket {
public:
    // Gives the reply to a line; an empty one isn't sent.
    using Handler = std::function<std::string(const std::string& line)>;

    // Listens at `path`, in the place of a socket that a former process left there. Throws std::runtime_error
    // if somebody listens there, if something else has the name, or if the system refuses.
    explicit ControlSocket(const std::string& path);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    // Readable, for poll(), while there is something to serve.
    int GetFd() const { return m_epoll.Get(); }

    // Serves what is there.
    void Serve(const Handler& handler);

    std::size_t GetClientCount() const { return m_clients.size(); }

private:
    struct Client {
        UniqueFd fd;
        LineBuffer input{};
        std::string output{};    // what the client hasn't taken yet; while it isn't empty nothing is read
        bool has_ended = false;  // nothing more is to come from it
        std::uint32_t waits_for = 0;
    };

    void AcceptClient();
    void ServeClient(int fd, const Handler& handler);
    static bool Read(Client& client);
    static bool Reply(Client& client, const Handler& handler);
    static bool Flush(Client& client);
    void WaitFor(Client& client, std::uint32_t events);

    std::string m_path;
    UniqueFd m_listener;
    UniqueFd m_epoll;
    std::map<int, Client> m_clients;
};

}  // namespace vosk::host
