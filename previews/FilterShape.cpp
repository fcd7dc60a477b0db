#include "previews/Previews.h"

#include "engines/Frame.h"

using namespace DD::Image;

namespace vorel {

void filterShapeRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row) {
  row.erase(channels);
  const Kernel& kernel = frame.masterKernel;
  const bool rowInside = y >= 0 && y < kernel.height;
  foreach (z, channels) {
    if (!frame.params.vorelChannels.contains(z))
      continue;
    const float* plane = kernel.plane(z);
    if (!plane || !rowInside)
      continue;
    // One output pixel per kernel value, kernel origin on the image origin; no scaling.
    const float* source = plane + static_cast<std::size_t>(y) * static_cast<std::size_t>(kernel.width);
    float* out = row.writable(z);
    for (int i = x; i < r; ++i)
      out[i] = (i >= 0 && i < kernel.width) ? source[i] : 0.0f;
  }
}

}  // namespace vorel
