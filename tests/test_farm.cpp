// vorel farm: frame lists and their chunks, the job script run by bash as Slurm would run each
// array task, and submission through a stand-in sbatch. The real cluster is in
// tests/python/test_farm_slurm.py.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <algorithm>
#include <fstream>
#include <sstream>

#include "app/AppError.h"
#include "app/Farm.h"
#include "app/Frames.h"
#include "support/RunVorel.h"

namespace fs = std::filesystem;
using namespace vorelapp;
using namespace vorelapp::test;

namespace {

void writeExecutable(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
  ::chmod(path.c_str(), 0755);
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream s(text);
  for (std::string line; std::getline(s, line);)
    out.push_back(line);
  return out;
}

Outcome farm(const Names& args) {
  return vorel(Names{"farm"} + args);
}

}  // namespace

TEST(FarmFrames, ChunksCoverEveryFrameOnceInOrder) {
  struct Case {
    const char* frames;
    long chunk;
    std::size_t tasks;
  } cases[] = {{"1001-1100", 10, 10}, {"1001-1100", 7, 15},  {"1001-1100x3", 4, 9},
               {"1-20", 20, 1},       {"1-20", 50, 1},       {"5", 3, 1},
               {"-5-5, 20", 4, 3},    {"30, 1-9x2, 2-8x2", 3, 4}, {"1,2,4,7,11", 5, 1}};
  for (const Case& c : cases) {
    const std::vector<int> frames = parseFrames(c.frames);
    const auto chunks = chunkTexts(frames, c.chunk);
    ASSERT_EQ(chunks.size(), c.tasks) << c.frames << " by " << c.chunk;
    std::vector<int> covered;
    for (const std::string& text : chunks) {
      const auto part = parseFrames(text);
      EXPECT_LE(long(part.size()), c.chunk) << text;
      covered.insert(covered.end(), part.begin(), part.end());
    }
    EXPECT_EQ(covered, frames) << c.frames << " by " << c.chunk;
  }
}

// Runs every array task of the script under bash with a stand-in vorel that prints its
// arguments, as Slurm would run them: each task's frames, and the arguments reaching vorel intact.
TEST(FarmScript, EachTaskRendersItsChunkWithEveryArgumentIntact) {
  TempDir dir;
  const std::string fake = dir / "fake vorel's";
  writeExecutable(fake, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done\n");
  for (const auto& [range, chunk] : std::vector<std::pair<std::string, long>>{
           {"1001-1100", 10}, {"1001-1100x3", 4}, {"1-20", 6}, {"1-5, 10, -3--1, 20-30x5", 3}}) {
    const Outcome dry = farm({"submit", "shots/it's a shot.####.exr", "-o", "out/soft.%04d.exr",
                          "--frames", range, "--chunk", std::to_string(chunk), "--set",
                          "outputType=Focus Matte", "--preset=$HOME/x `y`", "--skip-existing",
                          "--vorel", fake, "--dry-run", "--quiet"});
    ASSERT_EQ(dry.code, 0) << dry.err;
    const std::string script = dir / "job.sh";
    std::ofstream(script) << dry.out.substr(dry.out.find("#!"));  // after the node's banner

    const auto chunks = chunkTexts(parseFrames(range), chunk);
    std::vector<int> rendered;
    for (std::size_t task = 0; task < chunks.size(); ++task) {
      const std::string outFile = dir / "task.txt";
      const std::string command = "cd '" + dir.path.string() + "' && SLURM_ARRAY_TASK_ID=" +
                                  std::to_string(task) + " bash job.sh > task.txt";
      ASSERT_EQ(std::system(command.c_str()), 0) << command;
      const auto args = lines(bytes(outFile));
      ASSERT_EQ(args.size(), 12u) << bytes(outFile);
      EXPECT_EQ(args[0], "vorel farm: task " + std::to_string(task) + " renders frames " + args[6] +
                             " on " + args[0].substr(args[0].rfind(' ') + 1));
      const std::vector<std::string> expected = {
          "render", "shots/it's a shot.####.exr", "-o", "out/soft.%04d.exr", "--frames", args[6],
          "--skip-existing", "--set", "outputType=Focus Matte", "--preset=$HOME/x `y`", "--quiet"};
      EXPECT_EQ(std::vector<std::string>(args.begin() + 1, args.begin() + 12), expected);
      const auto frames = parseFrames(args[6]);
      rendered.insert(rendered.end(), frames.begin(), frames.end());
    }
    EXPECT_EQ(rendered, parseFrames(range)) << range;
    // Without Slurm's task number the script refuses to run.
    EXPECT_NE(std::system(("cd '" + dir.path.string() + "' && env -u SLURM_ARRAY_TASK_ID bash job.sh >/dev/null 2>&1").c_str()), 0);
  }
}

TEST(FarmSubmit, HandsTheWrittenScriptToSbatchAndPrintsTheJob) {
  TempDir dir;
  const std::string sbatch = dir / "sbatch";
  writeExecutable(sbatch, "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + (dir / "sbatch.args") +
                              "'\necho 'sbatch: warning: a note' >&2\necho '4242;cluster'\n");
  const std::string logDir = dir / "logs";
  const Outcome r = farm({"submit", "in.####.exr", "-o", dir / "out/soft.####.exr", "--frames", "1-20",
                      "--chunk", "5", "--job-name", "focuspull", "--partition", "gpu", "--time",
                      "0:30:00", "--cpus", "2", "--max-running", "3", "--log-dir", logDir,
                      "--sbatch", sbatch, "--set", "focalPlane=200"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "4242\n");
  EXPECT_NE(r.err.find("submitted job 4242: frames 1-20 in 4 tasks"), std::string::npos) << r.err;
  const std::string script = logDir + "/focuspull.sbatch";
  EXPECT_EQ(lines(bytes(dir / "sbatch.args")), (std::vector<std::string>{"--parsable", script}));
  const std::string text = bytes(script);
  for (const std::string& directive : std::vector<std::string>{
           "#SBATCH --job-name=focuspull\n", "#SBATCH --array=0-3%3\n", "#SBATCH --partition=\"gpu\"\n",
           "#SBATCH --time=\"0:30:00\"\n", "#SBATCH --cpus-per-task=2\n",
           "#SBATCH --output=\"" + logDir + "/focuspull-%A_%a.log\"\n",
           "#SBATCH --chdir=\"" + fs::current_path().string() + "\"\n"})
    EXPECT_NE(text.find(directive), std::string::npos) << directive << " in\n" << text;
  EXPECT_EQ(text.find("'--sbatch'"), std::string::npos);
  // The default log directory sits beside the outputs.
  const Outcome dflt = farm({"submit", "-o", "out/a.@.exr", "--frames", "1-2", "--dry-run", "--deep", "d.@.exr"});
  EXPECT_NE(dflt.out.find("#SBATCH --output=\"" + (fs::current_path() / "out/vorel-farm").string() +
                          "/vorel-%A_%a.log\""),
            std::string::npos)
      << dflt.out;
  EXPECT_NE(dflt.out.find("render -o 'out/a.@.exr' --frames \"$frames\" --skip-existing '--deep' 'd.@.exr'"),
            std::string::npos)
      << dflt.out;
}

TEST(FarmSubmit, EveryFailureIsOneLineWithItsStatus) {
  TempDir dir;
  const std::string refusing = dir / "sbatch";
  writeExecutable(refusing, "#!/bin/sh\necho 'sbatch: error: invalid partition specified: gpu' >&2\nexit 1\n");
  const std::vector<std::string> base = {"submit", "in.####.exr", "-o", dir / "o.####.exr", "--log-dir", dir / "logs"};
  struct Case {
    std::vector<std::string> extra;
    int status;
    const char* message;
  } cases[] = {
      {{"--chunk", "2"}, 2, "give the frames with --frames"},
      {{"--frames", "1-9", "--chunk", "0"}, 2, "--chunk: expected a whole number of at least 1"},
      {{"--frames", "1-9", "--chunk"}, 2, "--chunk needs a value"},
      {{"--frames", "9-1"}, 2, "--frames: '9-1' runs backwards"},
      {{"--frames", "1-9", "--job-name", "a b"}, 2, "--job-name: 'a b' must be one word"},
      {{"--frames", "1-9", "--sbatch", refusing}, 1,
       "sbatch refused the job (status 1): sbatch: error: invalid partition specified: gpu"},
      {{"--frames", "1-9", "--sbatch", dir / "no-such-sbatch"}, 1, "cannot run"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = base;
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    const Outcome r = farm(args);
    EXPECT_EQ(r.code, c.status) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }
  EXPECT_EQ(farm({"submit", "-o", "a.exr", "--frames", "1-2"}).code, 2);
  // Tasks of one frame each would all write this one file.
  EXPECT_EQ(farm({"submit", "-o", "a.#.exr", "--frames", "1-2", "--chunk", "1", "--coc-out", "c.exr", "--dry-run"}).code,
            2);
  // A '%' in a log directory is sbatch's pattern character; it is kept as a plain one.
  const Outcome percent = farm({"submit", "-o", "a.#.exr", "--frames", "1-2", "--log-dir", "/r/100%", "--dry-run"});
  EXPECT_NE(percent.out.find("--output=\"/r/100%%/vorel-%A_%a.log\""), std::string::npos) << percent.out;
  EXPECT_EQ(farm({"submit", "-o", "a.#.exr", "--frames", "1-2", "--log-dir", "/r/\"x\"", "--dry-run"}).code, 2);
  EXPECT_EQ(farm({"status"}).code, 2);
  EXPECT_EQ(farm({}).code, 2);
}
