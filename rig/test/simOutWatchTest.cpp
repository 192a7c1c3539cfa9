// The watch against a writer that publishes as the host does, without a look at anybody.

#include "peers/simOutWatch.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

class Mailbox {
public:
    static constexpr std::size_t RECORD = 26160;

    Mailbox() : m_name(fmt::format("/vosk_watch_test_{}", getpid())) {
        const int descriptor = shm_open(m_name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(ftruncate(descriptor, 80 + RECORD), 0);
        m_bytes = static_cast<std::byte*>(
            mmap(nullptr, 80 + RECORD, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
        close(descriptor);
        Put<std::uint64_t>(72, RECORD);
    }
    ~Mailbox() {
        munmap(m_bytes, 80 + RECORD);
        shm_unlink(m_name.c_str());
    }
    std::string Name() const { return m_name.substr(1); }

    // A record of 700 slopes, all of the value of its ID.
    void Publish(std::uint32_t id) {
        Put<std::int64_t>(80, id);
        Put<std::uint32_t>(88, id);
        for (std::size_t i = 0; i < 3 * std::size_t{700}; ++i) Put<double>(96 + 8 * i, id);
        Put<std::uint64_t>(80 + 26152, 700);
        __atomic_fetch_add(reinterpret_cast<std::uint64_t*>(m_bytes + 40), 1, __ATOMIC_SEQ_CST);
    }

private:
    template <class T>
    void Put(std::size_t offset, T value) {
        std::memcpy(m_bytes + offset, &value, sizeof value);
    }

    std::string m_name;
    std::byte* m_bytes = nullptr;
};

// The last record of each burst stands, so it must come out whole; those before may be overwritten unseen.
TEST(SimOutWatch, TakesTheRecordThatStandsAndCountsTheOthers) {
    constexpr std::size_t BURSTS = 200;
    Mailbox mailbox;
    mailbox.Publish(7);  // of an earlier run
    SimOutWatch watch(SimOutWatch::Record::WfsSlopes, 3 * BURSTS, 1, 700);
    watch.Start(mailbox.Name(), 1ms, 0);
    std::uint32_t id = 100;
    for (std::uint32_t burst = 0; burst < BURSTS; ++burst) {
        for (std::uint32_t i = 0; i <= burst % 3; ++i) mailbox.Publish(++id);
        const auto has_last = [&] {
            const auto entries = watch.Log().Entries();
            return !entries.empty() && entries.back().write_seq == id - 99;
        };
        while (!has_last()) std::this_thread::yield();
        const ResultRecord& last = watch.Log().Entries().back();
        ASSERT_EQ(last.sample_id, id);
        ASSERT_EQ(last.exposed.time_since_epoch().count(), id);
        ASSERT_EQ(last.count, 700U);
        for (const defs::Slope& slope : watch.SlopesOf(last))
            ASSERT_EQ(slope, (defs::Slope{1.0 * id, 1.0 * id, 1.0 * id}));
    }
    watch.Stop();
    EXPECT_EQ(watch.Published(), id - 100);
}

}  // namespace
}  // namespace vosk::rig
