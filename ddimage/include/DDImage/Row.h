#pragma once
// One line of pixels over columns [x, r), one float buffer per channel, addressed by absolute
// column: row[z][x] is column x. Buffers are made on first use; a channel never made reads 0.

#include <cstddef>

#include "DDImage/ChannelSet.h"

namespace DD {
namespace Image {

class Iop;

class Row {
public:
  Row(int x, int r);
  ~Row();
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;

  int getLeft() const { return x_; }
  int getRight() const { return r_; }

  // Fills [x, r) (clipped to the row) from the op's line y, through Iop::get.
  void get(Iop& iop, int y, int x, int r, ChannelMask channels);
  // Copies [x, r) of the channels from another row (clipped to both rows).
  void copy(const Row& source, ChannelMask channels, int x, int r);
  // The channel's buffer for writing, made on first use and not cleared (whatever a new buffer
  // holds is not to be relied on). Address it by absolute column.
  float* writable(Channel z);
  // The channels read 0 afterwards.
  void erase(ChannelMask channels);
  void erase(Channel z);
  // The channel's values by absolute column; a zero buffer when never written.
  const float* operator[](Channel z) const;

private:
  struct Slot {
    int channel;
    float* buffer;  // w floats, [0] is column x_
  };
  static constexpr int kInlineSlots = 12;

  Slot* find(int z) const;
  Slot* add(int z);

  int x_, r_;
  int used_ = 0;
  int capacity_ = kInlineSlots;
  Slot inline_[kInlineSlots];
  Slot* slots_;               // inline_, or a heap array once more channels are used
  mutable float* zeros_ = nullptr;  // only for rows wider than the shared zero buffer
};

}  // namespace Image
}  // namespace DD
