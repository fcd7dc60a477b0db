#pragma once
// Defocused rows made a band at a time and handed out a row at a time. The host asks for rows one
// by one, from any number of threads; a band's rows are computed together, so that each source
// pixel within reach of the band is read and worked out once for all of them. Threads asking for
// rows of the same band share its work by columns (strips); a thread with no strip left in its
// band takes strips of the next band (most hosts ask for rows in order) rather than wait idle for
// the strips other threads took. A band's rows are dropped once every one of them was served; one
// asked again after that makes its band again.

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"
#include "engines/Slices.h"

namespace vorel {

// Rows in a band and output columns in a strip, as the node's bands have them: measured on the
// benchmark frame (see docs/architecture.md). A deep band is taller: each source row it reads has
// its pieces cut and prepared again for every band its kernels reach, and that costs more than
// the taller band's accumulators.
constexpr int kBandRows = 16;
constexpr int kDeepBandRows = 48;
constexpr int kStripColumns = 256;

struct BandShape {
  int rows = kBandRows;
  int stripColumns = kStripColumns;
};

// Strips at least eight kernel radii wide. A kernel as wide as a good part of its strip lands in
// two or three strips, and each visit walks every row it has in the band, however few of its
// columns the strip holds (4096x3112 at radius 128, rows on one thread: 25.8 s in strips of 256,
// 22.5 s in 512 or 1024; at radius 64, 5% less in 512).
inline int stripColumnsFor(int kernelRadius) {
  const long long wide = 8LL * kernelRadius;
  return wide > kStripColumns ? static_cast<int>(std::min<long long>(wide, INT_MAX)) : kStripColumns;
}

// Bands kept at once, finished or under way, before the oldest is let go (a host asking only some
// rows of each band would otherwise keep them all).
constexpr std::size_t kBandsKept = 8;

// What one strip of a band computes: output rows [y0, y1) over columns [left, right), the rows
// belonging to a request over [spanLeft, spanRight), which decides the source pixels they read.
struct BandArea {
  int y0, y1;
  int left, right;
  int spanLeft, spanRight;
};

// Which rows a band serves: the band's index (filled in by the cache), the request's columns,
// channels and pass.
struct BandKey {
  int band;
  int left, right;
  int side;
  DD::Image::ChannelSet channels;
  bool operator==(const BandKey& o) const {
    return band == o.band && left == o.left && right == o.right && side == o.side && channels == o.channels;
  }
};

class BandCache {
public:
  // Spreads and merges one strip: the merged value of listed channel k at row y goes to
  // out(y, k), addressed by absolute column. False when the render is aborted.
  using StripOutput = std::function<float*(int y, std::size_t k)>;
  using ComputeStrip = std::function<bool(const BandArea& area, BandAccumulators& accumulators,
                                          const StripOutput& out)>;

  explicit BandCache(BandShape shape = BandShape{}) : shape_(shape) {}

  // Row y of the box's rows [boxY, boxT) into `out` for the listed channels, computing its band
  // with the other threads that ask for rows of it. With `narrowStrips` the band is shared out in
  // strips of columns; without, the sources cannot tell which pixels reach a strip and the band is
  // one strip. False when the band's computation was aborted (the row is left as it was); an
  // exception from it reaches every row waiting for the band.
  bool serveRow(int y, int boxY, int boxT, BandKey key, bool narrowStrips,
                const std::vector<DD::Image::Channel>& channels, const ComputeStrip& compute,
                DD::Image::Row& out);

  // For tests: bands held now.
  std::size_t bandsHeld() const;

private:
  struct Band;
  std::shared_ptr<Band> bandFor(const BandKey& key, int y0, int y1, std::size_t channels, int stripColumns);
  void workOn(Band& band, int boxT, const ComputeStrip& compute, std::unique_lock<std::mutex>& lock);
  bool runStrip(Band& band, const ComputeStrip& compute, std::unique_lock<std::mutex>& lock);
  std::shared_ptr<Band> bandAhead(const Band& band, int boxT);
  int& highestBand(const BandKey& key);
  void forget(const Band& band);
  std::unique_ptr<BandAccumulators> takeAccumulators();

  const BandShape shape_;
  mutable std::mutex mutex_;
  std::condition_variable stripDone_;
  std::vector<std::shared_ptr<Band>> bands_;  // oldest first
  // For each request (key less its band index), the highest band index made so far: a band is
  // made ahead of its rows only once, never again after it was served and let go.
  std::vector<std::pair<BandKey, int>> highest_;
  std::vector<std::unique_ptr<BandAccumulators>> spare_;
};

}  // namespace vorel
