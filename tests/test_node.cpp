// The node as the host sees it: identity, inputs, panel rules, validation, requests, row guard,
// and the flat previews.
#include <gtest/gtest.h>

#include <string>

#include "DDImage/Row.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel;
using namespace vorel::test;

namespace {

std::unique_ptr<host::FlatImage> depthImage(int w, int h, float depth) {
  return flatImage(w, h, rgbaz(), [depth](int x, int y, Channel z) {
    return z == Chan_Z ? depth : 0.1f * static_cast<float>(z) + 0.001f * static_cast<float>(x + y);
  });
}

double knobValue(tzVorel& node, const char* name) {
  Knob* k = node.knob(name);
  EXPECT_NE(k, nullptr) << name;
  return k ? k->get_value(0) : 0.0;
}

bool enabled(tzVorel& node, const char* name) {
  Knob* k = node.knob(name);
  EXPECT_NE(k, nullptr) << name;
  return k && k->isEnabled();
}

}  // namespace

TEST(NodeIdentity, NameInputsAndHash) {
  auto node = makeNode();
  EXPECT_STREQ(node->Class(), "tzVorel");
  EXPECT_STREQ(node->node_help(), "Kestavian Labs Vorel");
  EXPECT_EQ(node->inputs(), 5);
  const char* labels[] = {"Input", "Kernel", "Camera", "Deep Input", "Mattes"};
  for (int i = 0; i < 5; ++i)
    EXPECT_STREQ(node->input_label(i, nullptr), labels[i]);
  EXPECT_STREQ(node->input_label(5, nullptr), "");
  EXPECT_STREQ(node->input_label(-1, nullptr), "");

  EXPECT_NE(node->default_input(0), nullptr);
  for (int i = 1; i < 6; ++i)
    EXPECT_EQ(node->default_input(i), nullptr);

  Hash a, b;
  node->append(a);
  auto other = makeNode();
  setKnob(*other, "multiplier", 7.0);
  other->append(b);
  EXPECT_EQ(a, b);
}

TEST(NodeIdentity, InputsAcceptOnlyTheirKind) {
  auto node = makeNode();
  auto flat = depthImage(4, 4, 1.0f);
  host::Camera camera;
  host::DeepImage deep(Format(4, 4), Box(0, 0, 4, 4), ChannelSet(Mask_RGBA));

  for (int i : {0, 1, 4}) {
    EXPECT_TRUE(node->test_input(i, flat.get())) << i;
    EXPECT_FALSE(node->test_input(i, &camera)) << i;
    EXPECT_FALSE(node->test_input(i, &deep)) << i;
  }
  EXPECT_TRUE(node->test_input(2, &camera));
  EXPECT_FALSE(node->test_input(2, flat.get()));
  EXPECT_TRUE(node->test_input(3, &deep));
  EXPECT_FALSE(node->test_input(3, flat.get()));
  EXPECT_FALSE(node->test_input(5, flat.get()));
  EXPECT_FALSE(node->test_input(0, nullptr));
}

TEST(Panel, KnobsInOrderWithTheirRecords) {
  auto node = makeNode();
  std::vector<std::string> names;
  for (Knob* k : host::knobs(*node))
    if (!k->name().empty())
      names.push_back(k->name());
  const std::vector<std::string> expected = {
      "vorelChannels", "depthChannel", "outputType", "focusOutput", "multiplier", "frontmultiplier",
      "backmultiplier", "depthStyle", "focalPlane", "focusRegionSize", "focusRegionFalloff",
      "defocusMatteChannel", "normalizeVisualization", "integrateFrontAndBackSeperately",
      "realWorldLens", "focalLength", "fStop", "worldScale", "worldScaleMultiplier", "filmFormat",
      "apertureWidth", "apertureHeight", "bloom", "bloomCurvature", "bloomThreshold",
      "bloomMatteChannel", "kSphAbb", "kChrAbb", "kChrAbbOff", "chromicAberrationMatteChannel",
      "kernelType", "max_kernelsize", "expandBBoxToMaxKernelSize", "missingKernelChannel",
      "kAspectRatio", "kSoftness", "kNumSides", "kCurvature", "kRotation", "correctiveSlices",
      "overrideNearAndFarForSlices", "depthSlicesNearAndFar"};
  EXPECT_EQ(names, expected);

  Knob* k = node->knob("max_kernelsize");
  EXPECT_EQ(k->kind(), 3);
  EXPECT_TRUE(k->flag(Knob::FORCE_RANGE));
  EXPECT_EQ(k->rangeMin(), 1.0);
  EXPECT_EQ(k->rangeMax(), 256.0);
  EXPECT_EQ(node->knob("defocusMatteChannel")->inputNumber(), 4);
  EXPECT_EQ(node->knob("depthChannel")->inputNumber(), 0);
  EXPECT_EQ(node->knob("outputType")->enumerationEntries().size(), 5u);
  EXPECT_EQ(node->knob("filmFormat")->enumerationEntries()[9], "Custom");
  EXPECT_EQ(node->knob("backmultiplier")->tooltip(),
            "Used to increase the depth values resulting in a higher blur.");
  EXPECT_EQ(node->knob("frontmultiplier")->tooltip(), "");
  EXPECT_EQ(node->knob("nonexistent"), nullptr);
  EXPECT_EQ(host::knobs(*node)[1]->text(), "1.4.3");
}

TEST(Panel, ForceRangeClampsOnlyHardRanges) {
  auto node = makeNode();
  setKnob(*node, "max_kernelsize", 300);
  setKnob(*node, "kNumSides", 2);
  setKnob(*node, "correctiveSlices", 0);
  setKnob(*node, "multiplier", 0.5);
  setKnob(*node, "focalPlane", -3);
  EXPECT_EQ(knobValue(*node, "max_kernelsize"), 256);
  EXPECT_EQ(knobValue(*node, "kNumSides"), 3);
  EXPECT_EQ(knobValue(*node, "correctiveSlices"), 1);
  EXPECT_EQ(knobValue(*node, "multiplier"), 0.5);
  EXPECT_EQ(knobValue(*node, "focalPlane"), -3.0);
}

TEST(Panel, FilmFormatFillsAndLocksTheFilmBack) {
  auto node = makeNode();
  EXPECT_FALSE(enabled(*node, "apertureWidth"));
  EXPECT_FALSE(enabled(*node, "apertureHeight"));
  EXPECT_FALSE(enabled(*node, "depthSlicesNearAndFar"));

  setKnob(*node, "filmFormat", 2);
  EXPECT_FLOAT_EQ(float(knobValue(*node, "apertureWidth")), 21.3f);
  EXPECT_FLOAT_EQ(float(knobValue(*node, "apertureHeight")), 17.8f);
  EXPECT_FALSE(enabled(*node, "apertureWidth"));

  setKnob(*node, "filmFormat", 9);
  EXPECT_TRUE(enabled(*node, "apertureWidth"));
  EXPECT_TRUE(enabled(*node, "apertureHeight"));
  EXPECT_FLOAT_EQ(float(knobValue(*node, "apertureWidth")), 21.3f);

  // The formats behind Custom fill in and lock like those before it.
  EXPECT_EQ(node->knob("filmFormat")->enumerationEntries()[10], "Full Frame");
  setKnob(*node, "filmFormat", 10);
  EXPECT_FLOAT_EQ(float(knobValue(*node, "apertureWidth")), 36.0f);
  EXPECT_FLOAT_EQ(float(knobValue(*node, "apertureHeight")), 24.0f);
  EXPECT_FALSE(enabled(*node, "apertureWidth"));

  EXPECT_EQ(node->knob_changed(node->knob("filmFormat")), 1);
  EXPECT_EQ(node->knob_changed(node->knob("realWorldLens")), 1);
  EXPECT_EQ(node->knob_changed(node->knob("overrideNearAndFarForSlices")), 1);
}

TEST(Panel, RealLensAndOverrideSwitches) {
  auto node = makeNode();
  setKnob(*node, "realWorldLens", 1);
  EXPECT_FALSE(enabled(*node, "multiplier"));
  EXPECT_FALSE(enabled(*node, "focusRegionFalloff"));
  EXPECT_TRUE(enabled(*node, "frontmultiplier"));
  EXPECT_TRUE(enabled(*node, "backmultiplier"));
  EXPECT_TRUE(enabled(*node, "focusRegionSize"));
  setKnob(*node, "overrideNearAndFarForSlices", 1);
  EXPECT_TRUE(enabled(*node, "depthSlicesNearAndFar"));
}

TEST(Panel, CameraLocksItsFiveKnobsUntilRemoved) {
  auto node = makeNode();
  auto flat = depthImage(4, 4, 1.0f);
  host::Camera camera;
  ASSERT_TRUE(host::connect(*node, 0, flat.get()));
  for (const char* name : {"focalPlane", "focalLength", "fStop"})
    EXPECT_TRUE(enabled(*node, name)) << name;
  ASSERT_TRUE(host::connect(*node, 2, &camera));
  for (const char* name : {"focalPlane", "focalLength", "fStop", "apertureWidth", "apertureHeight"})
    EXPECT_FALSE(enabled(*node, name)) << name;
  EXPECT_TRUE(enabled(*node, "filmFormat"));

  // Removing it enables the film back even under a preset format, until the next knobs pass.
  ASSERT_TRUE(host::connect(*node, 2, nullptr));
  EXPECT_TRUE(enabled(*node, "apertureWidth"));
  host::storeKnobs(*node);
  EXPECT_FALSE(enabled(*node, "apertureWidth"));
  EXPECT_TRUE(enabled(*node, "focalPlane"));
}

TEST(Validation, DefaultNodeDerivesLensSlicesAndReach) {
  auto node = makeNode();
  auto flat = depthImage(2048, 1556, 100.0f);
  host::connect(*node, 0, flat.get());
  node->validate(true);
  EXPECT_FALSE(host::hasError(*node));
  EXPECT_NEAR(node->frame()->params.pixelsPerMillimetre, 95.15f, 0.01f);
  EXPECT_EQ(node->frame()->sliceBoundaries.size(), 10u);
  EXPECT_EQ(node->frame()->maxCoC, 256);
  EXPECT_EQ(node->frame()->kernelRadius, 128);
  EXPECT_EQ(node->info().box(), Box(0, 0, 2048, 1556));
  EXPECT_TRUE(node->info().channels() == rgbaz());
}

TEST(Validation, KernelInputErrorAtEveryValidation) {
  auto node = makeNode();
  setKnob(*node, "kernelType", 0);
  node->validate(false);
  EXPECT_TRUE(host::hasError(*node));
  EXPECT_EQ(host::errorText(*node), "No input kernel connected!");
  host::clearReports(*node);
  node->invalidate();
  node->validate(true);
  EXPECT_EQ(host::errorText(*node), "No input kernel connected!");
  // Validation still ran to its end.
  EXPECT_EQ(node->frame()->sliceBoundaries.size(), 10u);
}

TEST(Validation, CameraOverridesTheLensEvenWhenNotForReal) {
  auto node = makeNode();
  host::Camera camera;
  camera.setFocalLength(50);
  camera.setFocalPoint(250);
  camera.setFstop(2.8);
  camera.setFilmWidth(36);
  camera.setFilmHeight(24);
  host::connect(*node, 2, &camera);
  node->validate(false);
  EXPECT_EQ(node->frame()->params.focalLength, 50.0f);
  EXPECT_EQ(node->frame()->params.focalPlane, 250.0f);
  EXPECT_EQ(node->frame()->params.fStop, 2.8f);
  EXPECT_EQ(node->frame()->params.apertureWidth, 36.0f);
  EXPECT_EQ(node->frame()->params.apertureHeight, 24.0f);
  // Not for real: the derived values and the slices wait for a validation for real.
  EXPECT_TRUE(node->frame()->sliceBoundaries.empty());
  node->validate(true);
  EXPECT_FLOAT_EQ(node->frame()->params.regionFar, 250.5f);
}

TEST(Validation, ExpandingTheBoxByTheMaximumKernel) {
  auto flat = depthImage(100, 80, 1.0f);
  const std::pair<int, Box> cases[] = {
      {1, Box(0, 0, 100, 80)},          {2, Box(-1, -1, 100, 80)},         {3, Box(-1, -1, 101, 81)},
      {255, Box(-127, -127, 227, 207)}, {256, Box(-128, -128, 227, 207)},
  };
  for (const auto& [m, box] : cases) {
    auto node = makeNode();
    host::connect(*node, 0, flat.get());
    setKnob(*node, "max_kernelsize", m);
    setKnob(*node, "expandBBoxToMaxKernelSize", 1);
    node->validate(true);
    node->invalidate();
    node->validate(true);  // growth does not build up
    EXPECT_EQ(node->info().box(), box) << m;
    EXPECT_EQ(node->frame()->kernelRadius, m / 2) << m;
  }
}

TEST(Validation, MattesCountOnlyWhenConnectedAndChosen) {
  auto node = makeNode();
  auto flat = depthImage(8, 8, 1.0f);
  auto mattes = flatImage(8, 8, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 1.0f; });
  host::connect(*node, 0, flat.get());
  setChannelKnob(*node, "bloomMatteChannel", Chan_Red);
  setChannelKnob(*node, "chromicAberrationMatteChannel", Chan_Blue);
  node->validate(true);
  EXPECT_FALSE(node->frame()->mattes.bloom);
  EXPECT_TRUE(node->frame()->mattes.channels.empty());

  host::connect(*node, 4, mattes.get());
  node->validate(true);
  EXPECT_TRUE(node->frame()->mattes.bloom);
  EXPECT_FALSE(node->frame()->mattes.defocus);
  EXPECT_TRUE(node->frame()->mattes.chromatic);
  ChannelSet both(Chan_Red);
  both += Chan_Blue;
  EXPECT_TRUE(node->frame()->mattes.channels == both);

  setChannelKnob(*node, "bloomMatteChannel", Chan_Black);
  node->validate(true);
  EXPECT_FALSE(node->frame()->mattes.bloom);
  EXPECT_TRUE(node->frame()->mattes.channels == ChannelSet(Chan_Blue));
}

TEST(Request, InputsAreAskedForThePaddedArea) {
  auto node = makeNode();
  auto flat = depthImage(64, 64, 1.0f);
  auto kernel = flatImage(9, 7, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 1.0f; });
  auto mattes = flatImage(64, 64, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 1.0f; });
  host::connect(*node, 0, flat.get());
  host::connect(*node, 1, kernel.get());
  host::connect(*node, 4, mattes.get());
  setKnob(*node, "max_kernelsize", 20);
  node->validate(true);
  host::clearRequests(*flat);
  host::clearRequests(*kernel);
  host::clearRequests(*mattes);
  node->request(10, 12, 30, 40, ChannelSet(Mask_RGB), 3);

  ASSERT_EQ(host::requests(*flat).size(), 1u);
  const host::Request& in = host::requests(*flat)[0];
  // Padded by the radius the scan may settle on (10 + 2), and for the defocus the whole image as
  // well; each output row reads 2 * 12 + 1 input rows.
  EXPECT_EQ(in.area, Box(-12, -12, 76, 76));
  EXPECT_TRUE(in.channels == rgbaz());
  EXPECT_EQ(in.count, 75);
  // The kernel image is asked for whole, even for the circular kernel.
  ASSERT_EQ(host::requests(*kernel).size(), 1u);
  EXPECT_EQ(host::requests(*kernel)[0].area, Box(0, 0, 9, 7));
  // No matte channel chosen: an empty set.
  ASSERT_EQ(host::requests(*mattes).size(), 1u);
  EXPECT_TRUE(host::requests(*mattes)[0].channels.empty());
}

TEST(Request, DeepInputGetsItsOwnChannels) {
  auto node = makeNode();
  auto flat = depthImage(16, 16, 1.0f);
  ChannelSet deepChannels(Mask_RGBA);
  deepChannels += Chan_Z;
  host::DeepImage deep(Format(16, 16), Box(0, 0, 16, 16), deepChannels);
  deep.finish();
  host::connect(*node, 0, flat.get());
  host::connect(*node, 3, &deep);
  setKnob(*node, "max_kernelsize", 8);
  node->validate(true);
  EXPECT_TRUE(node->frame()->params.hasDeepInput);
  host::clearDeepRequests(deep);
  node->request(0, 0, 16, 16, ChannelSet(Mask_RGB), 1);
  ASSERT_EQ(host::deepRequests(deep).size(), 1u);
  ChannelSet expected(Mask_RGBA);
  expected += Chan_DeepFront;
  expected += Chan_DeepBack;
  EXPECT_TRUE(host::deepRequests(deep)[0].channels == expected);
  EXPECT_EQ(host::deepRequests(deep)[0].area, Box(-6, -6, 22, 22));
}

TEST(RowGuard, RowsWithoutKernelsAreInputWithEffectChannelsZero) {
  auto node = makeNode();
  auto flat = depthImage(16, 4, 1.0f);
  host::connect(*node, 0, flat.get());
  host::prepare(*node, Box(0, 0, 16, 4), rgbaz());
  node->invalidate();  // drops the kernels again
  node->validate(true);
  Row row(0, 16);
  node->engine(1, 0, 16, rgbaz(), row);
  for (int x = 0; x < 16; ++x) {
    EXPECT_EQ(row[Chan_Red][x], 0.0f);
    EXPECT_EQ(row[Chan_Alpha][x], 0.0f);
    EXPECT_EQ(row[Chan_Z][x], 1.0f);
  }
}

TEST(RowGuard, AFrameServesRowsOnlyWithWhatItsOutputNeeds) {
  // A frame built by hand, no node: the filter shape needs an opened frame, the defocus a bank.
  Frame frame;
  frame.params.outputType = OutputFilterShape;
  EXPECT_FALSE(frameHasWhatRowsNeed(frame));
  frame.kernelsReady = true;
  EXPECT_TRUE(frameHasWhatRowsNeed(frame));
  frame.masterKernel.allocate(ChannelSet(Mask_RGBA), 3, 3);
  frame.masterKernel.planes[Chan_Green][4] = 0.75f;
  Row row(-2, 5);
  frameRow(frame, 1, -2, 5, ChannelSet(Mask_RGB), row);
  for (int x = -2; x < 5; ++x) {
    EXPECT_EQ(row[Chan_Green][x], x == 1 ? 0.75f : 0.0f) << x;
    EXPECT_EQ(row[Chan_Red][x], 0.0f) << x;
  }
  frame.params.outputType = OutputDefocusedImage;
  EXPECT_FALSE(frameHasWhatRowsNeed(frame));  // opened, but without a bank
  frame.params.outputType = 7;
  EXPECT_FALSE(frameHasWhatRowsNeed(frame));
}

TEST(RowGuard, AbortedRowIsLeftAlone) {
  auto node = makeNode();
  auto flat = depthImage(8, 2, 1.0f);
  host::connect(*node, 0, flat.get());
  host::prepare(*node, Box(0, 0, 8, 2), rgbaz());
  host::setAborted(*node, true);
  Row row(0, 8);
  float* red = row.writable(Chan_Red);
  std::fill(red, red + 8, 42.0f);
  node->engine(0, 0, 8, rgbaz(), row);
  EXPECT_EQ(row[Chan_Red][3], 42.0f);
}

TEST(FlatPreviews, FocalDistanceAndFocusMatteValues) {
  auto node = makeNode();
  // Columns: on the focal plane, CoC 0.25 behind it, far behind, far in front.
  auto flat = flatImage(4, 1, rgbaz(), [](int x, int, Channel z) {
    const float depth[] = {100.0f, 100.03125f, 500.0f, 10.0f};
    return z == Chan_Z ? depth[x] : 0.5f;
  });
  host::connect(*node, 0, flat.get());
  setKnob(*node, "outputType", OutputFocalDistance);
  setKnob(*node, "multiplier", 4);
  setKnob(*node, "focusRegionSize", 1);
  setKnob(*node, "max_kernelsize", 16);

  Image fdv = render(*node, rgbaz());
  EXPECT_EQ(fdv.at(0, 0, Chan_Red), 1.0f);
  EXPECT_EQ(fdv.at(0, 0, Chan_Green), 0.0f);
  EXPECT_EQ(fdv.at(0, 0, Chan_Blue), 0.0f);
  EXPECT_NEAR(fdv.at(1, 0, Chan_Red), 0.5f, 1e-5f);         // CoC 0.25
  EXPECT_NEAR(fdv.at(1, 0, Chan_Blue), 0.25f / 16, 1e-6f);  // normalised by max_kernelsize
  EXPECT_EQ(fdv.at(2, 0, Chan_Red), 0.0f);
  EXPECT_FLOAT_EQ(fdv.at(2, 0, Chan_Blue), 4.0f / 16);
  EXPECT_FLOAT_EQ(fdv.at(3, 0, Chan_Green), 4.0f / 16);
  // Alpha and depth pass through.
  EXPECT_EQ(fdv.at(2, 0, Chan_Alpha), 0.5f);
  EXPECT_EQ(fdv.at(2, 0, Chan_Z), 500.0f);

  setKnob(*node, "normalizeVisualization", 0);
  EXPECT_FLOAT_EQ(render(*node, rgbaz()).at(2, 0, Chan_Blue), 4.0f);

  setKnob(*node, "outputType", OutputFocusMatte);
  Image matte = render(*node, rgbaz());
  const float expected[4][3] = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 1, 0}};
  for (int x = 0; x < 4; ++x)
    for (int c = 0; c < 3; ++c)
      EXPECT_EQ(matte.at(x, 0, Channel(c + 1)), expected[x][c]) << x << "," << c;
}

TEST(FlatPreviews, RequestWithoutColourIsACopy) {
  auto node = makeNode();
  auto flat = depthImage(6, 3, 100.0f);
  host::connect(*node, 0, flat.get());
  setKnob(*node, "outputType", OutputFocusMatte);
  ChannelSet az(Chan_Alpha);
  az += Chan_Z;
  Image image = render(*node, az);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 6; ++x)
      EXPECT_EQ(image.at(x, y, Chan_Alpha), flat->value(x, y, Chan_Alpha));
}
