#pragma once
// A set of channel numbers 1..1023 (Chan_Black is never a member), walked in ascending order.

#include <cstdint>

#include "DDImage/Channel.h"

namespace DD {
namespace Image {

// Bit k stands for channel k + 1.
enum ChannelSetInit : unsigned {
  Mask_None = 0,
  Mask_Red = 1u << 0,
  Mask_Green = 1u << 1,
  Mask_Blue = 1u << 2,
  Mask_Alpha = 1u << 3,
  Mask_RGB = Mask_Red | Mask_Green | Mask_Blue,
  Mask_RGBA = Mask_RGB | Mask_Alpha,
  Mask_Z = 1u << 4,
  Mask_DeepFront = 1u << 15,
  Mask_DeepBack = 1u << 16,
  Mask_Deep = Mask_DeepFront | Mask_DeepBack,
  Mask_All = 0xFFFFFFFFu  // every channel
};

inline constexpr ChannelSetInit operator|(ChannelSetInit a, ChannelSetInit b) {
  return static_cast<ChannelSetInit>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}

class ChannelSet {
public:
  ChannelSet() { clear(); }
  ChannelSet(ChannelSetInit mask) { clear(); *this += mask; }  // NOLINT: implicit as in the SDK
  ChannelSet(Channel z) { clear(); *this += z; }                // NOLINT
  ChannelSet(const ChannelSet&) = default;
  ChannelSet& operator=(const ChannelSet&) = default;

  ChannelSet& operator+=(const ChannelSet& s);
  ChannelSet& operator+=(ChannelSetInit mask);
  ChannelSet& operator+=(Channel z);
  ChannelSet& operator-=(const ChannelSet& s);
  ChannelSet& operator-=(ChannelSetInit mask);
  ChannelSet& operator-=(Channel z);
  ChannelSet& operator&=(const ChannelSet& s);
  ChannelSet& operator&=(ChannelSetInit mask);
  ChannelSet& operator&=(Channel z);

  void insert(Channel z) { *this += z; }
  void erase(Channel z) { *this -= z; }
  void clear();

  bool contains(Channel z) const {
    const unsigned u = static_cast<unsigned>(z);
    return u != 0 && u < kChannels && ((bits_[u >> 6] >> (u & 63)) & 1u) != 0;
  }
  // True when every member of s is a member of this set.
  bool contains(const ChannelSet& s) const;
  bool contains(ChannelSetInit mask) const { return contains(ChannelSet(mask)); }
  // True when the sets share a member.
  bool intersects(const ChannelSet& s) const;

  unsigned size() const;
  bool empty() const;
  // The lowest member, or Chan_Black for an empty set.
  Channel first() const { return next(Chan_Black); }
  // The lowest member above z, or Chan_Black when there is none. Inline: every foreach calls it
  // once a channel, in pixel loops too.
  Channel next(Channel z) const {
    unsigned u = static_cast<int>(z) < 0 ? 1u : static_cast<unsigned>(z) + 1;
    while (u < kChannels) {
      const std::uint64_t w = bits_[u >> 6] >> (u & 63);
      if (w)
        return static_cast<Channel>(u + static_cast<unsigned>(__builtin_ctzll(w)));
      u = (u | 63) + 1;
    }
    return Chan_Black;
  }
  // The highest member, or Chan_Black.
  Channel last() const;

  bool operator==(const ChannelSet& s) const;
  bool operator!=(const ChannelSet& s) const { return !(*this == s); }

  static constexpr unsigned kChannels = 1024;

private:
  static constexpr unsigned kWords = kChannels / 64;
  std::uint64_t bits_[kWords];
};

inline ChannelSet operator+(ChannelSet a, const ChannelSet& b) { return a += b; }
inline ChannelSet operator-(ChannelSet a, const ChannelSet& b) { return a -= b; }
inline ChannelSet operator&(ChannelSet a, const ChannelSet& b) { return a &= b; }

typedef const ChannelSet& ChannelMask;

}  // namespace Image
}  // namespace DD

#define foreach(VAR, SET) \
  for (::DD::Image::Channel VAR = (SET).first(); VAR; VAR = (SET).next(VAR))
