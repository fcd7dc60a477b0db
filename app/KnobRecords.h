#pragma once
// What a program shows of each knob the user can set: the one list behind `vorel knobs --json`
// and the Python module's knobs(), read from the knob records the node made.

#include <optional>
#include <string>
#include <vector>

#include "DDImage/Op.h"

namespace vorelapp {

struct KnobRecord {
  std::string name, label;
  std::string kind;  // kindName's word
  std::string tab;   // label of the tab the knob sits on; "" before the first tab
  std::string defaultText;  // as --set takes it back
  // The default as numbers, one per element, for knobs that hold numbers (integer, float,
  // colour, and a switch as 0 or 1); empty for the others.
  std::vector<double> defaultNumbers;
  bool isSwitch = false;
  int size = 1;  // elements
  struct Range {
    double min, max;
    bool clamped;  // values outside are clamped, not only the slider
  };
  std::optional<Range> range;
  std::optional<std::vector<std::string>> entries;  // enumerations
  std::optional<int> input;                         // channel knobs: the input they pick from
  std::string tooltip;
};

// Every knob of the op that holds a value, in the panel's order: tabs, text lines and knobs
// without a name are left out.
std::vector<KnobRecord> knobRecords(const DD::Image::Op& op);

}  // namespace vorelapp
