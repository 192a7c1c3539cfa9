#include <vosk/common/shmif/shmIf.hpp>

#include "../src/namedLock.hpp"
#include "childProcess.hpp"

#include <vosk/test/logCapture.hpp>

#include <fcntl.h>
#include <boost/interprocess/exceptions.hpp>

using namespace std::chrono_literals;
using namespace vosk::common::shmif;
using namespace testing;
using namespace vosk::test;

namespace {

TEST(ShmIf, KnowsTheTopicsOfTheSystemAndThoseRegisteredUntilTeardown) {
    const ShmIf shm;
    ShmIf::Setup("/site_");
    EXPECT_EQ(shm.GetPrefix(), "/site_");
    for (int i = 0; i < 2; ++i) ShmIf::RegisterTopic("my_loop", ShmType::SHM_RT, 160);
    for (const auto& [topic, type, size] : {std::tuple{"fs_in_telem", ShmType::SHM_QUEUE, 176U},
                                            {"fs_out_telem", ShmType::SHM_QUEUE, 168U},
                                            {"gpao_in_telem", ShmType::SHM_QUEUE, 656U},
                                            {"gpao_out_telem", ShmType::SHM_QUEUE, 272U},
                                            {"sim_wfs_gp2", ShmType::SHM_RT, 26160U},
                                            {"my_loop", ShmType::SHM_RT, 160U}}) {
        EXPECT_EQ(shm.GetQueueType(topic), type) << topic;
        EXPECT_EQ(shm.GetQueueSize(topic), size) << topic;
    }
    EXPECT_THAT(TextOf<std::runtime_error>([&] { shm.GetQueueType("fs_inn"); }),
                HasSubstr("\"fs_inn\" is unknown"));
    EXPECT_THAT(TextOf<std::runtime_error>([&] { GetSizeOrThrow(shm, "fs_in", ShmType::SHM_QUEUE); }),
                HasSubstr("\"fs_in\" is no queue"));
    EXPECT_THAT(TextOf<std::runtime_error>([] { ShmIf::RegisterTopic("my_loop", ShmType::SHM_RT, 152); }),
                HasSubstr("\"my_loop\" is an RT topic of 160 bytes, it can't be an RT topic of 152 bytes"));
    EXPECT_THROW(ShmIf::RegisterTopic("fs_in_telem", ShmType::SHM_RT, 176), std::runtime_error);
    EXPECT_THROW(ShmIf::RegisterTopic("empty", ShmType::SHM_RT, 0), std::runtime_error);
    ShmIf::Teardown();
    EXPECT_THROW(shm.GetQueueType("my_loop"), std::runtime_error);
    EXPECT_EQ(shm.GetPrefix(), "");
    // Such a prefix breaks names or telemetry lines.
    for (const std::string& prefix : {std::string{"a b"}, {"a,b"}, {"a\n"}, {"/a/b"}, std::string(129, 'a')})
        EXPECT_THROW(ShmIf::Setup(prefix), std::runtime_error) << prefix;
    EXPECT_EQ(ShmIf::FaultOfPrefix("/" + std::string(127, 'a')), std::nullopt);
}

class RegionsLock : public ::testing::Test {
protected:
    ~RegionsLock() override { ::sem_unlink(m_name.c_str()); }

    // The semaphore as any other program sees it, given back once more if it is to be posted.
    int Value(bool post = false) const {
        sem_t* semaphore = ::sem_open(m_name.c_str(), 0);
        int value = -1;
        if (post) ::sem_post(semaphore);
        ::sem_getvalue(semaphore, &value);
        ::sem_close(semaphore);
        return value;
    }
    void Lose() const {
        KillAHolderOf([&] { return std::make_unique<NamedLock>(m_name.c_str(), 10s); });
        EXPECT_FALSE(NamedLock::TryTake(m_name.c_str()));
        EXPECT_EQ(Value(), 0);
    }

    const std::string m_name = std::string{"/"}.append(UniqueName());
};

TEST_F(RegionsLock, IsTakenOverFromAKilledHolderByOneAtATime) {
    const LogCapture log;
    Lose();
    std::atomic<int> inside = 0;
    std::atomic<int> done = 0;
    // The first stays until both others have waited for longer than their limit.
    const auto enter = [&] {
        const NamedLock lock{m_name.c_str(), 1ms};
        EXPECT_EQ(++inside, 1);
        EXPECT_FALSE(NamedLock::TryTake(m_name.c_str()));
        EXPECT_TRUE(
            Eventually([&] { return done > 0 || inside > 1 || log.Texts("waiting on").size() == 2; }));
        ++done;
        --inside;
    };
    { const std::jthread threads[] = {std::jthread{enter}, std::jthread{enter}, std::jthread{enter}}; }
    EXPECT_EQ(log.Texts("its holder is gone").size(), 1U);
    EXPECT_EQ(Value(), 1);
    EXPECT_TRUE(NamedLock::TryTake(m_name.c_str()));
    EXPECT_EQ(Value(), 1);
}

TEST_F(RegionsLock, RefusalHasNameOperationAndReason) {
    std::ofstream{"/dev/shm/sem." + m_name.substr(1)} << "short";
    EXPECT_EQ(TextOf<boost::interprocess::interprocess_exception>([&] { NamedLock{m_name.c_str()}; }),
              "Failed to open the lock of shared memory: Invalid argument (" + m_name + ")");
    EXPECT_FALSE(NamedLock::TryTake(m_name.c_str()));
}

TEST_F(RegionsLock, FormerHolderThatComesBackLetsNobodyIn) {
    Lose();
    auto successor = std::make_unique<NamedLock>(m_name.c_str(), 1ms);
    EXPECT_EQ(Value(true), 1);
    EXPECT_FALSE(NamedLock::TryTake(m_name.c_str()));
    std::atomic<bool> is_given_back = false;
    std::jthread waiter{[&] {
        const NamedLock lock{m_name.c_str(), 10s};
        EXPECT_TRUE(is_given_back);
    }};
    EXPECT_TRUE(Eventually([&] { return Value() == 0; }));
    is_given_back = true;
    successor.reset();
    waiter.join();
    EXPECT_EQ(Value(), 1);  // and not 2, with which it would lock no more
}

}  // namespace
