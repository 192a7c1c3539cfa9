#include "../src/controlSocket.hpp"

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <csignal>
#include <cstring>
#include <list>
#include <string>
#include <vector>

using namespace vosk::host;
using testing::HasSubstr;
using vosk::test::TextOf;

namespace {

UniqueFd MakeSocketAt(const std::string& path, int (*attach)(int, const sockaddr*, socklen_t)) {
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (attach(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        return UniqueFd{};
    return fd;
}

class Client {
public:
    explicit Client(const std::string& path) : m_fd{MakeSocketAt(path, ::connect)} {}

    bool IsConnected() const { return m_fd.IsOpen(); }
    void Send(const std::string& bytes) const {
        ::send(m_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void EndSending() const { ::shutdown(m_fd.Get(), SHUT_WR); }

    // Takes what is there.
    void Receive() {
        char bytes[4096];
        const ssize_t count = ::recv(m_fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (count > 0) m_received.append(bytes, static_cast<std::size_t>(count));
        m_is_let_go = count == 0 || (count < 0 && errno == ECONNRESET);
    }

    const std::string& Received() const { return m_received; }
    bool IsLetGo() const { return m_is_let_go; }

private:
    UniqueFd m_fd;
    bool m_is_let_go = false;
    std::string m_received;
};

class ControlSocketTest : public ::testing::Test {
protected:
    ControlSocketTest() { std::signal(SIGPIPE, SIG_IGN); }

    Client& Connect() { return m_clients.emplace_back(m_path); }

    void Serve() {
        m_socket.Serve([](const std::string& line) { return "got " + line; });
    }

    template <class Condition>
    bool ServeUntil(Condition condition) {
        return vosk::test::Eventually([&] {
            Serve();
            for (Client& client : m_clients) client.Receive();
            return condition();
        });
    }

    bool HasSomethingToServe() const {
        std::vector<pollfd> sources;
        m_socket.AppendSources(sources);
        return ::poll(sources.data(), sources.size(), 0) != 0;
    }

    vosk::test::TempDir m_dir;
    std::string m_path = m_dir / "control";
    ControlSocket m_socket{m_path};
    std::list<Client> m_clients;
};

TEST_F(ControlSocketTest, IsTheOwnersAlone) {
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(ControlSocketTest, ServesClientsApartAndLetsGoWhoHasEnded) {
    Client& first = Connect();
    Client& second = Connect();
    first.Send("one\ntw");
    second.Send("three\nfour");
    second.EndSending();
    EXPECT_TRUE(ServeUntil([&] { return second.IsLetGo() && !first.Received().empty(); }));
    EXPECT_EQ(first.Received(), "got one\n");
    EXPECT_EQ(second.Received(), "got three\ngot four\n");
    m_clients.clear();
    EXPECT_TRUE(ServeUntil([&] { return m_socket.GetClientCount() == 0; }));
}

TEST_F(ControlSocketTest, OneClientTooManyIsToldSoAndHindersNobody) {
    for (std::size_t i = 0; i < MAX_CLIENTS; ++i) {
        Connect();
        Serve();
    }
    EXPECT_TRUE(ServeUntil([&] { return m_socket.GetClientCount() == MAX_CLIENTS; }));
    Client& extra = Connect();
    EXPECT_TRUE(ServeUntil([&] { return extra.IsLetGo(); }));
    EXPECT_EQ(extra.Received(), "error: too many clients\n");
    m_clients.pop_front();
    EXPECT_TRUE(ServeUntil([&] { return m_socket.GetClientCount() == MAX_CLIENTS - 1; }));
    Client& next = Connect();
    next.Send("y\n");
    EXPECT_TRUE(ServeUntil([&] { return next.Received() == "got y\n"; }));
}

// Otherwise the control thread would never rest.
TEST_F(ControlSocketTest, WithoutAFreeDescriptorAClientWaitsInSilence) {
    Client& client = Connect();
    client.Send("x\n");
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const auto lowest_free = static_cast<rlim_t>(UniqueFd{::dup(0)}.Get());
    const rlimit none{lowest_free, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_TRUE(HasSomethingToServe());
    Serve();
    EXPECT_FALSE(HasSomethingToServe());
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(ServeUntil([&] { return client.Received() == "got x\n"; }));
}

TEST_F(ControlSocketTest, TakesOnlyANameThatADeadProcessLeftAndSaysWhyNot) {
    const std::string left = m_dir / "left";
    MakeSocketAt(left, ::bind);
    const ControlSocket socket{left};
    EXPECT_TRUE(Client{left}.IsConnected());

    const std::string file = m_dir.Put("file", "precious");
    for (const auto& [path, reason] : std::vector<std::pair<std::string, std::string>>{
             {m_path, "another process listens there"},
             {file, "no socket"},
             {std::string(200, 'x'), "1 to 107 bytes"},
             {"/no/such/socket", "its directory /no/such: No such file"},
             {file + "/socket", "its directory " + file + ": Not a directory"}}) {
        EXPECT_THAT(TextOf([&path = path] { VetSocketPath(path); }), HasSubstr(reason));
        EXPECT_THAT(TextOf([&path = path] { ControlSocket{path}; }), HasSubstr(reason));
    }
    EXPECT_EQ(m_dir.Content("file"), "precious");
    EXPECT_TRUE(Connect().IsConnected());
}

TEST_F(ControlSocketTest, RemovesOnlyItsOwnFile) {
    const std::string path = m_dir / "taken";
    {
        const ControlSocket former{path};
        ::unlink(path.c_str());
        MakeSocketAt(path, ::bind);  // of the host that came after it
    }
    EXPECT_EQ(::access(path.c_str(), F_OK), 0);
    { const ControlSocket own{path}; }
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

}  // namespace
