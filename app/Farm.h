#pragma once
// `vorel farm submit`: a shot as one Slurm job array. Each array task renders one chunk of the
// frames with `vorel render ... --frames A-B --skip-existing`, so the same submission run again
// renders only the frames that are still missing. Slurm does the scheduling, retries and
// bookkeeping; this file only writes the job script and hands it to sbatch.

#include <ostream>
#include <string>
#include <vector>

namespace vorelapp {

// Frames first to last by step; last is always a frame of the range.
struct FrameRange {
  long first = 0, last = 0, step = 1;
  long count() const { return (last - first) / step + 1; }
};

// "1001-1100", "1001-1100x2", "1001". Throws UsageError.
FrameRange parseFrameRange(const std::string& text);

// The frames of task i of `chunk` frames each; the last chunk may be shorter.
struct Chunk {
  long first, last;
};
std::vector<Chunk> chunksOf(const FrameRange& frames, long chunk);

struct FarmJob {
  std::string input;                 // input 0's pattern; empty for a deep-only render
  std::vector<std::string> outputs;  // patterns, each with a frame token
  FrameRange frames;
  long chunk = 10;
  std::vector<std::string> renderArgs;  // further `vorel render` options, passed as they are
  std::string program;                  // the vorel the tasks run, absolute
  std::string workDir;                  // where the tasks run (relative patterns start here)
  std::string logDir;                   // the script and one log per task
  std::string jobName = "vorel";
  std::string partition, timeLimit;     // empty: the cluster's defaults
  unsigned cpusPerTask = 0;             // 0: the cluster's default
  unsigned maxRunning = 0;              // 0: no limit
};

// True if the path names a frame: "####", "@", "%04d" (or "%d").
bool hasFrameToken(const std::string& pattern);

// The sbatch script for the job.
std::string jobScript(const FarmJob& job);

// `vorel farm ...` with argv[0] being "farm". Returns the exit status; one line on `err` for every
// failure. The job's id goes to `out`.
int farmMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace vorelapp
