#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>

#include "Access.h"
#include "DDImage/Knob.h"
#include "DDImage/Knobs.h"
#include "DDImage/Op.h"

namespace DD {
namespace Image {

// ---- Knob ---------------------------------------------------------------------------------------

namespace {
Knob gShowPanel(nullptr, 0, Custom, nullptr, "showPanel", "");
Knob gHidePanel(nullptr, 0, Custom, nullptr, "hidePanel", "");
Knob gInputChange(nullptr, 0, Custom, nullptr, "inputChange", "");
}  // namespace

Knob& Knob::showPanel = gShowPanel;
Knob& Knob::hidePanel = gHidePanel;
Knob& Knob::inputChange = gInputChange;

Knob::Knob(Op* op, int kind, StoreType store, void* field, const char* name, const char* label)
    : op_(op), kind_(kind), store_(store), field_(field), name_(name ? name : ""),
      label_(label ? label : (name ? name : "")) {}

void Knob::set_range(double minimum, double maximum) {
  hasRange_ = true;
  rangeMin_ = minimum;
  rangeMax_ = maximum;
}

void Knob::setEnumerationEntries(const char* const* entries) {
  entries_.clear();
  if (!entries)
    return;
  for (; *entries; ++entries)
    entries_.emplace_back(*entries);
}

bool Knob::set_value(double v, int channel) {
  if (!field_ || std::isnan(v))
    return false;
  if (channel < -1 || channel >= arraySize_)
    return false;
  if (flag(FORCE_RANGE) && hasRange_)
    v = std::min(std::max(v, std::min(rangeMin_, rangeMax_)), std::max(rangeMin_, rangeMax_));
  const int first = channel < 0 ? 0 : channel;
  const int last = channel < 0 ? arraySize_ : channel + 1;
  auto toInt = [](double d) {
    d = std::round(d);
    if (d <= static_cast<double>(INT_MIN)) return INT_MIN;
    if (d >= static_cast<double>(INT_MAX)) return INT_MAX;
    return static_cast<int>(d);
  };
  switch (store_) {
    case FloatPtr:
      for (int i = first; i < last; ++i)
        static_cast<float*>(field_)[i] = static_cast<float>(v);
      return true;
    case DoublePtr:
      for (int i = first; i < last; ++i)
        static_cast<double*>(field_)[i] = v;
      return true;
    case IntPtr: {
      int n = toInt(v);
      // An enumeration holds the index of one of its entries.
      if (kind_ == ENUMERATION_KNOB && !entries_.empty())
        n = std::min(std::max(n, 0), static_cast<int>(entries_.size()) - 1);
      for (int i = first; i < last; ++i)
        static_cast<int*>(field_)[i] = n;
      return true;
    }
    case UnsignedIntPtr: {
      const int n = std::max(0, toInt(v));
      for (int i = first; i < last; ++i)
        static_cast<unsigned*>(field_)[i] = static_cast<unsigned>(n);
      return true;
    }
    case BoolPtr:
      for (int i = first; i < last; ++i)
        static_cast<bool*>(field_)[i] = v != 0.0;
      return true;
    case ChannelPtr: {
      const int n = toInt(v);
      if (n < 0 || n > Chan_Last)
        return false;
      for (int i = first; i < last; ++i)
        static_cast<Channel*>(field_)[i] = static_cast<Channel>(n);
      return true;
    }
    default:
      return false;
  }
}

double Knob::get_value(int channel) const {
  if (!field_ || channel < 0 || channel >= arraySize_)
    return 0.0;
  switch (store_) {
    case FloatPtr: return static_cast<const float*>(field_)[channel];
    case DoublePtr: return static_cast<const double*>(field_)[channel];
    case IntPtr: return static_cast<const int*>(field_)[channel];
    case UnsignedIntPtr: return static_cast<const unsigned*>(field_)[channel];
    case BoolPtr: return static_cast<const bool*>(field_)[channel] ? 1.0 : 0.0;
    case ChannelPtr: return static_cast<int>(static_cast<const Channel*>(field_)[channel]);
    default: return 0.0;
  }
}

bool Knob::setChannelSet(const ChannelSet& channels) {
  if (store_ != ChannelSetPtr || !field_)
    return false;
  *static_cast<ChannelSet*>(field_) = channels;
  return true;
}

bool Knob::setChannel(Channel z, int channel) {
  if (store_ != ChannelPtr || !field_ || channel < 0 || channel >= arraySize_)
    return false;
  const int n = static_cast<int>(z);
  if (n < 0 || n > Chan_Last)
    return false;
  static_cast<Channel*>(field_)[channel] = z;
  return true;
}

// ---- Knob_Closure -------------------------------------------------------------------------------

Knob* Knob_Closure::operator()(int type, StoreType store, void* p, const char* name, const char* label,
                               const void* extra) {
  std::vector<Knob*>& list = host::Access::knobs(*op_);
  if (!make_) {
    // The store pass walks the same declarations in the same order; fall back to a search
    // when an op declares its knobs conditionally.
    last_ = nullptr;
    auto matches = [&](const Knob* k) {
      return k->kind() == type && k->field() == p && k->name() == (name ? name : "") &&
             (name || k->label() == (label ? label : ""));
    };
    if (cursor_ < list.size() && matches(list[cursor_])) {
      ++cursor_;
      return list[cursor_ - 1];
    }
    for (std::size_t i = 0; i < list.size(); ++i)
      if (matches(list[i])) {
        cursor_ = i + 1;
        return list[i];
      }
    return nullptr;
  }

  Knob* k = new Knob(op_, type, store, p, name, label);
  k->setExtra(extra);
  const std::intptr_t e = reinterpret_cast<std::intptr_t>(extra);
  switch (type) {
    case ENUMERATION_KNOB: k->setEnumerationEntries(static_cast<const char* const*>(extra)); break;
    case TEXT_KNOB: k->setText(static_cast<const char*>(extra)); break;
    case FLOAT_KNOB: k->setArraySize(e > 1 && e < 64 ? static_cast<int>(e) : 1); break;
    case COLOR_KNOB: k->setArraySize(3); break;
    case CHANNEL_KNOB: k->setInputNumber(e >= 101 && e < 1101 ? static_cast<int>(e - 101) : 0); break;
    default: break;
  }
  list.push_back(k);
  last_ = k;
  return k;
}

void Tooltip(Knob_Callback f, const char* text) {
  if (f.makeKnobs() && f.lastKnob())
    f.lastKnob()->tooltip(text);
}

void SetFlags(Knob_Callback f, Knob::FlagMask flags) {
  if (f.makeKnobs() && f.lastKnob())
    f.lastKnob()->set_flag(flags);
}

void ClearFlags(Knob_Callback f, Knob::FlagMask flags) {
  if (f.makeKnobs() && f.lastKnob())
    f.lastKnob()->clear_flag(flags);
}

void SetRange(Knob_Callback f, double minimum, double maximum) {
  if (f.makeKnobs() && f.lastKnob())
    f.lastKnob()->set_range(minimum, maximum);
}

}  // namespace Image
}  // namespace DD
