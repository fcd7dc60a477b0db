#pragma once
// A knob: a named control bound to one field of its op. The value lives in the field; the knob
// only knows where it is and how to write it.

#include <string>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "DDImage/ValueStuffI.h"

namespace DD {
namespace Image {

class Op;

// How a knob's field is stored.
enum StoreType {
  INVALID = 0,
  FloatPtr = 1,
  DoublePtr = 2,
  IntPtr = 3,
  UnsignedIntPtr = 4,
  BoolPtr = 5,
  ChannelSetPtr = 7,
  ChannelPtr = 8,
  Custom = 19  // no field: tabs and text
};

// Knob kind numbers as passed to Knob_Closure.
enum {
  INT_KNOB = 3,
  ENUMERATION_KNOB = 4,
  BOOL_KNOB = 6,
  FLOAT_KNOB = 8,
  CHANNEL_MASK_KNOB = 10,
  CHANNEL_KNOB = 11,
  COLOR_KNOB = 18,
  TAB_KNOB = 20,
  TEXT_KNOB = 26
};

class Knob : public ValueStuffI {
public:
  typedef unsigned long long FlagMask;
  static constexpr FlagMask FORCE_RANGE = 0x10;
  static constexpr FlagMask DISABLED = 0x80;
  static constexpr FlagMask STARTLINE = 0x1000;

  Knob(Op* op, int kind, StoreType store, void* field, const char* name, const char* label);

  // Not knobs of any op: the host passes them to knob_changed when the op's panel opens or
  // closes, and when its inputs change.
  static Knob& showPanel;
  static Knob& hidePanel;
  static Knob& inputChange;
  Knob(const Knob&) = delete;
  Knob& operator=(const Knob&) = delete;

  const std::string& name() const { return name_; }
  const char* name_c_str() const { return name_.c_str(); }
  const std::string& label() const { return label_; }
  bool is(const char* name) const { return name && name_ == name; }
  Op* op() const { return op_; }

  void enable() { flags_ &= ~DISABLED; }
  void disable() { flags_ |= DISABLED; }
  void enable(bool on) { on ? enable() : disable(); }
  bool isEnabled() const { return (flags_ & DISABLED) == 0; }
  void set_flag(FlagMask f) { flags_ |= f; }
  void clear_flag(FlagMask f) { flags_ &= ~f; }
  bool flag(FlagMask f) const { return (flags_ & f) != 0; }
  FlagMask flags() const { return flags_; }
  void set_range(double minimum, double maximum);
  void tooltip(const char* text) { tooltip_ = text ? text : ""; }
  const std::string& tooltip() const { return tooltip_; }

  // Writes the bound field (all elements for channel -1), clamped to the range when the knob has
  // FORCE_RANGE. False when nothing was written: NaN, an element out of range, or a field that
  // holds no number. Never calls knob_changed.
  bool set_value(double v, int channel = -1) override;
  // The element's value; 0 for an element or field that holds no number.
  double get_value(int channel = 0) const override;

  // ---- host side: the record of how the knob was made -----------------------------------
  int kind() const { return kind_; }
  StoreType storeType() const { return store_; }
  void* field() const { return field_; }
  bool hasRange() const { return hasRange_; }
  double rangeMin() const { return rangeMin_; }
  double rangeMax() const { return rangeMax_; }
  const std::vector<std::string>& enumerationEntries() const { return entries_; }
  const std::string& text() const { return text_; }
  // The input whose channels a channel knob offers (0 for Channel_knob), -1 for other kinds.
  int inputNumber() const { return inputNumber_; }
  // Number of elements behind the field (floats of a colour knob, channels of a channel knob).
  int arraySize() const { return arraySize_; }
  // The extra value the knob was made with, as given to Knob_Closure.
  const void* extra() const { return extra_; }
  void setEnumerationEntries(const char* const* entries);
  void setText(const char* text) { text_ = text ? text : ""; }
  void setInputNumber(int input) { inputNumber_ = input; }
  void setArraySize(int n) { arraySize_ = n < 1 ? 1 : n; }
  void setExtra(const void* extra) { extra_ = extra; }
  // Host-side value access for the fields set_value cannot express.
  bool setChannelSet(const ChannelSet& channels);
  bool setChannel(Channel z, int channel = 0);

private:
  Op* op_;
  int kind_;
  StoreType store_;
  void* field_;
  std::string name_;
  std::string label_;
  std::string tooltip_;
  std::string text_;
  std::vector<std::string> entries_;
  FlagMask flags_ = 0;
  bool hasRange_ = false;
  double rangeMin_ = 0.0, rangeMax_ = 0.0;
  int inputNumber_ = -1;
  int arraySize_ = 1;
  const void* extra_ = nullptr;
};

}  // namespace Image
}  // namespace DD
