#pragma once
// Host side only: the one place that reaches into ops' private records.

#include <mutex>
#include <string>
#include <vector>

#include "DDImage/DeepOp.h"
#include "DDImage/Iop.h"
#include "DDImage/Knob.h"
#include "DDImage/Op.h"

namespace DD {
namespace Image {

// Whether this thread is inside an _open, or is a worker that an _open spawned and waits for:
// such a thread can never take the host's lock, which its own spawner holds.
bool insideOpen();
void markOpenWorker(bool fromOpen);

// The host's back door into ops: knob lists, reports and request records.
// The real Box has no test for emptiness; the host's bookkeeping needs one.
inline bool emptyBox(const Box& b) { return b.r() <= b.x() || b.t() <= b.y(); }

struct host::Access {
  static std::vector<Knob*>& knobs(Op& op) { return op.knobs_; }
  static void setGraphInput(Op& op, int i, Op* graphOp) {
    if (i >= static_cast<int>(op.graphInputs_.size()))
      op.graphInputs_.resize(static_cast<std::size_t>(i) + 1, nullptr);
    op.graphInputs_[static_cast<std::size_t>(i)] = graphOp;
  }
  static void noteRequest(Op& op, const Box& area) {
    if (emptyBox(area))
      return;
    if (op.requestedAny_)
      op.requestedArea_.merge(area);
    else
      op.requestedArea_ = area;
    op.requestedAny_ = true;
  }
  // The area rows can be read from: the op's box, within what was asked of it. An op nobody
  // asked anything of (driven directly, outside the protocol) reads its whole box.
  static Box readableArea(const Iop& op) {
    const Box& box = op.info().box();
    if (!op.requestedAny_ || emptyBox(box))
      return box;
    Box area = box;
    area.intersect(op.requestedArea_);
    return emptyBox(area) ? box : area;
  }
  static Box requestedArea(const Op& op) { return op.requestedAny_ ? op.requestedArea_ : Box(); }
  static bool anyRequested(const Op& op) { return op.requestedAny_; }
  static void noteInterest(Op& op) { ++op.interests_; }
  // Counts a read of pixels inside box that lie outside what was asked of op; the real host
  // would have given the nearest requested pixels instead.
  static void noteRead(Op& op, const Box& box, Box read) {
    if (!op.requestedAny_)
      return;
    read.intersect(box);
    if (emptyBox(read))
      return;
    Box inside = read;
    inside.intersect(op.requestedArea_);
    if (inside != read)
      ++op.unrequestedReads_;
  }
  static int unrequestedReads(const Op& op) { return op.unrequestedReads_.load(); }
  static int interests(const Op& op) { return op.interests_.load(); }
  static std::vector<const Knob*>& quietKnobs(Op& op) { return op.quietKnobs_; }
  static void setInput(Op& op, int i, Op* source) {
    if (i >= op.inputs())
      op.inputs_.resize(static_cast<std::size_t>(i) + 1, nullptr);
    op.inputs_[static_cast<std::size_t>(i)] = source;
  }
  static const std::vector<Knob*>& knobs(const Op& op) { return op.knobs_; }
  static std::mutex& reportMutex(const Op& op) { return op.reportMutex_; }
  static bool hasError(const Op& op) { return op.hasError_; }
  static const std::string& error(const Op& op) { return op.error_; }
  static const std::vector<std::string>& warnings(const Op& op) { return op.warnings_; }
  static void clearReports(Op& op) {
    op.hasError_ = false;
    op.error_.clear();
    op.warnings_.clear();
  }
  static void setAborted(Op& op, bool a) { op.aborted_.store(a); }
  static std::vector<Request>& requests(Iop& op) { return op.requests_; }
  static const std::vector<Request>& requests(const Iop& op) { return op.requests_; }
  static std::vector<Request>& deepRequests(DeepOp& op) { return op.deepRequests_; }
  static const std::vector<Request>& deepRequests(const DeepOp& op) { return op.deepRequests_; }
};

}  // namespace Image
}  // namespace DD
