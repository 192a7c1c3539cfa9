#pragma once

// What the tests of camera threads share: calibration files, the nodes of the threads, a camera that sends
// frames to them on the loopback interface, and a simulator that stands in the completion task.

#include "loopBench.hpp"

#include <cstdlib>
#include <lumolib/lisaInput.hpp>
#include <lumolib/maranaInput.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/simSourceManager.hpp>
#include <mutex>

namespace vosk::lumo::test {

using Pixels = std::vector<std::uint16_t>;

template <class T>
void WriteFits(const std::string& path, const std::vector<T>& values, const std::vector<std::size_t>& axes) {
    common::Fits::WriteImg<T>(common::Fits::FitsFileWrite(path, true), values, axes);
}

// Of the pixels of a dark and a flat image.
struct Levels {
    float dark = 0.0F;
    float flat = 1.0F;
};

// ROIs of 10 x 10 in a grid, each with its reference point at its corner.
struct Grid {
    explicit Grid(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            const auto x = static_cast<std::uint16_t>(20 + i % 79 * 10);
            const auto y = static_cast<std::uint16_t>(i / 79 * 10);
            rois.insert(rois.end(),
                        {x, static_cast<std::uint16_t>(x + 10), y, static_cast<std::uint16_t>(y + 10)});
            references.insert(references.end(), {static_cast<float>(x), static_cast<float>(y)});
        }
    }
    std::vector<std::uint16_t> rois;
    std::vector<float> references;
};

class CameraTest : public LoopTest {
protected:
    static constexpr std::size_t WIDTH = 960;  // of a raw LISA frame, whose first 840 columns are the image
    static constexpr std::size_t SIZE = WIDTH * 816;
    static constexpr std::size_t MODES = defs::GPAO_CMD_SIZE;

    CameraTest() {
        ResamplerManager::CreateInstance(gim::Config{}, "resamplers");
        SimSourceManager::GetInstance().m_simulator.reset();
        ::setenv("CFGPATH", directory.Path().c_str(), 1);
        std::vector<std::uint32_t> table;
        for (std::uint32_t i = 0; i < 840 * 816; ++i)
            table.push_back(i / 840 * static_cast<std::uint32_t>(WIDTH) + i % 840);
        WriteFits(directory / "data/scrambling/lisa_descrambling_vector.fits", table, {table.size()});
        Calibrate("", {840, 816});
    }
    ~CameraTest() override {
        for (const auto& file : std::filesystem::directory_iterator{"/tmp"}) {
            if (file.path().filename().string().find(DUMP_ID) != std::string::npos)
                std::filesystem::remove(file.path());
        }
    }

    // It listens at m_place.
    std::string Common(const std::string& camera, const std::string& calibration) const {
        return "{busy: false, timeout: 200 ms, iface_name: lo, qudex_topic: 7, listen_ip: " +
               vosk::test::LoopbackOf(m_place) +
               ", listen_udp: " + std::to_string(vosk::test::PortOf(m_place)) + ", camera_id: " + camera +
               ", noise_removal: {dark_path: " + calibration + "dark.fits, flat_path: " + calibration +
               "flat.fits}";
    }

    // Writes a dark and a flat image; gives the prefix of their names.
    std::string Calibrate(const std::string& prefix, const std::vector<std::size_t>& axes,
                          const Levels& levels = {}) const {
        for (const auto& [name, level] : {std::pair{"dark.fits", levels.dark}, {"flat.fits", levels.flat}})
            WriteFits(directory / (prefix + name), std::vector<float>(axes[0] * axes[1], level), axes);
        return directory / prefix;
    }

    // An imaging LISA, with a box of 10 x 10 about (105, 205).
    oru::configng::PliConfigInstanceNode ImgLisaNode(const std::string& more = "") const {
        return CfgOf("cfg: " + Common("IMG_GP2", directory / "") +
                     ", cent_box: [10, 10], refpos: [105.0, 205.0]" + more + "}");
    }
    oru::configng::PliConfigInstanceNode MaranaNode() const {
        return CfgOf("cfg: " + Common("IMG_PDS", Calibrate("marana_", {2048, 2048})) +
                     ", cent_box: [8, 10], refpos: [2004.0, 105.0]}");
    }
    static defs::MaranaLeaderInfo MaranaInfo(std::uint32_t type, std::uint32_t width, std::uint32_t height,
                                             std::uint32_t x, std::uint32_t y) {
        return {vosk::test::At(seconds{1000}), type, width, height, x, y};
    }
    // A raw pixel of 12 is 1 when clean. The bad pixel lies in the middle of the box.
    oru::configng::PliConfigInstanceNode AliceNode(const std::string& camera = "IMG_GP1") const {
        const auto calibration = Calibrate("alice_", {240, 240}, {.dark = 10.0F, .flat = 2.0F});
        return CfgOf("cfg: " + Common(camera, calibration) +
                     ", image_processing: {busy: false, noise_removal: {dark_path: " + calibration +
                     "dark.fits, flat_path: " + calibration +
                     "flat.fits}, bad_pixels: [[120, 120]], pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1], "
                     "cent_box: [8, 8], refpos: [120, 120]}}");
    }

    // A sensor of `count` sub-apertures; `matrix` stands in the file in the order given, zeroes where it
    // ends.
    oru::configng::PliConfigInstanceNode WfsNode(std::size_t count, std::size_t workers,
                                                 std::vector<float> matrix = {},
                                                 const std::string& more = "") const {
        const Grid grid{count};
        matrix.resize(2 * count * MODES);
        WriteFits(directory / "rois.fits", grid.rois, {4, count});
        WriteFits(directory / "references.fits", grid.references, {2, count});
        WriteFits(directory / "control.fits", matrix, {2 * count, MODES});
        std::string pool;
        for (std::size_t i = 0; i < workers; ++i) pool += "{}, ";
        return CfgOf("cfg: " + Common("WFS_GP1", directory / "") + ", rois_path: " + directory / "rois.fits" +
                     ", reference_points_path: " + directory / "references.fits" + ", control_matrix_path: " +
                     directory / "control.fits" + ", modes2tt_matrix: [1, 10, 100, 1000], " +
                     "centroiding_pool: [" + pool + "]" + more + "}");
    }

    // Whether the newest result is that of the sample.
    static bool HasResult(CentroidResampler& results, unsigned id) {
        const auto result = results.GetSample();
        return result && result->sample_id == id;
    }
    static auto StateOf(defs::Camera camera) {
        return RuntimeMonitor::GetInstance().Of(camera).state->GetTopicData();
    }

    static constexpr const char* DUMP_ID = "_77777777";  // in the names of the files that these tests dump
    static constexpr unsigned FIRST_ID = 777777770;

    vosk::test::TempDir directory;
    int m_place = 0;
};

// A camera: frames with the leader information of their kind.
class CameraPeer {
public:
    explicit CameraPeer(std::uint16_t num_frames, int place = 0)
        : m_socket{place}, m_sender{SamplesOf(num_frames), m_socket, nullptr} {}

    template <class Info>
    void Send(const Info& info, std::span<const std::uint16_t> pixels, unsigned id, AtomClk::time_point time,
              pktwire::lspx::Status status = pktwire::lspx::Status::good) {
        pktwire::lspx::Sender::Config config{};
        config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
        config.leader_extended_info_size = sizeof(Info);
        config.frame_size = static_cast<std::uint32_t>(pixels.size());
        pktwire::lspx::Sender sender{config, m_sender};
        sender.SetSampleId(id);
        ASSERT_FALSE(sender.SendSample(gsl::as_bytes(gsl::span{&info, 1}),
                                       gsl::as_bytes(gsl::span{pixels.data(), pixels.size()}), {}, time, {},
                                       status));
    }

    template <class Info>
    void Send(const Info& info, std::span<const std::uint16_t> pixels, unsigned id,
              pktwire::lspx::Status status = pktwire::lspx::Status::good) {
        Send(info, pixels, id, vosk::test::At(seconds{id}), status);
    }

    // Of the samples that follow the first packets go out, so many of them.
    void SendOnly(std::size_t count) { m_socket.count = count; }

private:
    PartSocket m_socket;
    pktwire::qudex::Sender m_sender;
};

// Runs in the completion task of a wavefront sensor: the slopes are those of `fill`.
struct TestSimulator : simulation::CentroidSimulator {
    explicit TestSimulator(std::function<bool(defs::SlopeVector&)> fill_slopes)
        : fill{std::move(fill_slopes)} {}
    bool IsEnabled() override { return true; }
    bool GetSimCentroids(CentroidError&, CentroidError&, CentroidError&, CentroidError&, WfsTopic& gp1,
                         WfsTopic&, WfsTopic&, WfsTopic&) override {
        return fill(gp1.slopes);
    }
    std::function<bool(defs::SlopeVector&)> fill;
};

inline void Simulate(std::function<bool(defs::SlopeVector&)> fill) {
    SimSourceManager::GetInstance().m_simulator = std::make_shared<TestSimulator>(std::move(fill));
}

}  // namespace vosk::lumo::test
