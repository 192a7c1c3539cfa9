#include "../src/controlSocket.hpp"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <list>
#include <string>
#include <vector>

using namespace vosk::host;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

class SocketClient {
public:
    explicit SocketClient(const std::string& path) : m_fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        m_is_connected =
            ::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }

    bool IsConnected() const { return m_is_connected; }
    void Send(const std::string& bytes) { m_unsent += bytes; }
    void EndSending() { m_end_sending = true; }

    // Moves what can be moved without waiting.
    void Exchange() {
        const ssize_t sent =
            ::send(m_fd.Get(), m_unsent.data(), m_unsent.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) m_unsent.erase(0, static_cast<std::size_t>(sent));
        if (m_unsent.empty() && m_end_sending) ::shutdown(m_fd.Get(), SHUT_WR);
        char bytes[4096];
        const ssize_t count = ::recv(m_fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (count > 0) m_received.append(bytes, static_cast<std::size_t>(count));
        if (count == 0) m_is_let_go = true;
        if (count < 0 && errno == ECONNRESET) m_is_let_go = true;
    }

    // Without a look at the answers.
    void SendOnly() {
        const ssize_t sent =
            ::send(m_fd.Get(), m_unsent.data(), m_unsent.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) m_unsent.erase(0, static_cast<std::size_t>(sent));
    }

    const std::string& Received() const { return m_received; }
    bool IsLetGo() const { return m_is_let_go; }

private:
    UniqueFd m_fd;
    bool m_is_connected = false;
    bool m_end_sending = false;
    bool m_is_let_go = false;
    std::string m_unsent;
    std::string m_received;
};

class ControlSocketTest : public ::testing::Test {
protected:
    ~ControlSocketTest() override { ::unlink(m_path.c_str()); }

    SocketClient& Connect() { return m_clients.emplace_back(m_path); }

    std::string Handle(const std::string& line) {
        m_lines.push_back(line);
        return line.empty() ? "" : "got " + line;
    }

    template <class Condition>
    bool ServeUntil(ControlSocket& socket, Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{30};
        while (std::chrono::steady_clock::now() < deadline) {
            socket.Serve([this](const std::string& line) { return Handle(line); });
            for (SocketClient& client : m_clients) client.Exchange();
            if (condition()) return true;
        }
        return false;
    }

    std::string m_path = testing::TempDir() + "vosk_control_" + std::to_string(::getpid());
    std::list<SocketClient> m_clients;
    std::vector<std::string> m_lines;
};

TEST_F(ControlSocketTest, AnswersEachLineInOrder) {
    ControlSocket socket{m_path};
    SocketClient& first = Connect();
    SocketClient& second = Connect();
    first.Send("one\r\n\ntwo\nthr");
    second.Send("four\n");
    EXPECT_TRUE(
        ServeUntil(socket, [&] { return !second.Received().empty() && first.Received().size() >= 16; }));
    EXPECT_EQ(first.Received(), "got one\ngot two\n");
    EXPECT_EQ(second.Received(), "got four\n");
    first.Send("ee\n");
    EXPECT_TRUE(ServeUntil(socket, [&] { return first.Received() == "got one\ngot two\ngot three\n"; }));
}

TEST_F(ControlSocketTest, IsTheOwnersAlone) {
    const ControlSocket socket{m_path};
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(ControlSocketTest, HalfClosedClientGetsItsAnswerAndIsLetGo) {
    ControlSocket socket{m_path};
    SocketClient& client = Connect();
    client.Send("one\nlast without an end");
    client.EndSending();
    EXPECT_TRUE(ServeUntil(socket, [&] { return client.IsLetGo(); }));
    EXPECT_EQ(client.Received(), "got one\ngot last without an end\n");
    EXPECT_EQ(socket.GetClientCount(), 0U);
}

TEST_F(ControlSocketTest, EndlessLineIsRefusedInWords) {
    ControlSocket socket{m_path};
    SocketClient& longest = Connect();
    SocketClient& endless = Connect();
    longest.Send(std::string(MAX_LINE, 'x') + "\n");
    endless.Send(std::string(MAX_LINE + 1, '\0'));
    EXPECT_TRUE(ServeUntil(socket, [&] { return endless.IsLetGo() && !longest.Received().empty(); }));
    EXPECT_EQ(endless.Received(), "error: a line has at most 1024 bytes\n");
    EXPECT_TRUE(ServeUntil(socket, [&] { return longest.Received().size() == MAX_LINE + 5; }));
    EXPECT_EQ(m_lines.size(), 1U);
}

TEST_F(ControlSocketTest, OneClientTooManyIsRefusedInWords) {
    ControlSocket socket{m_path};
    for (std::size_t i = 0; i < MAX_CLIENTS; ++i) {
        Connect().Send("x\n");
        EXPECT_TRUE(ServeUntil(socket, [&] { return !m_clients.back().Received().empty(); }));
    }
    SocketClient& extra = Connect();
    EXPECT_TRUE(ServeUntil(socket, [&] { return extra.IsLetGo(); }));
    EXPECT_EQ(extra.Received(), "error: too many clients\n");
    m_clients.pop_front();
    EXPECT_TRUE(ServeUntil(socket, [&] { return socket.GetClientCount() == MAX_CLIENTS - 1; }));
    SocketClient& next = Connect();
    next.Send("y\n");
    EXPECT_TRUE(ServeUntil(socket, [&] { return next.Received() == "got y\n"; }));
}

// Who asks and never listens is read no further, and hinders nobody.
TEST_F(ControlSocketTest, ClientThatDoesNotListenIsNotServedOn) {
    ControlSocket socket{m_path};
    SocketClient deaf{m_path};
    const std::string request = std::string(1000, 'x') + "\n";
    std::size_t served = 0;
    for (int quiet = 0; quiet < 1000; ++quiet) {
        deaf.Send(request);
        deaf.SendOnly();
        socket.Serve([this](const std::string& line) { return Handle(line); });
        if (m_lines.size() != std::exchange(served, m_lines.size())) quiet = 0;
        ASSERT_LT(served, 100'000U);
    }
    SocketClient& other = Connect();
    other.Send("hello\n");
    EXPECT_TRUE(ServeUntil(socket, [&] { return other.Received() == "got hello\n"; }));
}

TEST_F(ControlSocketTest, ClientThatVanishesIsForgotten) {
    ControlSocket socket{m_path};
    Connect().Send("one\ntwo\n");
    m_clients.front().Exchange();
    m_clients.clear();
    EXPECT_TRUE(ServeUntil(socket, [&] { return socket.GetClientCount() == 0 && !m_lines.empty(); }));
}

TEST_F(ControlSocketTest, TakesThePlaceOfADeadListenerOnly) {
    {
        // As a killed process leaves it: the name is there, and nobody listens.
        const UniqueFd dead{::socket(AF_UNIX, SOCK_STREAM, 0)};
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, m_path.data(), m_path.size());
        ASSERT_EQ(::bind(dead.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    const ControlSocket socket{m_path};
    EXPECT_THAT([&] { ControlSocket{m_path}; },
                ThrowsMessage<std::runtime_error>(HasSubstr("another process listens")));
    EXPECT_TRUE(Connect().IsConnected());
}

TEST_F(ControlSocketTest, RefusesNamesThatAreNotItsOwn) {
    std::ofstream{m_path} << "precious";
    EXPECT_THAT([&] { ControlSocket{m_path}; }, ThrowsMessage<std::runtime_error>(HasSubstr("no socket")));
    EXPECT_EQ(::access(m_path.c_str(), F_OK), 0);
    EXPECT_THAT([&] { ControlSocket{std::string(200, 'x')}; },
                ThrowsMessage<std::runtime_error>(HasSubstr("1 to 107 bytes")));
    EXPECT_THROW(ControlSocket{"/no/such/folder/socket"}, std::runtime_error);
}

}  // namespace
