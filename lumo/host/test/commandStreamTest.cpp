#include "../src/commandStream.hpp"

#include "../src/uniqueFd.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <vector>

using namespace vosk::host;
using testing::ElementsAre;

namespace {

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error{"no pipe"};
        reading = UniqueFd{ends[0]};
        writing = UniqueFd{ends[1]};
    }
    UniqueFd reading;
    UniqueFd writing;
};

// Blocking descriptors: a stream that waited would hang the test.
class CommandStreamTest : public ::testing::Test {
protected:
    CommandStreamTest() { std::signal(SIGPIPE, SIG_IGN); }

    void Send(const std::string& bytes) {
        ASSERT_EQ(::write(m_in.writing.Get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    void EndInput() { m_in.writing = UniqueFd{}; }

    bool Serve(int times = 1) {
        bool goes_on = true;
        for (int i = 0; i < times && goes_on; ++i) goes_on = m_stream.Serve(m_handler);
        return goes_on;
    }

    std::string Received() {
        std::string text(1 << 20, '\0');
        const ssize_t count = ::read(m_out.reading.Get(), text.data(), text.size());
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }

    Pipe m_in;
    Pipe m_out;
    CommandStream m_stream{m_in.reading.Get(), m_out.writing.Get()};
    std::vector<std::string> m_lines;
    std::size_t m_reply_size = 2;
    CommandHandler m_handler = [this](const std::string& line) {
        m_lines.push_back(line);
        return line.empty() ? line : std::string(m_reply_size, 'r');
    };
};

TEST_F(CommandStreamTest, AnswersLinesHoweverTheyArrive) {
    Send("one\r\n\ntwo\nth");
    EXPECT_TRUE(Serve(2));
    EXPECT_EQ(Received(), "rr\nrr\n");
    Send("ree\nlast without an end");
    EndInput();
    EXPECT_FALSE(Serve(3));
    EXPECT_THAT(m_lines, ElementsAre("one", "", "two", "three", "last without an end"));
    EXPECT_EQ(Received(), "rr\nrr\n");
}

// Of a line that is too long no part may ever be taken for a command.
TEST_F(CommandStreamTest, LineThatIsTooLongIsRefusedWholeAndAlone) {
    const std::string longest(MAX_LINE, 'x');
    Send("before\n" + longest + "\n" + std::string(3 * MAX_LINE, 'y') + "stop");
    EXPECT_TRUE(Serve(6));
    EXPECT_EQ(Received(), "rr\nrr\nerror: a line has at most 1024 bytes\n");
    Send("stop\nafter\n");
    EXPECT_TRUE(Serve());
    EXPECT_THAT(m_lines, ElementsAre("before", longest, "after"));
}

TEST_F(CommandStreamTest, WhoTakesNoRepliesIsReadNoFurther) {
    m_reply_size = 100'000;  // more than a pipe holds
    Send("one\ntwo\n");
    EXPECT_TRUE(Serve(10));
    EXPECT_THAT(m_lines, ElementsAre("one"));
    EXPECT_EQ(m_stream.WaitsFor().fd, m_out.writing.Get());
    Send("three\n");
    EndInput();
    std::string received;
    bool goes_on = true;
    while (goes_on) {
        goes_on = Serve();
        received += Received();
    }
    EXPECT_THAT(m_lines, ElementsAre("one", "two", "three"));
    EXPECT_EQ(received.size(), 3 * (m_reply_size + 1));
}

TEST_F(CommandStreamTest, IsOverWhenNobodyCanTakeReplies) {
    m_out.reading = UniqueFd{};
    Send("one\ntwo\n");
    EXPECT_FALSE(Serve());
    EXPECT_THAT(m_lines, ElementsAre("one"));
}

}  // namespace
