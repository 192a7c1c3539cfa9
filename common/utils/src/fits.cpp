#include <vosk/common/fits.hpp>

#include <vosk/common/logger.hpp>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <system_error>

#include "firstBlock.hpp"

namespace vosk::common {

namespace {

// cfitsio's text for the status, and all messages on its error stack, which is empty afterwards.
std::string ReadStatus(int status) {
    if (status == 0) return {};
    std::array<char, FLEN_STATUS> text{};
    ffgerr(status, text.data());
    std::string all = std::string{text.data()} + ", ";
    std::array<char, FLEN_ERRMSG> message{};
    while (ffgmsg(message.data()) != 0) all += message.data();
    return all;
}

void ThrowOnStatus(int status, const std::string& text) {
    if (status != 0) throw std::runtime_error(text + ReadStatus(status));
}

void Close(Fits::HandleType* handle) {
    if (handle->fptr != nullptr) {
        int checksum_status = 0;
        // A file that is only read can't take checksums: don't go through all its data for them.
        if (!handle->read_only) ffpcks(handle->fptr, &checksum_status);
        int close_status = 0;
        ffclos(handle->fptr, &close_status);
        handle->fptr = nullptr;
    }
    delete handle;  // NOLINT(cppcoreguidelines-owning-memory): the end of a Fits::Handle
}

Fits::Handle MakeHandle(bool read_only, const std::optional<std::string>& extension) {
    auto handle = std::make_unique<Fits::HandleType>();
    handle->read_only = read_only;
    handle->extension = extension.value_or("");
    return {handle.release(), &Close};
}

// Opens an existing file, on its table of that name if there is one, and gives cfitsio's status. The path is
// taken as it stands: cfitsio's own syntax ("file[1]", "!file") has no meaning in it.
int Open(Fits::HandleType& handle, const std::string& path, int mode, std::string table) {
    int status = 0;
    ffdkopn(&handle.fptr, path.c_str(), mode, &status);
    if (status == 0 && !table.empty()) {
        int missing = 0;
        ffmnhd(handle.fptr, BINARY_TBL, table.data(), 1, &missing);
        if (missing != 0) ffcmsg();
    }
    ffghdt(handle.fptr, &handle.hdu_type, &status);
    return status;
}

// Number of elements, 1 without axes. What no memory can hold stays the largest number, so that it can't wrap
// round to a small one.
std::size_t Product(const std::vector<std::size_t>& sizes) {
    if (std::find(sizes.begin(), sizes.end(), std::size_t{0}) != sizes.end()) return 0;
    std::size_t product = 1;
    for (const std::size_t size : sizes) {
        if (__builtin_mul_overflow(product, size, &product)) return std::numeric_limits<std::size_t>::max();
    }
    return product;
}

// What the size keywords of the current header ask for, 0 bytes if they can't be read.
std::size_t BytesPromised(fitsfile* file) {
    int status = 0;
    const auto read = [file, &status](const std::string& key) {
        LONGLONG value = 0;
        ffgkyjj(file, key.c_str(), &value, nullptr, &status);
        return value;
    };
    std::vector<std::size_t> factors{static_cast<std::size_t>(std::abs(read("BITPIX")) / 8)};
    const LONGLONG axes = read("NAXIS");
    if (status == 0 && axes == 0) return 0;
    for (LONGLONG axis = 1; axis <= axes && status == 0; ++axis) {
        factors.push_back(static_cast<std::size_t>(read("NAXIS" + std::to_string(axis))));
    }
    if (status == 0) return Product(factors);
    ffcmsg();
    return 0;
}

// END_OF_FILE if the file at hand ends before the data that its current header promises. Such a header may
// promise more than any memory holds, or than can be read in a day. cfitsio's own end of the data wraps round
// where the sizes multiply to more than its count holds.
int CheckLength(fitsfile* file) {
    int status = 0;
    LONGLONG data_start = 0;
    LONGLONG data_end = 0;
    ffghadll(file, nullptr, &data_start, &data_end, &status);
    if (status != 0) return status;
    const LONGLONG file_end = file->Fptr->filesize;
    const auto room = static_cast<std::size_t>(std::max<LONGLONG>(file_end - data_start, 0));
    if (data_end <= file_end && BytesPromised(file) <= room) return 0;
    ffpmsg("The file is shorter than its header says.");
    return END_OF_FILE;
}

int OpenToRead(Fits::HandleType& handle, const std::string& path, const std::string& table) {
    if (const std::string fault = FaultOfFile(path); !fault.empty()) {
        ffpmsg(fault.c_str());
        return FILE_NOT_OPENED;
    }
    const int status = Open(handle, path, READONLY, table);
    return status == 0 ? CheckLength(handle.fptr) : status;
}

int MoveToExtension(Fits::HandleType& handle) {
    int status = 0;
    ffmnhd(handle.fptr, ANY_HDU, handle.extension.data(), 0, &status);
    ffghdt(handle.fptr, &handle.hdu_type, &status);
    return status == 0 ? CheckLength(handle.fptr) : status;
}

// Checks the length by reading first: once open for writing, a short file would be filled up at its end.
int OpenToWrite(Fits::HandleType& handle, const std::string& path) {
    // Closed before the file is opened again: cfitsio shares what is open, with its mode.
    const int status = OpenToRead(*MakeHandle(true, {}), path, handle.extension);
    return status == 0 ? Open(handle, path, READWRITE, handle.extension) : status;
}

void RequireWritable(const Fits::Handle& handle) {
    if (handle->read_only) throw std::runtime_error("Fits: Handle opened for reading only");
}

void RequireImg(const Fits::Handle& handle) {
    if (handle->hdu_type != IMAGE_HDU) throw std::runtime_error("Fits: Handle opened for an exttension HDU");
}

void RequireBitpix(int expected, int actual) {
    if (actual == expected) return;
    throw std::invalid_argument("Fits: File has wrong image type, expected: " + std::to_string(expected) +
                                " , acctual: " + std::to_string(actual));
}

// Other tools write unsigned 16-bit values with a BZERO of 32768. Any other scaling would be rounded to
// integers.
int DatatypeToRead(const Fits::Handle& handle, int datatype) {
    if (datatype != TSHORT) return datatype;
    int type = SHORT_IMG;
    int status = 0;
    ffgiet(handle->fptr, &type, &status);
    ThrowOnStatus(status, "Fits: Error reading image: ");
    if (type == USHORT_IMG) return TUSHORT;
    if (type == SHORT_IMG) return TSHORT;
    throw std::runtime_error("Fits: Error reading image: its values are scaled, other than by BZERO 32768");
}

void RequireDims(const std::vector<std::size_t>& expected, const std::vector<std::size_t>& actual) {
    if (actual.size() != expected.size()) {
        throw std::runtime_error(
            "Fits: Image dimansions do not match, expected: " + std::to_string(expected.size()) +
            " dimensions, actual: " + std::to_string(actual.size()) + " dimensions");
    }
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (actual[i] == expected[i]) continue;
        throw std::runtime_error("Fits: Image size does not match for the " + std::to_string(i) +
                                 "th dimension, expected: " + std::to_string(expected[i]) +
                                 ", acctual: " + std::to_string(actual[i]));
    }
}

std::string ColumnText(const std::string& name) {
    return "Fits: Column \"" + name + "\"";
}

}  // namespace

Fits::Handle Fits::FitsFile(const std::string& path, const std::optional<std::string>& extension) {
    Handle handle = MakeHandle(true, extension);
    int status = OpenToRead(*handle, path, {});
    if (status == 0 && !handle->extension.empty()) status = MoveToExtension(*handle);
    if (status != 0 || handle->fptr == nullptr) {
        throw std::runtime_error("Fits: Could not open " + path + ", details: " + ReadStatus(status));
    }
    return handle;
}

Fits::Handle Fits::FitsFileWrite(const std::string& path, bool overwrite,
                                 const std::optional<std::string>& extension) {
    Handle handle = MakeHandle(false, extension);
    if (!overwrite) {
        const int status = OpenToWrite(*handle, path);
        if (status == 0) return handle;
        const std::string reason = ReadStatus(status);
        std::error_code ignored;  // a file that can't be looked for is told of below
        if (std::filesystem::exists(path, ignored))
            LogError("Fits: {} exists and can't be opened: {}", path, reason);
        handle = MakeHandle(false, extension);
    }
    if (const auto parent = std::filesystem::path{path}.parent_path(); !parent.empty()) {
        std::error_code ignored;  // without the directory the file can't be created, which is told below
        std::filesystem::create_directories(parent, ignored);
    }
    int status = 0;
    ffinit(&handle->fptr, ((overwrite ? "!" : "") + path).c_str(), &status);
    ffdhdu(handle->fptr, nullptr, &status);
    ffpcks(handle->fptr, &status);
    if (status != 0) {
        throw std::runtime_error("Fits: Could not open/create " + path + ", details: " + ReadStatus(status));
    }
    return handle;
}

std::vector<std::string> Fits::FindDoubts(const Handle& handle) {
    std::vector<std::string> doubts;
    int status = 0;
    int is_simple = 1;
    if (handle->hdu_type == IMAGE_HDU && handle->extension.empty())
        ffgkyl(handle->fptr, "SIMPLE", &is_simple, nullptr, &status);
    if (is_simple == 0) doubts.emplace_back("SIMPLE is F");
    int data_sum = 0;
    int checksum = 0;
    ffvcks(handle->fptr, &data_sum, &checksum, &status);
    ThrowOnStatus(status, "Fits: Error reading checksums: ");
    if (data_sum == -1) doubts.emplace_back("DATASUM is wrong");
    if (checksum == -1) doubts.emplace_back("CHECKSUM is wrong");
    return doubts;
}

std::pair<std::vector<std::size_t>, int> Fits::ReadImgParams(const Handle& handle) {
    RequireImg(handle);
    int status = 0;
    int axes = 0;
    ffgidm(handle->fptr, &axes, &status);
    ThrowOnStatus(status, "Fits: Error getting the number of axes: ");
    int bitpix = 0;
    std::vector<LONGLONG> sizes(static_cast<std::size_t>(axes));
    ffgiprll(handle->fptr, axes, &bitpix, &axes, sizes.data(), &status);
    ThrowOnStatus(status, "Fits: Error getting img params: ");
    return {{sizes.begin(), sizes.end()}, bitpix};
}

std::size_t Fits::SizeOfImg(const Handle& handle) {
    return Product(ReadImgParams(handle).first);
}

void Fits::ThrowBufferTooSmall(std::size_t needed, std::size_t size) {
    throw std::invalid_argument("Fits: Provided buffer is too small, expected at least: " +
                                std::to_string(needed) + " , acctual: " + std::to_string(size));
}

void Fits::ReadImgPriv(const Handle& handle, void* buffer, std::size_t size, int bitpix, int datatype,
                       const Dims& dims) {
    const auto [sizes, file_bitpix] = ReadImgParams(handle);
    RequireBitpix(bitpix, file_bitpix);
    const std::size_t count = Product(sizes);
    if (size < count) ThrowBufferTooSmall(count, size);
    if (dims) RequireDims(*dims, sizes);
    datatype = DatatypeToRead(handle, datatype);
    int status = 0;
    ffgpv(handle->fptr, datatype, 1, static_cast<LONGLONG>(count), nullptr, buffer, nullptr, &status);
    ThrowOnStatus(status, "Fits: Error reading image: ");
}

void Fits::ReadImgSlicePriv(const Handle& handle, void* buffer, std::size_t size, int bitpix, int datatype,
                            std::size_t index) {
    const auto [sizes, file_bitpix] = ReadImgParams(handle);
    if (sizes.size() != 3) throw std::invalid_argument("Fits: Expected a 3D image");
    RequireBitpix(bitpix, file_bitpix);
    if (index >= sizes[2]) throw std::out_of_range("Fits: Slice index is outside the third dimension");
    const std::size_t count = Product({sizes[0], sizes[1]});
    if (size < count) ThrowBufferTooSmall(count, size);
    const auto plane = static_cast<long>(index) + 1;
    std::array<long, 3> first{1, 1, plane};
    std::array<long, 3> last{static_cast<long>(sizes[0]), static_cast<long>(sizes[1]), plane};
    std::array<long, 3> step{1, 1, 1};
    datatype = DatatypeToRead(handle, datatype);
    int status = 0;
    ffgsv(handle->fptr, datatype, first.data(), last.data(), step.data(), nullptr, buffer, nullptr, &status);
    ThrowOnStatus(status, "Fits: Error reading image slice: ");
}

void Fits::ReadImgHeaderPriv(const Handle& handle, void* value, int datatype, const std::string& key) {
    RequireImg(handle);
    int status = 0;
    ffgky(handle->fptr, datatype, key.c_str(), value, nullptr, &status);
    if (status != 0) {
        ffcmsg();
        throw std::runtime_error("Fits: Error getting the header key: " + key);
    }
}

void Fits::WriteImgHeaderPriv(const Handle& handle, const void* value, int datatype, const std::string& key,
                              const std::string& comment) {
    RequireWritable(handle);
    RequireImg(handle);
    int status = 0;
    // cfitsio reads the value only.
    ffuky(handle->fptr, datatype, key.c_str(), const_cast<void*>(value), comment.c_str(), &status);
    ThrowOnStatus(status, "Fits: Error writing the header key " + key + ": ");
}

void Fits::WriteImgPriv(const Handle& handle, const void* data, std::size_t size, int bitpix, int datatype,
                        const std::vector<std::size_t>& dims) {
    if (const std::size_t product = Product(dims); product != size) {
        throw std::invalid_argument(
            "Fits: Provided image buffer size: " + std::to_string(size) +
            " does not match size from provided dimensions: " + std::to_string(product));
    }
    RequireWritable(handle);
    if (!handle->extension.empty()) throw std::runtime_error("Fits: Handle opened for extension table HDU");
    if (handle->hdu_type == -1) handle->hdu_type = IMAGE_HDU;

    std::vector<LONGLONG> sizes(dims.begin(), dims.end());
    int status = 0;
    ffmahd(handle->fptr, 1, nullptr, &status);
    ffrsimll(handle->fptr, bitpix, static_cast<int>(sizes.size()), sizes.data(), &status);
    // cfitsio reads the data only.
    ffppr(handle->fptr, datatype, 1, static_cast<LONGLONG>(size), const_cast<void*>(data), &status);
    ThrowOnStatus(status, "Fits: Error writing image: ");
}

void Fits::WriteTable(const Handle& handle, const std::vector<std::pair<std::string, std::string>>& columns) {
    constexpr std::size_t MAX_COLUMNS = 64;
    RequireWritable(handle);
    if (handle->extension.empty()) throw std::runtime_error("Fits: Handle opened for primary image HDU");
    if (handle->hdu_type == -1) handle->hdu_type = BINARY_TBL;

    const std::size_t count = std::min(columns.size(), MAX_COLUMNS);
    // cfitsio asks for pointers to changeable texts, but only reads them.
    const auto text = [](const std::string& value) { return const_cast<char*>(value.c_str()); };
    const std::string no_unit;
    std::vector<char*> names;
    std::vector<char*> forms;
    std::vector<char*> units(count, text(no_unit));
    for (std::size_t i = 0; i < count; ++i) {
        names.push_back(text(columns[i].first));
        forms.push_back(text(columns[i].second));
    }
    int status = 0;
    ffcrtb(handle->fptr, BINARY_TBL, 0, static_cast<int>(count), names.data(), forms.data(), units.data(),
           handle->extension.c_str(), &status);
    // The new table is the current HDU now, also in a file that was opened on its image.
    ffghdt(handle->fptr, &handle->hdu_type, &status);
    ThrowOnStatus(status, "Fits: Could not create table, details: ");
}

std::pair<std::vector<std::size_t>, std::vector<Fits::Column>> Fits::ReadTableParams(
    const Handle& handle, const std::optional<std::string>& column) {
    if (handle->hdu_type != ASCII_TBL && handle->hdu_type != BINARY_TBL) {
        throw std::runtime_error("Fits: Handle opened for primary image HDU");
    }
    int status = 0;
    int count = 0;
    long rows = 0;
    ffgncl(handle->fptr, &count, &status);
    ffgnrw(handle->fptr, &rows, &status);
    ThrowOnStatus(status, "Fits: Error getting table params: ");

    std::vector<Column> columns;
    for (int i = 1; i <= count; ++i) {
        std::string number = std::to_string(i);
        std::array<char, FLEN_VALUE> name{};
        Column found{0, 0, {}};
        long repeat = 0;
        long width = 0;
        ffgcnn(handle->fptr, CASEINSEN, number.data(), name.data(), &found.index, &status);
        ffgtcl(handle->fptr, i, &found.type, &repeat, &width, &status);
        if (status != 0 || found.index != i) {
            throw std::runtime_error("Fits: Error getting column params: " + ReadStatus(status));
        }
        found.name = name.data();
        if (column && found.name != *column) continue;
        columns.push_back(std::move(found));
        if (column) break;
    }
    return {{columns.size(), static_cast<std::size_t>(rows)}, columns};
}

std::size_t Fits::ReadColumnPriv(const Handle& handle, void* buffer, std::size_t size, int datatype,
                                 const std::string& name) {
    const auto [sizes, columns] = ReadTableParams(handle, name);
    if (columns.empty()) throw std::invalid_argument(ColumnText(name) + " not foud");
    const std::size_t count = Product(sizes);
    if (size < count) ThrowBufferTooSmall(count, size);
    int status = 0;
    int has_null = 0;
    ffgcv(handle->fptr, datatype, columns.front().index, 1, 1, static_cast<LONGLONG>(count), nullptr, buffer,
          &has_null, &status);
    ThrowOnStatus(status, "Fits: Error reading column \"" + name + "\": ");
    if (has_null != 0) throw std::runtime_error(ColumnText(name) + " contains undefined entries");
    return count;
}

std::size_t Fits::WriteColumnPriv(const Handle& handle, const void* data, std::size_t size, int datatype,
                                  int column, int first_row) {
    RequireWritable(handle);
    int status = 0;
    // cfitsio reads the data only.
    ffpcl(handle->fptr, datatype, column, first_row, 1, static_cast<LONGLONG>(size), const_cast<void*>(data),
          &status);
    ThrowOnStatus(status, "Fits: Error writing column " + std::to_string(column) + ": ");
    return size;
}

std::size_t Fits::WriteColumnPriv(const Handle& handle, const void* data, std::size_t size, int datatype,
                                  const std::string& name, int first_row) {
    RequireWritable(handle);
    const auto [sizes, columns] = ReadTableParams(handle, name);
    if (columns.empty()) throw std::invalid_argument(ColumnText(name) + " not found");
    const Column& column = columns.front();
    if (column.type != datatype) {
        throw std::invalid_argument(ColumnText(name) + " (index: " + std::to_string(column.index) + ")" +
                                    " data type mismatch, expected: " + std::to_string(datatype) +
                                    " , acctual: " + std::to_string(column.type));
    }
    return WriteColumnPriv(handle, data, size, datatype, column.index, first_row);
}

}  // namespace vosk::common
