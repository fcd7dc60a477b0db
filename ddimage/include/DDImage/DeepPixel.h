#pragma once
// A view of one deep pixel's samples.
//
// The "ordered" view runs from far to near: a plane keeps a pixel's samples sorted by front
// ascending (ties by back ascending), and getOrderedSample(i) on n samples reads sorted sample
// n - 1 - i, so the nearest sample has the highest index.

#include <cstddef>
#include <memory>
#include <vector>

#include "DDImage/ChannelMap.h"

namespace DD {
namespace Image {

class DeepPixel {
public:
  enum Ordering { eUnordered = 0, eZAscending = 1, eZDescending = 2 };

  DeepPixel() = default;
  // Host side: samples at data, sample-major in the map's order. reversed: ordered index i reads
  // stored sample n - 1 - i.
  DeepPixel(const ChannelMap* map, const float* data, std::size_t samples, bool reversed)
      : map_(map), data_(data), samples_(samples), reversed_(reversed) {}
  // Host side: ordered index i reads stored sample order[i].
  DeepPixel(const ChannelMap* map, const float* data, std::size_t samples,
            std::shared_ptr<const std::vector<std::size_t>> order)
      : map_(map), data_(data), samples_(samples), order_(std::move(order)) {}

  std::size_t getSampleCount() const { return samples_; }
  // Zero for an index past the end or a channel that is not mapped.
  const float& getOrderedSample(std::size_t index, Channel z) const {
    if (index >= samples_)
      return zero();
    std::size_t stored = index;
    if (order_)
      stored = (*order_)[index];
    else if (reversed_)
      stored = samples_ - 1 - index;
    return getUnorderedSample(stored, z);
  }
  const float& getUnorderedSample(std::size_t index, Channel z) const {
    if (index >= samples_ || !map_)
      return zero();
    const int slot = map_->chanNo(z);
    if (slot < 0)
      return zero();
    return data_[index * map_->size() + static_cast<std::size_t>(slot)];
  }
  const ChannelMap& channels() const;
  // Host side: stored samples, sample-major.
  const float* data() const { return data_; }

private:
  static const float& zero() {
    static const float z = 0.0f;
    return z;
  }

  const ChannelMap* map_ = nullptr;
  const float* data_ = nullptr;
  std::size_t samples_ = 0;
  bool reversed_ = false;
  std::shared_ptr<const std::vector<std::size_t>> order_;
};


}  // namespace Image
}  // namespace DD
