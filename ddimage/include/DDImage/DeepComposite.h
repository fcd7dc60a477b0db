#pragma once

#include "DDImage/ChannelMap.h"
#include "DDImage/DeepPixel.h"

namespace DD {
namespace Image {

class DeepOutPixel;  // DDImage/DeepPlane.h

// Merges overlapping samples. Walking the samples nearest first, a sample whose front lies
// strictly before the running back of the current group joins it; a group becomes one sample
// (least front, greatest back, the other channels composited nearer over farther). out is
// cleared and then lists the groups nearest first, channels in the map's order.
void CombineOverlappingSamples(const ChannelMap& channels, const DeepPixel& pixel, DeepOutPixel& out);

}  // namespace Image
}  // namespace DD
