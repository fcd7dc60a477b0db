#include "app/KnobRecords.h"

#include "DDImage/Host.h"
#include "app/Knobs.h"

using namespace DD::Image;

namespace vorelapp {

namespace {

std::vector<double> defaultNumbers(const Knob& k) {
  switch (k.kind()) {
    case INT_KNOB:
    case BOOL_KNOB: return {k.get_value()};
    case FLOAT_KNOB:
    case COLOR_KNOB: {
      std::vector<double> v;
      for (int i = 0; i < k.arraySize(); ++i)
        v.push_back(k.get_value(i));
      return v;
    }
    default: return {};
  }
}

}  // namespace

std::vector<KnobRecord> knobRecords(const Op& op) {
  std::vector<KnobRecord> records;
  std::string tab;
  for (const Knob* k : host::knobs(op)) {
    if (k->kind() == TAB_KNOB)
      tab = k->label();
    if (k->kind() == TAB_KNOB || k->kind() == TEXT_KNOB || k->name().empty())
      continue;
    KnobRecord r;
    r.name = k->name();
    r.label = k->label();
    r.kind = kindName(k->kind());
    r.tab = tab;
    r.defaultText = valueText(*k);
    r.defaultNumbers = defaultNumbers(*k);
    r.isSwitch = k->kind() == BOOL_KNOB;
    r.size = k->arraySize();
    if (k->hasRange())
      r.range = KnobRecord::Range{k->rangeMin(), k->rangeMax(), k->flag(Knob::FORCE_RANGE)};
    if (k->kind() == ENUMERATION_KNOB)
      r.entries = k->enumerationEntries();
    if (k->kind() == CHANNEL_KNOB)
      r.input = k->inputNumber();
    r.tooltip = k->tooltip();
    records.push_back(std::move(r));
  }
  return records;
}

}  // namespace vorelapp
