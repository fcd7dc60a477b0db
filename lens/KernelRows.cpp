#include "lens/KernelRows.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace vorel {

namespace {

// Bit patterns, not values: 0 and -0 are not one run, and a NaN is equal to nothing.
bool same(float a, float b) { return a == b && std::signbit(a) == std::signbit(b); }

// The longest run of at least kShortestRun columns in [first, last) over which every row of `rows`
// keeps one value, none of them NaN; [first, first) when there is none.
template <std::size_t N>
void longestRun(const float* const (&rows)[N], int first, int last, int& runStart, int& runEnd) {
  runStart = runEnd = first;
  for (int start = first; start < last;) {
    int end = start + 1;
    bool steady = true;
    while (steady && end < last) {
      for (const float* row : rows)
        steady = steady && same(row[end], row[start]);
      end += steady ? 1 : 0;
    }
    bool finite = true;
    for (const float* row : rows)
      finite = finite && !std::isnan(row[start]);
    if (end - start >= kShortestRun && end - start > runEnd - runStart && finite) {
      runStart = start;
      runEnd = end;
    }
    start = end;
  }
}

// Columns [first, last) of a row that hold every value that is not zero.
void nonZeroSpan(const float* row, int width, int& first, int& last) {
  first = 0;
  last = width;
  while (first < width && row[first] == 0.0f)
    ++first;
  while (last > first && row[last - 1] == 0.0f)
    --last;
}

KernelRowShape rowShape(const float* row, int width) {
  KernelRowShape shape;
  nonZeroSpan(row, width, shape.first, shape.last);
  const float* const rows[1] = {row};
  longestRun(rows, shape.first, shape.last, shape.runStart, shape.runEnd);
  if (shape.runEnd > shape.runStart)
    shape.value = row[shape.runStart];
  return shape;
}

KernelPairRowShape pairRowShape(const float* inner, const float* outer, int width) {
  KernelPairRowShape shape;
  int innerFirst, innerLast;
  nonZeroSpan(inner, width, innerFirst, innerLast);
  nonZeroSpan(outer, width, shape.first, shape.last);
  if (innerFirst < innerLast) {
    shape.first = shape.first < shape.last ? std::min(shape.first, innerFirst) : innerFirst;
    shape.last = std::max(shape.last, innerLast);
  }
  const float* const rows[2] = {inner, outer};
  longestRun(rows, shape.first, shape.last, shape.runStart, shape.runEnd);
  if (shape.runEnd > shape.runStart) {
    shape.inner = inner[shape.runStart];
    shape.outer = outer[shape.runStart];
  }
  return shape;
}

}  // namespace

std::vector<KernelRowShape> kernelRowShapes(const float* plane, int width, int height) {
  std::vector<KernelRowShape> shapes;
  if (!plane || width <= 0 || height <= 0)
    return shapes;
  shapes.reserve(static_cast<std::size_t>(height));
  for (int y = 0; y < height; ++y)
    shapes.push_back(rowShape(plane + static_cast<std::size_t>(y) * static_cast<std::size_t>(width), width));
  return shapes;
}

std::vector<KernelPairRowShape> kernelPairRowShapes(const float* pairPlane, int width, int height) {
  std::vector<KernelPairRowShape> shapes;
  if (!pairPlane || width <= 0 || height <= 0)
    return shapes;
  shapes.reserve(static_cast<std::size_t>(height));
  for (int y = 0; y < height; ++y) {
    const float* inner = pairPlane + pairInnerRow(width, y);
    shapes.push_back(pairRowShape(inner, inner + width, width));
  }
  return shapes;
}

float largestMagnitude(const float* plane, int count) {
  float largest = 0.0f;
  for (int i = 0; i < count && plane; ++i) {
    const float m = std::fabs(plane[i]);
    if (m > largest)
      largest = m;
  }
  return largest;
}

}  // namespace vorel
