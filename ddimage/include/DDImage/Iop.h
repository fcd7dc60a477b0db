#pragma once
// An op that produces a flat image, one row at a time.

#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Format.h"
#include "DDImage/IopInfo.h"
#include "DDImage/Op.h"

namespace DD {
namespace Image {

class Row;

class Iop : public Op {
public:
  typedef IopInfo Info;

  explicit Iop(Node* node);
  ~Iop() override;

  const Info& info() const { return info_; }
  int x() const { return info_.x(); }
  int y() const { return info_.y(); }
  int r() const { return info_.r(); }
  int t() const { return info_.t(); }
  int w() const { return info_.w(); }
  int h() const { return info_.h(); }
  const Format& format() const { return info_.format(); }
  const Format& full_size_format() const { return info_.full_size_format(); }
  ChannelMask channels() const { return info_.channels(); }

  // Asks for an area and channels ahead of engine calls. Validates first if needed.
  void request(int x, int y, int r, int t, ChannelMask channels, int count = 1);
  void request(const Box& box, ChannelMask channels, int count = 1) {
    request(box.x(), box.y(), box.r(), box.t(), channels, count);
  }

  Iop* input(int n) const;
  Iop* input0() const { return input(0); }
  Iop* input1() const { return input(1); }
  bool test_input(int n, Op* op) const override;
  // Input 0: the host's black image in the default format. Other inputs: none.
  Op* default_input(int n) const override;

  // Fills [x, r) of row y for the channels. Called from many threads at once after open().
  virtual void engine(int y, int x, int r, ChannelMask channels, Row& row) = 0;
  // engine's values inside the bounding box, the nearest box pixel outside it, 0 for channels
  // the op does not have and everywhere when the box is empty.
  virtual void get(int y, int x, int r, ChannelMask channels, Row& row);
  float at(int x, int y, Channel z);

  // Takes format, box and channels from input 0, validating it first if needed.
  void copy_info();
  void copy_info(int input);

protected:
  void _validate(bool for_real) override;
  // Default: passes the same request on to input 0.
  virtual void _request(int x, int y, int r, int t, ChannelMask channels, int count);

  Info info_;

private:
  friend struct host::Access;
  std::vector<host::Request> requests_;
};

}  // namespace Image
}  // namespace DD
