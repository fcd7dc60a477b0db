// vorel in a shot pipeline, through the built program: frame ranges and patterns, animated knobs
// and cameras, failed and finished frames, headers that survive the render, multi-part files,
// the lens from a header, the focus picker and the JSON interfaces.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>


#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "app/AppError.h"
#include "app/Animation.h"
#include "app/Cli.h"
#include "app/Frames.h"
#include "app/ImageFiles.h"
#include "support/RunVorel.h"

namespace fs = std::filesystem;
using namespace vorelapp;
using namespace vorelapp::test;
using OIIO::ImageSpec;
using OIIO::TypeDesc;

namespace {

// Lines of `text` holding `what`.
std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}

// A small shot frame: colour that shows a blur, depth from 100 at the left to 400 at the right.
// `types` gives each channel's pixel type in the file; `attributes` adds header entries.
struct FrameFile {
  int width = 32, height = 20;
  std::vector<TypeDesc> types = {TypeDesc::FLOAT, TypeDesc::FLOAT, TypeDesc::FLOAT,
                                 TypeDesc::FLOAT, TypeDesc::FLOAT};
  std::string compression = "zip";
  std::function<void(ImageSpec&)> attributes;
  std::function<float(int, int)> depth;  // default: the ramp
  float shade = 0.0f;                    // a per-frame change of colour

  ImageSpec spec() const {
    ImageSpec spec(width, height, 5, TypeDesc::FLOAT);
    spec.channelnames = {"R", "G", "B", "A", "Z"};
    spec.channelformats = types;
    spec.alpha_channel = 3;
    spec.z_channel = 4;
    spec.attribute("compression", compression);
    if (attributes)
      attributes(spec);
    return spec;
  }
  std::vector<float> pixels() const {
    std::vector<float> p;
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        const float z = depth ? depth(x, y) : 100.0f + 300.0f * float(x) / float(width - 1);
        const float check = ((x / 3 + y / 3) % 2) ? 0.9f : 0.1f;
        for (float v : {check, 0.2f + 0.6f * float(y) / float(height), shade + 0.5f, 1.0f, z})
          p.push_back(v);
      }
    return p;
  }
  std::string write(const std::string& path) const {
    auto out = OIIO::ImageOutput::create(path);
    const ImageSpec s = spec();
    const auto p = pixels();
    if (!out || !out->open(path, s) || !out->write_image(TypeDesc::FLOAT, p.data()) || !out->close())
      throw std::runtime_error("cannot write " + path);
    return path;
  }
};

ImageSpec header(const std::string& path, int part = 0) {
  auto in = OIIO::ImageInput::open(path);
  if (!in || !in->seek_subimage(part, 0))
    throw std::runtime_error("cannot read " + path);
  return in->spec();
}

// Pixels equal, channel by channel, over the box.
bool samePixels(const std::string& a, const std::string& b) {
  const FlatImage x = readFlatImage(a), y = readFlatImage(b);
  return x.box == y.box && x.channels == y.channels && x.planes == y.planes;
}

// Blurs that show within a small frame.
const Names kBlur = {"--set", "max_kernelsize=12", "--set", "multiplier=6", "--set",
                     "focusRegionSize=20", "--threads", "2"};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Frame numbers, ranges and curves

TEST(Frames, PatternsAndRangesAsCompositorsWriteThem) {
  const std::vector<std::pair<std::string, std::string>> paths = {
      {"shot.####.exr", "shot.1001.exr"}, {"shot.%04d.exr", "shot.1001.exr"},
      {"shot.@.exr", "shot.1001.exr"},    {"s.@@@@@@.exr", "s.001001.exr"},
      {"a/%d/b.##.exr", "a/1001/b.1001.exr"}, {"plain.exr", "plain.exr"}};
  for (const auto& [pattern, path] : paths) {
    EXPECT_EQ(framePath(pattern, 1001), path) << pattern;
    EXPECT_EQ(hasFramePattern(pattern), pattern != "plain.exr") << pattern;
  }
  EXPECT_EQ(framePath("f.####.exr", -5), "f.-005.exr");
  EXPECT_EQ(framePath("f.####.exr", 7), "f.0007.exr");

  EXPECT_EQ(parseFrames("1001-1005x2"), (std::vector<int>{1001, 1003, 1005}));
  EXPECT_EQ(parseFrames("1-3, 2, 10"), (std::vector<int>{1, 2, 3, 10}));
  EXPECT_EQ(parseFrames("-2--1"), (std::vector<int>{-2, -1}));
  EXPECT_EQ(parseFrames("1000-1006x4"), (std::vector<int>{1000, 1004}));
  for (const char* bad : {"", "a", "5-1", "1-5x0", "1-5x", "1-", "1-2000000000", "1;2"})
    EXPECT_THROW(parseFrames(bad), UsageError) << bad;
  EXPECT_EQ(frameListText({1001, 1002, 1003, 1007, 1009, 1010}), "1001-1003, 1007, 1009-1010");
  // A range text reads back as the frames it was made from, order kept.
  for (const std::vector<int>& frames : std::vector<std::vector<int>>{
           {1001, 1003, 1005, 1006, 1007, 1020}, {-3, -2, -1, 5, 9}, {30, 1, 3, 5, 2}, {7}})
    EXPECT_EQ(parseFrames(frameRangeText(frames)), frames) << frameRangeText(frames);
  EXPECT_EQ(frameRangeText({1001, 1003, 1005, 1006, 1007, 1020}), "1001-1005x2,1006-1007,1020");
}

TEST(Frames, KeysAreLinearBetweenAndHeldOutside) {
  const Curve c = Curve::fromKeys("1050:240 1001:180 1100:200", "test");
  EXPECT_DOUBLE_EQ(c.at(990)[0], 180.0);
  EXPECT_DOUBLE_EQ(c.at(1001)[0], 180.0);
  EXPECT_DOUBLE_EQ(c.at(1025.5)[0], 210.0);
  EXPECT_DOUBLE_EQ(c.at(1075)[0], 220.0);
  EXPECT_DOUBLE_EQ(c.at(2000)[0], 200.0);
  const Curve rgb = Curve::fromKeys("1:0,1,2 3:2,1,0", "test");
  EXPECT_EQ(rgb.textAt(2), "1,1,1");
  EXPECT_TRUE(Curve::looksLikeKeys("1001:180 1050:240"));
  for (const char* plain : {"180", "rgba.red", "Focus Matte", "0.6,1,1", "1001:"})
    EXPECT_FALSE(Curve::looksLikeKeys(plain)) << plain;
  EXPECT_THROW(Curve::fromKeys("1:1 1:2", "test"), UsageError);
  EXPECT_THROW(Curve::fromKeys("1:1 2:1,2", "test"), UsageError);
}

TEST(Frames, ArgumentsParseAsTheCommandLineParsesThem) {
  const ShotOptions o = parseRenderArguments(
      {"in.####.exr", "-o", "out.####.exr", "--frames", "1-9x2", "--set", "a=1", "--set", "b=2",
       "--half", "--skip-existing", "--focus-at", "3,4", "--camera-file", "cam.chan"});
  EXPECT_EQ(o.render.input, "in.####.exr");
  EXPECT_EQ(o.frames, "1-9x2");
  EXPECT_EQ(o.cameraFile, "cam.chan");
  ASSERT_EQ(o.render.settings.size(), 2u);
  EXPECT_EQ(o.render.settings[1].name, "b");
  EXPECT_TRUE(o.skipExisting && o.render.hasFocusAt && o.render.focusY == 4);
  EXPECT_EQ(o.render.pixelType, PixelType::Half);
  EXPECT_THROW(parseRenderArguments({"in.exr", "-o", "x.exr", "--half", "--float"}), UsageError);
  EXPECT_THROW(parseRenderArguments({"in.exr"}), UsageError);
}

// ---------------------------------------------------------------------------------------------
// Shots through the program

TEST(Shots, AFocusPullRendersEachFrameAsItsOwnSettingWould) {
  TempDir dir;
  for (int f = 1001; f <= 1004; ++f)
    FrameFile{}.write(dir / ("shot." + std::to_string(f) + ".exr"));
  std::ofstream(dir / "focus.chan") << "# frame focalPlane\n1001 150\n1003 250\n";
  std::ofstream(dir / "keys.preset") << "focalPlane 1001:400 1004:90\n";

  const Outcome chan = vorel(dir, Names{"render", "shot.####.exr", "-o", "chan.####.exr",
                                        "--frames", "1001-1004", "--set", "focalPlane=@focus.chan"} + kBlur,
                             true);
  ASSERT_EQ(chan.code, 0) << chan.err;
  const Outcome keys = vorel(dir, Names{"render", "shot.%04d.exr", "-o", "keys.@@@@.exr", "--frames",
                                        "1001-1004x3", "--preset", "keys.preset"} + kBlur);
  ASSERT_EQ(keys.code, 0) << keys.err;
  EXPECT_FALSE(fs::exists(dir / "keys.1002.exr"));
  EXPECT_EQ(count(chan.err, "wrote chan."), 4u) << chan.err;

  // Frame 1002 lies halfway between the keys, 1004 past the last one.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"chan.1001.exr", "150"}, {"chan.1002.exr", "200"}, {"chan.1004.exr", "250"},
      {"keys.1001.exr", "400"}, {"keys.1004.exr", "90"}};
  for (const auto& [file, focus] : cases) {
    const std::string frame = file.substr(5, 4);
    const Outcome one = vorel(dir, Names{"render", "shot." + frame + ".exr", "-o", "one.exr",
                                         "--set", "focalPlane=" + focus} + kBlur);
    ASSERT_EQ(one.code, 0) << one.err;
    EXPECT_TRUE(samePixels(dir / file, dir / "one.exr")) << file;
    EXPECT_NE(header(dir / file).get_string_attribute("vorel/settings").find("focalPlane=" + focus),
              std::string::npos) << file;
  }
  EXPECT_FALSE(samePixels(dir / "chan.1001.exr", dir / "chan.1004.exr"));
}

// One node renders the whole shot and keeps its kernels while the lens allows; every file is still
// the one a render of that frame alone writes, byte for byte.
TEST(Shots, AShotKeepsItsKernelsAndWritesWhatEachFrameAloneWould) {
  TempDir dir;
  for (int f = 1; f <= 3; ++f) {
    FrameFile frame;
    frame.shade = 0.1f * float(f);
    frame.write(dir / ("in." + std::to_string(f) + ".exr"));
  }
  FlatImage kernel = image({0, 0, 7, 7}, {0, 0, 7, 7}, {"R", "G", "B"},
                           [](int c, int x, int y) { return (x + y + c) % 3 ? 1.0f : 0.2f; });
  writeExr(dir / "k.exr", kernel);
  struct Case {
    const char* name;
    Names knobs;
    std::vector<std::string> alone;  // each frame's own knobs
    bool reused;                     // frames 2 and 3 take the kernels of frame 1
  };
  auto each = [](const std::string& knob, Names values) {
    std::vector<std::string> out;
    for (const std::string& v : values)
      out.push_back(knob + "=" + v);
    return out;
  };
  const Case cases[] = {
      {"pull", Names{"--set", "focalPlane=1:120 3:300"}, each("focalPlane", {"120", "210", "300"}), true},
      {"lens", Names{"--set", "focalPlane=150", "--kernel", "k.exr"}, each("focalPlane", {"150", "150", "150"}),
       true},
      {"soft", Names{"--set", "kSoftness=1:0.1 3:0.5"}, each("kSoftness", {"0.1", "0.3", "0.5"}), false}};
  for (const Case& c : cases) {
    const std::string name = c.name;
    const Outcome shot = vorel(dir, Names{"render", "in.#.exr", "-o", name + ".#.exr", "--frames", "1-3",
                                          "--json"} + c.knobs + kBlur);
    ASSERT_EQ(shot.code, 0) << shot.err;
    std::istringstream records(shot.out);
    std::string record;
    for (int f = 1; f <= 3; ++f) {
      ASSERT_TRUE(std::getline(records, record)) << shot.out;
      for (const char* field : {"\"scanTime\":", "\"bankTime\":", "\"tableTime\":"})
        EXPECT_NE(record.find(field), std::string::npos) << record;
      const bool reused = f > 1 && c.reused;
      EXPECT_NE(record.find(std::string("\"bankReused\":") + (reused ? "true" : "false")),
                std::string::npos) << name << " " << record;

      const std::string n = std::to_string(f);
      Names alone = {"render", "in." + n + ".exr", "-o", name + "-alone." + n + ".exr", "--set",
                     c.alone[std::size_t(f - 1)]};
      if (name == "lens")
        alone = alone + Names{"--kernel", "k.exr"};
      const Outcome one = vorel(dir, alone + kBlur);
      ASSERT_EQ(one.code, 0) << one.err;
      EXPECT_EQ(bytes(dir / (name + "." + n + ".exr")), bytes(dir / (name + "-alone." + n + ".exr")))
          << name << " frame " << n;
    }
  }

  // The open time split by stage, in the line another tool parses.
  const Outcome timed = vorel(dir, Names{"render", "in.#.exr", "-o", "t.#.exr", "--frames", "1-2",
                                         "--timings", "-q"} + kBlur);
  ASSERT_EQ(timed.code, 0) << timed.err;
  std::istringstream lines(timed.out);
  int matched = 0;
  for (std::string l; std::getline(lines, l);) {
    // The benchmark reads these fields by name and in this order.
    int frame = 0, end = 0;
    double t[7];
    const int got = std::sscanf(l.c_str(),
                                "frame %d: timings: read %lf s, open %lf s (scan %lf s, bank %lf s, tables %lf s), "
                                "rows %lf s, write %lf s%n",
                                &frame, &t[0], &t[1], &t[2], &t[3], &t[4], &t[5], &t[6], &end);
    matched += got == 8 && end == static_cast<int>(l.size()) && (frame == 1 || frame == 2);
  }
  EXPECT_EQ(matched, 2) << timed.out;
}

TEST(Shots, KernelAndMattePathsFollowTheFrameToo) {
  TempDir dir;
  for (int f : {1, 2}) {
    const std::string n = std::to_string(f);
    FrameFile{}.write(dir / ("in." + n + ".exr"));
    // Frame 1's aperture is a square, frame 2's a cross; frame 2's matte holds half the blur back.
    FlatImage kernel;
    kernel.format = kernel.box = {0, 0, 9, 9};
    kernel.channels = {"R", "G", "B", "A"};
    kernel.allocate();
    for (auto& plane : kernel.planes)
      for (int i = 0; i < 81; ++i)
        plane[std::size_t(i)] = f == 1 || i % 9 == 4 || i / 9 == 4 ? 1.0f : 0.0f;
    writeExr(dir / ("k." + n + ".exr"), kernel);
    FlatImage matte = readFlatImage(dir / ("in." + n + ".exr"));
    for (std::size_t i = 0; i < matte.planes[3].size(); ++i)
      matte.planes[3][i] = f == 1 || i % 32 < 16 ? 1.0f : 0.0f;
    writeExr(dir / ("m." + n + ".exr"), matte);
  }
  const Names knobs = kBlur + Names{"--set", "defocusMatteChannel=rgba.alpha"};
  ASSERT_EQ(vorel(dir, Names{"render", "in.#.exr", "-o", "out.#.exr", "--frames", "1-2",
                             "--kernel", "k.#.exr", "--mattes", "m.%d.exr", "--coc-out", "coc.#.exr"} + knobs).code,
            0);
  for (const std::string n : {"1", "2"}) {
    const Outcome one = vorel(dir, Names{"render", "in." + n + ".exr", "-o", "one.exr", "--kernel",
                                         "k." + n + ".exr", "--mattes", "m." + n + ".exr",
                                         "--coc-out", "coc.exr"} + knobs);
    ASSERT_EQ(one.code, 0) << one.err;
    EXPECT_TRUE(samePixels(dir / ("out." + n + ".exr"), dir / "one.exr")) << n;
    EXPECT_TRUE(samePixels(dir / ("coc." + n + ".exr"), dir / "coc.exr")) << n;
  }
  EXPECT_FALSE(samePixels(dir / "out.1.exr", dir / "out.2.exr"));
  EXPECT_FALSE(samePixels(dir / "coc.1.exr", dir / "coc.2.exr"));
}

TEST(Shots, TheCameraFollowsItsTrack) {
  TempDir dir;
  for (int f = 1; f <= 3; ++f)
    FrameFile{}.write(dir / ("shot." + std::to_string(f) + ".exr"));
  // frame, translate, rotate, focal, film back, focus, f-stop; frame 2 is halfway.
  std::ofstream(dir / "cam.chan") << "1 0 0 0 0 0 0 35 24 16 150 2\n"
                                     "3 5 5 5 1 2 3 85 24 16 350 1.4\n";
  const Outcome track = vorel(dir, Names{"render", "shot.#.exr", "-o", "out.#.exr", "--frames",
                                         "1-3", "--camera-file", "cam.chan"} + kBlur);
  ASSERT_EQ(track.code, 0) << track.err;
  const Outcome one = vorel(dir, Names{"render", "shot.2.exr", "-o", "one.exr", "--camera",
                                       "focal=60,haperture=24,vaperture=16,focus=250,fstop=1.7"} + kBlur);
  ASSERT_EQ(one.code, 0) << one.err;
  EXPECT_TRUE(samePixels(dir / "out.2.exr", dir / "one.exr"));
  EXPECT_FALSE(samePixels(dir / "out.1.exr", dir / "out.3.exr"));

  std::ofstream(dir / "short.chan") << "1 0 0 0 0 0 0\n";
  const Outcome bad = vorel(dir, {"render", "shot.#.exr", "-o", "b.#.exr", "--frames", "1-3",
                                  "--camera-file", "short.chan"});
  EXPECT_EQ(bad.code, 2);
  EXPECT_NE(bad.err.find("columns"), std::string::npos) << bad.err;
  EXPECT_FALSE(fs::exists(dir / "b.1.exr"));
}

TEST(Shots, FailedFramesAreListedAndTheRestRenderedOrResumed) {
  TempDir dir;
  for (int f : {1, 2, 4})
    FrameFile{}.write(dir / ("in." + std::to_string(f) + ".exr"));
  const Names base = Names{"render", "in.#.exr", "-o", "out.#.exr"} + kBlur + Names{"--frames"};

  const Outcome stop = vorel(dir, base + Names{"3-4", "--stop-on-error"});
  EXPECT_EQ(stop.code, 1);
  EXPECT_FALSE(fs::exists(dir / "out.4.exr")) << "--stop-on-error went on past frame 3";

  const Outcome run = vorel(dir, base + Names{"1-4"}, true);
  EXPECT_EQ(run.code, 1);
  EXPECT_NE(run.err.find("failed frames: 3\n"), std::string::npos) << run.err;
  for (int f : {1, 2, 4})
    EXPECT_TRUE(fs::exists(dir / ("out." + std::to_string(f) + ".exr"))) << f;

  // A resumed run renders only what is missing and leaves finished frames as they were.
  FrameFile{}.write(dir / "in.3.exr");
  std::ofstream(dir / "out.2.exr", std::ios::trunc) << "finished by an earlier run";
  const Outcome resume = vorel(dir, base + Names{"1-4", "--skip-existing", "--json"});
  EXPECT_EQ(resume.code, 0) << resume.err;
  EXPECT_EQ(bytes(dir / "out.2.exr"), "finished by an earlier run");
  EXPECT_TRUE(fs::exists(dir / "out.3.exr"));
  EXPECT_EQ(count(resume.out, "\"status\":\"skipped\""), 3u) << resume.out;
  EXPECT_EQ(count(resume.out, "\"status\":\"done\""), 1u) << resume.out;

  // Mistakes in the shot itself are found before any frame.
  for (const Names& bad : {Names{"render", "in.#.exr", "-o", "one.exr", "--frames", "1-2"},
                           Names{"render", "in.#.exr", "-o", "x.#.exr"},
                           Names{"render", "in.1.exr", "-o", "x.exr", "--set", "focalPlane=1:5 9:6"},
                           Names{"render", "in.#.exr", "-o", "x.#.exr", "--frames", "4-1"}}) {
    const Outcome r = vorel(dir, bad);
    EXPECT_EQ(r.code, 2) << bad[2] << ": " << r.err;
    EXPECT_EQ(count(r.err, "\n"), 1u) << r.err;
  }
}

TEST(Shots, ProgressCoversTheWholeShot) {
  TempDir dir;
  for (int f : {1, 2, 3})
    FrameFile{}.write(dir / ("in." + std::to_string(f) + ".exr"));
  std::ofstream(dir / "out.2.exr") << "done before";
  const Outcome r = vorel(dir, Names{"render", "in.#.exr", "-o", "out.#.exr", "--frames", "1-3",
                                     "--skip-existing"} + kBlur, false, true);
  ASSERT_EQ(r.code, 0) << r.err;
  for (const char* part : {"] frame 1/3, 20/20 rows", "] frame 3/3, 20/20 rows",
                           "frame 2 (2/3): skipped", "frame 3 (3/3): wrote",
                           "3 frames: 2 rendered", "1 skipped, 0 failed"})
    EXPECT_NE(r.err.find(part), std::string::npos) << part << " in " << r.err;
}

TEST(Shots, JsonRecordsAloneOnStandardOutput) {
  TempDir dir;
  FrameFile{}.write(dir / "in.1.exr");
  const Outcome r = vorel(dir, {"render", "in.#.exr", "-o", "out.#.exr", "--frames", "1-2",
                                "--json", "--timings", "--set", "max_kernelsize=12"}, true);
  EXPECT_EQ(r.code, 1);
  std::istringstream lines(r.out);
  std::vector<std::string> records;
  for (std::string line; std::getline(lines, line);)
    records.push_back(line);
  ASSERT_EQ(records.size(), 2u) << r.out;
  EXPECT_EQ(records[0].rfind("{\"frame\":1,\"file\":\"out.1.exr\"", 0), 0u) << records[0];
  EXPECT_NE(records[0].find("\"status\":\"done\",\"time\":"), std::string::npos);
  EXPECT_NE(records[0].find("\"maxCoC\":"), std::string::npos);
  EXPECT_NE(records[0].find("\"readTime\":"), std::string::npos);
  EXPECT_NE(records[0].find("\"writeTime\":"), std::string::npos);
  EXPECT_NE(records[1].find("\"status\":\"failed\""), std::string::npos);
  EXPECT_NE(records[1].find("no such file: in.2.exr"), std::string::npos);

  const Outcome single = vorel(dir, {"render", "in.2.exr", "-o", "x.exr", "--json"});
  EXPECT_EQ(single.code, 2);
  EXPECT_NE(single.out.find("\"status\":\"failed\""), std::string::npos) << single.out;

  const Outcome knobs = vorel(dir, {"knobs", "--json"}, true);
  ASSERT_EQ(knobs.code, 0);
  EXPECT_EQ(knobs.out.front(), '[') << "the banner or a message is on stdout";
  for (const char* entry : {"\"name\":\"focalPlane\"", "\"entries\":[\"Defocused Image\"",
                            "\"range\":{\"min\":", "\"tooltip\":"})
    EXPECT_NE(knobs.out.find(entry), std::string::npos) << entry;
  if (std::system("python3 -c '' >/dev/null 2>&1") == 0) {
    std::ofstream(dir / "k.json") << knobs.out;
    std::ofstream(dir / "r.json") << r.out;
    EXPECT_EQ(std::system(("cd '" + dir.path.string() +
                           "' && python3 -c 'import json,sys; json.load(open(\"k.json\"));"
                           " [json.loads(l) for l in open(\"r.json\")]'").c_str()),
              0);
  }
}

// ---------------------------------------------------------------------------------------------
// Headers

TEST(Headers, TheInputsHeaderSurvivesWithVorelsOwnAdded) {
  TempDir dir;
  FrameFile in;
  in.types = {TypeDesc::HALF, TypeDesc::HALF, TypeDesc::HALF, TypeDesc::HALF, TypeDesc::FLOAT};
  in.compression = "piz";
  in.attributes = [](ImageSpec& s) {
    s.attribute("Copyright", "Kestavian Labs");
    s.attribute("ImageDescription", "plate 12");
    s.attribute("studio/shot", "sh010");
    s.attribute("FramesPerSecond", TypeDesc(TypeDesc::INT, TypeDesc::VEC2, TypeDesc::RATIONAL),
                std::vector<int>{24, 1}.data());
    const unsigned timecode[2] = {0x01000000u, 0u};
    s.attribute("smpte:TimeCode", TypeDesc::TypeTimeCode, timecode);
    const float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 3, 4, 5, 1};
    s.attribute("worldToCamera", TypeDesc::TypeMatrix, m);
    s.attribute("openexr:lineOrder", "decreasingY");
  };
  in.write(dir / "in.exr");
  const Outcome r = vorel(dir, Names{"render", "in.exr", "-o", "out.exr", "--set", "focalPlane=123"} + kBlur);
  ASSERT_EQ(r.code, 0) << r.err;

  const ImageSpec s = header(dir / "out.exr");
  EXPECT_EQ(s.get_string_attribute("Copyright"), "Kestavian Labs");
  EXPECT_EQ(s.get_string_attribute("ImageDescription"), "plate 12");
  EXPECT_EQ(s.get_string_attribute("studio/shot"), "sh010");
  EXPECT_EQ(s.get_string_attribute("compression"), "piz");
  // The line order is a header attribute "lineOrder" of type "lineOrder", one byte: 1 decreasing.
  const std::string file = bytes(dir / "out.exr");
  const auto lineOrder = file.find(std::string("lineOrder\0lineOrder\0", 20));
  ASSERT_NE(lineOrder, std::string::npos);
  EXPECT_EQ(file[lineOrder + 24], 1);
  EXPECT_EQ(s.get_string_attribute("Software"), "vorel 1.4.3");
  const OIIO::ParamValue* fps = s.find_attribute("FramesPerSecond");
  ASSERT_TRUE(fps);
  EXPECT_EQ(static_cast<const int*>(fps->data())[0], 24);
  const OIIO::ParamValue* tc = s.find_attribute("smpte:TimeCode");
  ASSERT_TRUE(tc);
  EXPECT_EQ(static_cast<const unsigned*>(tc->data())[0], 0x01000000u);
  const OIIO::ParamValue* w2c = s.find_attribute("worldToCamera", TypeDesc::TypeMatrix);
  ASSERT_TRUE(w2c);
  EXPECT_EQ(static_cast<const float*>(w2c->data())[12], 3.0f);
  EXPECT_EQ(s.channelformat(0), TypeDesc::HALF);
  EXPECT_EQ(s.channelformat(4), TypeDesc::FLOAT);
  const std::string settings = s.get_string_attribute("vorel/settings");
  EXPECT_NE(settings.find("focalPlane=123\n"), std::string::npos) << settings;
  EXPECT_EQ(settings.find("outputType="), std::string::npos) << "a default knob was listed";

  // Overrides; and a frame re-rendered from its own header comes out the same.
  const Outcome again = vorel(dir, {"render", "in.exr", "-o", "again.exr", "--settings-from",
                                    "out.exr", "--compression", "zips", "--threads", "1"});
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_TRUE(samePixels(dir / "out.exr", dir / "again.exr"));
  EXPECT_EQ(header(dir / "again.exr").get_string_attribute("compression"), "zips");
  const Outcome full = vorel(dir, {"render", "in.exr", "-o", "float.exr", "--float"});
  ASSERT_EQ(full.code, 0) << full.err;
  EXPECT_EQ(header(dir / "float.exr").channelformat(0), TypeDesc::FLOAT);
  const Outcome half = vorel(dir, {"render", "in.exr", "-o", "half.exr", "--half"});
  ASSERT_EQ(half.code, 0) << half.err;
  EXPECT_EQ(header(dir / "half.exr").channelformat(4), TypeDesc::HALF);
  EXPECT_EQ(vorel(dir, {"render", "in.exr", "-o", "x.exr", "--settings-from", "in.exr"}).code, 2);
}

TEST(Headers, LayersThatAreNotBlurredAreCopied) {
  TempDir dir;
  FlatImage in = readFlatImage(FrameFile{}.write(dir / "base.exr"));
  in.channels.push_back("spec.R");
  in.planes.push_back(in.planes[0]);
  for (std::size_t i = 0; i < in.planes.back().size(); ++i)
    in.planes.back()[i] = float(i % 7) * 0.3f;
  writeExr(dir / "in.exr", in);
  ASSERT_EQ(vorel(dir, Names{"render", "in.exr", "-o", "out.exr"} + kBlur).code, 0);
  const FlatImage out = readFlatImage(dir / "out.exr");
  ASSERT_EQ(out.channels, in.channels);
  EXPECT_EQ(out.planes[5], in.planes[5]);
  EXPECT_NE(out.planes[0], in.planes[0]) << "the colour was not blurred";
}

TEST(Headers, MultiPartFilesComeBackWhole) {
  TempDir dir;
  FrameFile beauty;
  beauty.attributes = [](ImageSpec& s) { s.attribute("oiio:subimagename", "beauty"); };
  FrameFile other;
  other.shade = 0.25f;
  other.types.assign(5, TypeDesc::HALF);
  other.attributes = [](ImageSpec& s) { s.attribute("oiio:subimagename", "notes"); };
  ImageSpec specs[2] = {beauty.spec(), other.spec()};
  {
    auto out = OIIO::ImageOutput::create(dir / "multi.exr");
    ASSERT_TRUE(out->open(dir / "multi.exr", 2, specs));
    ASSERT_TRUE(out->write_image(TypeDesc::FLOAT, beauty.pixels().data()));
    ASSERT_TRUE(out->open(dir / "multi.exr", specs[1], OIIO::ImageOutput::AppendSubimage));
    ASSERT_TRUE(out->write_image(TypeDesc::FLOAT, other.pixels().data()));
    ASSERT_TRUE(out->close());
  }
  beauty.write(dir / "single.exr");
  ASSERT_EQ(vorel(dir, Names{"render", "multi.exr", "-o", "out.exr"} + kBlur).code, 0);
  ASSERT_EQ(vorel(dir, Names{"render", "single.exr", "-o", "one.exr"} + kBlur).code, 0);

  EXPECT_TRUE(samePixels(dir / "out.exr", dir / "one.exr"));
  EXPECT_EQ(header(dir / "out.exr", 1).get_string_attribute("oiio:subimagename"), "notes");
  EXPECT_EQ(header(dir / "out.exr", 1).channelformat(0), TypeDesc::HALF);
  auto read = [](const std::string& path) {
    auto in = OIIO::ImageInput::open(path);
    std::vector<float> p(32 * 20 * 5);
    in->read_image(1, 0, 0, 5, TypeDesc::FLOAT, p.data());
    return p;
  };
  EXPECT_EQ(read(dir / "out.exr"), read(dir / "multi.exr"));
}

// A file that is not an EXR hands on its header too, as EXR attributes of the same values, and
// its lens can drive the render.
TEST(Headers, AnotherKindOfFileHandsOnItsHeader) {
  TempDir dir;
  FrameFile tiff;
  tiff.attributes = [](ImageSpec& s) {
    s.attribute("ImageDescription", "plate 12");
    s.attribute("Exif:FocalLength", 85.0f);
  };
  tiff.write(dir / "in.tif");  // TIFF keeps no name for its fifth channel: the depth is "channel4"
  const Outcome r = vorel(dir, Names{"render", "in.tif", "-o", "out.exr", "--camera-from-metadata",
                                     "--camera", "focus=250,fstop=2,haperture=36,vaperture=24",
                                     "--set", "depthChannel=channel4"} + kBlur);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("focal length 85 (Exif:FocalLength)"), std::string::npos) << r.err;
  const ImageSpec s = header(dir / "out.exr");
  EXPECT_EQ(s.get_string_attribute("ImageDescription"), "plate 12");
  EXPECT_EQ(s.get_int_attribute("Orientation"), 1);  // an int, as the TIFF had it
  EXPECT_FALSE(s.find_attribute("tiff:RowsPerStrip")) << "the TIFF's own layout was handed on";
  EXPECT_NE(s.get_string_attribute("vorel/settings"), "");
}

TEST(Headers, TheLensFromTheHeaderOrNamedAsMissing) {
  TempDir dir;
  FrameFile full;
  full.attributes = [](ImageSpec& s) {
    s.attribute("cameraFocalLength", 85.0f);
    s.attribute("vray/cameraFocusDistance", 250.0f);
    s.attribute("aperture", 1.4f);
    const float sensor[2] = {36.0f, 24.0f};
    s.attribute("sensorOverallDimensions", TypeDesc(TypeDesc::FLOAT, TypeDesc::VEC2), sensor);
  };
  full.write(dir / "full.exr");
  FrameFile partial;
  partial.attributes = [](ImageSpec& s) { s.attribute("Exif:FocalLength", 85.0f); };
  partial.write(dir / "partial.exr");

  const Outcome meta = vorel(dir, Names{"render", "full.exr", "-o", "meta.exr", "--camera-from-metadata"} + kBlur);
  ASSERT_EQ(meta.code, 0) << meta.err;
  for (const char* took : {"focal length 85 (cameraFocalLength)", "focus distance 250",
                           "f-stop 1.4 (aperture)", "film back width 36", "film back height 24"})
    EXPECT_NE(meta.err.find(took), std::string::npos) << took << " in " << meta.err;
  const Outcome given = vorel(dir, Names{"render", "full.exr", "-o", "given.exr", "--camera",
                                         "focal=85,focus=250,fstop=1.4,haperture=36,vaperture=24"} + kBlur);
  ASSERT_EQ(given.code, 0) << given.err;
  EXPECT_TRUE(samePixels(dir / "meta.exr", dir / "given.exr"));

  const Outcome missing = vorel(dir, {"render", "partial.exr", "-o", "x.exr", "--camera-from-metadata"});
  EXPECT_EQ(missing.code, 2);
  for (const char* named : {"focus distance (one of", "f-stop (one of", "film back width"})
    EXPECT_NE(missing.err.find(named), std::string::npos) << named << " in " << missing.err;
  EXPECT_EQ(missing.err.find("focal length (one of"), std::string::npos) << missing.err;
  EXPECT_FALSE(fs::exists(dir / "x.exr"));
  // What the header lacks, --camera gives.
  EXPECT_EQ(vorel(dir, {"render", "partial.exr", "-o", "x.exr", "--camera-from-metadata",
                        "--camera", "focus=250,fstop=2"}).code, 0);
}

TEST(Headers, FocusAtTakesTheMedianSurfaceDepth) {
  TempDir dir;
  // The 5x5 around (10,9) holds 13 background pixels (depth 0), 3 infinitely far and 9 on a
  // surface, one of them a stray 900: only the surface counts, and its median is 200.
  FrameFile in;
  in.depth = [](int x, int y) {
    if (x <= 9 || y == 7) return 0.0f;
    if (y == 11) return INFINITY;
    return x == 12 && y == 8 ? 900.0f : 200.0f;
  };
  in.write(dir / "in.exr");
  const Outcome r = vorel(dir, Names{"render", "in.exr", "-o", "at.exr", "--focus-at", "10,9"} + kBlur);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("focalPlane 200\n"), std::string::npos) << r.err;
  ASSERT_EQ(vorel(dir, Names{"render", "in.exr", "-o", "set.exr", "--set", "focalPlane=200"} + kBlur).code, 0);
  EXPECT_TRUE(samePixels(dir / "at.exr", dir / "set.exr"));

  for (const char* where : {"40,3", "3", "a,b"})
    EXPECT_EQ(vorel(dir, {"render", "in.exr", "-o", "x.exr", "--focus-at", where}).code, 2) << where;
  FrameFile empty;
  empty.depth = [](int, int) { return 0.0f; };
  empty.write(dir / "empty.exr");
  const Outcome none = vorel(dir, {"render", "empty.exr", "-o", "x.exr", "--focus-at", "5,5"});
  EXPECT_EQ(none.code, 2);
  EXPECT_NE(none.err.find("no surface"), std::string::npos) << none.err;
}
