#pragma once

namespace DD {
namespace Image {

// Numeric access to a knob's value. channel -1 on set_value means every element.
class ValueStuffI {
public:
  virtual ~ValueStuffI() = default;
  virtual bool set_value(double v, int channel = -1) = 0;
  virtual double get_value(int channel = 0) const = 0;
};

}  // namespace Image
}  // namespace DD
