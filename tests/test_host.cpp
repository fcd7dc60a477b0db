// The host layer's behaviour that the node's engines and tests lean on.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "DDImage/CameraOp.h"
#include "DDImage/DeepComposite.h"
#include "DDImage/DeepOp.h"
#include "DDImage/Host.h"
#include "DDImage/Iop.h"
#include "DDImage/Knobs.h"
#include "DDImage/OutputContext.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"

using namespace DD::Image;
namespace host = DD::Image::host;

namespace {

std::vector<int> walk(const ChannelSet& s) {
  std::vector<int> out;
  foreach (z, s)
    out.push_back(z);
  return out;
}

// 4x3 box at (10, 20) inside a 100x50 format; value = 100*x + y + channel/10.
std::unique_ptr<host::FlatImage> ramp() {
  auto img = std::make_unique<host::FlatImage>(Format(100, 50), Box(10, 20, 14, 23), ChannelSet(Mask_RGB));
  img->fill([](int x, int y, Channel z) { return 100.0f * x + y + 0.1f * z; });
  return img;
}

float v(int x, int y, Channel z) { return 100.0f * x + y + 0.1f * z; }

}  // namespace

// ---- channels ---------------------------------------------------------------------------------

TEST(Channels, FixedNamesAndFileAliasesShareNumbers) {
  EXPECT_EQ(getChannel("rgba.red"), Chan_Red);
  EXPECT_EQ(getChannel("R"), Chan_Red);
  EXPECT_EQ(getChannel("G"), Chan_Green);
  EXPECT_EQ(getChannel("B"), Chan_Blue);
  EXPECT_EQ(getChannel("A"), Chan_Alpha);
  EXPECT_EQ(getChannel("Z"), Chan_Z);
  EXPECT_EQ(getChannel("depth.Z"), Chan_Z);
  EXPECT_EQ(getChannel("deep.front"), Chan_DeepFront);
  EXPECT_EQ(getChannel("deep.back"), Chan_DeepBack);
  EXPECT_STREQ(getName(Chan_Alpha), "rgba.alpha");
  EXPECT_STREQ(getName(Chan_Z), "depth.Z");
  EXPECT_STREQ(getName(Chan_DeepBack), "deep.back");
  EXPECT_EQ(getChannel(nullptr), Chan_Black);
  EXPECT_EQ(getChannel(""), Chan_Black);
}

TEST(Channels, NewNamesAreNumberedInOrderAboveZSkippingDeep) {
  EXPECT_EQ(findChannel("test.never"), Chan_Black);
  std::vector<int> numbers;
  for (int i = 0; i < 16; ++i)
    numbers.push_back(getChannel(("test.c" + std::to_string(i)).c_str()));
  EXPECT_GE(numbers[0], 6);
  for (size_t i = 1; i < numbers.size(); ++i) {
    const int expected = numbers[i - 1] + 1 == 16 ? 18 : numbers[i - 1] + 1;
    EXPECT_EQ(numbers[i], expected);
  }
  EXPECT_GT(numbers.back(), 17);
  // Asking again finds, does not create.
  EXPECT_EQ(getChannel("test.c3"), numbers[3]);
  EXPECT_EQ(findChannel("test.c3"), numbers[3]);
  EXPECT_STREQ(getName(static_cast<Channel>(numbers[5])), "test.c5");
}

TEST(Channels, SetOperationsAndAscendingWalk) {
  ChannelSet s(Mask_RGBA);
  EXPECT_EQ(walk(s), (std::vector<int>{1, 2, 3, 4}));
  s += Chan_DeepBack;
  s += Chan_Z;
  s += Chan_Black;  // never a member
  s += static_cast<Channel>(1023);
  EXPECT_EQ(walk(s), (std::vector<int>{1, 2, 3, 4, 5, 17, 1023}));
  EXPECT_EQ(s.size(), 7u);
  EXPECT_EQ(s.last(), 1023);

  ChannelSet t = s;
  t -= Mask_RGB;
  t &= ChannelSet(Mask_Alpha) + Chan_Z + Chan_DeepFront;
  EXPECT_EQ(walk(t), (std::vector<int>{4, 5}));
  EXPECT_TRUE(s.contains(t));
  EXPECT_FALSE(t.contains(s));
  EXPECT_TRUE(t.contains(Chan_Alpha));
  EXPECT_FALSE(t.contains(Chan_Black));
  EXPECT_TRUE(ChannelSet(Mask_Deep) == ChannelSet(Chan_DeepFront) + Chan_DeepBack);
  EXPECT_FALSE(t == s);

  ChannelSet all(Mask_All);
  EXPECT_EQ(all.size(), 1023u);
  EXPECT_EQ(all.first(), Chan_Red);
  t.clear();
  EXPECT_TRUE(t.empty());
  EXPECT_EQ(t.first(), Chan_Black);
  EXPECT_TRUE(walk(t).empty());
}

// ---- rows ---------------------------------------------------------------------------------------

TEST(Rows, AbsoluteAddressingCopyAndErase) {
  Row a(-5, 5);
  EXPECT_EQ(a[Chan_Red][-5], 0.0f);  // never written: zeros, not a crash
  EXPECT_EQ(a[Chan_Red][4], 0.0f);
  float* red = a.writable(Chan_Red);
  for (int x = -5; x < 5; ++x)
    red[x] = static_cast<float>(x);
  EXPECT_EQ(a.writable(Chan_Red), red);  // same buffer again
  EXPECT_EQ(a[Chan_Red][-5], -5.0f);
  EXPECT_EQ(a[Chan_Red][4], 4.0f);

  // copy is clipped to both rows' spans and leaves the rest alone.
  Row b(0, 20);
  float* bred = b.writable(Chan_Red);
  for (int x = 0; x < 20; ++x)
    bred[x] = 99.0f;
  b.copy(a, Mask_RGB, -100, 100);
  EXPECT_EQ(b[Chan_Red][0], 0.0f);
  EXPECT_EQ(b[Chan_Red][4], 4.0f);
  EXPECT_EQ(b[Chan_Red][5], 99.0f);
  EXPECT_EQ(b[Chan_Green][3], 0.0f);

  b.erase(Mask_Red);
  EXPECT_EQ(b[Chan_Red][4], 0.0f);
  EXPECT_EQ(b[Chan_Red][10], 0.0f);

  // More channels than the row keeps inline.
  Row many(0, 3);
  for (int z = 1; z <= 40; ++z)
    many.writable(static_cast<Channel>(z))[2] = static_cast<float>(z);
  for (int z = 1; z <= 40; ++z)
    EXPECT_EQ(many[static_cast<Channel>(z)][2], static_cast<float>(z));

  Row wide(-100000, 100000);  // wider than the shared zero buffer
  EXPECT_EQ(wide[Chan_Blue][99999], 0.0f);
}

// ---- reading a flat input -------------------------------------------------------------------------

TEST(FlatRead, InsideTheBoxIsTheEngineValue) {
  auto img = ramp();
  img->validate();
  Row row(10, 14);
  row.get(*img, 21, 10, 14, Mask_RGB);
  for (int x = 10; x < 14; ++x)
    EXPECT_EQ(row[Chan_Green][x], v(x, 21, Chan_Green));
  EXPECT_EQ(img->at(13, 22, Chan_Blue), v(13, 22, Chan_Blue));
}

TEST(FlatRead, OutsideTheBoxRepeatsTheNearestEdgePixel) {
  auto img = ramp();
  img->validate();
  // A span overlapping both sides, on a row below the box.
  Row row(0, 30);
  row.get(*img, 5, 0, 30, Mask_Red);
  for (int x = 0; x < 30; ++x) {
    const int cx = x < 10 ? 10 : (x > 13 ? 13 : x);
    EXPECT_EQ(row[Chan_Red][x], v(cx, 20, Chan_Red)) << x;
  }
  // Spans wholly left or right of the box, above it.
  Row left(-8, -2);
  left.get(*img, 40, -8, -2, Mask_Red);
  EXPECT_EQ(left[Chan_Red][-8], v(10, 22, Chan_Red));
  EXPECT_EQ(left[Chan_Red][-3], v(10, 22, Chan_Red));
  Row right(50, 52);
  right.get(*img, 22, 50, 52, Mask_Red);
  EXPECT_EQ(right[Chan_Red][51], v(13, 22, Chan_Red));
  EXPECT_EQ(img->at(-1000, -1000, Chan_Green), v(10, 20, Chan_Green));
  EXPECT_EQ(img->at(1000, 1000, Chan_Green), v(13, 22, Chan_Green));
}

TEST(FlatRead, MissingChannelsAndEmptyBoxesReadZero) {
  auto img = ramp();
  img->validate();
  Row row(0, 20);
  row.writable(Chan_Alpha)[12] = 7.0f;  // stale value must be overwritten
  row.get(*img, 21, 0, 20, Mask_RGBA);
  EXPECT_EQ(row[Chan_Alpha][12], 0.0f);
  EXPECT_EQ(img->at(12, 21, Chan_Z), 0.0f);

  host::FlatImage empty(Format(10, 10), Box(5, 5, 5, 9), Mask_RGBA);
  empty.validate();
  Row e(0, 10);
  e.writable(Chan_Red)[3] = 1.0f;
  e.get(empty, 6, 0, 10, Mask_RGBA);
  EXPECT_EQ(e[Chan_Red][3], 0.0f);
  EXPECT_EQ(empty.at(5, 6, Chan_Alpha), 0.0f);
}

// ---- ops and the call protocol ---------------------------------------------------------------------

namespace {

// Passes input 0 through and counts the host's calls.
class Probe : public Iop {
public:
  explicit Probe(Node* node) : Iop(node) { inputs(2); }
  const char* Class() const override { return "HostTestProbe"; }
  const char* node_help() const override { return "probe"; }
  void engine(int y, int x, int r, ChannelMask channels, Row& row) override { row.get(*input(0), y, x, r, channels); }
  bool test_input(int n, Op* op) const override { return n == 1 ? dynamic_cast<CameraOp*>(op) != nullptr : Iop::test_input(n, op); }
  Op* default_input(int n) const override { return n == 0 ? Iop::default_input(0) : nullptr; }

  void knobs(Knob_Callback f) override {
    Int_knob(f, &count, "count", "Count");
    SetRange(f, 1, 10);
    SetFlags(f, Knob::FORCE_RANGE);
    Tooltip(f, "how many");
    Float_knob(f, &gain, "gain");
    SetRange(f, 0, 1);
    MultiFloat_knob(f, pair, 2, "pair", "Pair");
    Color_knob(f, colour, "colour", "Colour");
    Bool_knob(f, &flag, "flag", "Flag");
    SetFlags(f, Knob::STARTLINE);
    Enumeration_knob(f, &mode, kModes, "mode", "Mode");
    Tab_knob(f, "Second");
    Text_knob(f, "Version", "1.2.3");
    ChannelMask_knob(f, &mask, "mask", "Mask");
    Channel_knob(f, &depth, 1, "depth", "Depth");
    Input_Channel_knob(f, &matte, 1, 4, "matte", "Matte");
    ++knobsCalls;
  }
  int knob_changed(Knob* k) override {
    changed.push_back(k ? k->name() : "");
    return 1;
  }

  static const char* const kModes[];
  int count = 3, mode = 0, knobsCalls = 0, validates = 0, opens = 0;
  float gain = 0.5f, pair[2] = {1, 2}, colour[3] = {0, 0, 0};
  bool flag = false;
  ChannelSet mask{Mask_RGBA};
  Channel depth = Chan_Z, matte = Chan_Black;
  std::vector<std::string> changed;

protected:
  void _validate(bool for_real) override {
    ++validates;
    copy_info();
    if (count > 5)
      error("count %d is over %s", count, "five");
    if (for_real)
      warning("real");
  }
  void _open() override { ++opens; }
};

const char* const Probe::kModes[] = {"a", "b", "c", nullptr};

Iop* buildProbe(Node* node) { return new Probe(node); }
const Op::Description probeDescription("HostTestProbe", "Test/Probe", buildProbe);

}  // namespace

TEST(Protocol, BuildConnectValidateRequestOpen) {
  EXPECT_EQ(host::create("NoSuchClass"), nullptr);
  std::unique_ptr<Op> op = host::create("HostTestProbe");
  ASSERT_NE(op, nullptr);
  Probe& probe = dynamic_cast<Probe&>(*op);
  EXPECT_STREQ(probeDescription.name, "HostTestProbe");
  EXPECT_EQ(probe.knobsCalls, 1);  // create made the knobs

  // An open input 0 is the host's black image in the default format.
  EXPECT_EQ(probe.node_input(0), nullptr);
  Iop* black = probe.input(0);
  ASSERT_NE(black, nullptr);
  black->validate();
  EXPECT_EQ(black->format().width(), host::defaultFormat().width());
  EXPECT_EQ(black->at(3, 3, Chan_Red), 0.0f);
  EXPECT_EQ(probe.input(1), nullptr);
  EXPECT_EQ(probe.input(7), nullptr);

  auto img = ramp();
  host::Camera camera;
  EXPECT_FALSE(host::connect(probe, 1, img.get()));  // test_input refuses
  EXPECT_FALSE(host::connect(probe, 9, img.get()));
  EXPECT_TRUE(host::connect(probe, 1, &camera));
  EXPECT_TRUE(host::connect(probe, 0, img.get()));
  EXPECT_EQ(probe.node_input(0), img.get());

  probe.validate(false);
  probe.validate(false);
  EXPECT_EQ(probe.validates, 1);
  EXPECT_FALSE(probe.real_valid());
  probe.validate(true);
  probe.validate(false);  // a real validation also counts for a non-real one
  EXPECT_EQ(probe.validates, 2);
  EXPECT_EQ(probe.info().box(), img->info().box());
  EXPECT_EQ(probe.format().width(), 100);

  // The default _request passes the request on; both are recorded.
  host::clearRequests(*img);
  host::prepare(probe, Box(0, 0, 30, 40), Mask_RGB);
  ASSERT_EQ(host::requests(probe).size(), 1u);
  ASSERT_EQ(host::requests(*img).size(), 1u);
  EXPECT_EQ(host::requests(*img)[0].area, Box(0, 0, 30, 40));
  EXPECT_EQ(host::requests(*img)[0].channels, ChannelSet(Mask_RGB));
  EXPECT_EQ(host::requests(*img)[0].count, 1);
  EXPECT_EQ(probe.opens, 1);
  probe.open();
  EXPECT_EQ(probe.opens, 1);  // once per validate...
  probe.request(0, 0, 1, 1, Mask_Red, 1);
  probe.open();
  EXPECT_EQ(probe.opens, 2);  // ...and again after a new request
  host::clearRequests(*img);
  EXPECT_TRUE(host::requests(*img).empty());

  Row row(0, 20);
  probe.engine(0, 0, 20, Mask_RGB, row);
  EXPECT_EQ(row[Chan_Red][0], v(10, 20, Chan_Red));

  // Disconnecting goes back to the default input and invalidates.
  EXPECT_TRUE(host::connect(probe, 0, nullptr));
  EXPECT_FALSE(probe.valid());
  EXPECT_EQ(probe.input(0), black);
}

TEST(Protocol, ReportsAreRecordedAndClearedByTheNextValidation) {
  Probe probe(nullptr);
  host::makeKnobs(probe);
  probe.count = 7;
  probe.validate(true);
  EXPECT_TRUE(host::hasError(probe));
  EXPECT_EQ(host::errorText(probe), "count 7 is over five");
  EXPECT_EQ(host::warnings(probe), std::vector<std::string>{"real"});
  EXPECT_EQ(probe.validates, 1);  // the error did not stop _validate's caller

  probe.count = 2;
  probe.invalidate();
  probe.validate(false);
  EXPECT_FALSE(host::hasError(probe));
  EXPECT_TRUE(host::warnings(probe).empty());

  EXPECT_FALSE(probe.aborted());
  host::setAborted(probe, true);
  EXPECT_TRUE(probe.aborted());

  float proxy;
  std::memcpy(&proxy, &probe.uiContext(), sizeof proxy);
  EXPECT_EQ(proxy, 1.0f);
}

// ---- knobs --------------------------------------------------------------------------------------

TEST(Knobs, RecordsKindsStoresAndExtras) {
  Probe probe(nullptr);
  host::makeKnobs(probe);
  struct Expect { const char* name; int kind; StoreType store; int size; };
  const Expect expected[] = {{"count", 3, IntPtr, 1},       {"gain", 8, FloatPtr, 1},
                             {"pair", 8, FloatPtr, 2},      {"colour", 18, FloatPtr, 3},
                             {"flag", 6, BoolPtr, 1},       {"mode", 4, IntPtr, 1},
                             {"", 20, Custom, 1},           {"", 26, Custom, 1},
                             {"mask", 10, ChannelSetPtr, 1}, {"depth", 11, ChannelPtr, 1},
                             {"matte", 11, ChannelPtr, 1}};
  const auto& list = host::knobs(probe);
  ASSERT_EQ(list.size(), std::size(expected));
  for (size_t i = 0; i < list.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(list[i]->name(), expected[i].name);
    EXPECT_EQ(list[i]->kind(), expected[i].kind);
    EXPECT_EQ(list[i]->storeType(), expected[i].store);
    EXPECT_EQ(list[i]->arraySize(), expected[i].size);
  }
  EXPECT_EQ(list[6]->label(), "Second");
  EXPECT_EQ(list[7]->text(), "1.2.3");
  EXPECT_EQ(reinterpret_cast<std::intptr_t>(list[8]->extra()), 2);
  EXPECT_EQ(reinterpret_cast<std::intptr_t>(list[9]->extra()), 101);
  EXPECT_EQ(reinterpret_cast<std::intptr_t>(list[10]->extra()), 105);
  EXPECT_EQ(list[10]->inputNumber(), 4);
  EXPECT_EQ(list[5]->enumerationEntries(), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(list[1]->label(), "gain");  // no label: the name stands in

  Knob* count = probe.knob("count");
  ASSERT_EQ(count, list[0]);
  EXPECT_EQ(count->flags(), Knob::FORCE_RANGE);
  EXPECT_TRUE(count->hasRange());
  EXPECT_EQ(count->rangeMax(), 10.0);
  EXPECT_EQ(count->tooltip(), "how many");
  EXPECT_TRUE(probe.knob("flag")->flag(Knob::STARTLINE));
  EXPECT_EQ(probe.knob("nope"), nullptr);
  EXPECT_EQ(probe.knob(nullptr), nullptr);
  EXPECT_EQ(probe.knob(""), nullptr);

  count->disable();
  EXPECT_FALSE(count->isEnabled());
  EXPECT_TRUE(count->flag(Knob::DISABLED));
  count->enable();
  EXPECT_TRUE(count->isEnabled());
}

TEST(Knobs, SetValueWritesTheFieldWithForcedRangesOnly) {
  Probe probe(nullptr);
  host::makeKnobs(probe);
  EXPECT_TRUE(probe.knob("count")->set_value(50));
  EXPECT_EQ(probe.count, 10);  // FORCE_RANGE clamps
  EXPECT_TRUE(probe.knob("gain")->set_value(4.5));
  EXPECT_EQ(probe.gain, 4.5f);  // a slider range does not
  EXPECT_TRUE(probe.knob("colour")->set_value(0.25));
  EXPECT_EQ(probe.colour[0], 0.25f);
  EXPECT_EQ(probe.colour[2], 0.25f);
  EXPECT_TRUE(probe.knob("pair")->set_value(9, 1));
  EXPECT_EQ(probe.pair[0], 1.0f);
  EXPECT_EQ(probe.pair[1], 9.0f);
  EXPECT_EQ(probe.knob("pair")->get_value(1), 9.0);
  EXPECT_FALSE(probe.knob("pair")->set_value(9, 2));
  EXPECT_TRUE(probe.knob("flag")->set_value(1));
  EXPECT_TRUE(probe.flag);
  EXPECT_TRUE(probe.knob("mode")->set_value(12));
  EXPECT_EQ(probe.mode, 2);  // an enumeration holds one of its entries
  EXPECT_FALSE(probe.knob("mask")->set_value(1));
  EXPECT_TRUE(probe.changed.empty());  // set_value never calls knob_changed

  EXPECT_TRUE(host::userEdit(probe, "count", -3));
  EXPECT_EQ(probe.count, 1);
  EXPECT_EQ(probe.changed, std::vector<std::string>{"count"});
  EXPECT_FALSE(host::userEdit(probe, "nope", 1));
  EXPECT_TRUE(host::userEditChannels(probe, "mask", ChannelSet(Mask_Alpha)));
  EXPECT_EQ(probe.mask, ChannelSet(Mask_Alpha));
  EXPECT_TRUE(host::userEditChannel(probe, "matte", Chan_Green));
  EXPECT_EQ(probe.matte, Chan_Green);
  EXPECT_EQ(probe.changed.size(), 3u);

  probe.validate(false);
  EXPECT_TRUE(host::userEdit(probe, "gain", 0.1));
  EXPECT_FALSE(probe.valid());
}

TEST(Knobs, StorePassHandsBackTheSameRecords) {
  Probe probe(nullptr);
  host::makeKnobs(probe);
  const std::vector<Knob*> before = host::knobs(probe);
  probe.knob("count")->tooltip("edited");
  host::storeKnobs(probe);
  EXPECT_EQ(probe.knobsCalls, 2);
  EXPECT_EQ(host::knobs(probe), before);
  EXPECT_EQ(probe.knob("count")->tooltip(), "edited");  // Tooltip ignored in a store pass

  struct Recorder : Knob_Closure {
    using Knob_Closure::Knob_Closure;
    std::vector<Knob*> got;
    Knob* operator()(int type, StoreType store, void* p, const char* name, const char* label,
                     const void* extra) override {
      got.push_back(Knob_Closure::operator()(type, store, p, name, label, extra));
      return got.back();
    }
  } f(probe, false);
  probe.knobs(f);
  EXPECT_EQ(f.got, before);
}

// ---- deep ---------------------------------------------------------------------------------------

namespace {

std::unique_ptr<host::DeepImage> deepScene() {
  auto img = std::make_unique<host::DeepImage>(Format(8, 8), Box(2, 2, 4, 4), Mask_RGBA);
  // Added out of order; the image sorts by front, ties by back.
  img->addSample(2, 2, {{Chan_DeepFront, 5}, {Chan_DeepBack, 6}, {Chan_Red, 0.5f}, {Chan_Alpha, 0.5f}});
  img->addSample(2, 2, {{Chan_DeepFront, 1}, {Chan_DeepBack, 3}, {Chan_Red, 0.1f}, {Chan_Alpha, 0.2f}});
  img->addSample(2, 2, {{Chan_DeepFront, 1}, {Chan_DeepBack, 2}, {Chan_Red, 0.3f}, {Chan_Alpha, 0.4f}});
  img->addSample(3, 3, {{Chan_DeepFront, 7}, {Chan_Green, 1}});
  return img;
}

}  // namespace

TEST(Deep, PlaneHoldsSortedSamplesNearestAtTheHighestIndex) {
  auto img = deepScene();
  DeepOp& deep = *img;
  deep.validate(true);
  EXPECT_EQ(deep.deepInfo().channels(), ChannelSet(Mask_RGBA) + ChannelSet(Mask_Deep));

  ChannelSet asked = ChannelSet(Mask_RGBA) + Chan_DeepFront + Chan_DeepBack + Chan_Z;
  deep.deepRequest(Box(0, 0, 5, 5), asked);
  ASSERT_EQ(host::deepRequests(deep).size(), 1u);
  EXPECT_EQ(host::deepRequests(deep)[0].area, Box(0, 0, 5, 5));

  DeepPlane plane;
  ASSERT_TRUE(deep.deepEngine(Box(1, 1, 5, 5), asked, plane));
  EXPECT_EQ(plane.box(), Box(1, 1, 5, 5));
  EXPECT_EQ(plane.channels().size(), asked.size());

  DeepPixel p = plane.getPixel(2, 2);
  ASSERT_EQ(p.getSampleCount(), 3u);
  // Ordered index 2 is the nearest: front 1, back 2.
  EXPECT_EQ(p.getOrderedSample(2, Chan_DeepBack), 2.0f);
  EXPECT_EQ(p.getOrderedSample(2, Chan_Red), 0.3f);
  EXPECT_EQ(p.getOrderedSample(1, Chan_DeepBack), 3.0f);
  EXPECT_EQ(p.getOrderedSample(0, Chan_DeepFront), 5.0f);
  EXPECT_EQ(p.getUnorderedSample(0, Chan_DeepFront), 1.0f);
  EXPECT_EQ(p.getOrderedSample(0, Chan_Z), 0.0f);     // the image lacks Z
  EXPECT_EQ(p.getOrderedSample(9, Chan_Red), 0.0f);   // past the end
  EXPECT_EQ(plane.getPixel(3, 3).getOrderedSample(0, Chan_DeepBack), 7.0f);  // back = front
  EXPECT_EQ(plane.getPixel(1, 1).getSampleCount(), 0u);  // outside the data window
  EXPECT_EQ(plane.getPixel(0, 0).getSampleCount(), 0u);  // outside the plane

  img->setEngineFails(true);
  EXPECT_FALSE(deep.deepEngine(Box(1, 1, 5, 5), asked, plane));
}

TEST(Deep, OutPixelOrderings) {
  const ChannelMap map(ChannelSet(Chan_DeepFront) + Chan_DeepBack);
  DeepOutPixel out;
  for (float f : {9.0f, 3.0f, 6.0f}) {
    out.push_back(f);
    out.push_back(f + 1);
  }
  DeepPixel pushed = out.getPixel(map, DeepPixel::eZDescending);
  ASSERT_EQ(pushed.getSampleCount(), 3u);
  EXPECT_EQ(pushed.getOrderedSample(0, Chan_DeepFront), 9.0f);
  EXPECT_EQ(pushed.getOrderedSample(2, Chan_DeepFront), 6.0f);
  EXPECT_EQ(out.getPixel(map, DeepPixel::eZAscending).getOrderedSample(0, Chan_DeepFront), 6.0f);
  DeepPixel sorted = out.getPixel(map, DeepPixel::eUnordered);
  EXPECT_EQ(sorted.getOrderedSample(0, Chan_DeepFront), 9.0f);
  EXPECT_EQ(sorted.getOrderedSample(2, Chan_DeepFront), 3.0f);
}

TEST(Deep, CombineOverlappingSamples) {
  const ChannelSet chans = ChannelSet(Mask_Red) + Chan_Alpha + Chan_DeepFront + Chan_DeepBack;
  const ChannelMap map(chans);
  // Nearest first: {front, back, red, alpha}.
  auto combine = [&](std::vector<std::vector<float>> samples) {
    DeepOutPixel in;
    for (auto it = samples.rbegin(); it != samples.rend(); ++it)  // pushed far first
      for (float f : {(*it)[2], (*it)[3], (*it)[0], (*it)[1]})
        in.push_back(f);
    DeepOutPixel out;
    CombineOverlappingSamples(map, in.getPixel(map, DeepPixel::eZDescending), out);
    std::vector<std::vector<float>> groups;
    for (size_t i = 0; i + 4 <= out.size(); i += 4)
      groups.push_back({out[i + 2], out[i + 3], out[i], out[i + 1]});
    return groups;
  };
  using G = std::vector<std::vector<float>>;

  // Apart, and touching (front == running back): nothing merges.
  EXPECT_EQ(combine({{1, 2, 0.5f, 0.5f}, {2, 3, 0.25f, 0.25f}, {5, 6, 1, 1}}),
            (G{{1, 2, 0.5f, 0.5f}, {2, 3, 0.25f, 0.25f}, {5, 6, 1, 1}}));
  // A chain: the second overlaps the first, the third only the grown group.
  EXPECT_EQ(combine({{1, 4, 0.5f, 0.5f}, {3, 5, 0.5f, 0.5f}, {4.5f, 8, 0.5f, 0.5f}, {9, 10, 0.1f, 0.1f}}),
            (G{{1, 8, 0.875f, 0.875f}, {9, 10, 0.1f, 0.1f}}));
  // A far sample inside a near one's span.
  EXPECT_EQ(combine({{0, 10, 0.2f, 0.5f}, {2, 3, 0.4f, 1.0f}}), (G{{0, 10, 0.4f, 1.0f}}));
  EXPECT_TRUE(combine({}).empty());

  // Straight from a plane (nearest at the highest index), with overlap.
  auto img = deepScene();
  img->validate();
  DeepPlane plane;
  ASSERT_TRUE(img->deepEngine(Box(2, 2, 3, 3), chans, plane));
  DeepOutPixel out;
  CombineOverlappingSamples(map, plane.getPixel(2, 2), out);
  ASSERT_EQ(out.size(), 8u);  // {1,2} and {1,3} merge; {5,6} stays
  EXPECT_EQ(out[2], 1.0f);
  EXPECT_EQ(out[3], 3.0f);
  EXPECT_FLOAT_EQ(out[0], 0.3f + 0.1f * 0.6f);
  EXPECT_FLOAT_EQ(out[1], 0.4f + 0.2f * 0.6f);
  EXPECT_EQ(out[6], 5.0f);
}

// ---- threads ------------------------------------------------------------------------------------

TEST(Threads, SpawnRunsEveryIndexAndWaitJoinsThem) {
  struct Work {
    std::atomic<int> seen[8];
    std::atomic<unsigned> counts{0};
  } work;
  for (auto& s : work.seen)
    s = 0;
  auto f = [](unsigned i, unsigned n, void* data) {
    Work* w = static_cast<Work*>(data);
    w->seen[i] += 1;
    w->counts += n;
  };
  ASSERT_TRUE(Thread::spawn(f, 8, &work));
  Thread::wait(&work);
  for (auto& s : work.seen)
    EXPECT_EQ(s.load(), 1);
  EXPECT_EQ(work.counts.load(), 64u);
  EXPECT_FALSE(Thread::spawn(f, 0, &work));
  Thread::wait(&work);  // nothing left: returns at once
  EXPECT_GE(Thread::numCPUs, 1u);
}
