#include <vosk/common/calibrationFile.hpp>

#include <fmt/format.h>
#include <sys/stat.h>
#include <filesystem>
#include <fstream>
#include <vosk/common/logger.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

using namespace testing;
using namespace vosk::common;
using Line = vosk::test::LogCapture::Line;

namespace {

class CalibrationFile : public testing::Test {
protected:
    CalibrationFile() {
        Fits::WriteImg<float>(Fits::FitsFileWrite(m_path, true), std::vector<float>{1, 2, 3, 4, 5, 6},
                              {2, 3});
    }

    void Overwrite(std::streamoff position, char byte) const {
        std::fstream{m_path, std::ios::in | std::ios::out | std::ios::binary}.seekp(position).put(byte);
    }

    auto Load(std::size_t naxis1 = 2, std::size_t naxis2 = 3) const {
        return LoadMatrix<float>(m_path, naxis1, naxis2, "M2P");
    }

    const vosk::test::TempDir m_dir;
    const std::string m_path = m_dir / "m2p.fits";
    const vosk::test::LogCapture m_log;
};

TEST_F(CalibrationFile, IsNamedInTheLogWhenItIsReadAndDoubtedWhenItContradictsItself) {
    EXPECT_THAT(Load(), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(m_log.Lines(),
                ElementsAre(Line{log4cplus::INFO_LOG_LEVEL, "Reading M2P FITS file " + m_path}));
    Overwrite(29, 'F');           // of SIMPLE
    Overwrite(2880 + 1, '\x01');  // of the first value
    EXPECT_THAT(Load(), SizeIs(6));
    EXPECT_THAT(m_log.Texts("", log4cplus::WARN_LOG_LEVEL),
                ElementsAre("M2P FITS file " + m_path + ": SIMPLE is F",
                            "M2P FITS file " + m_path + ": DATASUM is wrong",
                            "M2P FITS file " + m_path + ": CHECKSUM is wrong"));
}

TEST_F(CalibrationFile, IsNamedWithItsAxesInOneErrorWhenItIsRefused) {
    const auto expect_refusal = [this](const std::string& reason) {
        const std::string text = "ERR: Unable to load M2P FITS file: " + reason;
        EXPECT_EQ(vosk::test::TextOf<Logged>([this] { return Load(3, 2); }), text);
        EXPECT_EQ(m_log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
    };
    expect_refusal(m_path +
                   ": Fits: Image size does not match for the 0th dimension, expected: 3, acctual: 2 "
                   "(wanted: NAXIS1 = 3, NAXIS2 = 2; found: NAXIS1 = 2, NAXIS2 = 3)");
    std::filesystem::remove(m_path);
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    expect_refusal("Fits: Could not open " + m_path +
                   ", details: could not open the named file, no regular file");
}

}  // namespace
