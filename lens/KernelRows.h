#pragma once
// What a kernel row looks like to the spreading: where its values that are not zero lie, and the
// longest run of one repeated value among them. A disc or a polygon of blades is a constant
// interior between two soft edges, and a kernel image has long runs too; a run can be added at
// its two ends into a difference row instead of value by value.

#include <cstddef>
#include <vector>

namespace vorel {

// Columns [first, last) of the row hold all its values that are not zero (first == last when
// there are none); [runStart, runEnd), within them, holds `value` alone, or is empty.
struct KernelRowShape {
  int first = 0, last = 0;
  int runStart = 0, runEnd = 0;
  float value = 0.0f;
};

// A row of a bank entry and the entry two sizes up laid over one another, the smaller one centred
// (padded with a column and a row of zeros all round): a sample's blend of the two then adds each
// column once. Columns [first, last) hold every column where either is not zero; in
// [runStart, runEnd) the smaller holds `inner` and the larger `outer` throughout.
struct KernelPairRowShape {
  int first = 0, last = 0;
  int runStart = 0, runEnd = 0;
  float inner = 0.0f, outer = 0.0f;
};

// Shorter runs are cheaper added value by value than at their two ends.
constexpr int kShortestRun = 6;

// The shape of each of the `height` rows of `plane` (`width` floats a row), runs of at least
// kShortestRun values. A NaN is never part of a run.
std::vector<KernelRowShape> kernelRowShapes(const float* plane, int width, int height);

// A pair plane (Kernel::pairPlane) holds, for each of `height` rows, the smaller entry's row (padded
// to `width`) and then the larger's, and kPairPlaneSlack floats after the last, so that a vector
// of eight may be read from any column.
constexpr int kPairPlaneSlack = 8;
inline std::size_t pairPlaneSize(int width, int height) {
  return 2 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height) + kPairPlaneSlack;
}
// Where row y's smaller-entry row begins; the larger entry's row is `width` floats on.
inline std::size_t pairInnerRow(int width, int y) {
  return 2 * static_cast<std::size_t>(width) * static_cast<std::size_t>(y);
}

// The shape of each row of a pair plane.
std::vector<KernelPairRowShape> kernelPairRowShapes(const float* pairPlane, int width, int height);

// The largest magnitude among the plane's values that are not NaN.
float largestMagnitude(const float* plane, int count);

}  // namespace vorel
