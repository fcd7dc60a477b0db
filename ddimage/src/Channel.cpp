#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "DDImage/Channel.h"
#include "DDImage/ChannelMap.h"
#include "DDImage/ChannelSet.h"

namespace DD {
namespace Image {

namespace {

class Registry {
public:
  Registry() {
    add(Chan_Red, "rgba.red", "R");
    add(Chan_Green, "rgba.green", "G");
    add(Chan_Blue, "rgba.blue", "B");
    add(Chan_Alpha, "rgba.alpha", "A");
    add(Chan_Z, "depth.Z", "Z");
    add(Chan_DeepFront, "deep.front", nullptr);
    add(Chan_DeepBack, "deep.back", nullptr);
  }

  Channel find(const char* name, bool create) {
    if (!name || !*name)
      return Chan_Black;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = byName_.find(name);
    if (it != byName_.end())
      return it->second;
    if (!create)
      return Chan_Black;
    while (next_ < ChannelSet::kChannels && !names_[next_].empty())
      ++next_;
    if (next_ >= ChannelSet::kChannels)
      return Chan_Black;
    const Channel z = static_cast<Channel>(next_);
    add(z, name, nullptr);
    return z;
  }

  const char* name(Channel z) {
    const unsigned u = static_cast<unsigned>(z);
    if (u == 0)
      return "none";
    std::lock_guard<std::mutex> lock(mutex_);
    if (u >= ChannelSet::kChannels || names_[u].empty())
      return "unnamed";
    return names_[u].c_str();
  }

private:
  void add(Channel z, const char* name, const char* alias) {
    names_[z] = name;
    byName_[name] = z;
    if (alias)
      byName_[alias] = z;
  }

  std::mutex mutex_;
  // A name never changes once given, so the pointers getName hands out stay valid.
  std::string names_[ChannelSet::kChannels];
  std::unordered_map<std::string, Channel> byName_;
  unsigned next_ = Chan_Z + 1;
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

Channel getChannel(const char* name) { return registry().find(name, true); }
Channel findChannel(const char* name) { return registry().find(name, false); }
const char* getName(Channel z) { return registry().name(z); }

// ---- ChannelSet -----------------------------------------------------------------------------

void ChannelSet::clear() {
  for (auto& w : bits_)
    w = 0;
}

ChannelSet& ChannelSet::operator+=(const ChannelSet& s) {
  for (unsigned i = 0; i < kWords; ++i)
    bits_[i] |= s.bits_[i];
  return *this;
}

ChannelSet& ChannelSet::operator+=(ChannelSetInit mask) {
  if (mask == Mask_All) {
    for (auto& w : bits_)
      w = ~std::uint64_t(0);
    bits_[0] &= ~std::uint64_t(1);  // Chan_Black is never a member
    return *this;
  }
  // Channel k + 1 for bit k: the low 31 channels sit one bit up in word 0.
  bits_[0] |= static_cast<std::uint64_t>(static_cast<unsigned>(mask)) << 1;
  return *this;
}

ChannelSet& ChannelSet::operator+=(Channel z) {
  const unsigned u = static_cast<unsigned>(z);
  if (u != 0 && u < kChannels)
    bits_[u >> 6] |= std::uint64_t(1) << (u & 63);
  return *this;
}

ChannelSet& ChannelSet::operator-=(const ChannelSet& s) {
  for (unsigned i = 0; i < kWords; ++i)
    bits_[i] &= ~s.bits_[i];
  return *this;
}

ChannelSet& ChannelSet::operator-=(ChannelSetInit mask) { return *this -= ChannelSet(mask); }

ChannelSet& ChannelSet::operator-=(Channel z) {
  const unsigned u = static_cast<unsigned>(z);
  if (u < kChannels)
    bits_[u >> 6] &= ~(std::uint64_t(1) << (u & 63));
  return *this;
}

ChannelSet& ChannelSet::operator&=(const ChannelSet& s) {
  for (unsigned i = 0; i < kWords; ++i)
    bits_[i] &= s.bits_[i];
  return *this;
}

ChannelSet& ChannelSet::operator&=(ChannelSetInit mask) { return *this &= ChannelSet(mask); }
ChannelSet& ChannelSet::operator&=(Channel z) { return *this &= ChannelSet(z); }

bool ChannelSet::contains(const ChannelSet& s) const {
  for (unsigned i = 0; i < kWords; ++i)
    if ((s.bits_[i] & ~bits_[i]) != 0)
      return false;
  return true;
}

bool ChannelSet::intersects(const ChannelSet& s) const {
  for (unsigned i = 0; i < kWords; ++i)
    if ((s.bits_[i] & bits_[i]) != 0)
      return true;
  return false;
}

unsigned ChannelSet::size() const {
  unsigned n = 0;
  for (auto w : bits_)
    n += static_cast<unsigned>(__builtin_popcountll(w));
  return n;
}

bool ChannelSet::empty() const {
  for (auto w : bits_)
    if (w)
      return false;
  return true;
}

Channel ChannelSet::last() const {
  for (unsigned i = kWords; i-- > 0;)
    if (bits_[i])
      return static_cast<Channel>(i * 64 + 63 - static_cast<unsigned>(__builtin_clzll(bits_[i])));
  return Chan_Black;
}

bool ChannelSet::operator==(const ChannelSet& s) const {
  for (unsigned i = 0; i < kWords; ++i)
    if (bits_[i] != s.bits_[i])
      return false;
  return true;
}

// ---- ChannelMap -----------------------------------------------------------------------------

ChannelMap::ChannelMap(const ChannelSet& channels) : set_(channels) {
  direct_.fill(-1);
  list_.reserve(channels.size());
  foreach (z, channels) {
    if (static_cast<unsigned>(z) < kDirect)
      direct_[static_cast<unsigned>(z)] = static_cast<signed char>(list_.size());
    list_.push_back(z);
  }
}

}  // namespace Image
}  // namespace DD
