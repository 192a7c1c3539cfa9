#pragma once

// Thin wrappers of the BLAS calls: spans in place of pointers and lengths, and a size check, which stops the
// process when it fails. They allocate nothing and may be called from any thread; x and y must not overlap.
// How many threads a product uses is the process's choice (openblas_set_num_threads).

#include <cblas.h>

#include <span>

namespace vosk::common::math {

// values *= scale. A scale of 0 gives zeroes, also where a value is infinite or no number.
void ScaleVector(float scale, std::span<float> values);

// y += alpha * x. Precondition: x.size() == y.size().
void cblas_AddVectors(float alpha, std::span<const float> x, std::span<float> y);

// y = alpha * op(A) * x + beta * y, with op(A) of y.size() rows and x.size() columns: A itself, or its
// transpose if `trans` says so. A is dense, in the given order. With beta = 0 the former content of y is of
// no account. An empty x leaves beta * y. Precondition: A.size() == (x.size() * y.size()).
void cblas_MultiplyMatrixByVector(CBLAS_TRANSPOSE trans, float alpha, std::span<const float> A,
                                  std::span<const float> x, float beta, std::span<float> y,
                                  CBLAS_ORDER order = CblasRowMajor);

}  // namespace vosk::common::math
