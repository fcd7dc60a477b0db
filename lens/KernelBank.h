#pragma once
// The kernel at every size, resampled from the master kernel, and the rule that turns a CoC into
// the entries it draws on.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "lens/Kernel.h"

namespace vorel {

// Side of bank entry i: max(1, i - 1 + i % 2), always odd.
int kernelBankEntrySize(int index);

void releaseKernelBank(std::vector<Kernel>& bank);

// Builds entry `index` of `bank` (already sized) from `master`, normalised by the largest channel sum.
void fillKernelBankEntry(std::vector<Kernel>& bank, int index, const Kernel& master,
                         const DD::Image::ChannelSet& vorelChannels);

// One plane of `destination` (already allocated at size x size) resampled from `master`.
void resampleKernel(Kernel& destination, int size, DD::Image::Channel channel, const Kernel& master);

// True when every entry has bit-identical planes in all of `channels`.
bool planesAlike(const std::vector<Kernel>& bank, const DD::Image::ChannelSet& channels);

// The whole bank for CoCs up to maxCoC: maxCoC + 5 entries (none for a negative count), filled on
// the host's threads.
std::vector<Kernel> buildKernelBank(const Kernel& master, int maxCoC, const DD::Image::ChannelSet& vorelChannels);

// The same, with the entries `kept` holds copied from it rather than resampled. An entry depends
// on its index, the master kernel and the channels alone, never on how many entries the bank has,
// so `kept` must come from the same master and channels; its size may be anything.
std::vector<Kernel> buildKernelBank(const Kernel& master, int maxCoC, const DD::Image::ChannelSet& vorelChannels,
                                    const std::vector<Kernel>& kept);

// A bank as frames hold it: built once and never changed, so the frames of a shot can share one.
// It reads as the vector of entries it holds (empty when it holds none).
class SharedKernelBank {
public:
  SharedKernelBank() = default;
  explicit SharedKernelBank(std::vector<Kernel> entries)
      : entries_(std::make_shared<const std::vector<Kernel>>(std::move(entries))) {}

  const std::vector<Kernel>& entries() const { return entries_ ? *entries_ : none(); }
  operator const std::vector<Kernel>&() const { return entries(); }
  bool empty() const { return entries().empty(); }
  std::size_t size() const { return entries().size(); }
  const Kernel& operator[](std::size_t i) const { return entries()[i]; }
  // Whether both hold the very same entries (not merely equal ones).
  bool sameAs(const SharedKernelBank& other) const { return entries_ && entries_ == other.entries_; }

private:
  static const std::vector<Kernel>& none() {
    static const std::vector<Kernel> empty;
    return empty;
  }
  std::shared_ptr<const std::vector<Kernel>> entries_;
};

// The channels of `channels` in which entry `index` of the bank spreads nothing: its plane sums to
// 0 or less (or it has none), so the entry stays as resampled and adds no weight. Entry 1 is the
// kernel of every pixel in focus (CoC 1). It is empty in every channel when the master kernel is a
// single value (max_kernelsize 1: no source index from 1 up) or dark at its centre (a ring), and in
// alpha when a kernel image without alpha meets no missingKernelChannel; the pixels it serves come
// out 0. The node has no message for it; a renderer can tell the user.
DD::Image::ChannelSet channelsSpreadingNothing(const std::vector<Kernel>& bank, std::size_t index,
                                               const DD::Image::ChannelSet& channels);

// ---- from a CoC to bank entries ------------------------------------------------------------

// One kernel laid down for a sample: a bank entry and the weight it is laid down with.
struct KernelPass {
  unsigned entry;
  float weight;
};

// What a CoC takes from a bank of n entries: the entry floor(coc) and the one two sizes above it,
// weighted by where the CoC falls between their widths, each times the sample's own weight. A
// pass whose weight is not above 0 is left out, and moves the next pass two entries on from its
// own. Entry 0 is never used; a negative, NaN or too large CoC takes the last entry, alone.
struct KernelBlend {
  unsigned count = 0;
  KernelPass pass[2];
};

namespace bankblend {
// The entry a pass would use, clamped into the bank (entry 0 is never spread).
inline unsigned clampEntry(unsigned e, unsigned n) {
  e = std::min(e, n - 1);
  if (e == 0)
    e = 1;
  return std::min(e, n - 1);  // a one-entry bank has nothing else to offer
}
// floor(coc) taken unsigned: negative, NaN and too large all mean "the last entry, alone".
inline bool firstEntry(unsigned n, float coc, unsigned& index) {
  const float i = floorf(coc);
  if (i >= 0.0f && i < static_cast<float>(n)) {
    index = static_cast<unsigned>(i);
    return true;
  }
  index = n - 1;
  return false;
}
}  // namespace bankblend

// Needs n > 0.
inline KernelBlend kernelBlend(const Kernel* bank, unsigned n, float coc, float sampleWeight) {
  unsigned i;
  const bool blended = bankblend::firstEntry(n, coc, i);
  const int passes = blended ? 2 : 1;
  const float w0 = blended ? 1.0f - (coc - static_cast<float>(bank[i].width)) * 0.5f : 1.0f;
  KernelBlend blend;
  for (int pass = 0; pass < passes; ++pass) {
    const float w = (pass == 0 ? w0 : 1.0f - w0) * sampleWeight;
    if (w <= 0.0f) {
      i += 2;
      continue;
    }
    const unsigned e = bankblend::clampEntry(i, n);
    i = e + 2;
    blend.pass[blend.count++] = {e, w};
  }
  return blend;
}

// The largest kernel half of any entry kernelBlend may take for this CoC, whatever the sample's
// weight. Needs a bank that is not empty.
inline std::int32_t kernelBlendReach(const std::vector<Kernel>& bank, float coc) {
  const unsigned n = static_cast<unsigned>(bank.size());
  unsigned i;
  bankblend::firstEntry(n, coc, i);
  const unsigned first = bankblend::clampEntry(i, n);
  const unsigned entries[3] = {first, bankblend::clampEntry(first + 2, n), bankblend::clampEntry(i + 2, n)};
  std::int32_t reach = 0;
  for (unsigned e : entries)
    reach = std::max(reach, static_cast<std::int32_t>(bank[e].half));
  return reach;
}

}  // namespace vorel
