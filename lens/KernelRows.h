#pragma once
// What a kernel row looks like to the spreading: where its values that are not zero lie, and the
// longest run of one repeated value among them. A disc or a polygon of blades is a constant
// interior between two soft edges, and a kernel image has long runs too; a run can be added at
// its two ends into a difference row instead of value by value.

#include <vector>

namespace vorel {

// Columns [first, last) of the row hold all its values that are not zero (first == last when
// there are none); [runStart, runEnd), within them, holds `value` alone, or is empty.
struct KernelRowShape {
  int first = 0, last = 0;
  int runStart = 0, runEnd = 0;
  float value = 0.0f;
};

// Shorter runs are cheaper added value by value than at their two ends.
constexpr int kShortestRun = 6;

// The shape of each of the `height` rows of `plane` (`width` floats a row), runs of at least
// kShortestRun values. A NaN is never part of a run.
std::vector<KernelRowShape> kernelRowShapes(const float* plane, int width, int height);

// The largest magnitude among the plane's values that are not NaN.
float largestMagnitude(const float* plane, int count);

}  // namespace vorel
