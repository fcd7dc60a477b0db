#include "previews/Previews.h"

#include "engines/Frame.h"

using namespace DD::Image;

namespace vorel {

void filterShapeRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row) {
  row.erase(channels);
  const Kernel& kernel = frame.masterKernel;
  // One output pixel per kernel value, the kernel's first column and row on the format's corner;
  // no scaling. What the frame holds of the kernel starts at its window's corner: the output's box
  // holds every row and column asked for, so no value outside the window is ever shown.
  const int left = frame.format.x() + frame.masterKernelWindow.x();
  const int bottom = frame.format.y() + frame.masterKernelWindow.y();
  const int ky = y - bottom;
  const bool rowInside = ky >= 0 && ky < kernel.height;
  foreach (z, channels) {
    if (!frame.params.vorelChannels.contains(z))
      continue;
    const float* plane = kernel.plane(z);
    if (!plane || !rowInside)
      continue;
    const float* source = plane + static_cast<std::size_t>(ky) * static_cast<std::size_t>(kernel.width);
    float* out = row.writable(z);
    for (int i = x; i < r; ++i)
      out[i] = (i - left >= 0 && i - left < kernel.width) ? source[i - left] : 0.0f;
  }
}

}  // namespace vorel
