// A /dev/shm that is full, which only a process with one of its own can afford.

#include <vosk/common/shmif/shmBoost.hpp>
#include <vosk/common/shmif/shmRt.hpp>

#include "childProcess.hpp"

#include <vosk/test/messageQueue.hpp>

#include <sched.h>
#include <sys/mount.h>
#include <filesystem>

using namespace vosk::common::shmif;
using namespace vosk::test;

namespace {

constexpr const char* PREFIX = "/full_";

// From here on this process has four pages of shared memory. False if it isn't allowed to.
bool EnterSmallShm() {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=16k") == 0;
}

// Runs the body in a process of that kind.
void WithSmallShm(const std::function<bool()>& body) {
    if (!ChildProcess{[](Signals&) { return EnterSmallShm(); }}.Succeeds())
        GTEST_SKIP() << "no right to mount a small /dev/shm";
    ChildProcess child{[&](Signals&) {
        if (!EnterSmallShm()) return false;
        ShmIf::Setup(PREFIX);
        ShmIf::RegisterTopic("region", ShmType::SHM_RT, 20000);
        ShmIf::RegisterTopic("queue", ShmType::SHM_QUEUE, 200);
        return body();
    }};
    EXPECT_TRUE(child.Succeeds());
}

template <class Make>
bool IsRefusedForSpace(const std::string& topic, Make make) {
    return TextOf<std::runtime_error>(make) ==
           "Failed to resize shared memory: No space left on device (" + (PREFIX + topic) + ")";
}

TEST(FullShm, RefusesWhatHasNoRoom) {
    WithSmallShm([] {
        ShmIf shm;
        const auto open_queue = [&] { ShmWriterBoost(shm, "queue"); };
        if (!IsRefusedForSpace("region", [&] { ShmWriterRT(shm, "region"); })) return false;
        if (!IsRefusedForSpace("queue", open_queue)) return false;
        const std::filesystem::directory_iterator left{"/dev/shm"};
        if (std::distance(begin(left), end(left)) != 1) return false;  // the lock of the regions
        const bip::message_queue sparse{bip::create_only, "/full_queue", 100, 200};  // a collector's
        return IsRefusedForSpace("queue", open_queue);
    });
}

}  // namespace
