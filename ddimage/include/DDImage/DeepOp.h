#pragma once
// Deep images. DeepOp is an interface (not an Op): the op behind it is op().

#include <mutex>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/DeepInfo.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/HostRecords.h"
#include "DDImage/Op.h"

namespace DD {
namespace Image {

class DeepOp {
public:
  virtual ~DeepOp();
  virtual Op* op() = 0;
  const DeepInfo& deepInfo() const { return _deepInfo; }
  void validate(bool for_real) { op()->validate(for_real); }
  // Asks for an area and channels ahead of deepEngine calls.
  void deepRequest(Box box, const ChannelSet& channels, int count = 1);
  // Fills plane with samples of at least the area and channels asked for: the plane may be
  // larger, hold more channels, or be empty. False means the render was aborted.
  bool deepEngine(Box box, const ChannelSet& channels, DeepPlane& plane);

protected:
  DeepOp() = default;
  virtual void getDeepRequests(Box box, const ChannelSet& channels, int count);
  virtual bool doDeepEngine(Box box, const ChannelSet& channels, DeepPlane& plane) = 0;

  DeepInfo _deepInfo;

private:
  friend struct host::Access;
  std::vector<host::Request> deepRequests_;
};

class DeepOnlyOp : public Op, public DeepOp {
public:
  Op* op() override { return this; }
  using Op::validate;

protected:
  explicit DeepOnlyOp(Node* node) : Op(node) {}
};

}  // namespace Image
}  // namespace DD
