// Commands from a line to its reply, on a stream and on the control socket; what the host reports of itself.

#include "../src/blasKernel.hpp"
#include "../src/clockWatch.hpp"
#include "../src/commands.hpp"
#include "../src/controlSocket.hpp"
#include "../src/statusReport.hpp"
#include "unixSocket.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <csignal>
#include <list>
#include <nlohmann/json.hpp>

namespace vosk::host {
namespace {

using defs::Camera;
using defs::VoskControlMode;
using namespace testing;
using vosk::test::At;
using vosk::test::TextOf;

// Notes each command, and answers a question with the value that was set last.
struct Target : ControlTarget {
    void SetMode(VoskControlMode mode, std::optional<Camera> camera) override {
        calls.push_back(fmt::format("mode {} {}", to_string(mode), camera ? to_string(*camera) : "none"));
    }
    void SetCamera(Camera camera) override { calls.push_back(fmt::format("camera {}", to_string(camera))); }
    void SetReference(const ReferenceBox& given) override { reference = given; }
    ReferenceBox GetReference() override { return reference; }
    void SetCentroiding(const lumo::COptions& given) override { options = given; }
    lumo::COptions GetCentroiding() override { return options; }
    void SetCentering(bool enabled) override { centering = enabled; }
    bool GetCentering() override { return centering; }
    std::string Status() override { return "{}"; }
    void Stop() override { throw std::runtime_error{"too late"}; }

    std::vector<std::string> calls;
    ReferenceBox reference;
    lumo::COptions options;
    bool centering = false;
};

TEST(Commands, DoWhatTheirWordsSayAndNothingElse) {
    Target target;
    const std::string foreign = std::string("\x1b[2J\0\xff", 6) + std::string(1000, 'x');
    for (const auto& [line, reply] : std::vector<std::pair<std::string, std::string>>{
             {"mode INS_DRIVEN_CASCADE WFS_GP2", "ok"},
             {"  mode\tTEL_DRIVEN ", "ok"},
             {"camera IMG_PDS", "ok"},
             {"status", "{}"},
             {"stop", "error: too late"},
             {"mode ins_driven_cascade", "error: 'ins_driven_cascade' is no"},
             {"stop now", "error: wrong number of words"},
             {foreign, "error: '?[2J??" + std::string(34, 'x') + "...' is no command"}}) {
        EXPECT_THAT(Execute(line, target), StartsWith(reply));
    }
    EXPECT_EQ(Execute(" \t ", target), "");
    EXPECT_THAT(target.calls,
                ElementsAre("mode INS_DRIVEN_CASCADE WFS_GP2", "mode TEL_DRIVEN none", "camera IMG_PDS"));
}

TEST(Commands, SetImagingCamerasAndReplyInTheSameWords) {
    Target target;
    const auto query = [&target](const std::string& command) {
        const std::string name = command.substr(0, command.find(' '));
        return name + " " + Execute(name, target);
    };
    for (const std::string command :
         {"reference 1 2 3 4294967295", "centroiding tsh -3.5", "centroiding nbr 5", "centroiding cog",
          "centering on", "centering off"}) {
        EXPECT_EQ(Execute(command, target), "ok");
        EXPECT_EQ(query(command), command);
    }
    for (const std::string command :
         {"reference 1 2 3", "reference 1 2 3 -4", "reference 1 2 3 4294967296", "reference 1 2 3.5 4",
          "reference nan 2 3 4", "centroiding tsh", "centroiding tsh nan", "centroiding tsh 1x",
          "centroiding nbr -1", "centroiding cog 1", "centroiding 1 2", "centering ON", "centering on off"}) {
        const std::string before = query(command);
        EXPECT_THAT(Execute(command, target), StartsWith("error: ")) << command;
        EXPECT_EQ(query(command), before);
    }
}

class Client {
public:
    explicit Client(UniqueFd fd) : m_fd{std::move(fd)} { std::signal(SIGPIPE, SIG_IGN); }

    void Send(const std::string& bytes) const {
        EXPECT_EQ(::send(m_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), std::ssize(bytes));
    }
    void EndSending() const { ::shutdown(m_fd.Get(), SHUT_WR); }

    // All that has come so far.
    const std::string& Received() {
        std::array<char, 4096> bytes{};
        ssize_t count = 0;
        while ((count = ::recv(m_fd.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0)
            m_received.append(bytes.data(), static_cast<std::size_t>(count));
        m_is_let_go = count == 0 || errno == ECONNRESET;
        return m_received;
    }
    bool IsLetGo() {
        Received();
        return m_is_let_go;
    }

private:
    UniqueFd m_fd;
    bool m_is_let_go = false;
    std::string m_received;
};

// A stream on a socket that may block: a stream that waited would hang the test.
class CommandStreamTest : public Test {
protected:
    CommandStreamTest() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        m_near = UniqueFd{ends[0]};
        m_client.emplace(UniqueFd{ends[1]});
        m_stream.emplace(ends[0], ends[0]);
    }

    bool Serve(int times = 1) {
        const auto handler = [this](const std::string& line) {
            m_lines.push_back(line);
            return line.empty() ? line : std::string(m_reply_size, 'r');
        };
        while (m_stream->Serve(handler))
            if (--times == 0) return true;
        return false;
    }

    UniqueFd m_near;
    std::optional<Client> m_client;
    std::optional<CommandStream> m_stream;
    std::vector<std::string> m_lines;
    std::size_t m_reply_size = 2;
};

// No part of a line that is too long may ever be taken for a command.
TEST_F(CommandStreamTest, AnswersLinesHoweverTheyArriveAndRefusesOneThatIsTooLong) {
    const std::string longest(MAX_LINE, 'x');
    m_client->Send("one\r\n\n" + longest + "\n" + std::string(3 * MAX_LINE, 'y') + "stop");
    EXPECT_TRUE(Serve(6));
    EXPECT_EQ(m_client->Received(), "rr\nrr\nerror: a line has at most 1024 bytes\n");
    m_client->Send("stop\ntw");
    EXPECT_TRUE(Serve());
    m_client->Send("o\nlast without an end");
    m_client->EndSending();
    EXPECT_FALSE(Serve(3));
    EXPECT_THAT(m_lines, ElementsAre("one", "", longest, "two", "last without an end"));
}

TEST_F(CommandStreamTest, ReadsNoFurtherWhileRepliesWait) {
    m_reply_size = 1'000'000;  // more than a socket holds
    m_client->Send("one\ntwo\n");
    EXPECT_TRUE(Serve(10));
    EXPECT_THAT(m_lines, ElementsAre("one"));
    EXPECT_EQ(m_stream->WaitsFor().events, POLLOUT);
    m_client->Send("three\n");
    m_client->EndSending();
    EXPECT_TRUE(Serve());
    int waiting = 0;
    ::ioctl(m_near.Get(), FIONREAD, &waiting);
    EXPECT_EQ(waiting, 6);
    while (Serve()) m_client->Received();
    EXPECT_THAT(m_lines, ElementsAre("one", "two", "three"));
    EXPECT_EQ(m_client->Received().size(), 3 * (m_reply_size + 1));
}

class ControlSocketTest : public Test {
protected:
    Client& Connect() { return m_clients.emplace_back(MakeSocketAt(m_path, ::connect)); }

    void Serve() {
        m_socket.Serve([](const std::string& line) { return "got " + line; });
    }
    template <class Condition>
    bool ServeUntil(Condition condition) {
        return vosk::test::Eventually([&] {
            Serve();
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

TEST_F(ControlSocketTest, ServesClientsApartAndRefusesOneTooMany) {
    Client& first = Connect();
    Client& second = Connect();
    first.Send("one\ntw");
    second.Send("three\nfour");
    second.EndSending();
    EXPECT_TRUE(ServeUntil([&] { return second.IsLetGo() && !first.Received().empty(); }));
    EXPECT_EQ(first.Received(), "got one\n");
    EXPECT_EQ(second.Received(), "got three\ngot four\n");
    for (std::size_t i = 1; i < MAX_CLIENTS; ++i) {
        Connect();
        Serve();
    }
    EXPECT_TRUE(ServeUntil([&] { return m_socket.GetClientCount() == MAX_CLIENTS; }));
    Client& extra = Connect();
    EXPECT_TRUE(ServeUntil([&] { return extra.IsLetGo(); }));
    EXPECT_EQ(extra.Received(), "error: too many clients\n");
    m_clients.clear();
    EXPECT_TRUE(ServeUntil([&] { return m_socket.GetClientCount() == 0; }));
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

TEST_F(ControlSocketTest, TakesOnlyANameThatADeadProcessLeftAndRemovesOnlyItsOwnFile) {
    struct stat status {};
    ASSERT_EQ(::stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);  // the owner's alone
    const std::string left = m_dir / "left";
    MakeSocketAt(left, ::bind);
    {
        const ControlSocket socket{left};
        EXPECT_TRUE(MakeSocketAt(left, ::connect).IsOpen());
        ::unlink(left.c_str());
        MakeSocketAt(left, ::bind);  // of the host that came after it
    }
    EXPECT_EQ(::access(left.c_str(), F_OK), 0);

    const std::string file = m_dir.Put("file", "precious");
    for (const auto& [path, reason] :
         std::vector<std::pair<std::string, std::string>>{{m_path, "another process listens there"},
                                                          {file, "no socket"},
                                                          {std::string(200, 'x'), "1 to 107 bytes"},
                                                          {file + "/socket", "its directory " + file}})
        EXPECT_THAT(TextOf([&path = path] { ControlSocket{path}; }), HasSubstr(reason));
    EXPECT_EQ(m_dir.Content("file"), "precious");
    EXPECT_TRUE(MakeSocketAt(m_path, ::connect).IsOpen());
}

TEST(StatusReport, IsOneLineOfJsonWithNullForWhatJsonCannotWrite) {
    Status status;
    status.streams.resize(2);
    status.streams[0] = {.valid = true, .period_max = -9.2e9F, .period_min = 9.2e9F};
    status.streams[1] = {
        .valid = true, .period_max = 1, .period_min = 1e-12F, .rate = std::numeric_limits<float>::infinity()};
    status.cameras.resize(2);
    status.cameras[1].frames = {1, std::chrono::nanoseconds{1500}, {}, defs::Slope{2.5, NAN, 0}};
    status.events = {{At(0), "a \"quoted\"\n\\ \xff text"}};
    const std::string text = ToJson(status);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    const auto json = nlohmann::json::parse(text);
    const auto& streams = json["streams"];
    EXPECT_EQ(streams[0]["period"], 0);  // two samples with one time stamp
    EXPECT_TRUE(streams[0]["period_min"].is_null());
    EXPECT_TRUE(streams[0]["period_max"].is_null());
    EXPECT_TRUE(streams[1]["rate"].is_null());
    EXPECT_EQ(streams[1]["period_min"], 1e-12);
    EXPECT_TRUE(json["cameras"][0]["processing_p50_us"].is_null());
    EXPECT_TRUE(json["cameras"][0]["centroid"].is_null());
    EXPECT_EQ(json["cameras"][1]["processing_p50_us"], 1.5);
    EXPECT_EQ(json["cameras"][1]["centroid"].dump(), R"({"flux":2.5,"x":null,"y":0.0})");
    EXPECT_EQ(json["events"][0]["text"], "a \"quoted\"\n\\ \ufffd text");
}

TEST(EventList, NotesChangesOnceAndKeepsTheLatest) {
    EventList list;
    ControlState state;
    for (int i = 0; i <= 1000; ++i) {
        state.handover_state = i;
        for (int look : {0, 1}) list.Look(state, At(2 * i + look));
    }
    EXPECT_EQ(list.Get().size(), MAX_EVENTS);
    EXPECT_EQ(list.Get().back().text, "handover state 1000");
    EXPECT_EQ(list.Get().back().time, At(2000));
}

TEST(ClockWatch, TellsAStepFromSlewing) {
    using namespace std::chrono_literals;
    const auto at = [](auto time) { return ClockWatch::Steady::time_point{time}; };
    ClockWatch watch{At(100s), at(5s)};
    EXPECT_EQ(watch.Look(At(111s), at(15s)), std::nullopt);
    EXPECT_EQ(watch.Look(At(75s), at(16s)), -37s);
}

TEST(Machine, ReportsWhatTheSystemRefused) {
    const auto thread = [](bool busy, int priority, int given) {
        return ThreadState{"T", {.cpu = -1, .busy = busy, .priority = priority, .priority_given = given}};
    };
    EXPECT_EQ(PreemptionModel("PREEMPT_DYNAMIC", "none (voluntary) full"), "PREEMPT_DYNAMIC (voluntary)");
    EXPECT_THAT(ToLine(LookAtMachine({thread(false, 0, 0), thread(false, 3, 3), thread(false, 5, 0)}, EPERM)),
                AllOf(HasSubstr("memory not locked: Operation not permitted, limit "),
                      HasSubstr("real-time priority given to 1 of 2 threads, limit ")));
    const std::vector spinning{thread(true, 1, 1), thread(true, 1, 1)};
    EXPECT_TRUE(HasNoCpuToSpare(spinning, 2));
    EXPECT_FALSE(HasNoCpuToSpare(spinning, 3));
    EXPECT_FALSE(HasNoCpuToSpare({thread(true, 0, 0), thread(false, 1, 1)}, 1));
}

TEST(BlasKernel, FollowsTheCpuWhereTheLibraryDoesNotKnowIt) {
    EXPECT_EQ(ChooseBetterKernel("Haswell", {.avx2 = true, .avx512 = true}), "SkylakeX");
    EXPECT_EQ(ChooseBetterKernel("Nehalem", {.avx2 = true}), "Haswell");
    EXPECT_EQ(ChooseBetterKernel("Cooperlake", {.avx2 = true, .avx512 = true}), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Nehalem", {}), std::nullopt);
}

}  // namespace
}  // namespace vosk::host
