#include <algorithm>
#include <mutex>

#include "Access.h"
#include "DDImage/Host.h"
#include "DDImage/Interest.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"

namespace DD {
namespace Image {

namespace {

std::mutex gDefaultFormatMutex;
Format gDefaultFormat(2048, 1556);

// What an open input 0 reads: zeros in rgba over the default format.
class Black : public Iop {
public:
  Black() : Iop(nullptr) { inputs(0); }
  const char* Class() const override { return "Black"; }
  const char* node_help() const override { return "the host's black image"; }
  void engine(int, int x, int r, ChannelMask channels, Row& row) override {
    foreach (z, channels) {
      float* p = row.writable(z);
      std::fill(p + x, p + r, 0.0f);
    }
  }

protected:
  void _validate(bool) override {
    const Format f = host::defaultFormat();
    info_.format(f);
    info_.full_size_format(f);
    info_.set(f.x(), f.y(), f.r(), f.t());
    info_.channels(Mask_RGBA);
  }
};

Black& black() {
  static Black b;
  return b;
}

void zeroSpan(Row& row, const ChannelSet& channels, int x, int r) {
  foreach (z, channels) {
    float* p = row.writable(z);
    std::fill(p + x, p + r, 0.0f);
  }
}

}  // namespace

void host::setDefaultFormat(const Format& format) {
  {
    std::lock_guard<std::mutex> lock(gDefaultFormatMutex);
    gDefaultFormat = format;
  }
  black().invalidate();
}

Format host::defaultFormat() {
  std::lock_guard<std::mutex> lock(gDefaultFormatMutex);
  return gDefaultFormat;
}

Iop::Iop(Node* node) : Op(node) { inputs(1); }
Iop::~Iop() = default;

void Iop::request(int x, int y, int r, int t, ChannelMask channels, int count) {
  validate(true);
  requests_.push_back(host::Request{Box(x, y, r, t), channels, count});
  host::Access::noteRequest(*this, Box(x, y, r, t));
  _request(x, y, r, t, channels, count);
}

void Iop::_request(int x, int y, int r, int t, ChannelMask channels, int count) {
  if (Iop* in = input(0))
    in->request(x, y, r, t, channels, count);
}

void Iop::_validate(bool) { copy_info(); }

Iop* Iop::input(int n) const { return dynamic_cast<Iop*>(Op::input(n)); }

bool Iop::test_input(int, Op* op) const { return dynamic_cast<Iop*>(op) != nullptr; }

Op* Iop::default_input(int n) const { return n == 0 ? &black() : nullptr; }

void Iop::copy_info() { copy_info(0); }

void Iop::copy_info(int n) {
  Iop* in = input(n);
  if (!in || in == this)
    return;
  in->validate(false);
  info_ = in->info();
}

void Iop::get(int y, int x, int r, ChannelMask channels, Row& row) {
  x = std::max(x, row.getLeft());
  r = std::min(r, row.getRight());
  if (r <= x)
    return;
  if (!opened())
    open();
  ChannelSet have = channels;
  have &= info_.channels();
  ChannelSet missing = channels;
  missing -= have;
  // Only what was asked for is there to read: the rest repeats the edge of that area.
  host::Access::noteRead(*this, info_.box(), Box(x, y, r, y + 1));
  const Box b = host::Access::readableArea(*this);
  if (emptyBox(b)) {
    zeroSpan(row, channels, x, r);
    return;
  }
  if (!have.empty()) {
    const int yy = b.clampy(y);
    const int ix = std::max(x, b.x());
    const int ir = std::min(r, b.r());
    if (ix < ir) {
      engine(yy, ix, ir, have, row);
      foreach (z, have) {
        float* p = row.writable(z);
        if (x < ix)
          std::fill(p + x, p + ix, p[ix]);
        if (ir < r)
          std::fill(p + ir, p + r, p[ir - 1]);
      }
    } else {
      // The whole span lies beside the box: every column repeats the nearest edge column.
      const int col = r <= b.x() ? b.x() : b.r() - 1;
      Row edge(col, col + 1);
      engine(yy, col, col + 1, have, edge);
      foreach (z, have) {
        const float v = edge[z][col];
        float* p = row.writable(z);
        std::fill(p + x, p + r, v);
      }
    }
  }
  zeroSpan(row, missing, x, r);
}

Interest::Interest(Iop& iop, ChannelMask, bool, InterestRatchet*) : iop_(&iop) {
  host::Access::noteInterest(iop);
}

float Iop::at(int x, int y, Channel z) {
  Row row(x, x + 1);
  get(y, x, x + 1, ChannelSet(z), row);
  return row[z][x];
}

}  // namespace Image
}  // namespace DD
