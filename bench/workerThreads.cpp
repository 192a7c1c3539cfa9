#include "workerThreads.hpp"

#include <cblas.h>
#include <log4cplus/loglevel.h>
#include <gim/config.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <oru/configng/pliConfigDocument.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/common/shmif/shmIf.hpp>

#include <cstdlib>

namespace vosk::bench {

Surroundings::Surroundings() {
    common::SetupLogging(log4cplus::OFF_LOG_LEVEL);
    ::openblas_set_num_threads(1);  // as LibMain does
    common::shmif::ShmIf::Setup("/vosk_bench_" + std::to_string(::getpid()) + "_");
    std::filesystem::create_directories(m_directory / "data/scrambling");
    ::setenv("CFGPATH", m_directory.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
}

Surroundings::~Surroundings() {
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
    common::shmif::ShmIf::Teardown();
}

void Surroundings::Renew() {
    lumo::DataSyncManager::CreateInstance();
    lumo::RuntimeMonitor::CreateInstance(gim::Config{}).Reset();
    lumo::ResamplerManager::CreateInstance(gim::Config{}, "resamplers");
    lumo::ResetControlState();
}

oru::configng::PliConfigInstanceNode Surroundings::NodeOf(const std::string& keys) {
    return oru::configng::PliConfigDocument::FromText("cfg: {" + keys + "}", "bench").Instances()["cfg"];
}

}  // namespace vosk::bench
