#pragma once
// Checks around a render that tell the user why a result would be unchanged or black, in the
// node's own terms (knobs, channels, depths), before or instead of writing it.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "DDImage/Host.h"
#include "DDImage/Op.h"
#include "app/ImageFiles.h"

namespace vorelapp {

// Refuses (UsageError) a render whose channels to blur (vorelChannels) are none of input 0's,
// listing the channels it has.
void checkChannelsToBlur(const DD::Image::Op& node, const DD::Image::ChannelSet& available,
                         const std::string& input0Name, const std::string& listing);

// The finite depths of an image's channel, least and greatest; `found` false when there are none.
struct DepthRange {
  bool found = false;
  float least = 0.0f, greatest = 0.0f;
};
DepthRange depthRange(DD::Image::host::FlatImage* image, DD::Image::Channel depth);

// Warnings for an opened node whose render would blur nothing for a reason the user can fix:
// a real lens whose CoC stays below one pixel (depth in other units than worldScale says), a
// focal plane orders of magnitude outside the depth range.
void warnAboutFocus(const DD::Image::Op& node, const DepthRange& depths,
                    const std::function<void(const std::string&)>& warn);

// Refuses (RenderError) a defocused render whose blurred channels (vorelChannels but depth)
// came out 0 everywhere while the input's were not: the kernel held nothing at the sizes used.
// `channels` are the host channels of `out`'s planes.
void refuseBlackRender(const DD::Image::Op& node, const FlatImage& out,
                       const std::vector<DD::Image::Channel>& channels,
                       DD::Image::host::FlatImage* input0);

}  // namespace vorelapp
