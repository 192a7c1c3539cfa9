#include <vosk/common/assert.hpp>
#include <vosk/common/math/blas.hpp>

#include <algorithm>

namespace vosk::common::math {

// The library's versions differ in what a factor of 0 makes of values that are no numbers.
void ScaleVector(float scale, std::span<float> values) {
    if (scale == 0.0F) {
        std::fill(values.begin(), values.end(), 0.0F);
    } else {
        cblas_sscal(static_cast<blasint>(values.size()), scale, values.data(), 1);
    }
}

void cblas_AddVectors(float alpha, std::span<const float> x, std::span<float> y) {
    VOSK_ASSERT(x.size() == y.size());
    cblas_saxpy(static_cast<blasint>(x.size()), alpha, x.data(), 1, y.data(), 1);
}

void cblas_MultiplyMatrixByVector(CBLAS_TRANSPOSE trans, float alpha, std::span<const float> A,
                                  std::span<const float> x, float beta, std::span<float> y,
                                  CBLAS_ORDER order) {
    VOSK_ASSERT(A.size() == (x.size() * y.size()));
    if (A.empty()) {  // the library refuses a leading dimension of 0, and leaves y alone if x is empty
        ScaleVector(beta, y);
        return;
    }
    const bool transposed = trans != CblasNoTrans;
    const auto rows = static_cast<blasint>(transposed ? x.size() : y.size());
    const auto columns = static_cast<blasint>(transposed ? y.size() : x.size());
    const blasint leading = order == CblasRowMajor ? columns : rows;
    cblas_sgemv(order, trans, rows, columns, alpha, A.data(), leading, x.data(), 1, beta, y.data(), 1);
}

}  // namespace vosk::common::math
