#pragma once
#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"

namespace vorel {

struct Frame;

// One output row of "Defocused Image" / "Lens Bloom" from the flat input and its depth.
void flatRowEngine(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                   DD::Image::Row& out);
// Whether "Focus Region Output" lets a pixel on this side of the focal plane be spread.
bool flatFocusGatePasses(int focusOutput, DepthSide side);
}  // namespace vorel
