#pragma once
// Declares that rows of an op will be read. This host keeps nothing in cache, so it only marks
// the scope.

#include "DDImage/ChannelSet.h"

namespace DD {
namespace Image {

class Iop;
class InterestRatchet;

class Interest {
public:
  Interest(Iop& iop, ChannelMask channels, bool multithreaded = false, InterestRatchet* ratchet = nullptr)
      : iop_(&iop) {
    (void)channels;
    (void)multithreaded;
    (void)ratchet;
  }
  Interest(const Interest&) = delete;
  Interest& operator=(const Interest&) = delete;
  void unlock() {}
  Iop* iop() const { return iop_; }

private:
  Iop* iop_;
};

}  // namespace Image
}  // namespace DD
