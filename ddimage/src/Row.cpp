#include <algorithm>
#include <atomic>
#include <limits>

#include "DDImage/Host.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"

namespace DD {
namespace Image {

namespace {

// What a channel never written reads, for rows up to this wide. Untouched pages of zeros cost
// no memory.
constexpr int kSharedZeros = 1 << 16;
const float gZeros[kSharedZeros] = {};

std::atomic<bool> gFreshRowsNaN{false};

}  // namespace

void host::setFreshRowsNaN(bool on) { gFreshRowsNaN.store(on); }

Row::Row(int x, int r) : x_(x), r_(r < x ? x : r), slots_(inline_) {}

Row::~Row() {
  for (int i = 0; i < used_; ++i)
    delete[] slots_[i].buffer;
  if (slots_ != inline_)
    delete[] slots_;
  delete[] zeros_;
}

Row::Slot* Row::find(int z) const {
  for (int i = 0; i < used_; ++i)
    if (slots_[i].channel == z)
      return &slots_[i];
  return nullptr;
}

Row::Slot* Row::add(int z) {
  if (used_ == capacity_) {
    Slot* grown = new Slot[static_cast<std::size_t>(capacity_) * 2];
    std::copy(slots_, slots_ + used_, grown);
    if (slots_ != inline_)
      delete[] slots_;
    slots_ = grown;
    capacity_ *= 2;
  }
  Slot& s = slots_[used_++];
  s.channel = z;
  const std::size_t w = static_cast<std::size_t>(r_ - x_) + 1;
  s.buffer = new float[w]();
  if (gFreshRowsNaN.load(std::memory_order_relaxed))
    std::fill(s.buffer, s.buffer + w, std::numeric_limits<float>::quiet_NaN());
  return &s;
}

float* Row::writable(Channel z) {
  Slot* s = find(z);
  if (!s)
    s = add(z);
  return s->buffer - x_;
}

const float* Row::operator[](Channel z) const {
  if (const Slot* s = find(z))
    return s->buffer - x_;
  const int w = r_ - x_;
  if (w <= kSharedZeros)
    return gZeros - x_;
  if (!zeros_)
    zeros_ = new float[static_cast<std::size_t>(w)]();
  return zeros_ - x_;
}

void Row::erase(Channel z) {
  if (Slot* s = find(z))
    std::fill(s->buffer, s->buffer + (r_ - x_), 0.0f);
}

void Row::erase(ChannelMask channels) {
  for (int i = 0; i < used_; ++i)
    if (channels.contains(static_cast<Channel>(slots_[i].channel)))
      std::fill(slots_[i].buffer, slots_[i].buffer + (r_ - x_), 0.0f);
}

void Row::get(Iop& iop, int y, int x, int r, ChannelMask channels) {
  x = std::max(x, x_);
  r = std::min(r, r_);
  if (x < r)
    iop.get(y, x, r, channels, *this);
}

void Row::copy(const Row& source, ChannelMask channels, int x, int r) {
  x = std::max({x, x_, source.x_});
  r = std::min({r, r_, source.r_});
  if (r <= x)
    return;
  foreach (z, channels) {
    const float* from = source[z];
    float* to = writable(z);
    if (from != to)
      std::copy(from + x, from + r, to + x);
  }
}

}  // namespace Image
}  // namespace DD
