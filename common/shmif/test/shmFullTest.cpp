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

// From here on this process has four pages of shared memory. False if it isn't allowed to.
bool EnterSmallShm() {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=16k") == 0;
}

TEST(FullShm, RefusesAnObjectThatHasNoRoom) {
    if (!ChildProcess{[](Signals&) { return EnterSmallShm(); }}.Succeeds())
        GTEST_SKIP() << "no right to mount a small /dev/shm";
    ChildProcess child{[](Signals&) {
        if (!EnterSmallShm()) return false;
        ShmIf::Setup("/full_");
        ShmIf::RegisterTopic("region", ShmType::SHM_RT, 20000);
        ShmIf::RegisterTopic("queue", ShmType::SHM_QUEUE, 200);
        ShmIf shm;
        const std::string refusal = "Failed to resize shared memory: No space left on device (/full_";
        const auto open_queue = [&] { ShmWriterBoost(shm, "queue"); };
        if (TextOf<std::runtime_error>([&] { ShmWriterRT(shm, "region"); }) != refusal + "region)")
            return false;
        if (TextOf<std::runtime_error>(open_queue) != refusal + "queue)") return false;
        const std::filesystem::directory_iterator left{"/dev/shm"};
        if (std::distance(begin(left), end(left)) != 1) return false;  // the lock of the regions
        const bip::message_queue sparse{bip::create_only, "/full_queue", 100, 200};  // a collector's
        return TextOf<std::runtime_error>(open_queue) == refusal + "queue)";
    }};
    EXPECT_TRUE(child.Succeeds());
}

}  // namespace
