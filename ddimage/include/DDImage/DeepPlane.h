#pragma once
// The deep samples of an area: one flat float array plus each pixel's first sample, so a plane
// can be refilled many times per row without allocating per pixel.

#include <cstddef>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelMap.h"
#include "DDImage/DeepPixel.h"

namespace DD {
namespace Image {

// A buffer to build one pixel's samples in.
class DeepOutPixel {
public:
  void push_back(float v) { data_.push_back(v); }
  void reserve(std::size_t n) { data_.reserve(n); }
  void clear() { data_.clear(); }
  std::size_t size() const { return data_.size(); }
  bool empty() const { return data_.empty(); }
  const float* data() const { return data_.data(); }
  float* data() { return data_.data(); }
  float operator[](std::size_t i) const { return data_[i]; }

  // A view of the pushed samples (channels in the map's order). eZDescending: they were pushed
  // far first, so index 0 is the first pushed. eZAscending: pushed near first, index 0 is the
  // last pushed. eUnordered: sorted here by front and back.
  DeepPixel getPixel(const ChannelMap& map, DeepPixel::Ordering ordering) const;

private:
  std::vector<float> data_;
};

class DeepPlane {
public:
  DeepPlane() = default;
  DeepPlane(const DeepPlane&) = delete;
  DeepPlane& operator=(const DeepPlane&) = delete;

  const ChannelMap& channels() const { return map_; }
  const Box& box() const { return box_; }
  // The pixel's samples; none for a pixel outside the box.
  DeepPixel getPixel(int y, int x) const;

  // ---- host side: filling. Pixels are added in order, rows bottom up, columns left to right.
  // Keeps the storage for reuse.
  void reset(const Box& box, const ChannelSet& channels);
  void reserveSamples(std::size_t samples) { data_.reserve(samples * map_.size()); }
  // Appends the next `pixels` pixels, pixel i with first[i + 1] - first[i] samples (offsets as a
  // whole image keeps them), and returns the first float of their samples, one block in pixel
  // order (samples in the map's order, sorted by front ascending). Null, adding nothing, when the
  // pixels would run past the box.
  float* addPixels(const std::size_t* first, std::size_t pixels);
  // Appends the next `pixels` pixels with no samples (as far as the box goes).
  void addEmptyPixels(std::size_t pixels);
  // Pixels not yet added get no samples.
  void finish();

private:
  Box box_;
  ChannelMap map_;
  std::vector<float> data_;
  std::vector<std::size_t> firstSample_;  // per pixel, then the total
};

}  // namespace Image
}  // namespace DD
