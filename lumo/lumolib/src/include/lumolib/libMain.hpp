#pragma once

// The one object that a host application makes: it owns all worker threads and steers them.
//
// Calling order: construct; ResetControlState() (voskHandoverManager.hpp), so that control mode and handover
// start from their first values; SetupThreads once; StartThreads; commands and getters from one control
// thread at a time while the threads run; StopThreads, also after StartThreads has thrown; destroy. The
// registries behind it are process-wide, so one LibMain may be in use at a time.

#include <lumolib/cOptions.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/threadTable.hpp>

#include <future>
#include <gim/config.hpp>
#include <map>
#include <memory>
#include <optional>
#include <oru/configng/pliConfig.hpp>
#include <span>
#include <string>
#include <utility>
#include <vector>
#include <vosk/defs/controlMode.hpp>

namespace vosk::lumo {

// Locks the memory of the process, present and future, and returns what mlockall returned. Under a sanitizer
// it does nothing and returns 0: the shadow memory does not fit any machine's.
int SetRTParameters();

class LibMain {
public:
    // `shm_prefix` stands in front of the names of all shared-memory topics.
    explicit LibMain(const std::string& shm_prefix);
    LibMain(const LibMain&) = delete;
    LibMain& operator=(const LibMain&) = delete;

    // Empties the registries and makes every thread that the instance node `cfg` of the document describes.
    // Throws what the constructors throw; threads made before stay in the map, and nothing has started. Under
    // a PliConfigReview it goes through the whole document, and the threads are good for nothing but their
    // destruction.
    void SetupThreads(const gim::Config& config);

    // The mirror and AO streams, and those that meet the flowgraphs: parts of SetupThreads.
    void SetupQUDEX(const oru::configng::PliConfigInstanceNode& node);
    void SetupGnuRadioInputOutput(const oru::configng::PliConfigInstanceNode& node);

    // Checks the simulation topics: four of them, or std::runtime_error. Not a part of SetupThreads.
    void SetupDataSync(const oru::configng::PliConfigInstanceNode& node);

    // Starts all threads in name order and returns when all are ready; they have 3 seconds for it together.
    // Throws what a thread threw before it was ready, or std::runtime_error for one that is too slow; what
    // was started then runs on until StopThreads.
    void StartThreads();

    // Stops and joins the threads in name order, then prints the jitter statistics.
    void StopThreads();

    // Sets the control mode, then the active field-stabilisation camera, if given. A handover starts inside
    // this call, on the caller's thread. Throws std::runtime_error for a value that is no mode.
    void SetVoskMode(defs::VoskControlMode mode, std::optional<defs::Camera> camera);

    defs::VoskControlMode GetControlMode();
    defs::Camera GetActiveCameraFs();

    // The imaging cameras, by the first list of which one takes the command: the threads ImageProcessing, or
    // else those of the other cameras. To set goes to all of a list, and is true if one has taken it; each
    // that refuses is a line at ERROR. To get asks the first alone, and is all zero where there is none.
    // Reference position and centroid box are in whole pixels; the options are those of COptions.
    bool SetImageProcessing_CRef(unsigned int ref_x, unsigned int ref_y, unsigned int box_x,
                                 unsigned int box_y);
    std::pair<unsigned int, unsigned int> GetImageProcessing_RefPos();
    std::pair<unsigned int, unsigned int> GetImageProcessing_CentBox();
    bool SetImageProcessing_COpt(unsigned int option, float threshold, unsigned int nbrightest);
    COptions GetImageProcessing_COpt();

    // Guide-probe centering. Always true.
    bool EnableGPCentering();
    bool DisableGPCentering();

    const std::map<std::string, std::unique_ptr<Thread>>& GetThreads() const { return m_threads; }

protected:
    // A later thread of the same name replaces the earlier one.
    void EnterThread(std::unique_ptr<Thread> thread);

    // Threads that were started, by name.
    using Starting = std::vector<std::pair<std::string, std::future<void>>>;
    // Returns when all are ready. Throws what one threw, or std::runtime_error for one that is not ready at
    // the deadline, which is one for all.
    static void WaitForStarts(Starting& starting, defs::time_point deadline);

private:
    // The shared-memory interface is set up while this lives.
    class ShmSession {
    public:
        explicit ShmSession(const std::string& name);
        ~ShmSession();
        ShmSession(const ShmSession&) = delete;
        ShmSession& operator=(const ShmSession&) = delete;

    private:
        std::string m_name;
    };

    void MakeThreads(const oru::configng::PliConfigInstanceNode& cfg, std::span<const SectionEntry> sections);
    void MakeThreads(const StreamEntry& entry, const oru::configng::PliConfigInstanceNode& element);

    // By thread name; its order is that of starting, waiting and stopping. Unchanged after SetupThreads.
    std::map<std::string, std::unique_ptr<Thread>> m_threads;
    ShmSession m_shm_session;
};

}  // namespace vosk::lumo
