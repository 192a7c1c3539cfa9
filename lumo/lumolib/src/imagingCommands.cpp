// The commands of LibMain for imaging cameras and guide probes.

#include <lumolib/cameraInput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>

#include <array>
#include <cstdint>
#include <exception>
#include <span>

namespace vosk::lumo {

namespace {

using Names = std::array<const char*, 4>;
constexpr Names IMAGE_PROCESSING_THREADS{"ImgProc_IMG_GP1", "ImgProc_IMG_GP2", "ImgProc_IMG_GP3",
                                         "ImgProc_IMG_PDS"};
constexpr Names IMAGING_CAMERA_THREADS{"ImgLisa_IMG_GP1", "ImgLisa_IMG_GP2", "ImgLisa_IMG_GP3",
                                       "Marana_IMG_PDS"};

using Threads = std::map<std::string, std::unique_ptr<Thread>>;
using UIntPair = std::pair<unsigned int, unsigned int>;

enum class Walk { ALL, TO_FIRST_ANSWER };

// Whether the call returned for one of the threads of these names, all of class T. A name without a thread is
// passed over.
template <class T, class Call>
bool CallForThreads(const Threads& threads, std::span<const char* const> names, Walk walk, const Call& call) {
    bool has_answer = false;
    for (const char* name : names) {
        const auto found = threads.find(name);
        if (found == threads.end()) continue;
        auto* const thread = dynamic_cast<T*>(found->second.get());
        VOSK_ASSERT(thread != nullptr && "Thread name/type misconfiguration");
        try {
            call(*thread);
            has_answer = true;
            if (walk == Walk::TO_FIRST_ANSWER) break;
        } catch (const std::exception& error) {  // a refused ROI or parameter is std::invalid_argument
            common::LogError("{}: {}", name, error.what());
        }
    }
    return has_answer;
}

// The call for the first list, or for the second if the first has no answer.
template <class OnProcessing, class OnCamera>
bool CallForCameras(const Threads& threads, Walk walk, const OnProcessing& on_processing,
                    const OnCamera& on_camera) {
    return CallForThreads<ImageProcessing>(threads, IMAGE_PROCESSING_THREADS, walk, on_processing) ||
           CallForThreads<ImgCameraInput>(threads, IMAGING_CAMERA_THREADS, walk, on_camera);
}

UIntPair Narrowed(const std::pair<std::uint64_t, std::uint64_t>& pair) {
    return {static_cast<unsigned int>(pair.first), static_cast<unsigned int>(pair.second)};
}

void SetGPCentering(bool enabled) {
    VoskTelescopeStateManager::SetGPCenteringEnabled(enabled);
    RuntimeMonitor::GetPerformanceData().SetGpCmdValid(enabled);
    RuntimeMonitor::GetStateData().SetGPCentering(enabled);
}

}  // namespace

bool LibMain::SetImageProcessing_CRef(unsigned int ref_x, unsigned int ref_y, unsigned int box_x,
                                      unsigned int box_y) {
    return CallForCameras(
        m_threads, Walk::ALL,
        [&](ImageProcessing& thread) { thread.UpdateROISize(box_x, box_y, ref_x, ref_y); },
        [&](ImgCameraInput& camera) {
            camera.SetRoi(box_x, box_y, static_cast<float>(ref_x), static_cast<float>(ref_y));
        });
}

UIntPair LibMain::GetImageProcessing_RefPos() {
    UIntPair ref_pos;
    const auto get = [&](const auto& thread) { ref_pos = Narrowed(thread.GetRefPos()); };
    CallForCameras(m_threads, Walk::TO_FIRST_ANSWER, get, get);
    return ref_pos;
}

UIntPair LibMain::GetImageProcessing_CentBox() {
    UIntPair box;
    CallForCameras(
        m_threads, Walk::TO_FIRST_ANSWER,
        [&](const ImageProcessing& thread) { box = thread.GetCentBoxSize(); },
        [&](const ImgCameraInput& camera) { box = Narrowed(camera.GetRoiSize()); });
    return box;
}

bool LibMain::SetImageProcessing_COpt(unsigned int option, float threshold, unsigned int nbrightest) {
    const auto set = [&](auto& thread) { thread.SetCOptions(option, threshold, nbrightest); };
    return CallForCameras(m_threads, Walk::ALL, set, set);
}

COptions LibMain::GetImageProcessing_COpt() {
    COptions options;
    CallForCameras(
        m_threads, Walk::TO_FIRST_ANSWER, [&](ImageProcessing& thread) { options = thread.GetCOptions(); },
        [&](const ImgCameraInput& camera) {
            const auto wide = camera.GetCOptions();
            options = {static_cast<unsigned int>(wide.nbrightest), wide.threshold,
                       static_cast<unsigned int>(wide.algorithm)};
        });
    return options;
}

bool LibMain::EnableGPCentering() {
    SetGPCentering(true);
    return true;
}

bool LibMain::DisableGPCentering() {
    SetGPCentering(false);
    return true;
}

}  // namespace vosk::lumo
