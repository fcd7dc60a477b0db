#pragma once
// Declaring knobs. An op's knobs(f) calls the makers below; the closure either makes the knob
// records (a make pass) or hands back the records made before (a store pass).

#include <cstdint>

#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Knob.h"

namespace DD {
namespace Image {

class Op;

class Knob_Closure {
public:
  Knob_Closure(Op& op, bool makeKnobs) : op_(&op), make_(makeKnobs) {}
  virtual ~Knob_Closure() = default;
  Knob_Closure(const Knob_Closure&) = delete;
  Knob_Closure& operator=(const Knob_Closure&) = delete;

  // Make pass: records a new knob on the op and returns it. Store pass: returns the record made
  // for this declaration before, or null.
  virtual Knob* operator()(int type, StoreType store, void* p, const char* name,
                           const char* label = nullptr, const void* extra = nullptr);
  bool makeKnobs() const { return make_; }

  // The knob made last in this pass; Tooltip, SetFlags and SetRange apply to it (make pass only).
  Knob* lastKnob() const { return last_; }
  Op* op() const { return op_; }

private:
  Op* op_;
  bool make_;
  Knob* last_ = nullptr;
  std::size_t cursor_ = 0;  // store pass: position in the op's knob list
};

typedef Knob_Closure& Knob_Callback;

inline const void* knobExtra(std::intptr_t v) { return reinterpret_cast<const void*>(v); }

inline Knob* Int_knob(Knob_Callback f, int* p, const char* name, const char* label = nullptr) {
  return f(INT_KNOB, IntPtr, p, name, label);
}
inline Knob* Enumeration_knob(Knob_Callback f, int* p, const char* const* entries, const char* name,
                              const char* label = nullptr) {
  return f(ENUMERATION_KNOB, IntPtr, p, name, label, entries);
}
inline Knob* Bool_knob(Knob_Callback f, bool* p, const char* name, const char* label = nullptr) {
  return f(BOOL_KNOB, BoolPtr, p, name, label);
}
inline Knob* Float_knob(Knob_Callback f, float* p, const char* name, const char* label = nullptr) {
  return f(FLOAT_KNOB, FloatPtr, p, name, label);
}
// dim floats in a row (the node uses two).
inline Knob* MultiFloat_knob(Knob_Callback f, float* p, int dim, const char* name, const char* label = nullptr) {
  return f(FLOAT_KNOB, FloatPtr, p, name, label, knobExtra(dim));
}
inline Knob* ChannelMask_knob(Knob_Callback f, ChannelSet* p, const char* name, const char* label = nullptr) {
  return f(CHANNEL_MASK_KNOB, ChannelSetPtr, p, name, label, knobExtra(2));
}
inline Knob* Input_Channel_knob(Knob_Callback f, Channel* p, int count, int input, const char* name,
                                const char* label = nullptr) {
  Knob* k = f(CHANNEL_KNOB, ChannelPtr, p, name, label, knobExtra(101 + input));
  if (k && f.makeKnobs())
    k->setArraySize(count);
  return k;
}
inline Knob* Channel_knob(Knob_Callback f, Channel* p, int count, const char* name, const char* label = nullptr) {
  return Input_Channel_knob(f, p, count, 0, name, label);
}
inline Knob* Color_knob(Knob_Callback f, float* p, const char* name, const char* label = nullptr) {
  return f(COLOR_KNOB, FloatPtr, p, name, label);
}
inline Knob* Tab_knob(Knob_Callback f, const char* label) {
  return f(TAB_KNOB, Custom, nullptr, nullptr, label);
}
inline Knob* Text_knob(Knob_Callback f, const char* label, const char* text) {
  return f(TEXT_KNOB, Custom, nullptr, nullptr, label, text);
}

void Tooltip(Knob_Callback f, const char* text);
void SetFlags(Knob_Callback f, Knob::FlagMask flags);
void ClearFlags(Knob_Callback f, Knob::FlagMask flags);
void SetRange(Knob_Callback f, double minimum, double maximum);

}  // namespace Image
}  // namespace DD
