#pragma once
// Declares that the whole requested area of an op will be read: the real host fills and locks
// all of it in its cache, which makes it a tool for whole-image reads at open time and a
// bottleneck on the row path. This host keeps nothing in cache; it counts the interests taken.

#include "DDImage/ChannelSet.h"

namespace DD {
namespace Image {

class Iop;
class InterestRatchet;

class Interest {
public:
  Interest(Iop& iop, ChannelMask channels, bool multithreaded = false, InterestRatchet* ratchet = nullptr);
  Interest(const Interest&) = delete;
  Interest& operator=(const Interest&) = delete;
  void unlock() {}
  Iop* iop() const { return iop_; }

private:
  Iop* iop_;
};

}  // namespace Image
}  // namespace DD
