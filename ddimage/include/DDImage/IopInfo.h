#pragma once
// What an Iop tells its outputs after validation: bounding box, format and channels.

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Format.h"

namespace DD {
namespace Image {

class Info2D : public Box {
public:
  const Box& box() const { return *this; }
  Box& box() { return *this; }
  const Format& format() const { return format_; }
  const Format& full_size_format() const { return fullSizeFormat_; }
  void format(const Format& f) { format_ = f; }
  void full_size_format(const Format& f) { fullSizeFormat_ = f; }
  // Moves the four edges as Box::pad does, but a box at or inside the format's area
  // (0, 0, width, height) is kept within it: filters do not spill past the format.
  void clipmove(int dx, int dy, int dr, int dt) {
    const Box area(0, 0, format_.width(), format_.height());
    const bool within = x() >= area.x() && y() >= area.y() && r() <= area.r() && t() <= area.t();
    pad(dx, dy, dr, dt);
    if (within)
      intersect(area);
  }

private:
  Format format_;
  Format fullSizeFormat_;
};

class IopInfo : public Info2D {
public:
  const ChannelSet& channels() const { return channels_; }
  void channels(const ChannelSet& c) { channels_ = c; }
  void turn_on(const ChannelSet& c) { channels_ += c; }
  void turn_off(const ChannelSet& c) { channels_ -= c; }

private:
  ChannelSet channels_;
};

}  // namespace Image
}  // namespace DD
