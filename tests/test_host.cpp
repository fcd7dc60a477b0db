// The host layer's behaviour that the node's engines and tests lean on.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "DDImage/DeepComposite.h"
#include "DDImage/Host.h"
#include "DDImage/Knobs.h"
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

float v(int x, int y, Channel z) { return 100.0f * x + y + 0.1f * z; }

// 4x3 box at (10, 20) inside a 100x50 format, each pixel distinct per channel.
std::unique_ptr<host::FlatImage> ramp() {
  auto img = std::make_unique<host::FlatImage>(Format(100, 50), Box(10, 20, 14, 23), ChannelSet(Mask_RGB));
  img->fill(v);
  img->validate();
  return img;
}

}  // namespace

// ---- channels -----------------------------------------------------------------------------------

TEST(Channels, RegistryNumbersAndAscendingSets) {
  const std::pair<const char*, int> names[] = {{"rgba.red", 1}, {"R", 1}, {"G", 2}, {"B", 3}, {"A", 4}, {"Z", 5},
                                               {"depth.Z", 5}, {"deep.front", 16}, {"deep.back", 17}, {"", 0}};
  for (const auto& [name, number] : names)
    EXPECT_EQ(getChannel(name), number) << name;
  EXPECT_EQ(findChannel("test.never"), Chan_Black);  // find does not make
  std::vector<int> numbers;
  for (int i = 0; i < 16; ++i)
    numbers.push_back(getChannel(("test.c" + std::to_string(i)).c_str()));
  EXPECT_GE(numbers[0], 6);
  for (size_t i = 1; i < numbers.size(); ++i)
    EXPECT_EQ(numbers[i], numbers[i - 1] + 1 == 16 ? 18 : numbers[i - 1] + 1);
  EXPECT_EQ(getChannel("test.c3"), numbers[3]);  // found again, not made anew
  EXPECT_STREQ(getName(static_cast<Channel>(numbers[5])), "test.c5");

  ChannelSet s(Chan_DeepBack);  // sets walk ascending whatever the insertion order
  for (int z : {1023, 5, 0, 3, 1, 2, 4})
    s += static_cast<Channel>(z);
  EXPECT_EQ(walk(s), (std::vector<int>{1, 2, 3, 4, 5, 17, 1023}));
  EXPECT_EQ(s.size(), 7u);
  ChannelSet t = (s - Mask_RGB) & (ChannelSet(Mask_Alpha) + Chan_Z + Chan_DeepFront);
  EXPECT_EQ(walk(t), (std::vector<int>{4, 5}));
  EXPECT_TRUE(s.contains(t) && !t.contains(s));
  EXPECT_EQ(ChannelSet(Mask_All).size(), 1023u);

  // A map numbers its channels ascending: low channels and high ones, either side of a set's
  // 64-channel words, and none for a channel it lacks or for an empty map.
  ChannelSet m(Chan_DeepBack);
  for (int z : {1023, 64, 63, 2})
    m += static_cast<Channel>(z);
  const ChannelMap map(m);
  const std::pair<int, int> slots[] = {{2, 0}, {17, 1}, {63, 2}, {64, 3}, {1023, 4}, {1, -1}, {65, -1}, {0, -1}};
  for (const auto& [z, slot] : slots)
    EXPECT_EQ(map.chanNo(static_cast<Channel>(z)), slot) << z;
  EXPECT_EQ(ChannelMap().chanNo(Chan_Red), -1);
  EXPECT_EQ(ChannelMap(ChannelSet(Mask_Red)).chanNo(Chan_Green), -1);
}

// ---- rows ---------------------------------------------------------------------------------------

TEST(Rows, AbsoluteAddressingCopyAndErase) {
  Row a(-5, 5), b(0, 20);
  EXPECT_EQ(a[Chan_Red][4], 0.0f);  // never written
  for (int x = -5; x < 5; ++x)
    a.writable(Chan_Red)[x] = static_cast<float>(x);
  EXPECT_EQ(a[Chan_Red][-5], -5.0f);
  for (int x = 0; x < 20; ++x)
    b.writable(Chan_Red)[x] = 99.0f;
  b.copy(a, Mask_RGB, -100, 100);  // clipped to both rows; the rest left alone
  EXPECT_EQ(b[Chan_Red][4], 4.0f);
  EXPECT_EQ(b[Chan_Red][5], 99.0f);
  b.erase(Mask_Red);
  EXPECT_EQ(b[Chan_Red][10], 0.0f);

  Row many(0, 3);  // more channels than the row keeps inline
  for (int z = 1; z <= 40; ++z)
    many.writable(static_cast<Channel>(z))[2] = static_cast<float>(z);
  for (int z = 1; z <= 40; ++z)
    EXPECT_EQ(many[static_cast<Channel>(z)][2], static_cast<float>(z));
  Row wide(-100000, 100000);  // wider than the shared zero buffer
  EXPECT_EQ(wide[Chan_Blue][99999], 0.0f);
}

// ---- reading a flat input -------------------------------------------------------------------------

TEST(FlatRead, EdgesRepeatOutsideTheBoxAndMissingDataReadsZero) {
  auto img = ramp();
  // {y, x, r}: inside; overlapping both sides below; wholly left above; wholly right.
  for (const auto& s : {std::array<int, 3>{21, 10, 14}, {5, 0, 30}, {40, -8, -2}, {22, 50, 52}}) {
    Row row(s[1], s[2]);
    row.get(*img, s[0], s[1], s[2], Mask_RGB);
    for (int x = s[1]; x < s[2]; ++x)  // clamped into x 10..13, y 20..22
      EXPECT_EQ(row[Chan_Green][x], v(std::clamp(x, 10, 13), std::clamp(s[0], 20, 22), Chan_Green)) << x;
  }
  EXPECT_EQ(img->at(-1000, -1000, Chan_Blue), v(10, 20, Chan_Blue));
  EXPECT_EQ(img->at(1000, 1000, Chan_Blue), v(13, 22, Chan_Blue));

  // Missing channels, and an input whose box is empty, read 0.
  host::FlatImage empty(Format(10, 10), Box(5, 5, 5, 9), Mask_RGBA);
  empty.validate();
  for (Iop* src : {static_cast<Iop*>(img.get()), static_cast<Iop*>(&empty)}) {
    Row row(0, 20);
    row.writable(Chan_Alpha)[12] = row.writable(Chan_Red)[3] = 7.0f;  // stale values get overwritten
    row.get(*src, 6, 0, 20, Mask_RGBA);
    EXPECT_EQ(row[Chan_Alpha][12], 0.0f);
    EXPECT_EQ(row[Chan_Red][3], src == &empty ? 0.0f : v(10, 20, Chan_Red));
    EXPECT_EQ(src->at(5, 6, Chan_Z), 0.0f);
  }
}

// ---- ops, the call protocol and knobs --------------------------------------------------------------

namespace {

class Probe : public Iop {
public:
  explicit Probe(Node* node) : Iop(node) { inputs(2); }
  const char* Class() const override { return "HostTestProbe"; }
  const char* node_help() const override { return "probe"; }
  void engine(int y, int x, int r, ChannelMask channels, Row& row) override { row.get(*input(0), y, x, r, channels); }
  bool test_input(int n, Op* op) const override {
    return n == 1 ? dynamic_cast<CameraOp*>(op) != nullptr : Iop::test_input(n, op);
  }
  Op* default_input(int n) const override { return n == 0 ? Iop::default_input(0) : nullptr; }
  void knobs(Knob_Callback f) override {
    ++knobsCalls;
    Int_knob(f, &count, "count");
    SetRange(f, 1, 10);
    SetFlags(f, Knob::FORCE_RANGE);
    Float_knob(f, &gain, "gain");
    SetRange(f, 0, 1);
    MultiFloat_knob(f, pair, 2, "pair");
    Color_knob(f, colour, "colour");
    Enumeration_knob(f, &mode, kModes, "mode");
    ChannelMask_knob(f, &mask, "mask");
    Input_Channel_knob(f, &matte, 1, 4, "matte");
  }
  int knob_changed(Knob* k) override { return changed.push_back(k->name()), 1; }

  static constexpr const char* kModes[] = {"a", "b", "c", nullptr};
  int count = 3, mode = 0, knobsCalls = 0, validates = 0, opens = 0;
  float gain = 0.5f, pair[2] = {1, 2}, colour[3] = {0, 0, 0};
  ChannelSet mask{Mask_RGBA};
  Channel matte = Chan_Black;
  std::vector<std::string> changed;

protected:
  void _validate(bool) override {
    ++validates;
    copy_info();
    if (count > 5)
      error("count %d is over %s", count, "five");
  }
  void _open() override { ++opens; }
};

Op* buildProbe(Node* node) { return new Probe(node); }
const Op::Description probeDescription("HostTestProbe", buildProbe);

}  // namespace

TEST(Protocol, ConnectValidateRequestOpenReport) {
  std::unique_ptr<Op> op = host::create("HostTestProbe");
  Probe& probe = dynamic_cast<Probe&>(*op);
  Iop* black = probe.input(0);  // an open input 0 is black in the default format
  ASSERT_NE(black, nullptr);
  black->validate();
  EXPECT_EQ(black->at(3, 3, Chan_Red), 0.0f);

  auto img = ramp();
  host::Camera camera;
  EXPECT_FALSE(host::connect(probe, 1, img.get()) || host::connect(probe, 9, img.get()));  // test_input, range
  EXPECT_TRUE(host::connect(probe, 1, &camera) && host::connect(probe, 0, img.get()));

  probe.validate(false);
  probe.validate(false);
  EXPECT_TRUE(probe.validates == 1 && !probe.real_valid());
  probe.validate(true);
  probe.validate(false);  // a real validation also counts for a non-real one
  EXPECT_EQ(probe.validates, 2);
  EXPECT_EQ(probe.info().box(), img->info().box());

  host::prepare(probe, Box(0, 0, 30, 40), Mask_RGB);
  EXPECT_EQ(host::requests(probe).size(), 1u);
  ASSERT_EQ(host::requests(*img).size(), 1u);  // the default _request passes it on
  EXPECT_TRUE(host::requests(*img)[0].area == Box(0, 0, 30, 40) && host::requests(*img)[0].channels == Mask_RGB);
  probe.open();
  EXPECT_EQ(probe.opens, 1);  // once per invalidation...
  probe.request(0, 0, 1, 1, Mask_Red, 1);
  probe.open();
  EXPECT_EQ(probe.opens, 1);  // ...however many requests come in between
  host::clearRequests(*img);
  EXPECT_TRUE(host::requests(*img).empty());

  EXPECT_TRUE(host::connect(probe, 0, nullptr));
  EXPECT_TRUE(!probe.valid() && probe.input(0) == black);
  probe.count = 7;  // an error lasts until the next validation
  probe.validate(true);
  EXPECT_EQ(host::errorText(probe), "count 7 is over five");
  EXPECT_TRUE(host::userEdit(probe, "count", 2));
  probe.validate(false);
  EXPECT_FALSE(host::hasError(probe));
  EXPECT_EQ(probe.uiContext().scale_x(), 1.0f);
}

TEST(Knobs, SetValueClampsOnlyForcedRangesAndUserEditsNotify) {
  Probe probe(nullptr);
  host::makeKnobs(probe);
  const std::vector<Knob*> made = host::knobs(probe);
  host::storeKnobs(probe);  // a store pass hands back the same records
  EXPECT_TRUE(probe.knobsCalls == 2 && host::knobs(probe) == made);

  EXPECT_TRUE(probe.knob("count")->set_value(50) && probe.knob("gain")->set_value(4.5));
  EXPECT_EQ(probe.count, 10);
  EXPECT_EQ(probe.gain, 4.5f);  // a slider range does not clamp
  EXPECT_TRUE(probe.knob("colour")->set_value(0.25));  // -1: every element
  EXPECT_EQ(std::vector<float>(probe.colour, probe.colour + 3), std::vector<float>(3, 0.25f));
  EXPECT_TRUE(probe.knob("pair")->set_value(9, 1));
  EXPECT_FALSE(probe.knob("pair")->set_value(7, 2));
  EXPECT_EQ(std::vector<float>(probe.pair, probe.pair + 2), (std::vector<float>{1, 9}));
  EXPECT_TRUE(probe.knob("mode")->set_value(12) && !probe.knob("mask")->set_value(1));
  EXPECT_EQ(probe.mode, 2);  // an enumeration holds one of its entries
  EXPECT_TRUE(probe.changed.empty());  // set_value never calls knob_changed

  probe.validate(false);
  EXPECT_TRUE(host::userEdit(probe, "count", -3));
  EXPECT_TRUE(probe.count == 1 && !probe.valid());
  EXPECT_FALSE(host::userEdit(probe, "nope", 1));
  EXPECT_TRUE(host::userEditChannels(probe, "mask", ChannelSet(Mask_Alpha)));
  EXPECT_TRUE(host::userEditChannel(probe, "matte", Chan_Green));
  EXPECT_TRUE(probe.mask == ChannelSet(Mask_Alpha) && probe.matte == Chan_Green);
  EXPECT_EQ(probe.changed, (std::vector<std::string>{"count", "mask", "matte"}));
}

// ---- deep ---------------------------------------------------------------------------------------

TEST(Deep, PlaneHoldsSortedSamplesNearestAtTheHighestIndex) {
  host::DeepImage img(Format(8, 8), Box(2, 2, 4, 4), Mask_RGBA);
  // Out of order; the image sorts by front, ties by back.
  img.addSample(2, 2, {{Chan_DeepFront, 5}, {Chan_DeepBack, 6}, {Chan_Red, 0.5f}});
  img.addSample(2, 2, {{Chan_DeepFront, 1}, {Chan_DeepBack, 3}, {Chan_Red, 0.1f}});
  img.addSample(2, 2, {{Chan_DeepFront, 1}, {Chan_DeepBack, 2}, {Chan_Red, 0.3f}});
  img.addSample(3, 3, {{Chan_DeepFront, 7}, {Chan_Green, 1}});
  img.validate(true);
  const ChannelSet asked = ChannelSet(Mask_RGBA) + Mask_Deep + Chan_Z;
  img.deepRequest(Box(0, 0, 5, 5), asked);
  ASSERT_EQ(host::deepRequests(img).size(), 1u);
  EXPECT_EQ(host::deepRequests(img)[0].area, Box(0, 0, 5, 5));

  DeepPlane plane;
  ASSERT_TRUE(img.deepEngine(Box(1, 1, 5, 5), asked, plane));
  EXPECT_EQ(plane.box(), Box(1, 1, 5, 5));
  DeepPixel p = plane.getPixel(2, 2);
  ASSERT_EQ(p.getSampleCount(), 3u);
  const float backs[] = {6, 3, 2}, reds[] = {0.5f, 0.1f, 0.3f};  // far to near
  for (size_t i = 0; i < 3; ++i)
    EXPECT_TRUE(p.getOrderedSample(i, Chan_DeepBack) == backs[i] && p.getOrderedSample(i, Chan_Red) == reds[i]) << i;
  EXPECT_EQ(p.getOrderedSample(0, Chan_Z), 0.0f);  // the image lacks Z
  EXPECT_EQ(plane.getPixel(3, 3).getOrderedSample(0, Chan_DeepBack), 7.0f);  // back = front
  EXPECT_EQ(plane.getPixel(1, 1).getSampleCount(), 0u);  // outside the data window
  img.setEngineFails(true);
  EXPECT_FALSE(img.deepEngine(Box(1, 1, 5, 5), asked, plane));
}

// A file's samples handed over whole come out as a stable sort by front, then back, leaves them,
// as samples added one by one do: pixels already in order, reversed, tied on front (then back,
// then as they came), and one with a NaN depth, which the sort moves although no two neighbours
// are out of order.
TEST(Deep, SamplesSetWholeSortAsSamplesAddedOneByOne) {
  const float nan = std::nanf("");
  using S = std::vector<std::array<float, 3>>;  // front, back, red
  const std::vector<S> pixels = {
      {{1, 2, .1f}, {3, 4, .2f}},
      {{5, 6, .3f}, {1, 2, .4f}},
      {{2, 5, .5f}, {2, 3, .6f}, {2, 3, .7f}},
      {{0, 0, .8f}, {2, 2, .9f}, {3, 3, 1}, {nan, 1, 1.1f}, {2, 2, 1.2f}},  // no pair out of order
      {},
      {{4, 4, .25f}}};
  const Box box(1, 1, 4, 3);
  host::DeepImage added(Format(8, 8), box, Mask_Red), whole(Format(8, 8), box, Mask_Red);
  std::vector<float> packed;
  std::vector<std::size_t> first = {0};
  for (std::size_t p = 0; p < pixels.size(); ++p) {
    const int x = box.x() + int(p) % box.w(), y = box.y() + int(p) / box.w();
    for (const auto& s : pixels[p]) {
      added.addSample(x, y, {{Chan_DeepFront, s[0]}, {Chan_DeepBack, s[1]}, {Chan_Red, s[2]}});
      foreach (z, whole.channels())
        packed.push_back(z == Chan_DeepFront ? s[0] : z == Chan_DeepBack ? s[1] : s[2]);
    }
    first.push_back(first.back() + pixels[p].size());
  }
  whole.setSamples(std::move(packed), std::move(first));
  const ChannelSet asked = ChannelSet(Mask_Red) + Mask_Deep;
  for (host::DeepImage* image : {&added, &whole}) {
    image->validate(true);
    DeepPlane plane;
    ASSERT_TRUE(image->deepEngine(box, asked, plane));
    for (std::size_t p = 0; p < pixels.size(); ++p) {
      S want = pixels[p];
      std::stable_sort(want.begin(), want.end(), [](const auto& a, const auto& b) {
        return a[0] != b[0] ? a[0] < b[0] : a[1] < b[1];
      });
      const DeepPixel got = plane.getPixel(box.y() + int(p) / box.w(), box.x() + int(p) % box.w());
      ASSERT_EQ(got.getSampleCount(), want.size());
      for (std::size_t i = 0; i < want.size(); ++i) {
        const float f = got.getUnorderedSample(i, Chan_DeepFront);
        EXPECT_TRUE(f == want[i][0] || (f != f && want[i][0] != want[i][0])) << p << " " << i;
        EXPECT_EQ(got.getUnorderedSample(i, Chan_DeepBack), want[i][1]) << p << " " << i;
        EXPECT_EQ(got.getUnorderedSample(i, Chan_Red), want[i][2]) << p << " " << i;
      }
    }
  }
}

TEST(Deep, OutPixelOrderingsAndCombineOverlappingSamples) {
  const ChannelMap depths{ChannelSet(Mask_Deep)};
  DeepOutPixel pushed;
  for (float f : {9.0f, 10.0f, 3.0f, 4.0f, 6.0f, 7.0f})
    pushed.push_back(f);
  const std::pair<DeepPixel::Ordering, std::vector<float>> orderings[] = {
      {DeepPixel::eZDescending, {9, 3, 6}}, {DeepPixel::eZAscending, {6, 3, 9}}, {DeepPixel::eUnordered, {9, 6, 3}}};
  for (const auto& [ordering, fronts] : orderings)
    for (size_t i = 0; i < 4; ++i)  // index 3 is past the end: 0
      EXPECT_EQ(pushed.getPixel(depths, ordering).getOrderedSample(i, Chan_DeepFront), i < 3 ? fronts[i] : 0) << i;

  const ChannelMap map(ChannelSet(Mask_Red) + Chan_Alpha + Mask_Deep);
  using G = std::vector<float>;  // samples nearest first, each {red, alpha, front, back} (the map's order)
  const std::pair<G, G> cases[] = {
      // Apart, and touching (front == running back): nothing merges.
      {{.5f, .5f, 1, 2, .25f, .25f, 2, 3, 1, 1, 5, 6}, {.5f, .5f, 1, 2, .25f, .25f, 2, 3, 1, 1, 5, 6}},
      // A chain: the third overlaps only the grown group.
      {{.5f, .5f, 1, 4, .5f, .5f, 3, 5, .5f, .5f, 4.5f, 8, .1f, .1f, 9, 10}, {.875f, .875f, 1, 8, .1f, .1f, 9, 10}},
      // Equal fronts overlap.
      {{.5f, .5f, 1, 2, .5f, .5f, 1, 3}, {.75f, .75f, 1, 3}},
      // A far sample nested inside a near one's span.
      {{.2f, .5f, 0, 10, .4f, 1, 2, 3}, {.4f, 1, 0, 10}},
      {{}, {}}};
  for (const auto& [in, want] : cases) {
    DeepOutPixel near, out;  // pushed near first: ordered index 0 is the last pushed, the farthest
    for (float f : in)
      near.push_back(f);
    CombineOverlappingSamples(map, near.getPixel(map, DeepPixel::eZAscending), out);
    EXPECT_EQ(G(out.data(), out.data() + out.size()), want);
  }
}

// ---- threads ------------------------------------------------------------------------------------

TEST(Threads, SpawnRunsEveryIndexAndWaitJoinsThem) {
  struct Work { std::atomic<int> seen[8] = {}; std::atomic<unsigned> total{0}; } work;
  auto f = [](unsigned i, unsigned n, void* data) {
    static_cast<Work*>(data)->seen[i] += 1;
    static_cast<Work*>(data)->total += n;
  };
  ASSERT_TRUE(Thread::spawn(f, 8, &work));
  Thread::wait(&work);
  EXPECT_EQ(work.total.load(), 64u);
  for (auto& s : work.seen)
    EXPECT_EQ(s.load(), 1);
  EXPECT_FALSE(Thread::spawn(f, 0, &work));
}
