#pragma once
#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"

namespace vorel {

struct Frame;


// "Focal Distance Visualization" and "Focus Matte" of a flat input.
void flatPreviewRow(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                    DD::Image::Row& out);

// The same two previews of a deep input.
void deepPreviewRow(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                    DD::Image::Row& row);

// One preview value for channels 1, 2, 3.
void previewPixel(const NodeParameters& p, int maxCoC, float coc, DepthSide side,
                  DD::Image::Channel channel, float& result);

// The master kernel, unscaled, in the output's lower-left corner.
void filterShapeRow(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                    DD::Image::Row& row);

}  // namespace vorel
