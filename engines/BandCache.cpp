#include "engines/BandCache.h"

#include <algorithm>

#include "DDImage/Op.h"
#include "engines/Frame.h"

using DD::Image::Channel;
using DD::Image::Row;

namespace vorel {

bool renderAborted(const Frame& frame) { return frame.inputs.owner && frame.inputs.owner->aborted(); }

struct BandCache::Band {
  BandKey key;
  int y0, y1;
  int stripColumns = 1;
  int strips = 0;
  std::size_t channels = 0;
  // Merged values: [(y - y0) * channels + k][column - key.left]. Written by the strips, each its
  // own columns; read only once every strip is done.
  std::vector<float> values;
  // Under the cache's mutex:
  int nextStrip = 0;
  int running = 0;
  int done = 0;
  bool aborted = false;
  std::exception_ptr failure;
  std::vector<bool> served;
  int servedCount = 0;

  std::size_t width() const { return static_cast<std::size_t>(key.right - key.left); }
  float* line(int y, std::size_t k) {
    return values.data() + (static_cast<std::size_t>(y - y0) * channels + k) * width();
  }
  bool finished() const { return running == 0 && (aborted || done == strips); }
};

std::size_t BandCache::bandsHeld() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bands_.size();
}

std::shared_ptr<BandCache::Band> BandCache::bandFor(const BandKey& key, int y0, int y1, std::size_t channels,
                                                    int stripColumns) {
  for (const std::shared_ptr<Band>& band : bands_)
    if (band->key == key)
      return band;
  // The oldest band goes first; threads still at work on it keep it alive until they finish.
  if (bands_.size() >= kBandsKept)
    bands_.erase(bands_.begin());
  auto band = std::make_shared<Band>();
  int& highest = highestBand(key);
  highest = std::max(highest, key.band);
  band->key = key;
  band->y0 = y0;
  band->y1 = y1;
  band->channels = channels;
  band->stripColumns = std::max(1, stripColumns);
  band->strips = (key.right - key.left + band->stripColumns - 1) / band->stripColumns;
  band->values.resize(static_cast<std::size_t>(y1 - y0) * channels * band->width());
  band->served.assign(static_cast<std::size_t>(y1 - y0), false);
  bands_.push_back(band);
  return band;
}

void BandCache::forget(const Band& band) {
  auto it = std::find_if(bands_.begin(), bands_.end(), [&](const std::shared_ptr<Band>& b) { return b.get() == &band; });
  if (it != bands_.end())
    bands_.erase(it);
}

std::unique_ptr<BandAccumulators> BandCache::takeAccumulators() {
  if (spare_.empty())
    return std::make_unique<BandAccumulators>();
  std::unique_ptr<BandAccumulators> accumulators = std::move(spare_.back());
  spare_.pop_back();
  return accumulators;
}

int& BandCache::highestBand(const BandKey& key) {
  BandKey request = key;
  request.band = 0;
  for (auto& [k, highest] : highest_)
    if (k == request)
      return highest;
  // Requests of other spans or channel sets come and go; the marks of old ones can be let go.
  if (highest_.size() >= 64)
    highest_.clear();
  highest_.emplace_back(request, -1);
  return highest_.back().second;
}

// Runs one strip of the band if one is left: false when none is (or the band was aborted).
// Called and left with the lock held.
bool BandCache::runStrip(Band& band, const ComputeStrip& compute, std::unique_lock<std::mutex>& lock) {
  if (band.aborted || band.nextStrip >= band.strips)
    return false;
  const int strip = band.nextStrip++;
  ++band.running;
  std::unique_ptr<BandAccumulators> accumulators = takeAccumulators();
  lock.unlock();

  const int left = band.key.left + strip * band.stripColumns;
  const BandArea area{band.y0, band.y1, left, std::min(band.key.right, left + band.stripColumns),
                      band.key.left, band.key.right};
  bool finished = false;
  std::exception_ptr failure;
  try {
    finished = compute(area, *accumulators, [&](int y, std::size_t k) { return band.line(y, k) - band.key.left; });
  } catch (...) {
    failure = std::current_exception();
  }

  lock.lock();
  spare_.push_back(std::move(accumulators));
  --band.running;
  ++band.done;
  if (!finished) {
    band.aborted = true;
    if (failure && !band.failure)
      band.failure = failure;
    // A band that failed is not kept (one made ahead may have no row waiting to let it go): the
    // next request for its rows tries again, and the rows waiting now hold it till they see why.
    forget(band);
  }
  stripDone_.notify_all();
  return true;
}

// The band after `band`, to work on while waiting: the one held, or a new one if that band was
// never made and there is room for it. Null when there is none to help with.
std::shared_ptr<BandCache::Band> BandCache::bandAhead(const Band& band, int boxT) {
  if (band.y1 >= boxT || band.aborted)
    return nullptr;
  BandKey next = band.key;
  next.band += 1;
  for (const std::shared_ptr<Band>& b : bands_)
    if (b->key == next)
      return b;
  // A guess must not push out a band that rows still wait for.
  if (next.band <= highestBand(next) || bands_.size() >= kBandsKept)
    return nullptr;
  const int rows = std::max(1, shape_.rows);
  return bandFor(next, band.y1, std::min(boxT, band.y1 + rows), band.channels, band.stripColumns);
}

// Takes the band's strips until none is left, then strips of the next band until the band's last
// strip is done. Called and left with the lock held.
void BandCache::workOn(Band& band, int boxT, const ComputeStrip& compute, std::unique_lock<std::mutex>& lock) {
  while (runStrip(band, compute, lock)) {
  }
  std::shared_ptr<Band> ahead;
  while (!band.finished()) {
    if (!ahead)
      ahead = bandAhead(band, boxT);
    if (!ahead || !runStrip(*ahead, compute, lock))
      stripDone_.wait(lock);
  }
}

bool BandCache::serveRow(int y, int boxY, int boxT, BandKey key, bool narrowStrips,
                         const std::vector<Channel>& channels, const ComputeStrip& compute, Row& out) {
  const int bandRows = std::max(1, shape_.rows);
  key.band = (y - boxY) / bandRows;
  const int y0 = boxY + key.band * bandRows;
  const int y1 = std::min(boxT, y0 + bandRows);
  const int stripColumns = narrowStrips ? shape_.stripColumns : key.right - key.left;
  std::unique_lock<std::mutex> lock(mutex_);
  const std::shared_ptr<Band> band = bandFor(key, y0, y1, channels.size(), stripColumns);
  workOn(*band, boxT, compute, lock);

  if (band->aborted) {
    if (band->failure)
      std::rethrow_exception(band->failure);
    return false;
  }
  lock.unlock();

  // The band's values no longer change: copying them needs no lock.
  for (std::size_t k = 0; k < channels.size(); ++k) {
    const float* values = band->line(y, k);
    std::copy(values, values + band->width(), out.writable(channels[k]) + key.left);
  }

  lock.lock();
  const std::size_t row = static_cast<std::size_t>(y - y0);
  if (!band->served[row]) {
    band->served[row] = true;
    if (++band->servedCount == y1 - y0)
      forget(*band);
  }
  return true;
}

}  // namespace vorel
