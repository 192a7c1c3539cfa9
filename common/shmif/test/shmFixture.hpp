#pragma once

// One topic of a test's own, under a prefix that no other test run uses, and its bytes as a foreign program
// sees them.

#include <vosk/common/shmif/shmIf.hpp>

#include "childProcess.hpp"

#include <sys/mman.h>
#include <filesystem>
#include <iterator>

namespace vosk::test {

using namespace std::chrono_literals;
using namespace vosk::common::shmif;

inline constexpr const char* TOPIC = "topic";

class ShmTest : public ::testing::Test {
protected:
    ShmTest(ShmType type, std::size_t size) {
        ShmIf::Setup(m_prefix);
        ShmIf::RegisterTopic(TOPIC, type, size);
    }
    ~ShmTest() override {
        ShmIf::Teardown();
        Remove();
    }

    bool Exists() const { return std::filesystem::exists(m_path); }
    void Remove() const { ::shm_unlink(m_name.c_str()); }
    std::string Content() const {
        std::ifstream file{m_path, std::ios::binary};
        return {std::istreambuf_iterator<char>{file}, {}};
    }
    // In a new object.
    void PutContent(const std::string& bytes) const {
        Remove();
        std::ofstream{m_path, std::ios::binary} << bytes;
    }

    const std::string m_prefix = std::string{"/"}.append(UniqueName()).append("_");
    const std::string m_name = m_prefix + TOPIC;
    const std::string m_path = "/dev/shm" + m_name;
    ShmIf m_shm;
};

}  // namespace vosk::test
