#include "lens/Kernel.h"

namespace vorel {

void Kernel::allocate(const DD::Image::ChannelSet& channels, int w, int h) {
  planes.resize(kChannelSlots);
  width = w;
  height = h;
  half = (width - width % 2) / 2;
  count = static_cast<std::uint64_t>(w > 0 ? w : 0) * static_cast<std::uint64_t>(h > 0 ? h : 0);
  foreach (z, channels)
    planes[z].resize(count, 0.0f);
}

void Kernel::clear() {
  std::vector<std::vector<float>>().swap(planes);
  std::vector<KernelRowShape>().swap(rowShapes);
  std::vector<float>().swap(pairPlane);
  std::vector<KernelPairRowShape>().swap(pairShapes);
  largest = 0.0f;
  width = height = half = 0;
  count = 0;
}

}  // namespace vorel
