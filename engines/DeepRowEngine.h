#pragma once
#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"

class tzVorel;

namespace vorel {
// One output row of the defocused deep input. `side`: 0 all pieces, 1 front only, 2 back only.
void deepRowEngine(const tzVorel& node, int y, int x, int r, const DD::Image::ChannelSet& channels,
                   DD::Image::Row& row, int side);
}  // namespace vorel
