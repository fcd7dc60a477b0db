#include "engines/LaneBand.h"

#include <algorithm>
#include <cstring>

#include "engines/Slices.h"
#include "engines/SplatCore.h"

namespace vorel {

void LaneBand::reset(int y0, int y1, int left, int right, std::size_t slices, std::size_t channels) {
  const int rows = std::max(0, y1 - y0);
  const std::size_t width = static_cast<std::size_t>(std::max(0, right - left));
  const std::size_t cells = static_cast<std::size_t>(rows) * slices;
  y0_ = y0;
  y1_ = y0 + rows;
  left_ = left;
  channels_ = channels;
  width_ = width;
  slices_ = slices;
  // Whatever the last band's shape, all it left is zeros: only new room needs zeroing, unless
  // the last band was never merged.
  const std::size_t sums = cells * width * kLanes, differences = cells * (width + 1) * kLanes;
  if (dirty_) {
    std::fill(sums_.begin(), sums_.end(), 0.0f);
    std::fill(differences_.begin(), differences_.end(), 0.0);
    std::fill(used_.begin(), used_.end(), 0);
  }
  if (sums_.size() < sums)
    sums_.resize(sums, 0.0f);
  if (differences_.size() < differences)
    differences_.resize(differences, 0.0);
  if (used_.size() < cells)
    used_.resize(cells, 0);
  coverage_.resize(width);
  merged_.resize(width * kLanes);
  dirty_ = true;
}

void LaneBand::merge(const std::function<float*(int y, std::size_t k)>& out) {
  for (int y = y0_; y < y1_; ++y)
    mergeRow(y, out);
  dirty_ = false;
}

VOREL_WIDE_VECTORS
void LaneBand::layOver(int y, std::size_t slice) {
  float* sums = cell(sums_, y, slice, width_);
  double* differences = cell(differences_, y, slice, width_ + 1);
  float* merged = merged_.data();
  LaneDoubles low = {0, 0, 0, 0}, high = {0, 0, 0, 0};
  const LaneDoubles zero = {0, 0, 0, 0};
  const LaneFloats zeros = {0, 0, 0, 0, 0, 0, 0, 0};
  for (std::size_t X = 0; X < width_; ++X) {
    LaneDoubles d0, d1;
    std::memcpy(&d0, differences + X * kLanes, sizeof d0);
    std::memcpy(&d1, differences + X * kLanes + 4, sizeof d1);
    std::memcpy(differences + X * kLanes, &zero, sizeof zero);
    std::memcpy(differences + X * kLanes + 4, &zero, sizeof zero);
    low += d0;
    high += d1;
    // The value-by-value sums and the runs' sums, added in double and rounded once.
    LaneFloats v;
    std::memcpy(&v, sums + X * kLanes, sizeof v);
    std::memcpy(sums + X * kLanes, &zeros, sizeof zeros);
    const LaneDoubles vLow = __builtin_convertvector(__builtin_shufflevector(v, v, 0, 1, 2, 3), LaneDoubles);
    const LaneDoubles vHigh = __builtin_convertvector(__builtin_shufflevector(v, v, 4, 5, 6, 7), LaneDoubles);
    const auto totalLow = __builtin_convertvector(vLow + low, float __attribute__((vector_size(16))));
    const auto totalHigh = __builtin_convertvector(vHigh + high, float __attribute__((vector_size(16))));
    const LaneFloats total = __builtin_shufflevector(totalLow, totalHigh, 0, 1, 2, 3, 4, 5, 6, 7);

    const float scale = takeSliceShare(coverage_[X], total[channels_]);
    LaneFloats o;
    std::memcpy(&o, merged + X * kLanes, sizeof o);
    o += scale * total;
    std::memcpy(merged + X * kLanes, &o, sizeof o);
  }
  std::memcpy(differences + width_ * kLanes, &zero, sizeof zero);
  std::memcpy(differences + width_ * kLanes + 4, &zero, sizeof zero);
}

void LaneBand::mergeRow(int y, const std::function<float*(int y, std::size_t k)>& out) {
  std::fill(coverage_.begin(), coverage_.end(), 0.0f);
  std::fill(merged_.begin(), merged_.end(), 0.0f);
  for (std::size_t s = 0; s < slices_; ++s) {
    unsigned char& used = used_[index(y, s)];
    if (!used)
      continue;
    layOver(y, s);
    used = 0;
  }
  for (std::size_t k = 0; k < channels_; ++k) {
    float* o = out(y, k) + left_;
    for (std::size_t X = 0; X < width_; ++X) {
      const float covered = coverage_[X];
      const float value = merged_[X * kLanes + k];
      o[X] = covered > 0.0f ? value / covered : value;
    }
  }
}

}  // namespace vorel
