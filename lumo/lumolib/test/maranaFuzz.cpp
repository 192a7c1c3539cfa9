// The thread of a MARANA camera against samples of any leader, whose packets are lost, repeated, out of order
// or damaged: a frame that it takes lies in the sensor and holds no pixel but its own.

#include "../../../platform/pktwire/test/datagramFeed.hpp"

#include <unistd.h>
#include <gim/config.hpp>
#include <lumolib/maranaInput.hpp>
#include <oru/configng/pliConfigDocument.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/common/logSetup.hpp>

#include <filesystem>
#include <string>

using namespace pktwire;
using vosk::defs::MaranaLeaderInfo;

namespace {

constexpr std::uint16_t MOST_FRAMES = 8;
constexpr std::size_t HEAD = sizeof(wire::QudexHeader) + sizeof(wire::LspxHeader);

oru::configng::PliConfigInstanceNode Node() {
    const auto directory =
        std::filesystem::temp_directory_path() / ("fuzz_marana" + std::to_string(::getpid()));
    for (const auto& [name, value] : {std::pair{"dark.fits", 0.0F}, {"flat.fits", 1.0F}}) {
        const std::vector<float> image(std::size_t{2048} * 2048, value);
        vosk::common::Fits::WriteImg<float>(vosk::common::Fits::FitsFileWrite(directory / name, true), image,
                                            {2048, 2048});
    }
    const std::string text =
        "{busy: true, timeout: 1 ms, listen_ip: 127.0.0.1, iface_name: lo, qudex_topic: 7, camera_id: "
        "IMG_PDS, listen_udp: " +
        std::to_string(20000 + ::getpid() % 40000) + ", num_frames: " + std::to_string(MOST_FRAMES) +
        ", cent_box: [20, 20], refpos: [16, 16], noise_removal: {dark_path: " + directory.string() +
        "/dark.fits, flat_path: " + directory.string() + "/flat.fits}}";
    return oru::configng::PliConfigDocument::FromText(text, "fuzz.yaml").Instances();
}

class Camera : public vosk::lumo::ImgMaranaInput {
public:
    explicit Camera(const oru::configng::PliConfigInstanceNode& node) : ImgMaranaInput{node} {
        m_lspx_receiver = std::make_unique<lspx::Receiver>(
            m_lspx_cfg,
            lspx::Receiver::QudexReceiver{new qudex::Receiver{m_qudex_cfg, socket, nullptr},
                                          std::default_delete<qudex::Receiver>{}},
            nullptr);
    }
    void Restart() {
        socket.datagrams.clear();
        m_lspx_receiver->Restart();
    }
    using ImgMaranaInput::RunCycle;

    test::FakeRxSocket socket;

protected:
    Received Receive() override {
        auto received = ImgMaranaInput::Receive();
        if (received.first || !received.second.leader) return received;
        const auto& leader = *received.second.leader;
        if (leader.GetStatus() != lspx::Status::good) return received;  // not processed, whatever it holds
        const auto& [frame, window] = IdleFrame();
        test::Require(window.has_value() && window->x_offset + window->width <= 2048 &&
                      window->y_offset + window->height <= 2048 && window->size <= leader.NumUnits());
        test::RequireContent(gsl::as_bytes(gsl::span{frame.data(), window->size}), leader.Qudex(), 0);
        return received;
    }
    void DiagnoseFrame() override {}
};

// Mostly small.
std::uint32_t Extent(test::FuzzInput& input) {
    const std::uint8_t byte = input.Byte();
    if (byte < 0xF0) return byte % 64U;
    return byte < 0xF8 ? input.Word() % 2100U : std::uint32_t{input.Word()} << 16U | input.Word();
}

void FeedSample(test::FakeRxSocket& socket, test::FuzzInput& input) {
    MaranaLeaderInfo info;
    info.data_type = input.Byte() % 8U != 0 ? MaranaLeaderInfo::DATA_TYPE : input.Word();
    info.width = Extent(input);
    info.height = Extent(input);
    info.x_offset = Extent(input);
    info.y_offset = Extent(input);
    const std::uint64_t pixels = std::uint64_t{info.width} * info.height;
    const std::uint64_t wanted = pixels + input.Byte() % 4U;  // 2 is two more, 0 one less
    const auto units = static_cast<std::uint32_t>(std::clamp<std::uint64_t>(wanted, 2, 5000) - 1);
    const auto sender = test::FuzzedSender(input, 3, MOST_FRAMES);
    const auto datagrams =
        test::Cut(sender,
                  {.endianness = lspx::LITTLE_ENDIAN_UNITS,
                   .leader_extended_info_size = sizeof(info),
                   .frame_size = units},
                  input.Byte(), {test::Bytes(sizeof(info)), test::Bytes(units * sizeof(std::uint16_t)), {}},
                  {}, lspx::Status{static_cast<std::uint8_t>(input.Byte() / 0xF0U)});
    const std::size_t before = socket.datagrams.size();
    test::Feed(socket, datagrams, input, HEAD, [](const test::Bytes& datagram) -> std::size_t {
        const auto header = test::HeaderAt<wire::LspxHeader>(datagram, sizeof(wire::QudexHeader));
        return (header.first_unit - std::size_t{1}) * sizeof(std::uint16_t);
    });
    for (std::size_t i = before; i < socket.datagrams.size(); ++i) {
        auto& datagram = socket.datagrams[i];
        if (datagram.size() == HEAD + sizeof(info) &&
            test::HeaderAt<wire::QudexHeader>(datagram, 0).frame_number == 1)
            std::memcpy(datagram.data() + HEAD, &info, sizeof(info));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vosk::common::SetupLogging(log4cplus::OFF_LOG_LEVEL, "/dev/null");
    vosk::lumo::RuntimeMonitor::CreateInstance(gim::Config{});
    vosk::lumo::ResamplerManager::CreateInstance(gim::Config{}, "resamplers");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Camera camera{Node()};
    camera.Restart();
    for (test::FuzzInput input{{data, size}}; !input.IsEmpty();) {
        for (int samples = input.Byte() % 4; samples > 0; --samples) FeedSample(camera.socket, input);
        camera.RunCycle();
    }
    for (int i = 0; i < 4; ++i) camera.RunCycle();
    return 0;
}
