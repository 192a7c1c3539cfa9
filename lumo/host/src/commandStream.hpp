#pragma once

// Lines in, replies out: one client of the control socket, or the terminal. Never blocks, whatever the other
// side does: while a reply isn't taken nothing more is read. SIGPIPE must be ignored. Control thread.

#include "lineBuffer.hpp"

#include <poll.h>

#include <functional>
#include <string>

namespace vosk::host {

// Gives the reply to a line; an empty one isn't sent.
using CommandHandler = std::function<std::string(const std::string& line)>;

class CommandStream {
public:
    // The descriptors are the caller's and may be one.
    CommandStream(int input, int output) : m_input{input}, m_output{output} {}

    // Does what can be done at once. False once the stream is over: its end has come and all replies are
    // taken, or the other side is gone. The last line may lack its newline.
    bool Serve(const CommandHandler& handler);

    // For poll(): when to call again.
    pollfd WaitsFor() const {
        return m_reply.empty() ? pollfd{m_input, POLLIN, 0} : pollfd{m_output, POLLOUT, 0};
    }

private:
    bool Read();
    bool Reply(const CommandHandler& handler);
    bool Flush();

    int m_input;
    int m_output;
    LineBuffer m_lines;
    std::string m_reply;  // what the other side hasn't taken yet
    bool m_has_ended = false;
};

}  // namespace vosk::host
