#include "lens/KernelBank.h"

#include <cstring>

#include <algorithm>
#include <vector>

#include "lens/ParallelRows.h"

using DD::Image::Channel;
using DD::Image::ChannelSet;

namespace vorel {

int kernelBankEntrySize(int index) {
  const int size = index - 1 + index % 2;
  return size > 1 ? size : 1;
}

void releaseKernelBank(std::vector<Kernel>& bank) {
  for (Kernel& entry : bank)
    entry.clear();
  bank.clear();
}

void resampleKernel(Kernel& destination, int size, Channel channel, const Kernel& master) {
  if (size <= 0 || static_cast<std::size_t>(channel) >= destination.planes.size())
    return;
  std::vector<float>& plane = destination.planes[channel];
  const std::size_t count = static_cast<std::size_t>(size) * static_cast<std::size_t>(size);
  if (plane.size() < count)
    return;

  const int W = master.width;
  const int H = master.height;
  const float* source = master.plane(channel);
  if (!source || W <= 0 || H <= 0) {
    std::fill(plane.begin(), plane.begin() + static_cast<std::ptrdiff_t>(count), 0.0f);
    return;
  }

  const float scaleX = static_cast<float>(W) / static_cast<float>(size);
  const float scaleY = static_cast<float>(H) / static_cast<float>(size);

  // The column geometry is the same for every row: work it out once per plane. The source
  // index never decreases with x, so the columns that escape the zero rule form one run
  // [firstColumn, endColumn). The index is taken in double precision, the fraction in single:
  // the two may disagree by a rounding step, and each is kept as it comes out.
  std::vector<int> firstTap(static_cast<std::size_t>(size));  // ix - 1
  std::vector<float> fraction(static_cast<std::size_t>(size));
  int firstColumn = size, endColumn = size;
  for (int x = 0; x < size; ++x) {
    const int ix = static_cast<int>((static_cast<double>(x) + 0.5) * static_cast<double>(scaleX));
    if (ix < 1)
      continue;
    if (ix >= W) {
      endColumn = x;
      break;
    }
    if (firstColumn == size)
      firstColumn = x;
    firstTap[static_cast<std::size_t>(x)] = ix - 1;
    fraction[static_cast<std::size_t>(x)] = (static_cast<float>(x) + 0.5f) * scaleX - static_cast<float>(ix);
  }
  if (endColumn < firstColumn)
    endColumn = firstColumn;

  // Interpolating along y first gives one value per source column; each is computed once per
  // row and shared by every destination column that reads it, with the same operations as if
  // it were taken per pixel. Two more slots repeat the last column, as the edge rule does.
  std::vector<float> alongY(static_cast<std::size_t>(W) + 2);
  for (int y = 0; y < size; ++y) {
    float* out = plane.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(size);
    const int iy = static_cast<int>((static_cast<double>(y) + 0.5) * static_cast<double>(scaleY));
    if (iy < 1 || iy >= H) {
      std::fill(out, out + size, 0.0f);
      continue;
    }
    const float ty = (static_cast<float>(y) + 0.5f) * scaleY - static_cast<float>(iy);
    const float* rows[4];
    for (int k = 0; k < 4; ++k) {
      const int r = std::min(H - 1, std::max(iy - 1 + k, 0));
      rows[k] = source + static_cast<std::size_t>(r) * static_cast<std::size_t>(W);
    }
    float* v = alongY.data();
    for (int c = 0; c < W; ++c)
      v[c] = catmullRom(rows[0][c], rows[1][c], rows[2][c], rows[3][c], ty);
    v[W] = v[W + 1] = v[W - 1];

    std::fill(out, out + firstColumn, 0.0f);
    for (int x = firstColumn; x < endColumn; ++x) {
      const float* tap = v + firstTap[static_cast<std::size_t>(x)];
      out[x] = catmullRom(tap[0], tap[1], tap[2], tap[3], fraction[static_cast<std::size_t>(x)]);
    }
    std::fill(out + endColumn, out + size, 0.0f);
  }
}

namespace {

// The entry's row shapes and largest value, from the plane of the first of `vorelChannels`.
void describeKernelRows(Kernel& entry, const ChannelSet& vorelChannels) {
  const float* plane = entry.plane(vorelChannels.first());
  entry.rowShapes = kernelRowShapes(plane, entry.width, entry.height);
  entry.largest = largestMagnitude(plane, static_cast<int>(entry.count));
  // Made again, with the entry two sizes up, once the bank is whole.
  entry.pairPlane.clear();
  entry.pairShapes.clear();
}

// Entry `index` laid over the entry two sizes up, for a blend of the two; nothing when the bank
// ends before that entry or either has no plane to spread.
void describeKernelPair(std::vector<Kernel>& bank, std::size_t index, const ChannelSet& vorelChannels) {
  Kernel& inner = bank[index];
  if (index + 2 >= bank.size() || !inner.pairShapes.empty())
    return;
  const Kernel& outer = bank[index + 2];
  const float* small = inner.plane(vorelChannels.first());
  const float* large = outer.plane(vorelChannels.first());
  if (!small || !large || outer.width != inner.width + 2 || outer.height != inner.height + 2)
    return;
  const std::size_t width = static_cast<std::size_t>(outer.width);
  std::vector<float> pair(pairPlaneSize(outer.width, outer.height), 0.0f);
  for (int y = 0; y < outer.height; ++y) {
    float* row = pair.data() + pairInnerRow(outer.width, y);
    if (y >= 1 && y <= inner.height) {
      const float* from = small + static_cast<std::size_t>(y - 1) * static_cast<std::size_t>(inner.width);
      std::copy(from, from + inner.width, row + 1);
    }
    const float* from = large + static_cast<std::size_t>(y) * width;
    std::copy(from, from + width, row + width);
  }
  inner.pairShapes = kernelPairRowShapes(pair.data(), outer.width, outer.height);
  inner.pairPlane = std::move(pair);
}

// Every entry's pair with the entry two sizes up, once all entries are filled.
void describeKernelPairs(std::vector<Kernel>& bank, const ChannelSet& vorelChannels) {
  parallelRows(static_cast<int>(bank.size()), [&](int index) {
    describeKernelPair(bank, static_cast<std::size_t>(index), vorelChannels);
  });
}

}  // namespace

void fillKernelBankEntry(std::vector<Kernel>& bank, int index, const Kernel& master,
                         const ChannelSet& vorelChannels) {
  if (index < 0 || static_cast<std::size_t>(index) >= bank.size())
    return;
  Kernel& entry = bank[static_cast<std::size_t>(index)];
  const int size = kernelBankEntrySize(index);
  entry.allocate(vorelChannels, size, size);

  float sums[kChannelSlots];
  float largest = 0.0f;
  foreach (z, vorelChannels) {
    resampleKernel(entry, size, z, master);
    const std::vector<float>& plane = entry.planes[z];
    float sum = 0.0f;
    for (std::uint64_t i = 0; i < entry.count; ++i)
      sum += plane[i];
    sums[z] = sum;
    if (sum >= largest)
      largest = sum;
  }

  // One factor for all channels, so the channels keep the balance of the master kernel.
  if (largest > 0.0f) {
    const float scale = 1.0f / largest;
    foreach (z, vorelChannels) {
      if (!(sums[z] > 0.0f))
        continue;
      for (float& value : entry.planes[z])
        value = value * scale;
    }
  }
  describeKernelRows(entry, vorelChannels);
}



bool planesAlike(const std::vector<Kernel>& bank, const ChannelSet& channels) {
  const Channel first = channels.first();
  for (const Kernel& entry : bank) {
    const float* reference = entry.plane(first);
    foreach (c, channels) {
      const float* plane = entry.plane(c);
      if (!reference || !plane ||
          std::memcmp(plane, reference, static_cast<std::size_t>(entry.count) * sizeof(float)) != 0)
        return false;
    }
  }
  return true;
}

std::vector<Kernel> buildKernelBank(const Kernel& master, int maxCoC, const ChannelSet& vorelChannels) {
  std::vector<Kernel> bank(static_cast<std::size_t>(std::max(0, maxCoC + 5)));
  parallelRows(static_cast<int>(bank.size()),
               [&](int index) { fillKernelBankEntry(bank, index, master, vorelChannels); });
  describeKernelPairs(bank, vorelChannels);
  return bank;
}

std::vector<Kernel> buildKernelBank(const Kernel& master, int maxCoC, const ChannelSet& vorelChannels,
                                    const std::vector<Kernel>& kept) {
  std::vector<Kernel> bank(static_cast<std::size_t>(std::max(0, maxCoC + 5)));
  parallelRows(static_cast<int>(bank.size()), [&](int index) {
    const std::size_t i = static_cast<std::size_t>(index);
    if (i < kept.size())
      bank[i] = kept[i];
    else
      fillKernelBankEntry(bank, index, master, vorelChannels);
  });
  describeKernelPairs(bank, vorelChannels);
  return bank;
}

ChannelSet channelsSpreadingNothing(const std::vector<Kernel>& bank, std::size_t index, const ChannelSet& channels) {
  ChannelSet empty;
  foreach (z, channels) {
    const float* plane = index < bank.size() ? bank[index].plane(z) : nullptr;
    float sum = 0.0f;
    for (std::uint64_t k = 0; plane && k < bank[index].count; ++k)
      sum += plane[k];
    if (!(sum > 0.0f))
      empty += z;
  }
  return empty;
}

}  // namespace vorel
