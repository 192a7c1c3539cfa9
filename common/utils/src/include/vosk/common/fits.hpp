#pragma once

// FITS files, read and written strictly: what is in a file must be what the caller expects, or an exception
// says what differs. All calibration data and all diagnostic dumps pass through here. Images live in the
// primary HDU, tables in a binary table extension named when the handle is opened.
//
// Not for real-time loops. No shared state; a handle is used by one thread at a time.

#include <fitsio.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <gsl/span>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vosk::common {

class Fits {
public:
    struct HandleType {
        fitsfile* fptr{nullptr};
        int hdu_type{-1};  // of the current HDU: -1 not known yet, 0 image, 1 ASCII table, 2 binary table
        bool read_only{true};
        std::string extension;  // empty for the primary HDU
    };
    // Its end closes the file; a file opened for writing gets its checksums then.
    using Handle = std::unique_ptr<HandleType, void (*)(HandleType*)>;

    struct Column {
        int type;   // cfitsio's type code
        int index;  // from 1
        std::string name;
    };

    // Expected size of each axis, NAXIS1 first; empty for "any".
    using Dims = std::optional<std::vector<std::size_t>>;

    // BITPIX in the file and cfitsio's data type code for elements of type T in memory.
    template <class T>
    struct Traits;

    // --- Opening -----------------------------------------------------------------------------------------
    // std::runtime_error on failure, also of what is no regular file, where a file is shorter than its header
    // says, or where its NAXIS is above 99. Paths of existing files are taken as they stand; the files may be
    // compressed by gzip. Without `overwrite`
    // an existing file is opened and keeps its content; a file that is to be created gets its missing
    // directories too.
    static Handle FitsFile(const std::string& path, const std::optional<std::string>& extension = {});
    static Handle FitsFileWrite(const std::string& path, bool overwrite,
                                const std::optional<std::string>& extension = {});

    // What a file that can be read says against itself: SIMPLE is F, DATASUM or CHECKSUM does not fit its
    // bytes. Goes through all data where there is a checksum.
    static std::vector<std::string> FindDoubts(const Handle& handle);

    // --- Images ------------------------------------------------------------------------------------------
    // Axis sizes, NAXIS1 first, and BITPIX.
    static std::pair<std::vector<std::size_t>, int> ReadImgParams(const Handle& handle);

    // The image as T, from a file of T's own type or of one of the alternatives, whose values are cut to T.
    // If none fits: std::runtime_error with each one's reason.
    template <class T, class... Alternatives>
    static std::vector<T> ReadImg(const Handle& handle, const Dims& dims = {});

    template <class T>
    static void WriteImg(const Handle& handle, std::span<const T> data,
                         const std::vector<std::size_t>& dims) {
        WriteImgPriv(handle, data.data(), data.size(), Traits<T>::BITPIX, Traits<T>::DATATYPE, dims);
    }

    // Into a buffer of `size` elements. std::invalid_argument on a wrong BITPIX or a short buffer, then
    // std::runtime_error on axes other than `dims`. 16-bit values with a BZERO of 32768 are read as unsigned
    // ones.
    static void ReadImgPriv(const Handle& handle, void* buffer, std::size_t size, int bitpix, int datatype,
                            const Dims& dims);

    // One alternative of ReadImg: reads as A and converts to T. On failure appends ", " and the reason to
    // `errors` and returns false.
    template <class T, class A>
    static bool ReadImgPriv(std::string& errors, const Handle& handle, gsl::span<T> out, const Dims& dims);

    // Plane `index`, from 0, of an image of three axes.
    static void ReadImgSlicePriv(const Handle& handle, void* buffer, std::size_t size, int bitpix,
                                 int datatype, std::size_t index);

    // One keyword of the primary HDU; text (TSTRING) goes into an array of FLEN_VALUE characters.
    static void ReadImgHeaderPriv(const Handle& handle, void* value, int datatype, const std::string& key);
    static void WriteImgHeaderPriv(const Handle& handle, const void* value, int datatype,
                                   const std::string& key, const std::string& comment);

    static void WriteImgPriv(const Handle& handle, const void* data, std::size_t size, int bitpix,
                             int datatype, const std::vector<std::size_t>& dims);

    // --- Tables ------------------------------------------------------------------------------------------
    // Creates the table, without rows; pairs are column name and TFORM, of which the first 64 are taken.
    static void WriteTable(const Handle& handle,
                           const std::vector<std::pair<std::string, std::string>>& columns);

    // {columns, rows} and the columns; with a name, exact in its case, that column alone.
    static std::pair<std::vector<std::size_t>, std::vector<Column>> ReadTableParams(
        const Handle& handle, const std::optional<std::string>& column);

    // One element of each row, into a buffer of `size` elements; returns their number. std::invalid_argument
    // on an unknown column or a short buffer, std::runtime_error on undefined entries. Those are of logical
    // columns only: a NaN, or a number that TNULL declares undefined, passes as the value that it is.
    static std::size_t ReadColumnPriv(const Handle& handle, void* buffer, std::size_t size, int datatype,
                                      const std::string& name);

    // `column` and `first_row` count from 1. Return `size`.
    static std::size_t WriteColumnPriv(const Handle& handle, const void* data, std::size_t size, int datatype,
                                       int column, int first_row);
    static std::size_t WriteColumnPriv(const Handle& handle, const void* data, std::size_t size, int datatype,
                                       const std::string& name, int first_row);

private:
    static std::size_t SizeOfImg(const Handle& handle);
    [[noreturn]] static void ThrowBufferTooSmall(std::size_t needed, std::size_t size);
};

// Written, values above 32767 stand as negative ones in the file; the bits are the same.
template <>
struct Fits::Traits<std::uint16_t> {
    static constexpr int BITPIX = 16;
    static constexpr int DATATYPE = TSHORT;
};

template <>
struct Fits::Traits<std::uint32_t> {
    static constexpr int BITPIX = 32;
    static constexpr int DATATYPE = TUINT;
};

template <>
struct Fits::Traits<long> {
    static constexpr int BITPIX = 32;
    static constexpr int DATATYPE = TLONG;
};

template <>
struct Fits::Traits<float> {
    static constexpr int BITPIX = -32;
    static constexpr int DATATYPE = TFLOAT;
};

template <>
struct Fits::Traits<double> {
    static constexpr int BITPIX = -64;
    static constexpr int DATATYPE = TDOUBLE;
};

template <class T, class... Alternatives>
std::vector<T> Fits::ReadImg(const Handle& handle, const Dims& dims) {
    std::vector<T> image(SizeOfImg(handle));
    std::string errors;
    try {
        ReadImgPriv(handle, image.data(), image.size(), Traits<T>::BITPIX, Traits<T>::DATATYPE, dims);
        return image;
    } catch (const std::exception& error) {
        errors = std::string{", "} + error.what();
    }
    if ((ReadImgPriv<T, Alternatives>(errors, handle, gsl::span<T>{image}, dims) || ...)) return image;
    throw std::runtime_error(errors);
}

template <class T, class A>
bool Fits::ReadImgPriv(std::string& errors, const Handle& handle, gsl::span<T> out, const Dims& dims) {
    try {
        std::vector<A> image(SizeOfImg(handle));
        ReadImgPriv(handle, image.data(), image.size(), Traits<A>::BITPIX, Traits<A>::DATATYPE, dims);
        if (out.size() < image.size()) ThrowBufferTooSmall(image.size(), out.size());
        for (std::size_t i = 0; i < image.size(); ++i) out[i] = static_cast<T>(image[i]);
        return true;
    } catch (const std::exception& error) {
        errors += std::string{", "} + error.what();
        return false;
    }
}

}  // namespace vosk::common
