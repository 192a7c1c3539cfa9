#pragma once

// The control socket: a Unix stream socket that only the owner of the host may use. Each line that a client
// sends gets one line in reply. What clients can cost is bounded: how many there are, how long a line is, and
// how much one may have in work; who breaks a bound is told so. Never blocks. Control thread.

#include "commandStream.hpp"
#include "uniqueFd.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace vosk::host {

inline constexpr std::size_t MAX_CLIENTS = 16;

// Throws std::runtime_error unless a control socket can have this name: if it is too long for one, if a file
// that is no socket has it, or if its folder isn't ours to write in.
void VetSocketPath(const std::string& path);

class ControlSocket {
public:
    // Listens at `path`, in the place of a socket that a former process left there. Throws std::runtime_error
    // if somebody listens there, if something else has the name, or if the system refuses.
    explicit ControlSocket(const std::string& path);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    // Readable, for poll(), while there is something to serve.
    int GetFd() const { return m_epoll.Get(); }

    // Serves what is there. To be called now and then also without that: who found no descriptor free is
    // taken in by a later call.
    void Serve(const CommandHandler& handler);

    std::size_t GetClientCount() const { return m_clients.size(); }

private:
    struct Client {
        explicit Client(UniqueFd socket) : fd{std::move(socket)}, stream{fd.Get(), fd.Get()} {}

        UniqueFd fd;
        CommandStream stream;
        std::uint32_t waits_for = 0;
    };

    void Listen(bool on);
    void AcceptClient();
    void ServeClient(int fd, const CommandHandler& handler);
    void WaitFor(Client& client, std::uint32_t events);

    std::string m_path;
    UniqueFd m_listener;
    UniqueFd m_epoll;
    std::map<int, Client> m_clients;
    bool m_listens = false;
};

}  // namespace vosk::host
