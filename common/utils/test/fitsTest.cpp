#include <vosk/common/fits.hpp>

#include <fmt/format.h>
#include <sys/stat.h>
#include <cstdlib>
#include <filesystem>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

using namespace testing;
using vosk::common::Fits;
using vosk::test::TextOf;

namespace {

std::vector<float> Ramp(std::size_t size) {
    std::vector<float> values(size);
    std::iota(values.begin(), values.end(), 0.5F);
    return values;
}

class FitsFiles : public testing::Test {
protected:
    std::string Path(const std::string& name) const { return m_directory / name; }

    // Writes the image into a new file and opens that for reading.
    template <class T>
    Fits::Handle Image(const std::vector<T>& data, const std::vector<std::size_t>& dims) const {
        Fits::WriteImg<T>(Fits::FitsFileWrite(Path("image.fits"), true), data, dims);
        return Fits::FitsFile(Path("image.fits"));
    }

    const vosk::test::TempDir m_directory;
};

template <class Error = std::runtime_error, class Call>
void ExpectRefusal(Call&& call, const testing::Matcher<std::string>& text) {
    EXPECT_THAT(TextOf<Error>(call), text);
}

// Big-endian, two's complement, NAXIS1 running fastest: checked without the library that wrote it.
TEST_F(FitsFiles, HoldTheBytesThatTheFormatPrescribes) {
    Image(std::vector<std::uint16_t>{1, 0x1234, 0x8000, 0xffff}, {2, 2});
    const std::string bytes = m_directory.Content("image.fits");
    ASSERT_EQ(bytes.size(), 2U * 2880U);
    EXPECT_THAT(bytes, StartsWith("SIMPLE  =                    T"));
    EXPECT_THAT(bytes, HasSubstr("BITPIX  =                   16"));
    EXPECT_EQ(bytes.substr(2880, 8), (std::string{"\x00\x01\x12\x34\x80\x00\xff\xff", 8}));
}

TEST_F(FitsFiles, CarryImagesOfEveryElementTypeAndAreReadThroughAlternatives) {
    const std::vector<std::uint16_t> counts{0, 32767, 32768, 65535};
    EXPECT_EQ(Fits::ReadImg<std::uint16_t>(Image(counts, {2, 2})), counts);
    ExpectRefusal([&] { (Fits::ReadImg<float, double>(Image(counts, {4}))); },
                  ", Fits: File has wrong image type, expected: -32 , acctual: 16"
                  ", Fits: File has wrong image type, expected: -64 , acctual: 16");
    const auto longs = Image(std::vector<std::uint32_t>{5, 65537}, {2});
    EXPECT_THAT((Fits::ReadImg<std::uint16_t, std::uint32_t>(longs)), ElementsAre(5, 1));
    // Only the second alternative takes a negative value.
    const auto negative = Image(std::vector<long>{-1}, {1});
    EXPECT_THAT((Fits::ReadImg<std::uint16_t, std::uint32_t, long>(negative)), ElementsAre(65535));
    const auto doubles = Image(std::vector<double>{0.1, 1e300}, {2});
    EXPECT_THAT(Fits::ReadImg<double>(doubles), ElementsAre(0.1, 1e300));
    std::vector<float> out(1);
    std::string errors;
    EXPECT_FALSE((Fits::ReadImgPriv<float, double>(errors, doubles, gsl::span<float>{out}, {})));
    EXPECT_EQ(errors, ", Fits: Provided buffer is too small, expected at least: 2 , acctual: 1");
}

TEST_F(FitsFiles, AreCheckedBeforeTheyAreReadWholeOrBySlices) {
    const auto cube = Image(Ramp(24), {2, 3, 4});
    EXPECT_EQ(Fits::ReadImgParams(cube), (std::pair{std::vector<std::size_t>{2, 3, 4}, -32}));
    std::vector<float> buffer(24);
    const auto read = [&](std::size_t size, const Fits::Dims& dims) {
        return [&, size, dims] { Fits::ReadImgPriv(cube, buffer.data(), size, -32, TFLOAT, dims); };
    };
    const auto slice = [&](const Fits::Handle& file, std::size_t size, std::size_t index) {
        return [&, size, index] { Fits::ReadImgSlicePriv(file, buffer.data(), size, -32, TFLOAT, index); };
    };
    ExpectRefusal<std::invalid_argument>(read(23, {}), HasSubstr("too small"));
    ExpectRefusal(read(24, {{2, 4, 4}}),
                  "Fits: Image size does not match for the 1th dimension, expected: 4, acctual: 3");
    ExpectRefusal(read(24, {{2, 3}}),
                  "Fits: Image dimansions do not match, expected: 2 dimensions, actual: 3 dimensions");
    read(24, {{2, 3, 4}})();
    EXPECT_EQ(buffer, Ramp(24));
    slice(cube, 6, 3)();
    EXPECT_EQ(buffer[0], 18.5F);
    EXPECT_EQ(buffer[5], 23.5F);
    EXPECT_EQ(buffer[6], 6.5F);
    ExpectRefusal<std::out_of_range>(slice(cube, 6, 4), HasSubstr("outside the third dimension"));
    ExpectRefusal<std::invalid_argument>(slice(cube, 5, 0), HasSubstr("too small"));
    ExpectRefusal<std::invalid_argument>(slice(Image(Ramp(6), {2, 3}), 6, 0), "Fits: Expected a 3D image");
}

// A path is taken as it stands, also one that cfitsio's own syntax gives a meaning.
TEST_F(FitsFiles, AreCreatedWithTheirDirectoriesReplacedKeptAndCompressed) {
    Fits::WriteImg<float>(Fits::FitsFileWrite(Path("new/sub/image.fits"), true), Ramp(12), {4, 3});
    Fits::WriteTable(Fits::FitsFileWrite(Path("new/sub/image.fits"), false, "TAB"), {{"a", "E"}});
    const std::string path = Path("image[1].fits[TAB]");
    std::filesystem::rename(Path("new/sub/image.fits"), path);
    EXPECT_EQ(Fits::ReadImg<float>(Fits::FitsFile(path)), Ramp(12));
    Image(Ramp(4), {4});
    static_cast<void>(Fits::FitsFileWrite(Path("image.fits"), true));
    EXPECT_THAT(Fits::ReadImgParams(Fits::FitsFile(Path("image.fits"))).first, ElementsAre());
    Fits::WriteImg<float>(Fits::FitsFileWrite(Path("image.fits.gz"), true), Ramp(40'000), {40'000});
    EXPECT_EQ(Fits::ReadImg<float>(Fits::FitsFile(Path("image.fits.gz"))), Ramp(40'000));
    ExpectRefusal([&] { Fits::FitsFileWrite("/proc/no/image.fits", true); },
                  StartsWith("Fits: Could not open/create /proc/no/image.fits, details: "));
}

TEST_F(FitsFiles, RefuseWritesThatDoNotFit) {
    const auto reader = Image(Ramp(4), {4});
    const auto table = Fits::FitsFileWrite(Path("table.fits"), true, "TAB");
    const auto write = [](const Fits::Handle& handle, const std::vector<std::size_t>& dims) {
        return [&handle, dims] { Fits::WriteImg<float>(handle, Ramp(4), dims); };
    };
    ExpectRefusal<std::invalid_argument>(
        write(reader, {5}),
        "Fits: Provided image buffer size: 4 does not match size from provided dimensions: 5");
    ExpectRefusal<std::invalid_argument>(write(table, {std::size_t{1} << 33U, std::size_t{1} << 33U, 4}),
                                         EndsWith("from provided dimensions: 18446744073709551615"));
    ExpectRefusal(write(reader, {4}), "Fits: Handle opened for reading only");
    ExpectRefusal(write(table, {2, 2}), "Fits: Handle opened for extension table HDU");
}

// A file that can't be read is refused and stays as it is. A header that promises terabytes is refused before
// memory is taken, or checksums are made, for them; a pipe would be waited for without end; more than 99 axes
// overrun the tables of cfitsio.
TEST_F(FitsFiles, ThatCannotBeReadAreRefusedAndKept) {
    Image(Ramp(4), {4, 1});
    const std::string right = m_directory.Content("image.fits");
    std::vector<std::pair<std::string, std::string>> files{{"no FITS at all", ""}};
    for (const auto& [columns, rows] :
         {std::pair{1'000'000'000'000L, 1L}, {1L << 33U, 1L << 33U}, {1L << 62U, 1L}}) {
        files.emplace_back(right, "past end of file, The file is shorter than its header says.");
        for (const auto& [key, size] : {std::pair{"NAXIS1  =", columns}, {"NAXIS2  =", rows}})
            files.back().first.replace(right.find(key) + 10, 20, fmt::format("{:>20}", size));
    }
    for (const char* axes : {"100", "-1", "99.9E1", "many"}) {
        std::string cards = fmt::format("{:80}{:80}{:80}", "SIMPLE  =                    T",
                                        "BITPIX  =                    8", std::string{"NAXIS   = "} + axes);
        for (int i = 1; i <= 999; ++i) cards += fmt::format("NAXIS{:<3}={:>21}{:50}", i, 1, "");
        files.emplace_back(fmt::format("{:86400}", cards + "END"), "its NAXIS is no number from 0 to 99");
    }
    const auto expect_refusal = [this](const std::string& name, const std::string& reason) {
        ExpectRefusal([&] { Fits::FitsFile(Path(name)); },
                      AllOf(StartsWith("Fits: Could not open " + Path(name)), EndsWith(reason)));
    };
    for (const auto& [content, reason] : files) {
        m_directory.Put("bad.fits", content);
        expect_refusal("bad.fits", reason);
        const vosk::test::LogCapture log;
        EXPECT_THROW(Fits::FitsFileWrite(Path("bad.fits"), false), std::runtime_error);
        EXPECT_THAT(log.Texts(Path("bad.fits") + " exists and can't be opened: "),
                    ElementsAre(EndsWith(reason)));
        EXPECT_TRUE(m_directory.Content("bad.fits") == content);
    }
    ASSERT_EQ(std::system(("gzip -f " + Path("bad.fits")).c_str()), 0);
    expect_refusal("bad.fits.gz", files.back().second);
    ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
    expect_refusal("pipe", "could not open the named file, no regular file");
}

TEST_F(FitsFiles, CarryHeaderKeywordsAndAreReadAsUnsignedByBZEROButUnderNoOtherScaling) {
    const auto read = [this](double zero, double scale) {
        {
            const auto file = Fits::FitsFileWrite(Path("image.fits"), true);
            Fits::WriteImg<std::uint16_t>(file, std::vector<std::uint16_t>{0x8000, 0, 0x7fff}, {3});
            Fits::WriteImgHeaderPriv(file, &zero, TDOUBLE, "BZERO", "");
            Fits::WriteImgHeaderPriv(file, &scale, TDOUBLE, "BSCALE", "");
        }
        const auto file = Fits::FitsFile(Path("image.fits"));
        double found = 0.0;
        Fits::ReadImgHeaderPriv(file, &found, TDOUBLE, "BZERO");
        EXPECT_EQ(found, zero);
        ExpectRefusal([&] { Fits::ReadImgHeaderPriv(file, &found, TDOUBLE, "NONE"); },
                      "Fits: Error getting the header key: NONE");
        return Fits::ReadImg<std::uint16_t>(file);
    };
    EXPECT_THAT(read(32768, 1), ElementsAre(0, 32768, 65535));
    for (const auto& [zero, scale] : {std::pair{0.5, 1.0}, {32768.0, 0.5}})
        ExpectRefusal([&, z = zero, s = scale] { read(z, s); }, HasSubstr("are scaled"));
}

TEST_F(FitsFiles, CarryTablesAndRefuseAnUndefinedEntry) {
    const std::array<char, 3> valid{1, 0, 1};
    const auto file = Fits::FitsFileWrite(Path("table.fits"), true, "SPOTS");
    Fits::WriteTable(file, {{"Flux", "D"}, {"valid", "L"}});
    const auto write = [&](const std::string& column) {
        return [&, column] { return Fits::WriteColumnPriv(file, valid.data(), 3, TLOGICAL, column, 1); };
    };
    EXPECT_EQ(Fits::WriteColumnPriv(file, std::array{1.5, 2.5, 3.5}.data(), 3, TDOUBLE, "Flux", 1), 3U);
    EXPECT_EQ(write("valid")(), 3U);
    ExpectRefusal<std::invalid_argument>(
        write("Flux"), "Fits: Column \"Flux\" (index: 1) data type mismatch, expected: 14 , acctual: 82");
    ExpectRefusal<std::invalid_argument>(write("flux"), "Fits: Column \"flux\" not found");
    EXPECT_THAT(Fits::ReadTableParams(file, {}).first, ElementsAre(2, 3));
    EXPECT_EQ(Fits::ReadTableParams(file, {}).second[1].name, "valid");

    std::vector<double> flux(3);
    const auto read = [&](std::size_t size, const char* column) {
        return [&, size, column] { return Fits::ReadColumnPriv(file, flux.data(), size, TDOUBLE, column); };
    };
    EXPECT_EQ(read(3, "Flux")(), 3U);
    EXPECT_THAT(flux, ElementsAre(1.5, 2.5, 3.5));
    ExpectRefusal<std::invalid_argument>(read(3, "flux"), "Fits: Column \"flux\" not foud");
    ExpectRefusal<std::invalid_argument>(read(2, "Flux"), HasSubstr("too small"));
    ExpectRefusal([&] { Fits::ReadImgParams(file); }, "Fits: Handle opened for an exttension HDU");
    ExpectRefusal([&] { Fits::ReadTableParams(Image(Ramp(1), {1}), {}); },
                  "Fits: Handle opened for primary image HDU");

    std::array<char, 3> logical{};
    const auto read_valid = [&] { Fits::ReadColumnPriv(file, logical.data(), 3, TLOGICAL, "valid"); };
    read_valid();
    EXPECT_EQ(logical, valid);
    int status = 0;
    ffpclu(file->fptr, 2, 2, 1, 1, &status);
    ExpectRefusal(read_valid, "Fits: Column \"valid\" contains undefined entries");
}

}  // namespace
