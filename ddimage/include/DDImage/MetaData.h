#pragma once
// Metadata passed down the graph. Nothing in this host fills it: a bundle is always empty.

#include <cstddef>

namespace DD {
namespace Image {
namespace MetaData {

class Bundle {
public:
  std::size_t size() const { return 0; }
  bool empty() const { return true; }
};

}  // namespace MetaData
}  // namespace Image
}  // namespace DD
