#pragma once
// Channels numbered 0..size()-1 in ascending channel order: the layout of one deep sample.

#include <array>
#include <vector>

#include "DDImage/ChannelSet.h"

namespace DD {
namespace Image {

class ChannelMap {
public:
  ChannelMap() { direct_.fill(-1); }
  ChannelMap(const ChannelSet& channels);  // NOLINT: implicit as in the SDK

  bool contains(Channel z) const { return set_.contains(z); }
  unsigned size() const { return static_cast<unsigned>(list_.size()); }
  // The slot of z within a sample, or -1 when z is not mapped.
  int chanNo(Channel z) const {
    const unsigned u = static_cast<unsigned>(z);
    if (u < kDirect)
      return direct_[u];
    if (!set_.contains(z))
      return -1;
    for (unsigned i = 0; i < list_.size(); ++i)
      if (list_[i] == z)
        return static_cast<int>(i);
    return -1;
  }
  Channel operator[](unsigned index) const { return index < list_.size() ? list_[index] : Chan_Black; }
  operator const ChannelSet&() const { return set_; }  // NOLINT: implicit as in the SDK
  std::vector<Channel>::const_iterator begin() const { return list_.begin(); }
  std::vector<Channel>::const_iterator end() const { return list_.end(); }

  bool operator==(const ChannelMap& m) const { return set_ == m.set_; }

private:
  // Slots of the low channels (colours, depth, deep front and back) looked up directly: samples
  // are read a channel at a time.
  static constexpr unsigned kDirect = 64;
  ChannelSet set_;
  std::vector<Channel> list_;
  std::array<signed char, kDirect> direct_;
};

}  // namespace Image
}  // namespace DD
