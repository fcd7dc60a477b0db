#include "lens/MasterKernel.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"
#include "lens/BoxArea.h"
#include "lens/CircleOfConfusion.h"

using DD::Image::Box;
using DD::Image::Channel;
using DD::Image::ChannelSet;

namespace vorel {

namespace {

constexpr float kTwoPi = 6.2831855f;
constexpr float kPi = 3.1415927f;

// The rim of the disc is a circle of radius halfSize: 1 at the centre, 0 on and beyond the rim.
float discValue(float px, float py, float halfSize, float halfSizeSquared, float aspectRatio) {
  float dx = fabsf(px - halfSize);
  float dy = fabsf(py - halfSize);
  if (aspectRatio > 1.0f)
    dx = dx * aspectRatio;
  else if (aspectRatio < 1.0f)
    dy = dy * (1.0f / aspectRatio);
  return 1.0f - std::min(1.0f, (dy * dy + dx * dx) / halfSizeSquared);
}

// The values of `part` of the kernel of `size`, row-major over the part alone.
void buildFormulaPlane(float* plane, const Box& part, int size, const NodeParameters& p, float inverseSoftness,
                       float halfSize, float halfSizeSquared) {
  const bool blades = p.kernelType == KernelApertureBlades;
  const std::size_t stride = static_cast<std::size_t>(part.w());
  for (int y = part.y(); y < part.t(); ++y) {
    const float py = static_cast<float>(y) + 0.5f;
    float* out = plane + static_cast<std::size_t>(y - part.y()) * stride;
    for (int x = part.x(); x < part.r(); ++x) {
      const float px = static_cast<float>(x) + 0.5f;
      const float disc = discValue(px, py, halfSize, halfSizeSquared, p.kAspectRatio);
      const float shape = blades ? apertureBladesShape(px, py, size, size, halfSizeSquared, p.kAspectRatio,
                                                       p.kNumSides, p.kCurvature, p.kRotation)
                                 : disc;
      const float soft = std::min(1.0f, shape * inverseSoftness);
      // The aberration always follows the round pupil, even when the blades shape the edge.
      float aberration = 0.0f;
      if (p.kSphAbb > 0.0f)
        aberration = disc * p.kSphAbb;
      else if (p.kSphAbb < 0.0f)
        aberration = (1.0f - disc) * fabsf(p.kSphAbb);
      const float value = soft - aberration;
      out[x - part.x()] = std::max(0.0f, std::min(1.0f, value));
    }
  }
}

// One channel of the kernel image's bounding box, row-major from its bottom row. Fetching the
// box once row by row gives the same values as a per-pixel fetch at each of the 16 taps of every
// kernel value, at a fraction of the host calls.
std::vector<float> readImagePlane(DD::Image::Iop& image, Channel fetch, int inX, int inY, int inW, int inH) {
  std::vector<float> pixels(static_cast<std::size_t>(inW) * static_cast<std::size_t>(inH));
  const ChannelSet only(fetch);
  for (int r = 0; r < inH; ++r) {
    DD::Image::Row row(inX, inX + inW);
    row.get(image, inY + r, inX, inX + inW, only);
    const float* values = row[fetch];
    std::copy(values + inX, values + inX + inW, pixels.begin() + static_cast<std::ptrdiff_t>(r) * inW);
  }
  return pixels;
}

// Samples the kernel image over the whole square. The image's pixel i lies at coordinate i, the
// kernel's sample centres at x + 0.5: at scale 1 each value falls halfway between two pixels.
void sampleImagePlane(float* plane, const Box& part, const std::vector<float>& pixels, int inW, int inH,
                      float scaleX, float scaleY) {
  const std::size_t stride = static_cast<std::size_t>(part.w());
  for (int y = part.y(); y < part.t(); ++y) {
    const float fy = (static_cast<float>(y) + 0.5f) * scaleY;
    const int iy = static_cast<int>(fy);
    const float ty = fy - static_cast<float>(iy);
    const float* rows[4];
    for (int k = 0; k < 4; ++k)
      rows[k] = pixels.data() + static_cast<std::size_t>(std::min(inH - 1, std::max(iy - 1 + k, 0))) *
                                    static_cast<std::size_t>(inW);
    float* out = plane + static_cast<std::size_t>(y - part.y()) * stride;
    for (int x = part.x(); x < part.r(); ++x) {
      const float fx = (static_cast<float>(x) + 0.5f) * scaleX;
      const int ix = static_cast<int>(fx);
      const float tx = fx - static_cast<float>(ix);
      float columns[4];
      for (int k = 0; k < 4; ++k) {
        const int c = std::min(inW - 1, std::max(ix - 1 + k, 0));
        columns[k] = catmullRom(rows[0][c], rows[1][c], rows[2][c], rows[3][c], ty);
      }
      out[x - part.x()] = catmullRom(columns[0], columns[1], columns[2], columns[3], tx);
    }
  }
}

}  // namespace

float apertureBladesShape(float x, float y, int width, int height, float halfSizeSquared,
                          float aspectRatio, int numSides, float curvature, float rotation) {
  float bx = x - static_cast<float>(width) * 0.5f;
  float by = y - static_cast<float>(height) * 0.5f;
  if (aspectRatio > 1.0f)
    bx = bx * aspectRatio;
  else if (aspectRatio < 1.0f)
    by = by * (1.0f / aspectRatio);
  const float squared = (by * by + bx * bx) / halfSizeSquared;

  const float sector = 1.0f / static_cast<float>(numSides);
  float angle = atan2f(by, bx);
  if (angle < 0.0f)
    angle = angle + kTwoPi;
  const float turn = (rotation * kTwoPi + angle) / kTwoPi;
  const float phase = fmodf(turn, sector) / sector;
  // Zero at the blade corners, largest mid-blade: pulls the rim in between the corners.
  const float bulge = sinf(phase * kPi) * (1.0f - curvature) * sector;
  return 1.0f - std::min(1.0f, squared + bulge);
}

Kernel buildMasterKernel(const NodeParameters& p, const DD::Image::Box& formatBox, DD::Image::Iop* kernelImage,
                         bool filterShapeOutput) {
  const Box everything(INT_MIN / 2, INT_MIN / 2, INT_MAX / 2, INT_MAX / 2);
  return buildMasterKernelPart(p, formatBox, kernelImage, filterShapeOutput, everything).kernel;
}

MasterKernelPart buildMasterKernelPart(const NodeParameters& p, const DD::Image::Box& formatBox,
                                       DD::Image::Iop* kernelImage, bool filterShapeOutput, const Box& wanted) {
  MasterKernelPart result;
  Kernel& master = result.kernel;

  int base = kernelSizeLimit(p.max_kernelsize, p.uiScale);
  if (filterShapeOutput)
    base = std::min(formatBox.r() - formatBox.x(), formatBox.t() - formatBox.y());

  const bool fromImage = p.kernelType == KernelInput;
  if (fromImage && !kernelImage) {
    // Validation has already reported the missing input; an empty kernel spreads nothing.
    master.allocate(p.vorelChannels, 0, 0);
    return result;
  }

  int size = base;
  int inX = 0, inY = 0, inW = 0, inH = 0;
  float scaleX = 0.0f, scaleY = 0.0f;
  if (fromImage) {
    const DD::Image::Box& box = kernelImage->info().box();
    inX = box.x();
    inY = box.y();
    inW = box.r() - box.x();
    inH = box.t() - box.y();
    size = std::min(base, std::min(inW, inH));
    if (size > 0) {
      scaleX = static_cast<float>(inW) / static_cast<float>(size);
      scaleY = static_cast<float>(inH) / static_cast<float>(size);
    }
  }
  size = std::max(0, size);

  // The values depend on the whole kernel's size, never on which of them are held.
  Box& part = result.window;
  part = commonArea(Box(0, 0, size, size), wanted);
  if (isEmptyArea(part))
    part = Box(0, 0, 0, 0);
  master.allocate(p.vorelChannels, part.w(), part.h());
  if (master.empty())
    return result;

  const float inverseSoftness = 1.0f / std::max(0.001f, p.kSoftness);
  const float halfSize = static_cast<float>(size) * 0.5f;
  const float halfSizeSquared = halfSize * halfSize;

  const ChannelSet imageChannels = fromImage ? ChannelSet(kernelImage->info().channels()) : ChannelSet();
  std::vector<float> pixels;  // the kernel image's box in the channel last fetched
  Channel pixelsChannel = DD::Image::Chan_Black;
  const float* formulaPlane = nullptr;  // the formula shapes are alike in every channel
  foreach (z, p.vorelChannels) {
    float* plane = master.planes[z].data();
    if (!fromImage) {
      if (formulaPlane)
        std::copy(formulaPlane, formulaPlane + master.count, plane);
      else
        buildFormulaPlane(plane, part, size, p, inverseSoftness, halfSize, halfSizeSquared);
      formulaPlane = plane;
      continue;
    }
    Channel fetch = z;
    if (p.missingKernelChannel != DD::Image::Chan_Black && !imageChannels.contains(z))
      fetch = p.missingKernelChannel;
    if (fetch != pixelsChannel) {
      pixels = readImagePlane(*kernelImage, fetch, inX, inY, inW, inH);
      pixelsChannel = fetch;
    }
    sampleImagePlane(plane, part, pixels, inW, inH, scaleX, scaleY);
  }
  return result;
}

}  // namespace vorel
