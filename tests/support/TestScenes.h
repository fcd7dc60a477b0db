#pragma once
// Building nodes and scenes through the host, the way a compositor would, for the tests.

#include <functional>
#include <memory>
#include <vector>

#include "DDImage/Host.h"
#include "node/tzVorel.h"

namespace vorel {
namespace test {

using DD::Image::Box;
using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Format;

// A flat image whose format is its box, filled by f(x, y, channel).
std::unique_ptr<DD::Image::host::FlatImage> flatImage(int width, int height, const ChannelSet& channels,
                                                      const std::function<float(int, int, Channel)>& f);

// RGBA plus depth.Z.
ChannelSet rgbaz();

// A tzVorel built by class name through the host, knobs made.
std::unique_ptr<tzVorel> makeNode();

// A user edit of a numeric, boolean or enumeration knob (fails the test on an unknown knob).
void setKnob(tzVorel& node, const char* name, double value, int channel = -1);
void setChannelKnob(tzVorel& node, const char* name, Channel z);
void setChannelsKnob(tzVorel& node, const char* name, const ChannelSet& channels);

// A rendered area: one plane per channel, row-major from the area's bottom row.
struct Image {
  Box area;
  ChannelSet channels;
  std::vector<std::vector<float>> planes;  // indexed by channel number
  float at(int x, int y, Channel z) const;
  bool operator==(const Image& other) const;
};

// Zeros over the area for the channels.
Image emptyImage(const Box& area, const ChannelSet& channels);
// Runs the host's protocol (validate for real, request, open) over `area`, then engine for every
// row of it, on `threads` threads taking rows in turn.
Image render(tzVorel& node, const Box& area, const ChannelSet& channels, unsigned threads = 1);
// The same over the node's own box after validation.
Image render(tzVorel& node, const ChannelSet& channels, unsigned threads = 1);

}  // namespace test
}  // namespace vorel
