#include <algorithm>
#include <numeric>

#include "Access.h"
#include "DDImage/DeepComposite.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"

namespace DD {
namespace Image {

// ---- DeepOp ------------------------------------------------------------------------------------

DeepOp::~DeepOp() = default;

void DeepOp::deepRequest(Box box, const ChannelSet& channels, int count) {
  if (Op* o = op()) {
    o->validate(true);
    host::Access::noteRequest(*o, box);
  }
  deepRequests_.push_back(host::Request{box, channels, count});
  getDeepRequests(box, channels, count);
}

void DeepOp::getDeepRequests(Box, const ChannelSet&, int) {}

bool DeepOp::deepEngine(Box box, const ChannelSet& channels, DeepPlane& plane) {
  Op* o = op();
  if (o && !o->opened())
    o->open();
  return doDeepEngine(box, channels, plane);
}

// ---- DeepPixel / DeepOutPixel ----------------------------------------------------------------------

const ChannelMap& DeepPixel::channels() const {
  static const ChannelMap none;
  return map_ ? *map_ : none;
}

DeepPixel DeepOutPixel::getPixel(const ChannelMap& map, DeepPixel::Ordering ordering) const {
  const std::size_t n = map.size() ? data_.size() / map.size() : 0;
  switch (ordering) {
    case DeepPixel::eZDescending: return DeepPixel(&map, data_.data(), n, false);
    case DeepPixel::eZAscending: return DeepPixel(&map, data_.data(), n, true);
    default: break;
  }
  // Unordered: sort by front then back, and view far to near like every ordered pixel.
  auto order = std::make_shared<std::vector<std::size_t>>(n);
  std::iota(order->begin(), order->end(), std::size_t(0));
  const int front = map.chanNo(Chan_DeepFront);
  const int back = map.chanNo(Chan_DeepBack);
  const std::size_t nch = map.size();
  if (front >= 0) {
    auto key = [&](std::size_t i, int slot) { return slot < 0 ? 0.0f : data_[i * nch + static_cast<std::size_t>(slot)]; };
    std::stable_sort(order->begin(), order->end(), [&](std::size_t a, std::size_t b) {
      if (key(a, front) != key(b, front))
        return key(a, front) < key(b, front);
      return key(a, back) < key(b, back);
    });
    std::reverse(order->begin(), order->end());
  }
  return DeepPixel(&map, data_.data(), n, std::move(order));
}

// ---- DeepPlane ----------------------------------------------------------------------------------

void DeepPlane::reset(const Box& box, const ChannelSet& channels) {
  box_ = box;
  if (box_.r() < box_.x())
    box_.r(box_.x());
  if (box_.t() < box_.y())
    box_.t(box_.y());
  if (!(static_cast<const ChannelSet&>(map_) == channels) || map_.size() != channels.size())
    map_ = ChannelMap(channels);
  data_.clear();
  firstSample_.clear();
  firstSample_.reserve(static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h()) + 1);
  firstSample_.push_back(0);
}

float* DeepPlane::addPixels(const std::size_t* first, std::size_t pixels) {
  const std::size_t capacity = static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h());
  if (firstSample_.empty() || pixels > capacity - (firstSample_.size() - 1))
    return nullptr;
  const std::size_t offset = data_.size();
  const std::size_t base = firstSample_.back();
  for (std::size_t i = 1; i <= pixels; ++i)
    firstSample_.push_back(base + (first[i] - first[0]));
  data_.resize(offset + (first[pixels] - first[0]) * map_.size());
  return data_.data() + offset;
}

void DeepPlane::addEmptyPixels(std::size_t pixels) {
  const std::size_t capacity = static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h());
  if (firstSample_.empty())
    return;
  pixels = std::min(pixels, capacity - (firstSample_.size() - 1));
  firstSample_.insert(firstSample_.end(), pixels, firstSample_.back());
}

void DeepPlane::finish() {
  const std::size_t pixels = static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h());
  if (firstSample_.empty())
    firstSample_.push_back(0);
  while (firstSample_.size() - 1 < pixels)
    firstSample_.push_back(firstSample_.back());
}

DeepPixel DeepPlane::getPixel(int y, int x) const {
  if (x < box_.x() || x >= box_.r() || y < box_.y() || y >= box_.t())
    return DeepPixel(&map_, nullptr, 0, true);
  const std::size_t p = static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w()) +
                        static_cast<std::size_t>(x - box_.x());
  if (p + 1 >= firstSample_.size())
    return DeepPixel(&map_, nullptr, 0, true);
  const std::size_t first = firstSample_[p];
  return DeepPixel(&map_, data_.data() + first * map_.size(), firstSample_[p + 1] - first, true);
}

// ---- CombineOverlappingSamples ----------------------------------------------------------------------

void CombineOverlappingSamples(const ChannelMap& channels, const DeepPixel& pixel, DeepOutPixel& out) {
  out.clear();
  const std::size_t n = pixel.getSampleCount();
  if (n == 0)
    return;

  // Nearest first. An ordered pixel has its nearest sample at the highest index; the stable
  // sort only matters for a pixel whose view is not in depth order.
  std::vector<std::size_t> order(n);
  for (std::size_t k = 0; k < n; ++k)
    order[k] = n - 1 - k;
  auto less = [&](std::size_t a, std::size_t b) {
    const float fa = pixel.getOrderedSample(a, Chan_DeepFront), fb = pixel.getOrderedSample(b, Chan_DeepFront);
    if (fa != fb)
      return fa < fb;
    return pixel.getOrderedSample(a, Chan_DeepBack) < pixel.getOrderedSample(b, Chan_DeepBack);
  };
  if (!std::is_sorted(order.begin(), order.end(), less))
    std::stable_sort(order.begin(), order.end(), less);

  const unsigned nch = channels.size();
  std::vector<float> group(nch, 0.0f);
  float groupFront = 0.0f, groupBack = 0.0f, groupAlpha = 0.0f;
  bool open = false;

  auto flush = [&] {
    for (unsigned s = 0; s < nch; ++s) {
      const Channel c = channels[s];
      out.push_back(c == Chan_DeepFront ? groupFront : c == Chan_DeepBack ? groupBack : group[s]);
    }
  };

  for (std::size_t i : order) {
    const float front = pixel.getOrderedSample(i, Chan_DeepFront);
    const float back = pixel.getOrderedSample(i, Chan_DeepBack);
    const float alpha = pixel.getOrderedSample(i, Chan_Alpha);
    if (open && front < groupBack) {
      const float t = 1.0f - groupAlpha;
      for (unsigned s = 0; s < nch; ++s)
        group[s] = group[s] + pixel.getOrderedSample(i, channels[s]) * t;
      groupFront = std::min(groupFront, front);
      groupBack = std::max(groupBack, back);
      groupAlpha = groupAlpha + alpha * t;
      continue;
    }
    if (open)
      flush();
    for (unsigned s = 0; s < nch; ++s)
      group[s] = pixel.getOrderedSample(i, channels[s]);
    groupFront = front;
    groupBack = back;
    groupAlpha = alpha;
    open = true;
  }
  flush();
}

}  // namespace Image
}  // namespace DD
