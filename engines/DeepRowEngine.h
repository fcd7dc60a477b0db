#pragma once
#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"

namespace vorel {

struct Frame;

// One output row of the defocused deep input. `side`: 0 all pieces, 1 front only, 2 back only.
void deepRowEngine(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                   DD::Image::Row& row, int side);
}  // namespace vorel
