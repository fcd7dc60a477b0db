#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Access.h"
#include "DDImage/Host.h"
#include "DDImage/Knobs.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"

// The host's object behind every op it builds. Plug-ins only ever hold the pointer.
class Node {};

namespace DD {
namespace Image {
namespace host {

namespace {
Node gNode;

Box normalized(Box b) {
  if (b.r() < b.x()) b.r(b.x());
  if (b.t() < b.y()) b.t(b.y());
  return b;
}
}  // namespace

// ---- driving ------------------------------------------------------------------------------------

std::unique_ptr<Op> create(const char* className) {
  const Op::Description* d = Op::Description::find(className);
  if (!d)
    return nullptr;
  std::unique_ptr<Op> op(d->build(&gNode));
  if (op)
    makeKnobs(*op);
  return op;
}

bool connect(Op& op, int i, Op* source) { return connect(op, i, source, nullptr); }

bool connect(Op& op, int i, Op* source, Op* graphOp) {
  if (i < 0 || i >= std::max(op.inputs(), op.maximum_inputs()))
    return false;
  if (source && !op.test_input(i, source))
    return false;
  Access::setInput(op, i, source);
  Access::setGraphInput(op, i, graphOp);
  knobChanged(op, &Knob::inputChange);
  op.invalidate();
  return true;
}

void prepare(Iop& op, const Box& area, const ChannelSet& channels) {
  op.validate(true);
  op.request(area, channels, 1);
  op.open();
}

void prepare(Iop& op) {
  op.validate(true);
  const Box area = op.info().box();
  const ChannelSet channels = op.info().channels();
  prepare(op, area, channels);
}

// ---- reports ------------------------------------------------------------------------------------

bool hasError(const Op& op) {
  std::lock_guard<std::mutex> lock(Access::reportMutex(op));
  return Access::hasError(op);
}

std::string errorText(const Op& op) {
  std::lock_guard<std::mutex> lock(Access::reportMutex(op));
  return Access::error(op);
}

std::vector<std::string> warnings(const Op& op) {
  std::lock_guard<std::mutex> lock(Access::reportMutex(op));
  return Access::warnings(op);
}

void clearReports(Op& op) {
  std::lock_guard<std::mutex> lock(Access::reportMutex(op));
  Access::clearReports(op);
}

void setAborted(Op& op, bool aborted) { Access::setAborted(op, aborted); }

// ---- requests -----------------------------------------------------------------------------------

Box requestedArea(const Op& op) { return Access::requestedArea(op); }
int interests(const Op& op) { return Access::interests(op); }
int unrequestedReads(const Op& op) { return Access::unrequestedReads(op); }

const std::vector<Request>& requests(const Iop& op) { return Access::requests(op); }
void clearRequests(Iop& op) { Access::requests(op).clear(); }
const std::vector<Request>& deepRequests(const DeepOp& op) { return Access::deepRequests(op); }
void clearDeepRequests(DeepOp& op) { Access::deepRequests(op).clear(); }

// ---- knobs --------------------------------------------------------------------------------------

void makeKnobs(Op& op) {
  std::vector<Knob*>& list = Access::knobs(op);
  for (Knob* k : list)
    delete k;
  list.clear();
  Access::quietKnobs(op).clear();
  Knob_Closure f(op, true);
  op.knobs(f);
}

void storeKnobs(Op& op) {
  Knob_Closure f(op, false);
  op.knobs(f);
}

const std::vector<Knob*>& knobs(const Op& op) { return Access::knobs(op); }

int knobChanged(Op& op, Knob* k) {
  std::vector<const Knob*>& quiet = Access::quietKnobs(op);
  if (std::find(quiet.begin(), quiet.end(), k) != quiet.end())
    return 0;
  const int handled = op.knob_changed(k);
  if (!handled)
    quiet.push_back(k);
  return handled;
}

int showPanel(Op& op) { return knobChanged(op, &Knob::showPanel); }

bool loadKnob(Op& op, const char* knobName, double value, int channel) {
  Knob* k = op.knob(knobName);
  if (!k || !k->set_value(value, channel))
    return false;
  op.invalidate();
  return true;
}

namespace {
template <class Set>
bool edit(Op& op, const char* knobName, Set set) {
  Knob* k = op.knob(knobName);
  if (!k || !set(*k))
    return false;
  knobChanged(op, k);
  op.invalidate();
  return true;
}
}  // namespace

bool userEdit(Op& op, const char* knobName, double value, int channel) {
  return edit(op, knobName, [&](Knob& k) { return k.set_value(value, channel); });
}

bool userEditChannels(Op& op, const char* knobName, const ChannelSet& channels) {
  return edit(op, knobName, [&](Knob& k) { return k.setChannelSet(channels); });
}

bool userEditChannel(Op& op, const char* knobName, Channel z) {
  return edit(op, knobName, [&](Knob& k) {
    bool ok = true;
    for (int i = 0; i < k.arraySize() && ok; ++i)
      ok = k.setChannel(z, i);
    return ok;
  });
}

// ---- FlatImage ----------------------------------------------------------------------------------

namespace {

// Fresh memory's first touch (the kernel clearing each page) is most of what a large plane costs
// here, and it is the same work on any thread: it is shared among the host's threads before the
// plane is cleared on this one, which then finds every page present.
void prefault(void* begin, std::size_t bytes) {
#ifdef MADV_POPULATE_WRITE
  constexpr std::size_t kPiece = std::size_t(2) << 20;
  const unsigned threads = unsigned(std::min<std::size_t>(std::max(1u, Thread::numCPUs), bytes / kPiece));
  if (threads < 2)
    return;
  const auto from = reinterpret_cast<std::uintptr_t>(begin) & ~std::uintptr_t(4095);
  const std::uintptr_t to = reinterpret_cast<std::uintptr_t>(begin) + bytes;
  const std::uintptr_t step = ((to - from) / threads + 4095) & ~std::uintptr_t(4095);
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t) {
    const std::uintptr_t a = from + t * step, b = std::min(to, a + step);
    if (a < b)
      workers.emplace_back([a, b] { ::madvise(reinterpret_cast<void*>(a), b - a, MADV_POPULATE_WRITE); });
  }
  for (std::thread& w : workers)
    w.join();
#else
  (void)begin;
  (void)bytes;
#endif
}

}  // namespace

void zeroedPlane(std::vector<float>& plane, std::size_t size) {
  std::vector<float>().swap(plane);
  plane.reserve(size);
#ifdef MADV_HUGEPAGE
  // Only the whole huge pages inside the plane: nothing beyond it is made resident.
  constexpr std::uintptr_t kHugePage = std::uintptr_t(2) << 20;
  const auto begin = reinterpret_cast<std::uintptr_t>(plane.data());
  const std::uintptr_t from = (begin + kHugePage - 1) & ~(kHugePage - 1);
  const std::uintptr_t to = (begin + size * sizeof(float)) & ~(kHugePage - 1);
  if (to > from)
    ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);
#endif
  prefault(plane.data(), size * sizeof(float));
  plane.assign(size, 0.0f);
}

FlatImage::FlatImage(const Format& format, const Box& box, const ChannelSet& channels)
    : Iop(&gNode), format_(format), box_(normalized(box)), channels_(channels),
      planes_(ChannelSet::kChannels) {
  inputs(0);
  const std::size_t size = static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h());
  foreach (z, channels_)
    zeroedPlane(planes_[z], size);
  _validate(true);
}

FlatImage::FlatImage(const Format& format, const ChannelSet& channels)
    : FlatImage(format, Box(format.x(), format.y(), format.r(), format.t()), channels) {}

void FlatImage::_validate(bool) {
  info_.format(format_);
  info_.full_size_format(format_);
  info_.set(box_.x(), box_.y(), box_.r(), box_.t());
  info_.channels(channels_);
}

void FlatImage::set(int x, int y, Channel z, float v) {
  if (!channels_.contains(z) || x < box_.x() || x >= box_.r() || y < box_.y() || y >= box_.t())
    return;
  planes_[z][static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w()) +
             static_cast<std::size_t>(x - box_.x())] = v;
}

float FlatImage::value(int x, int y, Channel z) const {
  if (!channels_.contains(z) || x < box_.x() || x >= box_.r() || y < box_.y() || y >= box_.t())
    return 0.0f;
  return planes_[z][static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w()) +
                    static_cast<std::size_t>(x - box_.x())];
}

void FlatImage::fill(Channel z, float v) {
  if (channels_.contains(z))
    std::fill(planes_[z].begin(), planes_[z].end(), v);
}

void FlatImage::append(Hash& hash) {
  for (int v : {format_.width(), format_.height(), format_.x(), format_.y(), format_.r(), format_.t(), box_.x(), box_.y(), box_.r(), box_.t()})
    hash.append(v);
  foreach (z, channels_) {
    hash.append(static_cast<int>(z));
    // Word by word: a byte-wise pass over a whole frame would take longer than reading it.
    std::uint64_t h = 0x9e3779b97f4a7c15ull;
    for (float v : planes_[z]) {
      std::uint32_t bits;
      std::memcpy(&bits, &v, sizeof bits);
      h = (h ^ bits) * 0x100000001b3ull;
      h ^= h >> 29;
    }
    hash.append(static_cast<unsigned long long>(h));
  }
}

float* FlatImage::plane(Channel z) { return channels_.contains(z) ? planes_[z].data() : nullptr; }

void FlatImage::engine(int y, int x, int r, ChannelMask channels, Row& row) {
  if (r <= x)
    return;
  const bool empty = emptyBox(box_);
  const int yy = empty ? 0 : box_.clampy(y);
  const int ix = std::min(std::max(x, box_.x()), box_.r());
  const int ir = std::max(std::min(r, box_.r()), box_.x());
  foreach (z, channels) {
    float* out = row.writable(z);
    if (empty || !channels_.contains(z)) {
      std::fill(out + x, out + r, 0.0f);
      continue;
    }
    // Columns beside the box repeat its edge columns, as Iop::get does.
    const float* line = planes_[z].data() + static_cast<std::size_t>(yy - box_.y()) * static_cast<std::size_t>(box_.w());
    if (ix < ir)
      std::copy(line + (ix - box_.x()), line + (ir - box_.x()), out + ix);
    if (x < ix)
      std::fill(out + x, out + ix, line[0]);
    if (ir < r)
      std::fill(out + std::max(ir, x), out + r, line[box_.w() - 1]);
  }
}

// ---- DeepImage ----------------------------------------------------------------------------------

DeepImage::DeepImage(const Format& format, const Box& box, const ChannelSet& channels)
    : DeepOnlyOp(&gNode), format_(format), box_(normalized(box)), channels_(channels) {
  inputs(0);
  channels_ += Chan_DeepFront;
  channels_ += Chan_DeepBack;
  foreach (z, channels_)
    channelList_.push_back(z);
  const ChannelMap map(channels_);
  frontSlot_ = map.chanNo(Chan_DeepFront);
  backSlot_ = map.chanNo(Chan_DeepBack);
  firstSample_.assign(static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h()) + 1, 0);
  _deepInfo = DeepInfo(format_, box_, channels_);
}

void DeepImage::_validate(bool) {
  finish();
  _deepInfo = DeepInfo(format_, box_, channels_);
}

void DeepImage::addSample(int x, int y, std::initializer_list<std::pair<Channel, float>> values) {
  addSample(x, y, std::vector<std::pair<Channel, float>>(values));
}

void DeepImage::addSample(int x, int y, const std::vector<std::pair<Channel, float>>& values) {
  std::vector<float> sample(channelList_.size(), 0.0f);
  bool backGiven = false;
  for (const auto& cv : values) {
    auto it = std::find(channelList_.begin(), channelList_.end(), cv.first);
    if (it == channelList_.end())
      continue;
    sample[static_cast<std::size_t>(it - channelList_.begin())] = cv.second;
    backGiven = backGiven || cv.first == Chan_DeepBack;
  }
  if (!backGiven)
    sample[static_cast<std::size_t>(backSlot_)] = sample[static_cast<std::size_t>(frontSlot_)];
  addStaged(x, y, sample.data());
}

void DeepImage::reserveSamples(std::size_t count) {
  stagedPixel_.reserve(stagedPixel_.size() + count);
  const std::size_t values = stagedData_.size() + count * channelList_.size();
  if (stagedData_.empty() && values > stagedData_.capacity()) {
    zeroedPlane(stagedData_, values);
    stagedData_.clear();
  } else {
    stagedData_.reserve(values);
  }
}

void DeepImage::addSampleValues(int x, int y, const float* values) {
  if (values)
    addStaged(x, y, values);
}

void DeepImage::addStaged(int x, int y, const float* values) {
  if (x < box_.x() || x >= box_.r() || y < box_.y() || y >= box_.t())
    return;
  stagedPixel_.push_back(static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w()) +
                         static_cast<std::size_t>(x - box_.x()));
  stagedData_.insert(stagedData_.end(), values, values + channelList_.size());
  invalidate();
}

std::size_t DeepImage::sampleCount(int x, int y) const {
  if (x < box_.x() || x >= box_.r() || y < box_.y() || y >= box_.t())
    return 0;
  const std::size_t p = static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w()) +
                        static_cast<std::size_t>(x - box_.x());
  std::size_t n = firstSample_[p + 1] - firstSample_[p];
  for (std::size_t s : stagedPixel_)
    n += s == p;
  return n;
}

namespace {

// Each pixel's samples in order of front, then back depth, ties kept as they came. A pixel that
// is in order already (as a file's pixels usually are) is left as it is, which is what the
// stable sort would make of it; not so with a NaN depth, which orders nothing, so such a pixel
// is always sorted.
void sortPixels(std::vector<float>& data, const std::vector<std::size_t>& first, std::size_t nch,
                std::size_t fs, std::size_t bs) {
  auto before = [&](const float* a, const float* b) {
    if (a[fs] != b[fs])
      return a[fs] < b[fs];
    return a[bs] < b[bs];
  };
  std::vector<std::size_t> order;
  std::vector<float> sorted;
  for (std::size_t p = 0; p + 1 < first.size(); ++p) {
    const std::size_t n = first[p + 1] - first[p];
    if (n < 2)
      continue;
    float* base = data.data() + first[p] * nch;
    bool inOrder = true;
    for (std::size_t k = 0; inOrder && k < n; ++k) {
      const float* v = base + k * nch;
      inOrder = v[fs] == v[fs] && v[bs] == v[bs] && (k == 0 || !before(v, v - nch));
    }
    if (inOrder)
      continue;
    order.resize(n);
    std::iota(order.begin(), order.end(), std::size_t(0));
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      return before(base + a * nch, base + b * nch);
    });
    sorted.resize(n * nch);
    for (std::size_t k = 0; k < n; ++k)
      std::copy_n(base + order[k] * nch, nch, sorted.data() + k * nch);
    std::copy(sorted.begin(), sorted.end(), base);
  }
}

}  // namespace

void DeepImage::finish() {
  if (stagedPixel_.empty())
    return;
  const std::size_t nch = channelList_.size();
  const std::size_t pixels = firstSample_.size() - 1;

  // Counting sort of old and staged samples by pixel, then each pixel sorted by front, back.
  std::vector<std::size_t> first(pixels + 1, 0);
  for (std::size_t p = 0; p < pixels; ++p)
    first[p + 1] = firstSample_[p + 1] - firstSample_[p];
  for (std::size_t p : stagedPixel_)
    ++first[p + 1];
  std::partial_sum(first.begin(), first.end(), first.begin());

  std::vector<float> data;
  zeroedPlane(data, first.back() * nch);
  std::vector<std::size_t> fill(first.begin(), first.end() - 1);
  for (std::size_t p = 0; p < pixels; ++p)
    for (std::size_t s = firstSample_[p]; s < firstSample_[p + 1]; ++s)
      std::copy_n(data_.begin() + static_cast<std::ptrdiff_t>(s * nch), nch,
                  data.begin() + static_cast<std::ptrdiff_t>(fill[p]++ * nch));
  for (std::size_t k = 0; k < stagedPixel_.size(); ++k)
    std::copy_n(stagedData_.begin() + static_cast<std::ptrdiff_t>(k * nch), nch,
                data.begin() + static_cast<std::ptrdiff_t>(fill[stagedPixel_[k]]++ * nch));

  sortPixels(data, first, nch, static_cast<std::size_t>(frontSlot_),
             static_cast<std::size_t>(backSlot_));
  data_.swap(data);
  firstSample_.swap(first);
  std::vector<std::size_t>().swap(stagedPixel_);
  std::vector<float>().swap(stagedData_);
}

void DeepImage::setSamples(std::vector<float>&& packed, std::vector<std::size_t>&& firstSample) {
  const std::size_t pixels = static_cast<std::size_t>(box_.w()) * static_cast<std::size_t>(box_.h());
  const std::size_t nch = channelList_.size();
  if (firstSample.size() != pixels + 1 || packed.size() != firstSample.back() * nch)
    throw std::invalid_argument("DeepImage::setSamples: the samples do not match the box");
  sortPixels(packed, firstSample, nch, static_cast<std::size_t>(frontSlot_),
             static_cast<std::size_t>(backSlot_));
  data_.swap(packed);
  firstSample_.swap(firstSample);
  std::vector<float>().swap(packed);
  std::vector<std::size_t>().swap(firstSample);
  std::vector<std::size_t>().swap(stagedPixel_);
  std::vector<float>().swap(stagedData_);
  invalidate();
}

bool DeepImage::doDeepEngine(Box box, const ChannelSet& channels, DeepPlane& plane) {
  ++engineCalls_;
  if (engineFails_)
    return false;
  Access::noteRead(*this, box_, box);
  // As real deep ops may: whole rows of the image and every channel it has, not just what was
  // asked for. Samples exist only where they were requested.
  Box planeBox = normalized(box);
  if (!emptyBox(planeBox) && !emptyBox(box_)) {
    planeBox.x(std::min(planeBox.x(), box_.x()));
    planeBox.r(std::max(planeBox.r(), box_.r()));
  }
  ChannelSet planeChannels = channels;
  planeChannels += channels_;
  plane.reset(planeBox, planeChannels);
  Box readable = box_;
  if (Access::anyRequested(*this))
    readable.intersect(Access::requestedArea(*this));
  if (emptyBox(readable))
    readable = Box();
  const Box& b = plane.box();
  const ChannelMap& map = plane.channels();
  const std::size_t nm = map.size(), nch = channelList_.size();

  std::vector<int> source(nm, -1);
  for (std::size_t k = 0; k < nm; ++k) {
    auto it = std::find(channelList_.begin(), channelList_.end(), map[static_cast<unsigned>(k)]);
    if (it != channelList_.end())
      source[k] = static_cast<int>(it - channelList_.begin());
  }

  Box inside = b;
  inside.intersect(readable);
  if (emptyBox(inside))
    inside = Box();
  std::size_t total = 0;
  for (int y = inside.y(); y < inside.t(); ++y) {
    const std::size_t row = static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w());
    total += firstSample_[row + static_cast<std::size_t>(inside.r() - box_.x())] -
             firstSample_[row + static_cast<std::size_t>(inside.x() - box_.x())];
  }
  plane.reserveSamples(total);

  // Where the plane's channels are the image's own, in its order, a row's samples are one block
  // of the image's storage.
  bool sameLayout = nm == nch;
  for (std::size_t k = 0; k < nm; ++k)
    sameLayout = sameLayout && source[k] == static_cast<int>(k);
  const std::size_t width = static_cast<std::size_t>(b.w());
  for (int y = b.y(); y < b.t(); ++y) {
    if (y < inside.y() || y >= inside.t()) {
      plane.addEmptyPixels(width);
      continue;
    }
    plane.addEmptyPixels(static_cast<std::size_t>(inside.x() - b.x()));
    const std::size_t p = static_cast<std::size_t>(y - box_.y()) * static_cast<std::size_t>(box_.w()) +
                          static_cast<std::size_t>(inside.x() - box_.x());
    const std::size_t* first = firstSample_.data() + p;
    const std::size_t pixels = static_cast<std::size_t>(inside.w());
    if (float* out = plane.addPixels(first, pixels)) {
      const std::size_t samples = first[pixels] - first[0];
      const float* in = data_.data() + first[0] * nch;
      if (sameLayout)
        std::copy(in, in + samples * nch, out);
      else
        for (std::size_t s = 0; s < samples; ++s)
          for (std::size_t k = 0; k < nm; ++k)
            out[s * nm + k] = source[k] >= 0 ? in[s * nch + static_cast<std::size_t>(source[k])] : 0.0f;
    }
    plane.addEmptyPixels(static_cast<std::size_t>(b.r() - inside.r()));
  }
  plane.finish();
  return true;
}

// ---- rows -------------------------------------------------------------------------------------

void renderRows(Iop& op, const Box& area, const ChannelSet& channels, unsigned threads,
                const std::function<void(int y, const Row& row)>& take,
                const std::function<void(long done)>& progress) {
  std::atomic<int> nextRow{area.y()};
  std::atomic<long> rowsDone{0};
  std::atomic<bool> failed{false};
  std::exception_ptr failure;
  std::mutex failureMutex;
  auto worker = [&]() {
    try {
      for (int y = nextRow++; y < area.t() && !failed; y = nextRow++) {
        Row row(area.x(), area.r());
        op.engine(y, area.x(), area.r(), channels, row);
        take(y, row);
        ++rowsDone;
      }
    } catch (...) {
      std::lock_guard<std::mutex> lock(failureMutex);
      if (!failure)
        failure = std::current_exception();
      failed = true;
    }
  };
  std::vector<std::thread> pool;
  for (unsigned i = 1; i < std::max(1u, threads); ++i)
    pool.emplace_back(worker);
  if (progress) {
    // This thread reports while the others work.
    std::thread last(worker);
    const long total = area.t() > area.y() ? long(area.t()) - area.y() : 0;
    while (rowsDone < total && !failed) {
      progress(rowsDone);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    last.join();
    progress(rowsDone);
  } else {
    worker();
  }
  for (std::thread& t : pool)
    t.join();
  if (failure)
    std::rethrow_exception(failure);
}

}  // namespace host
}  // namespace Image
}  // namespace DD
