#pragma once
// The accumulators of a band when every channel lands at the same place with the same kernel
// values (no chromatic shift, planes alike): per row and slice, each column holds eight floats,
// the colours of the listed channels and, after them, the one weight they share, so a kernel
// value reaches all of them in one vector operation. Where a kernel row repeats one value, the
// run is added at its two ends into a row of differences, kept in double and summed across the
// row once, when the band is merged; a kernel row then costs its edges, not its width.
//
// Rows and slices nothing reached are skipped by the merge; what the merge read it leaves zeroed,
// so a band's accumulators need no clearing before the next band of the same shape.

#include <cstddef>
#include <functional>
#include <new>
#include <vector>

namespace vorel {

constexpr std::size_t kLanes = 8;

// Each lane's arithmetic is the scalar one (one multiply, one add, each rounded), so the order of
// the value-by-value additions is that of one channel's line.
typedef float LaneFloats __attribute__((vector_size(32)));
typedef double LaneDoubles __attribute__((vector_size(32)));

// Storage that starts on a cache line, so that a column's lanes (32 bytes of floats, 64 of
// doubles) never straddle two lines. A plain allocation is only sure to be on 16 bytes; from
// there, a column's differences straddle two lines unless by chance, and half its sums do, which
// cost the benchmark frame's rows 5-8% on one thread or two.
template <class T>
struct CacheLineAllocator {
  using value_type = T;
  static constexpr std::align_val_t kAlignment{64};
  CacheLineAllocator() = default;
  template <class U>
  CacheLineAllocator(const CacheLineAllocator<U>&) {}
  T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), kAlignment)); }
  void deallocate(T* p, std::size_t) { ::operator delete(p, kAlignment); }
  template <class U>
  bool operator==(const CacheLineAllocator<U>&) const { return true; }
  template <class U>
  bool operator!=(const CacheLineAllocator<U>&) const { return false; }
};

class LaneBand {
public:
  // Rows [y0, y1) over columns [left, right), `channels` colour lanes (fewer than kLanes).
  void reset(int y0, int y1, int left, int right, std::size_t slices, std::size_t channels);

  // Row y's floats in slice s, eight per column, addressed by absolute column (times kLanes).
  float* sums(int y, std::size_t slice) const { return cell(sums_, y, slice, width_) - leftLanes(); }
  // Row y's differences in slice s, eight per column over one column more than the band.
  double* differences(int y, std::size_t slice) const {
    return cell(differences_, y, slice, width_ + 1) - leftLanes();
  }
  // Row y's mark in slice s, set to 1 by whatever adds to it; the next row's is the next byte.
  unsigned char* used(int y, std::size_t slice) const { return used_.data() + index(y, slice); }
  // From a row's floats (differences) to the next row's in the same slice.
  std::ptrdiff_t sumsRowStep() const { return static_cast<std::ptrdiff_t>(width_ * kLanes); }
  std::ptrdiff_t differencesRowStep() const { return static_cast<std::ptrdiff_t>((width_ + 1) * kLanes); }

  // Lays the slices of every row over one another near to far, as mergeSliceColumns does for one
  // channel, into out(y, k) (addressed by absolute column), and zeroes what it read. A band that
  // never got here (an abort, an exception) is cleared whole at the next reset.
  void merge(const std::function<float*(int y, std::size_t k)>& out);

private:
  std::ptrdiff_t leftLanes() const { return static_cast<std::ptrdiff_t>(left_) * static_cast<std::ptrdiff_t>(kLanes); }
  std::size_t index(int y, std::size_t slice) const {
    return slice * static_cast<std::size_t>(y1_ - y0_) + static_cast<std::size_t>(y - y0_);
  }
  template <class Values>
  typename Values::value_type* cell(const Values& values, int y, std::size_t slice, std::size_t columns) const {
    using T = typename Values::value_type;
    return const_cast<T*>(values.data()) + index(y, slice) * columns * kLanes;
  }
  void mergeRow(int y, const std::function<float*(int y, std::size_t k)>& out);
  void layOver(int y, std::size_t slice);

  std::vector<float, CacheLineAllocator<float>> sums_;
  std::vector<double, CacheLineAllocator<double>> differences_;
  mutable std::vector<unsigned char> used_;
  // The merge's scratch: one row's coverage and merged lanes.
  std::vector<float> coverage_;
  std::vector<float, CacheLineAllocator<float>> merged_;
  int y0_ = 0, y1_ = 0, left_ = 0;
  std::size_t width_ = 0, slices_ = 0, channels_ = 0;
  bool dirty_ = false;  // reset, but not merged since
};

}  // namespace vorel
