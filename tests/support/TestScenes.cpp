#include "support/TestScenes.h"

#include <gtest/gtest.h>


#include "DDImage/Row.h"

using namespace DD::Image;

namespace vorel {
namespace test {

std::unique_ptr<host::FlatImage> flatImage(int width, int height, const ChannelSet& channels,
                                           const std::function<float(int, int, Channel)>& f) {
  auto image = std::make_unique<host::FlatImage>(Format(width, height), channels);
  image->fill([&](int x, int y, Channel z) { return f(x, y, z); });
  return image;
}

ChannelSet rgbaz() {
  ChannelSet s(Mask_RGBA);
  s += Chan_Z;
  return s;
}

std::unique_ptr<tzVorel> makeNode() {
  std::unique_ptr<Op> op = host::create("tzVorel");
  auto* node = dynamic_cast<tzVorel*>(op.get());
  EXPECT_NE(node, nullptr);
  if (!node)
    return nullptr;
  op.release();
  return std::unique_ptr<tzVorel>(node);
}

void setKnob(tzVorel& node, const char* name, double value, int channel) {
  EXPECT_TRUE(host::userEdit(node, name, value, channel)) << name;
}

void setChannelKnob(tzVorel& node, const char* name, Channel z) {
  EXPECT_TRUE(host::userEditChannel(node, name, z)) << name;
}

void setChannelsKnob(tzVorel& node, const char* name, const ChannelSet& channels) {
  EXPECT_TRUE(host::userEditChannels(node, name, channels)) << name;
}

float Image::at(int x, int y, Channel z) const {
  return planes[z][static_cast<std::size_t>(y - area.y()) * area.w() + (x - area.x())];
}

bool Image::operator==(const Image& other) const {
  return area == other.area && channels == other.channels && planes == other.planes;
}

Image emptyImage(const Box& area, const ChannelSet& channels) {
  Image image;
  image.area = area;
  image.channels = channels;
  image.planes.resize(1024);
  foreach (z, channels)
    image.planes[z].assign(static_cast<std::size_t>(area.w()) * area.h(), 0.0f);
  return image;
}

Image render(tzVorel& node, const Box& area, const ChannelSet& channels, unsigned threads) {
  host::prepare(node, area, channels);
  Image image = emptyImage(area, channels);

  host::renderRows(node, area, channels, threads, [&](int y, const Row& row) {
    foreach (z, channels) {
      const float* values = row[z];
      std::copy(values + area.x(), values + area.r(),
                image.planes[z].begin() + static_cast<std::ptrdiff_t>(y - area.y()) * area.w());
    }
  });
  return image;
}

Image render(tzVorel& node, const ChannelSet& channels, unsigned threads) {
  node.validate(true);
  const Box area = node.info().box();
  return render(node, area, channels, threads);
}

}  // namespace test
}  // namespace vorel
