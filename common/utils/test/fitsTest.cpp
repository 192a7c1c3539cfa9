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

    void WriteImageAndTable() const {
        Fits::WriteImg<float>(Fits::FitsFileWrite(Path("both.fits"), true), Ramp(12), {4, 3});
        const auto file = Fits::FitsFileWrite(Path("both.fits"), false, "TAB");
        Fits::WriteTable(file, {{"a", "E"}});
        EXPECT_EQ(Fits::WriteColumnPriv(file, Ramp(3).data(), 3, TFLOAT, "a", 1), 3U);
    }

    const vosk::test::TempDir m_directory;
};

// The text of the refusal, which is thrown as an Error.
template <class Error = std::runtime_error, class Call>
void ExpectRefusal(Call&& call, const testing::Matcher<std::string>& text) {
    EXPECT_THAT(TextOf<Error>(call), text);
}

TEST_F(FitsFiles, CarryImagesOfEveryElementType) {
    const std::vector<std::uint16_t> counts{0, 1, 32767, 32768, 40000, 65535};
    EXPECT_EQ(Fits::ReadImg<std::uint16_t>(Image(counts, {3, 2})), counts);
    const std::vector<std::uint32_t> large{0, 7, 2147483647};
    EXPECT_EQ(Fits::ReadImg<std::uint32_t>(Image(large, {3})), large);
    const std::vector<long> wide{-2147483648L, 0, 2147483647L};
    EXPECT_EQ(Fits::ReadImg<long>(Image(wide, {3})), wide);
    EXPECT_EQ(Fits::ReadImg<double>(Image(std::vector<double>{1e300}, {1})), std::vector<double>{1e300});
    const auto cube = Image(Ramp(24), {2, 3, 4});
    EXPECT_EQ(Fits::ReadImg<float>(cube), Ramp(24));
    EXPECT_EQ(Fits::ReadImgParams(cube), (std::pair{std::vector<std::size_t>{2, 3, 4}, -32}));
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

TEST_F(FitsFiles, AreReadThroughAlternativeTypes) {
    const auto doubles = Image(std::vector<double>{0.1, 2.0}, {2});
    EXPECT_THAT((Fits::ReadImg<float, double>(doubles, {{2}})), ElementsAre(0.1F, 2.0F));
    std::vector<float> out(1);
    std::string errors;
    EXPECT_FALSE((Fits::ReadImgPriv<float, double>(errors, doubles, gsl::span<float>{out}, {})));
    EXPECT_EQ(errors, ", Fits: Provided buffer is too small, expected at least: 2 , acctual: 1");
    const auto longs = Image(std::vector<std::uint32_t>{5, 65537}, {2});
    EXPECT_THAT((Fits::ReadImg<std::uint16_t, std::uint32_t, long>(longs)), ElementsAre(5, 1));
    // Only the second alternative takes a negative value.
    const auto negative = Image(std::vector<long>{-1}, {1});
    EXPECT_THAT((Fits::ReadImg<std::uint16_t, std::uint32_t, long>(negative)), ElementsAre(65535));
    const auto shorts = Image(std::vector<std::uint16_t>{1}, {1});
    ExpectRefusal([&] { (Fits::ReadImg<float, double>(shorts)); },
                  ", Fits: File has wrong image type, expected: -32 , acctual: 16"
                  ", Fits: File has wrong image type, expected: -64 , acctual: 16");
}

TEST_F(FitsFiles, AreCheckedBeforeTheyAreRead) {
    const auto image = Image(Ramp(40), {4, 10});
    std::vector<float> buffer(40);
    const auto read = [&](std::size_t size, int bitpix, const Fits::Dims& dims) {
        return [&image, &buffer, size, bitpix, dims] {
            Fits::ReadImgPriv(image, buffer.data(), size, bitpix, TFLOAT, dims);
        };
    };
    ExpectRefusal<std::invalid_argument>(read(1, -64, {{10, 4}}), HasSubstr("wrong image type"));
    ExpectRefusal<std::invalid_argument>(read(39, -32, {{10, 4}}),
                                         HasSubstr("too small, expected at least: 40"));
    ExpectRefusal(read(40, -32, {{4, 11}}),
                  "Fits: Image size does not match for the 1th dimension, expected: 11, acctual: 10");
    ExpectRefusal(read(40, -32, {{4, 10, 1}}),
                  "Fits: Image dimansions do not match, expected: 3 dimensions, actual: 2 dimensions");
    EXPECT_NO_THROW(read(50, -32, {{4, 10}})());
    EXPECT_EQ(buffer, Ramp(40));
}

TEST_F(FitsFiles, GiveSingleSlices) {
    std::vector<float> plane(6);
    const auto read = [&plane](const Fits::Handle& file, std::size_t size, std::size_t index) {
        return [&plane, &file, size, index] {
            Fits::ReadImgSlicePriv(file, plane.data(), size, -32, TFLOAT, index);
        };
    };
    const auto cube = Image(Ramp(24), {2, 3, 4});
    read(cube, 6, 3)();
    EXPECT_THAT(plane, ElementsAre(18.5F, 19.5F, 20.5F, 21.5F, 22.5F, 23.5F));
    ExpectRefusal<std::out_of_range>(read(cube, 6, 4), "Fits: Slice index is outside the third dimension");
    ExpectRefusal<std::invalid_argument>(read(cube, 5, 0), HasSubstr("too small, expected at least: 6"));
    const auto flat = Image(Ramp(6), {2, 3});
    ExpectRefusal<std::invalid_argument>(read(flat, 6, 0), "Fits: Expected a 3D image");
}

TEST_F(FitsFiles, CarryHeaderKeywords) {
    long modes = 52;
    {
        const auto file = Fits::FitsFileWrite(Path("image.fits"), true);
        Fits::WriteImg<float>(file, Ramp(1), {1});
        Fits::WriteImgHeaderPriv(file, &modes, TLONG, "MODES", "number of modes");
        Fits::WriteImgHeaderPriv(file, "maker", TSTRING, "CREATOR", "");
    }
    modes = 0;
    std::array<char, FLEN_VALUE> creator{};
    const auto file = Fits::FitsFile(Path("image.fits"));
    Fits::ReadImgHeaderPriv(file, &modes, TLONG, "MODES");
    Fits::ReadImgHeaderPriv(file, creator.data(), TSTRING, "CREATOR");
    EXPECT_EQ(modes, 52);
    EXPECT_STREQ(creator.data(), "maker");
    ExpectRefusal([&] { Fits::ReadImgHeaderPriv(file, &modes, TLONG, "NONE"); },
                  "Fits: Error getting the header key: NONE");
}

TEST_F(FitsFiles, AreCreatedWithTheirDirectoriesReplacedOrKept) {
    const std::string path = Path("new/sub/image.fits");
    Fits::WriteImg<float>(Fits::FitsFileWrite(path, false), Ramp(4), {4});
    static_cast<void>(Fits::FitsFileWrite(path, false));
    EXPECT_EQ(Fits::ReadImg<float>(Fits::FitsFile(path)), Ramp(4));
    static_cast<void>(Fits::FitsFileWrite(path, true));
    EXPECT_THAT(Fits::ReadImgParams(Fits::FitsFile(path)).first, ElementsAre());
    ExpectRefusal([&] { Fits::FitsFile(Path("absent.fits")); },
                  StartsWith("Fits: Could not open " + Path("absent.fits") +
                             ", details: could not open the named file, "));
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
    ExpectRefusal([&] { Fits::WriteTable(reader, {}); }, "Fits: Handle opened for reading only");
    ExpectRefusal(write(table, {2, 2}), "Fits: Handle opened for extension table HDU");
}

// A file that can't be read is refused and stays as it is. A header that promises terabytes is refused before
// memory is taken, or checksums are made, for them; a pipe would be waited for without end; more than 99 axes
// overrun the tables of cfitsio.
TEST_F(FitsFiles, ThatCannotBeReadAreRefusedAndKept) {
    Image(Ramp(4), {4, 1});
    const std::string right = m_directory.Content("image.fits");
    std::vector<std::pair<std::string, std::string>> files{{"no FITS at all", ""}};
    for (const auto& [columns, rows] : {std::pair{1'000'000'000'000L, 1L},
                                        {1L << 33U, 1L << 33U},
                                        {1L << 62U, 1L},
                                        {1L << 32U, 1L << 30U}}) {
        files.emplace_back(right, "past end of file, The file is shorter than its header says.");
        for (const auto& [key, size] : {std::pair{"NAXIS1  =", columns}, {"NAXIS2  =", rows}})
            files.back().first.replace(right.find(key) + 10, 20, fmt::format("{:>20}", size));
    }
    for (const char* axes : {"100", "999", "-1", "99.9E1", "many"}) {
        std::string cards = fmt::format("{:80}{:80}{:80}", "SIMPLE  =                    T",
                                        "BITPIX  =                    8", std::string{"NAXIS   = "} + axes);
        for (int i = 1; i <= 999; ++i) cards += fmt::format("NAXIS{:<3}={:>21}{:50}", i, 1, "");
        files.emplace_back(fmt::format("{:86400}", cards + "END"), "its NAXIS is no number from 0 to 99");
    }
    const auto expect_refusal = [this](const std::string& name, const std::string& reason) {
        ExpectRefusal([&] { Fits::FitsFile(Path(name)); }, EndsWith(reason));
    };
    for (const auto& [content, reason] : files) {
        m_directory.Put("bad.fits", content);
        expect_refusal("bad.fits", reason);
        const vosk::test::LogCapture log;
        ExpectRefusal([this] { Fits::FitsFileWrite(Path("bad.fits"), false); },
                      AllOf(StartsWith("Fits: Could not open/create " + Path("bad.fits")),
                            EndsWith("failed to create new file (already exists?):" + Path("bad.fits"))));
        EXPECT_EQ(log.Texts("Fits: " + Path("bad.fits") + " exists and can't be opened: ").size(), 1U);
        EXPECT_EQ(log.Texts(reason).size(), 1U);
        EXPECT_TRUE(m_directory.Content("bad.fits") == content);
    }
    ASSERT_EQ(std::system(("gzip -f " + Path("bad.fits")).c_str()), 0);
    expect_refusal("bad.fits.gz", files.back().second);
    ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
    expect_refusal("pipe", "could not open the named file, no regular file");
    expect_refusal(".", "no regular file");
}

TEST_F(FitsFiles, AreNamedAsTheyStandAndMayBeCompressed) {
    WriteImageAndTable();
    std::filesystem::rename(Path("both.fits"), Path("both[1].fits[TAB]"));
    EXPECT_EQ(Fits::ReadImg<float>(Fits::FitsFile(Path("both[1].fits[TAB]"))), Ramp(12));
    Fits::WriteImg<float>(Fits::FitsFileWrite(Path("image.fits.gz"), true), Ramp(40'000), {40'000});
    EXPECT_EQ(Fits::ReadImg<float>(Fits::FitsFile(Path("image.fits.gz"))), Ramp(40'000));
}

TEST_F(FitsFiles, OfUnsignedCountsAreReadAsSuchAndNoOtherScaling) {
    const auto read = [this](double zero, double scale) {
        {
            const auto file = Fits::FitsFileWrite(Path("image.fits"), true);
            Fits::WriteImg<std::uint16_t>(file, std::vector<std::uint16_t>{0x8000, 0, 0x7fff}, {3});
            Fits::WriteImgHeaderPriv(file, &zero, TDOUBLE, "BZERO", "");
            Fits::WriteImgHeaderPriv(file, &scale, TDOUBLE, "BSCALE", "");
        }
        return Fits::ReadImg<std::uint16_t>(Fits::FitsFile(Path("image.fits")));
    };
    EXPECT_THAT(read(32768, 1), ElementsAre(0, 32768, 65535));
    for (const auto& [zero, scale] : {std::pair{0.5, 1.0}, {100.0, 1.0}, {0.0, 0.5}, {32768.0, 0.5}}) {
        ExpectRefusal([&, z = zero, s = scale] { read(z, s); }, HasSubstr("are scaled"));
    }
}

TEST_F(FitsFiles, CarryTables) {
    const std::vector<int> ids{7, 8, 9};
    {
        const auto file = Fits::FitsFileWrite(Path("table.fits"), true, "SPOTS");
        Fits::WriteTable(file, {{"Flux", "D"}, {"id", "J"}});
        const auto write = [&](auto column) {
            return
                [&file, &ids, column] { return Fits::WriteColumnPriv(file, ids.data(), 3, TINT, column, 1); };
        };
        EXPECT_EQ(Fits::WriteColumnPriv(file, std::array{1.5, 2.5, 3.5}.data(), 3, TDOUBLE, "Flux", 1), 3U);
        EXPECT_EQ(write(2)(), 3U);
        ExpectRefusal<std::invalid_argument>(
            write("Flux"), "Fits: Column \"Flux\" (index: 1) data type mismatch, expected: 31 , acctual: 82");
        ExpectRefusal<std::invalid_argument>(write("x"), "Fits: Column \"x\" not found");
        ExpectRefusal(write(3), StartsWith("Fits: Error writing column 3: "));
    }
    const auto file = Fits::FitsFile(Path("table.fits"), "SPOTS");
    const auto [sizes, columns] = Fits::ReadTableParams(file, {});
    EXPECT_THAT(sizes, ElementsAre(2, 3));
    EXPECT_EQ(columns[1].name, "id");
    EXPECT_EQ(columns[1].type, TLONG);
    EXPECT_THAT(Fits::ReadTableParams(file, "Flux").first, ElementsAre(1, 3));
    EXPECT_THAT(Fits::ReadTableParams(file, "flux").first, ElementsAre(0, 3));

    std::vector<double> flux{0, 0, 0, -1};
    const auto read = [&](std::size_t size, const char* column) {
        return [&, size, column] { return Fits::ReadColumnPriv(file, flux.data(), size, TDOUBLE, column); };
    };
    EXPECT_EQ(read(4, "Flux")(), 3U);
    EXPECT_THAT(flux, ElementsAre(1.5, 2.5, 3.5, -1));
    ExpectRefusal<std::invalid_argument>(read(3, "flux"), "Fits: Column \"flux\" not foud");
    ExpectRefusal<std::invalid_argument>(read(2, "Flux"), HasSubstr("too small, expected at least: 3"));
    ExpectRefusal([&] { Fits::ReadImgParams(file); }, "Fits: Handle opened for an exttension HDU");
    const auto primary = Fits::FitsFile(Path("table.fits"));
    ExpectRefusal([&] { Fits::ReadTableParams(primary, {}); }, "Fits: Handle opened for primary image HDU");
}

TEST_F(FitsFiles, RefuseALogicalColumnWithAnUndefinedEntry) {
    const auto file = Fits::FitsFileWrite(Path("table.fits"), true, "TAB");
    Fits::WriteTable(file, {{"valid", "L"}});
    const std::vector<char> valid{1, 0, 1};
    Fits::WriteColumnPriv(file, valid.data(), 3, TLOGICAL, "valid", 1);
    std::vector<char> read(3);
    EXPECT_EQ(Fits::ReadColumnPriv(file, read.data(), 3, TLOGICAL, "valid"), 3U);
    EXPECT_EQ(read, valid);
    int status = 0;
    ffpclu(file->fptr, 1, 2, 1, 1, &status);
    ASSERT_EQ(status, 0);
    ExpectRefusal([&] { Fits::ReadColumnPriv(file, read.data(), 3, TLOGICAL, "valid"); },
                  "Fits: Column \"valid\" contains undefined entries");
}

TEST_F(FitsFiles, TakeATableBesideTheirImage) {
    WriteImageAndTable();
    EXPECT_EQ(Fits::ReadImg<float>(Fits::FitsFile(Path("both.fits"))), Ramp(12));
    const auto again = Fits::FitsFileWrite(Path("both.fits"), false, "TAB");
    EXPECT_THAT(Fits::ReadTableParams(again, {}).first, ElementsAre(1, 3));
}

TEST_F(FitsFiles, AreReadByAnotherReaderWithTheirChecksums) {
    const auto runs = [](const std::string& command) {
        return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
    };
    const std::string python = runs("python3 -c 'import astropy'") ? "python3" : "/usr/bin/python3";
    if (!runs(python + " -c 'import astropy'")) GTEST_SKIP() << "astropy is not installed";
    WriteImageAndTable();
    const std::string script = m_directory.Put(
        "check.py",
        "import sys, warnings\n"
        "warnings.simplefilter('error')\n"
        "from astropy.io import fits\n"
        "with fits.open(sys.argv[1], checksum=True) as hdus:\n"
        "    assert all('CHECKSUM' in hdu.header and 'DATASUM' in hdu.header for hdu in hdus)\n"
        "    assert hdus[0].data.shape == (3, 4) and hdus[0].data[2][1] == 9.5\n"
        "    assert list(hdus['TAB'].data['a']) == [0.5, 1.5, 2.5]\n");
    EXPECT_TRUE(runs(python + " " + script + " " + Path("both.fits")));
}

}  // namespace
