// Any calibration file either makes an object that works, or is refused. The first byte says of which file,
// that is otherwise right, the rest is a piece.

#include <unistd.h>
#include <vosk/common/fits.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

using namespace vosk::image_processing;
using vosk::common::Fits;
namespace fs = std::filesystem;

namespace {

using Bytes = std::span<const std::uint8_t>;
constexpr std::size_t ALICE_SIZE = AliceNoiseRemoval::WIDTH * AliceNoiseRemoval::HEIGHT;

class Files {
public:
    Files() {
        fs::create_directories(m_dir);
        const std::vector<float> image(ALICE_SIZE, 1.5F);
        Fits::WriteImg<float>(Fits::FitsFileWrite(Right("image"), true), image, {240, 240});
        // By turns neighbours, a tap to the right, one to the left and pixels apart.
        std::vector<std::uint32_t> lisa(LisaGeometry::WIDTH * LisaGeometry::HEIGHT);
        for (std::uint32_t i = 0; i < lisa.size(); ++i) {
            const std::uint32_t x = i % 50;
            const std::uint32_t offset[]{x, 8 * x, 400 - 8 * x, x * x};
            lisa[i] = i + offset[i / 50 % 4];
        }
        Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(Right("lisa"), true), lisa, {lisa.size()});
    }
    ~Files() { fs::remove_all(m_dir); }
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;

    std::string Right(const std::string& name) const { return (m_dir / (name + ".fits")).string(); }

    // The right file with the bytes laid over it, from a place that the first two of them give; odd places
    // cut it off behind them.
    std::string Spoilt(const std::string& name, Bytes bytes) const {
        std::ifstream right{Right(name), std::ios::binary};
        std::string content{std::istreambuf_iterator<char>{right}, {}};
        if (bytes.size() >= 2) {
            const std::size_t place = (bytes[0] + std::size_t{256} * bytes[1]) % content.size();
            bytes = bytes.subspan(2);
            const std::size_t end = place + std::min(bytes.size(), content.size() - place);
            std::copy_n(bytes.begin(), end - place, content.begin() + static_cast<std::ptrdiff_t>(place));
            if (place % 2 == 1) content.resize(end);
        }
        std::ofstream{m_dir / "spoilt.fits", std::ios::binary} << content;
        return (m_dir / "spoilt.fits").string();
    }

private:
    const fs::path m_dir = fs::temp_directory_path() / ("calibrationFuzz" + std::to_string(::getpid()));
};

void CleanAlice(const std::string& image) {
    AliceNoiseRemoval{image, image}.RemoveNoise(std::vector<std::uint16_t>(ALICE_SIZE, 100), {}, {});
}

// The rows that a spoilt table may change, in vectors.
void CleanLisa(const std::string& table) {
    using Frame = vosk::defs::AlignedFrame<float>;
    static const Frame ones(LisaGeometry::WIDTH * LisaGeometry::HEIGHT, 1.0F);
    LisaNoiseRemoval removal{ones, ones, table};
    const std::vector<std::uint16_t> raw(LisaGeometry::SCRAMBLED_WIDTH * LisaGeometry::SCRAMBLED_HEIGHT, 100);
    removal.RemoveNoise(raw, {}, Roi{0, 840, 0, 32, 840, 816, 0.0, 0.0});
    removal.RemoveNoise(raw, {}, Roi{300, 324, 5, 29, 840, 816, 0.0, 0.0});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vosk::common::SetupLogging(log4cplus::OFF_LOG_LEVEL, "/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Files files;
    if (size == 0) return 0;
    const Bytes bytes{data + 1, size - 1};
    try {
        data[0] % 2 == 0 ? CleanAlice(files.Spoilt("image", bytes)) : CleanLisa(files.Spoilt("lisa", bytes));
    } catch (const std::exception&) {
        // What a set-up says of bad data.
    }
    return 0;
}
