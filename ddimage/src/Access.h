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

// The host's back door into ops: knob lists, reports and request records.
struct host::Access {
  static std::vector<Knob*>& knobs(Op& op) { return op.knobs_; }
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
