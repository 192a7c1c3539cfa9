#pragma once

// The control socket: a Unix stream socket that only the owner of the host may use. Each line that a client
// sends gets one line in reply. The number of clients, the length of a line and the work in hand for a client
// are bounded, and a client that breaks a bound gets an error. Never blocks. Control thread.

#include "commandStream.hpp"
#include "uniqueFd.hpp"

#include <poll.h>
#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace vosk::host {

inline constexpr std::size_t MAX_CLIENTS = 16;

// Throws std::runtime_error, with the reason, unless a control socket could be made at this path: a name too
// long for one, no such directory or none to write in, a file that is no socket, a socket on which a process
// listens or that is not ours to connect to.
void VetSocketPath(const std::string& path);

class ControlSocket {
public:
    // Listens at `path`, in the place of a socket that a former process left there. Throws as VetSocketPath,
    // and if the system refuses.
    explicit ControlSocket(const std::string& path);
    // Removes the socket's file, unless another has taken its place.
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    // Appends what poll() is to wait for until the next call of Serve().
    void AppendSources(std::vector<pollfd>& sources) const;

    // Serves what is there. To be called now and then also without that: a client that found no descriptor
    // free is taken in by a later call.
    void Serve(const CommandHandler& handler);

    std::size_t GetClientCount() const { return m_clients.size(); }

private:
    struct Client {
        explicit Client(UniqueFd socket) : fd{std::move(socket)}, stream{fd.Get(), fd.Get()} {}

        UniqueFd fd;
        CommandStream stream;
    };

    void AcceptClient();

    std::string m_path;
    UniqueFd m_listener;
    struct stat m_file {};  // of the socket, at its making
    std::vector<Client> m_clients;
    bool m_is_accepting = true;  // false after a refusal by the system, until the next Serve()
};

}  // namespace vosk::host
