#include <vosk/common/calibrationFile.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

using namespace testing;
using namespace vosk::common;
using vosk::test::LogCapture;

namespace {

TEST(CalibrationFile, IsNamedInTheLogWithItsDoubtsOrInOneRefusalWithItsAxes) {
    const vosk::test::TempDir dir;
    const std::string path = dir / "m2p.fits";
    Fits::WriteImg<float>(Fits::FitsFileWrite(path, true), std::vector<float>{1, 2, 3, 4, 5, 6}, {2, 3});
    const auto load = [&path](std::size_t naxis1, std::size_t naxis2) {
        return LoadMatrix<float>(path, naxis1, naxis2, "M2P");
    };
    const LogCapture log;
    EXPECT_THAT(load(2, 3), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(log.Count(log4cplus::INFO_LOG_LEVEL, "Reading M2P FITS file " + path), 1);
    std::string content = dir.Content("m2p.fits");
    content[29] = 'F';           // of SIMPLE
    content[2880 + 1] = '\x01';  // of the first value
    dir.Put("m2p.fits", content);
    EXPECT_THAT(load(2, 3), SizeIs(6));
    const std::string doubt = "M2P FITS file " + path + ": ";
    EXPECT_THAT(log.Texts("", log4cplus::WARN_LOG_LEVEL),
                ElementsAre(doubt + "SIMPLE is F", doubt + "DATASUM is wrong", doubt + "CHECKSUM is wrong"));

    const std::string text =
        "ERR: Unable to load M2P FITS file: " + path +
        ": Fits: Image size does not match for the 0th dimension, expected: 3, acctual: 2 "
        "(wanted: NAXIS1 = 3, NAXIS2 = 2; found: NAXIS1 = 2, NAXIS2 = 3)";
    EXPECT_EQ(vosk::test::TextOf<Logged>([&] { load(3, 2); }), text);
    EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
}

}  // namespace
