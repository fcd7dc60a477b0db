#pragma once
// `vorel farm submit`: a shot as one Slurm job array. Each array task renders one chunk of the
// frames with `vorel render ... --frames CHUNK --skip-existing`, so the same submission run again
// renders only the frames that are still missing. Slurm does the scheduling, retries and
// bookkeeping; this file only writes the job script and hands it to sbatch.

#include <ostream>
#include <string>
#include <vector>

namespace vorelapp {

// The --frames text of each array task: `chunk` frames each, in the order given; the last may
// have fewer.
std::vector<std::string> chunkTexts(const std::vector<int>& frames, long chunk);

struct FarmJob {
  std::string input;                 // input 0's pattern; empty for a deep-only render
  std::vector<std::string> outputs;  // patterns, each with a frame token
  std::vector<int> frames;           // as parseFrames reads --frames
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

// The sbatch script for the job.
std::string jobScript(const FarmJob& job);

// `vorel farm ...` with argv[0] being "farm". The job's id goes to `out`. A failure is thrown
// (AppError) for vorel's entry to report, as every command's is.
int farmMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace vorelapp
