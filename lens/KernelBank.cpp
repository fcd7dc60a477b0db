#include "lens/KernelBank.h"

#include <algorithm>
#include <vector>

#include "node/tzVorel.h"

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

  // The column geometry is the same for every row: work it out once per plane.
  // A column that the zero rule blanks has no neighbourhood.
  struct Column {
    int taps[4];  // source columns ix - 1 .. ix + 2, edge repeated
    float fraction;
    bool blank;
  };
  std::vector<Column> columns(static_cast<std::size_t>(size));
  int firstTap = W, lastTap = -1;
  for (int x = 0; x < size; ++x) {
    Column& column = columns[static_cast<std::size_t>(x)];
    // The source index is taken in double precision, the fraction in single: the two may
    // disagree by a rounding step, and each is kept as it comes out.
    const int ix = static_cast<int>((static_cast<double>(x) + 0.5) * static_cast<double>(scaleX));
    column.blank = ix < 1 || ix >= W;
    column.fraction = (static_cast<float>(x) + 0.5f) * scaleX - static_cast<float>(ix);
    if (column.blank)
      continue;
    for (int k = 0; k < 4; ++k)
      column.taps[k] = std::min(W - 1, std::max(ix - 1 + k, 0));
    firstTap = std::min(firstTap, column.taps[0]);
    lastTap = std::max(lastTap, column.taps[3]);
  }

  // Interpolating along y first gives one value per source column; each is computed once per
  // row and shared by every destination column that reads it, with the same operations as if
  // it were taken per pixel.
  std::vector<float> alongY(static_cast<std::size_t>(W));
  for (int y = 0; y < size; ++y) {
    float* out = plane.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(size);
    const int iy = static_cast<int>((static_cast<double>(y) + 0.5) * static_cast<double>(scaleY));
    if (iy < 1 || iy >= H || lastTap < 0) {
      std::fill(out, out + size, 0.0f);
      continue;
    }
    const float ty = (static_cast<float>(y) + 0.5f) * scaleY - static_cast<float>(iy);
    const float* rows[4];
    for (int k = 0; k < 4; ++k) {
      const int r = std::min(H - 1, std::max(iy - 1 + k, 0));
      rows[k] = source + static_cast<std::size_t>(r) * static_cast<std::size_t>(W);
    }
    for (int c = firstTap; c <= lastTap; ++c)
      alongY[static_cast<std::size_t>(c)] = catmullRom(rows[0][c], rows[1][c], rows[2][c], rows[3][c], ty);
    const float* v = alongY.data();
    for (int x = 0; x < size; ++x) {
      const Column& column = columns[static_cast<std::size_t>(x)];
      out[x] = column.blank ? 0.0f
                            : catmullRom(v[column.taps[0]], v[column.taps[1]], v[column.taps[2]],
                                         v[column.taps[3]], column.fraction);
    }
  }
}

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
}

void kernelBankThread(unsigned threadIndex, unsigned threadCount, void* node) {
  tzVorel* owner = static_cast<tzVorel*>(node);
  if (!owner || threadCount == 0)
    return;
  const std::size_t entries = owner->kernelBank.size();
  for (std::size_t i = threadIndex; i < entries; i += threadCount)
    fillKernelBankEntry(owner->kernelBank, static_cast<int>(i), owner->masterKernel,
                        owner->params.vorelChannels);
}

}  // namespace vorel
