#include "lens/KernelRows.h"

#include <cmath>

namespace vorel {

namespace {

KernelRowShape rowShape(const float* row, int width) {
  KernelRowShape shape;
  int first = 0, last = width;
  while (first < width && row[first] == 0.0f)
    ++first;
  while (last > first && row[last - 1] == 0.0f)
    --last;
  shape.first = shape.runStart = shape.runEnd = first;
  shape.last = last;
  for (int start = first; start < last;) {
    int end = start + 1;
    // Bit patterns, not values: 0 and -0 are not one run, and a NaN is equal to nothing.
    while (end < last && row[end] == row[start] && std::signbit(row[end]) == std::signbit(row[start]))
      ++end;
    if (end - start >= kShortestRun && end - start > shape.runEnd - shape.runStart && !std::isnan(row[start])) {
      shape.runStart = start;
      shape.runEnd = end;
      shape.value = row[start];
    }
    start = end;
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
