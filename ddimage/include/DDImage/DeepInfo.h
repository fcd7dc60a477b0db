#pragma once
// What a deep op tells its outputs after validation.

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Format.h"

namespace DD {
namespace Image {

class DeepInfo {
public:
  DeepInfo() = default;
  DeepInfo(const Format& format, const Box& box, const ChannelSet& channels)
      : format_(format), fullSizeFormat_(format), box_(box), channels_(channels) {}

  const Format* format() const { return &format_; }
  const Format* fullSizeFormat() const { return &fullSizeFormat_; }
  const Box& box() const { return box_; }
  ChannelSet channels() const { return channels_; }

private:
  Format format_;
  Format fullSizeFormat_;
  Box box_;
  ChannelSet channels_;
};

}  // namespace Image
}  // namespace DD
