#include <lumolib/frameDump.hpp>

#include <fitsio.h>
#include <fmt/format.h>
#include <vosk/common/fits.hpp>
#include <vosk/defs/wireRecords.hpp>
#include <vosk/image_processing/scrambling.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

namespace vosk::lumo {

namespace {

namespace fs = std::filesystem;
using common::Fits;
using image_processing::LisaGeometry;

// A directory that nobody else can put anything into.
class OwnDirectory {
public:
    OwnDirectory() {
        std::string name = "/tmp/vosk_dump_XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) throw std::system_error{errno, std::generic_category(), name};
        m_path = name;
    }
    ~OwnDirectory() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    OwnDirectory(const OwnDirectory&) = delete;
    OwnDirectory& operator=(const OwnDirectory&) = delete;

    fs::path operator/(const char* name) const { return m_path / name; }

private:
    fs::path m_path;
};

void WriteImage(const std::string& path, std::span<const std::uint16_t> image, std::size_t width,
                std::size_t height) {
    const OwnDirectory directory;
    const fs::path file = directory / "frame.fits";
    {
        const Fits::Handle handle = Fits::FitsFileWrite(file, true);
        Fits::WriteImg(handle, image, {width, height});
        int status = 0;
        ffflus(handle->fptr, &status);
        if (status != 0) throw std::runtime_error{fmt::format("{} can't be written: {}", path, status)};
    }
    fs::rename(file, path);
}

// cfitsio asks for the date in a way that is not for two threads.
std::mutex& DumpMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

void DumpFrameToFits(std::span<const std::uint16_t> frame, defs::Camera camera, defs::sample_id_t sample_id) {
    const std::lock_guard lock{DumpMutex()};
    const auto path = [&](const char* order) {
        return fmt::format("/tmp/lisa_input_{}_{}_{}.fits", static_cast<int>(camera), sample_id, order);
    };
    WriteImage(path("scrambled"), frame, LisaGeometry::SCRAMBLED_WIDTH, LisaGeometry::SCRAMBLED_HEIGHT);
    image_processing::LisaDescrambler<std::uint16_t, std::uint16_t> descrambler;
    descrambler.Descramble({frame.data(), frame.size()});
    WriteImage(path("unscrambled"), descrambler.GetFrame(), LisaGeometry::WIDTH, LisaGeometry::HEIGHT);
}

void DumpMaranaFrameToFits(std::span<const std::uint16_t> frame, defs::Camera camera,
                           defs::sample_id_t sample_id) {
    const std::lock_guard lock{DumpMutex()};
    constexpr std::size_t SIZE = defs::MaranaLeaderInfo::DETECTOR_SIZE;
    WriteImage(fmt::format("/tmp/marana_input_{}_{}.fits", static_cast<int>(camera), sample_id), frame, SIZE,
               SIZE);
}

}  // namespace vosk::lumo
