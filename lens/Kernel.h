#pragma once
// A square float image with one plane per channel, indexed directly by channel number.

#include <cstdint>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "lens/KernelRows.h"

namespace vorel {

constexpr int kChannelSlots = 1024;

struct Kernel {
  int width = 0;
  int height = 0;
  int half = 0;            // (width - width % 2) / 2
  std::uint64_t count = 0; // width * height
  std::vector<std::vector<float>> planes;  // kChannelSlots slots once allocated; row 0 is the lowest row
  // Of a bank entry, for the spreading: the shape of each row of its first plane, and the largest
  // magnitude in it. Right for every channel only when all planes are alike.
  std::vector<KernelRowShape> rowShapes;
  float largest = 0.0f;
  // With the entry two sizes up (when the bank has it): this entry's first plane laid over that
  // entry's, row by row (the layout is in KernelRows.h), and the shape of each row of the two.
  std::vector<float> pairPlane;
  std::vector<KernelPairRowShape> pairShapes;

  // Keeps the slot table, resizes the planes of `channels` to count floats (new elements 0).
  void allocate(const DD::Image::ChannelSet& channels, int width, int height);
  void clear();
  bool empty() const { return count == 0; }
  const float* plane(DD::Image::Channel z) const {
    return static_cast<std::size_t>(z) < planes.size() && !planes[z].empty() ? planes[z].data() : nullptr;
  }
};

// The Catmull-Rom spline through p1 (t = 0) and p2 (t = 1), in exactly this order of operations.
inline float catmullRom(float p0, float p1, float p2, float p3, float t) {
  return p1 + (t * 0.5f) * ((p2 - p0) + t * (2.0f * p0 - 5.0f * p1 + 4.0f * p2 - p3 +
                                             t * (3.0f * (p1 - p2) + p3 - p0)));
}

}  // namespace vorel
