// A record of the GPAO loop goes to another process and comes back: through two RT mailboxes, and through two
// boost::interprocess::message_queue, both sides sleeping and both sides spinning.

#include "bench.hpp"

#include <vosk/common/shmif/shmRt.hpp>
#include <vosk/defs/shmRecords.hpp>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <csignal>
#include <functional>
#include <stdexcept>

namespace vosk::bench {

namespace {

namespace bip = boost::interprocess;
using namespace vosk::common::shmif;

constexpr std::size_t ROUND_TRIPS = 5000;
constexpr std::size_t WARM_UP = 500;
constexpr const char* THERE = "bench_there";
constexpr const char* BACK = "bench_back";
// A wake that falls between a look and the sleep costs a whole limit; loops that matter use short ones.
constexpr std::chrono::milliseconds SLEEP_LIMIT{1};
constexpr std::chrono::milliseconds NO_SLEEP{0};

// One side's way to send a record and to wait for one.
struct Link {
    std::function<void(const GpaoTopicIn&)> send;
    std::function<void(GpaoTopicIn&)> receive;
};

void Echo(const Link& link) {
    GpaoTopicIn record;
    for (;;) {
        link.receive(record);
        link.send(record);
    }
}

std::vector<double> MeasureRoundTrips(const Link& link) {
    std::vector<double> micros;
    micros.reserve(ROUND_TRIPS);
    GpaoTopicIn sent;
    GpaoTopicIn answer;
    for (std::uint32_t i = 1; i <= WARM_UP + ROUND_TRIPS; ++i) {
        sent.sample_id = i;
        const double time = TimeUs([&] {
            link.send(sent);
            link.receive(answer);
        });
        if (answer.sample_id != i) throw std::runtime_error{"mailbox: a record was lost"};
        if (i > WARM_UP) micros.push_back(time);
    }
    return micros;
}

// Runs `echo` in a process of its own while `measure` runs here.
std::vector<double> BesideEcho(const std::function<void()>& echo,
                               const std::function<std::vector<double>()>& measure) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        echo();
        ::_exit(0);
    }
    std::vector<double> micros = measure();
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    return micros;
}

Link MailboxLink(ShmWriterRT& writer, ShmReaderRT& reader, std::chrono::milliseconds limit) {
    return {[&writer](const GpaoTopicIn& record) {
                while (!writer.TimedSend(&record, SLEEP_LIMIT)) continue;
            },
            [&reader, limit](GpaoTopicIn& record) {
                while (!reader.TimedReceive(&record, limit)) continue;
            }};
}

// A writer leaves out what nobody reads: the first records are sent until they are answered.
void AwaitEcho(ShmWriterRT& writer, ShmReaderRT& reader) {
    const GpaoTopicIn greeting;
    GpaoTopicIn answer;
    do {
        writer.TimedSend(&greeting, SLEEP_LIMIT);
    } while (!reader.TimedReceive(&answer, 10 * SLEEP_LIMIT));
    while (reader.TimedReceive(&answer, 10 * SLEEP_LIMIT)) continue;
}

std::vector<double> MailboxRoundTrips(std::chrono::milliseconds limit) {
    ShmIf shm;
    ShmReaderRT back{shm, BACK};
    ShmWriterRT there{shm, THERE};
    return BesideEcho(
        [&] {
            ShmWriterRT writer{shm, BACK};
            ShmReaderRT reader{shm, THERE};
            Echo(MailboxLink(writer, reader, limit));
        },
        [&] {
            AwaitEcho(there, back);
            return MeasureRoundTrips(MailboxLink(there, back, limit));
        });
}

// The library gives a queue's lock one millisecond: a holder that is off its core for longer is asked again.
template <class Operation>
void UntilLocked(const Operation& operation) {
    for (;;) {
        try {
            return operation();
        } catch (const bip::interprocess_exception& error) {
            if (error.get_error_code() != bip::timeout_when_locking_error) throw;
        }
    }
}

Link SleepingQueueLink(bip::message_queue& out, bip::message_queue& in) {
    return {[&out](const GpaoTopicIn& record) { UntilLocked([&] { out.send(&record, sizeof(record), 0); }); },
            [&in](GpaoTopicIn& record) {
                bip::message_queue::size_type size = 0;
                unsigned int priority = 0;
                UntilLocked([&] { in.receive(&record, sizeof(record), size, priority); });
            }};
}

Link SpinningQueueLink(bip::message_queue& out, bip::message_queue& in) {
    return {[&out](const GpaoTopicIn& record) {
                UntilLocked([&] {
                    while (!out.try_send(&record, sizeof(record), 0)) continue;
                });
            },
            [&in](GpaoTopicIn& record) {
                bip::message_queue::size_type size = 0;
                unsigned int priority = 0;
                UntilLocked([&] {
                    while (!in.try_receive(&record, sizeof(record), size, priority)) continue;
                });
            }};
}

using MakeQueueLink = Link (*)(bip::message_queue& out, bip::message_queue& in);

std::vector<double> QueueRoundTrips(const std::string& prefix, MakeQueueLink make_link) {
    const std::string there_name = prefix + "queue_there";
    const std::string back_name = prefix + "queue_back";
    bip::message_queue there{bip::create_only, there_name.c_str(), 1, sizeof(GpaoTopicIn)};
    bip::message_queue back{bip::create_only, back_name.c_str(), 1, sizeof(GpaoTopicIn)};
    std::vector<double> micros = BesideEcho([&] { Echo(make_link(back, there)); },
                                            [&] { return MeasureRoundTrips(make_link(there, back)); });
    bip::message_queue::remove(there_name.c_str());
    bip::message_queue::remove(back_name.c_str());
    return micros;
}

Row Compare(const std::string& how, double fraction, std::vector<double>& ours,
            std::vector<double>& reference) {
    const std::string figure = fraction == 0.5 ? "median" : "99 %";
    return {.what = "RT mailbox, 640 bytes there and back, " + how + ", " + figure,
            .against = "boost message_queue, the same",
            .unit = "us",
            .ours = Percentile(ours, fraction),
            .reference = Percentile(reference, fraction)};
}

}  // namespace

std::vector<Row> BenchMailbox() {
    const std::string prefix = "/vosk_bench_" + std::to_string(::getpid()) + "_";
    ShmIf::Setup(prefix);
    ShmIf::RegisterTopic(THERE, ShmType::SHM_RT, sizeof(GpaoTopicIn));
    ShmIf::RegisterTopic(BACK, ShmType::SHM_RT, sizeof(GpaoTopicIn));
    std::vector<Row> rows;
    auto sleeping = MailboxRoundTrips(SLEEP_LIMIT);
    auto sleeping_queue = QueueRoundTrips(prefix, SleepingQueueLink);
    auto spinning = MailboxRoundTrips(NO_SLEEP);
    auto spinning_queue = QueueRoundTrips(prefix, SpinningQueueLink);
    for (double fraction : {0.5, 0.99}) {
        rows.push_back(Compare("asleep", fraction, sleeping, sleeping_queue));
        rows.push_back(Compare("spinning", fraction, spinning, spinning_queue));
    }
    ShmIf::Teardown();
    return rows;
}

}  // namespace vosk::bench
