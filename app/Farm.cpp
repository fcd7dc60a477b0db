#include "app/Farm.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/AppError.h"
#include "app/Frames.h"

extern char** environ;
namespace fs = std::filesystem;

namespace vorelapp {

namespace {

const char* kSubmitHelp = R"(usage: vorel farm submit [INPUT] -o OUTPUT --frames LIST [--chunk N] [farm options] [render options]

Submits a shot to Slurm as one job array. Each task renders --chunk frames with
  vorel render INPUT -o OUTPUT --frames CHUNK --skip-existing [render options]
so submitting the same command again renders only the frames still missing. INPUT and OUTPUT
are frame patterns (shot.####.exr, shot.%04d.exr, shot.@.exr); INPUT, if given, comes first.
Every option not listed here is passed to vorel render as it is (--set, --preset, --camera, ...).

Farm options:
  --frames LIST        frames to render, as vorel render takes them: 1001-1100, 1001-1100x2,
                       1001,1005 (required)
  --chunk N            frames per task (default 10)
  --dry-run            print the job script instead of submitting it
  --job-name NAME      Slurm job name (default vorel)
  --partition NAME     Slurm partition (default: the cluster's)
  --time LIMIT         time limit per task, as sbatch takes it (e.g. 1:00:00)
  --cpus N             CPUs per task (sbatch --cpus-per-task)
  --max-running N      at most N tasks at once (sbatch --array=...%N)
  --log-dir DIR        where the script and the task logs go (default: OUTPUT's directory/vorel-farm)
  --vorel PATH         the vorel the tasks run (default: this one)
  --sbatch PATH        the sbatch to submit with (default: sbatch on PATH)

The job id is printed on standard output.)";

long parseCount(const std::string& option, const std::string& text, long least) {
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end || errno || v < least)
    throw UsageError(option + ": expected a whole number of at least " + std::to_string(least) +
                     ", got '" + text + "'");
  return v;
}

// The text as one word for bash, whatever it holds.
std::string quoted(const std::string& text) {
  std::string q = "'";
  for (char c : text)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// A value of an #SBATCH line, which sbatch reads with double quotes.
std::string directiveValue(const std::string& text) {
  if (text.find_first_of("\"\n") != std::string::npos)
    throw UsageError("farm submit: Slurm cannot take " + text + " (it has a quote or a line break)");
  return "\"" + text + "\"";
}

// sbatch reads '%' in a log path as a pattern; "%%" is a plain one.
std::string literalPercent(const std::string& path) {
  std::string s;
  for (char c : path)
    s += c == '%' ? std::string("%%") : std::string(1, c);
  return s;
}

std::string absolute(const std::string& path, const std::string& base) {
  const fs::path p(path);
  return (p.is_absolute() ? p : fs::path(base) / p).lexically_normal().string();
}

struct SubmitRequest {
  FarmJob job;
  bool dryRun = false;
  bool help = false;
  std::string sbatch = "sbatch";
  std::string frames, logDir, program;  // as given, before checking and defaults
};

// Farm options are taken out; every other argument goes on to vorel render unchanged.
SubmitRequest readSubmitArguments(const std::vector<std::string>& args) {
  SubmitRequest request;
  FarmJob& job = request.job;
  std::string& frames = request.frames;
  std::string& logDir = request.logDir;
  std::string& program = request.program;
  std::size_t i = 0;
  if (!args.empty() && !args[0].empty() && args[0][0] != '-')
    job.input = args[i++];
  for (; i < args.size(); ++i) {
    std::string name = args[i], value;
    const bool takesValue = name == "-o" || name == "--output" || name == "--frames" ||
                            name == "--chunk" || name == "--job-name" || name == "--partition" ||
                            name == "--time" || name == "--cpus" || name == "--max-running" ||
                            name == "--log-dir" || name == "--vorel" || name == "--sbatch";
    const auto eq = name.find('=');
    if (!takesValue && eq != std::string::npos && name.rfind("--", 0) == 0) {
      // --frames=1-10 and the like
      const std::string head = name.substr(0, eq);
      for (const char* known : {"--output", "--frames", "--chunk", "--job-name", "--partition",
                                "--time", "--cpus", "--max-running", "--log-dir", "--vorel", "--sbatch"})
        if (head == known) {
          value = name.substr(eq + 1);
          name = head;
        }
    }
    const bool farmOption = takesValue || !value.empty() || name == "--dry-run" ||
                            name == "--skip-existing" || name == "-h" || name == "--help";
    if (!farmOption) {
      job.renderArgs.push_back(args[i]);
      continue;
    }
    if (takesValue) {
      if (i + 1 >= args.size())
        throw UsageError(name + " needs a value");
      value = args[++i];
    }
    if (name == "-o" || name == "--output") job.outputs.push_back(value);
    else if (name == "--frames") frames = value;
    else if (name == "--chunk") job.chunk = parseCount(name, value, 1);
    else if (name == "--job-name") job.jobName = value;
    else if (name == "--partition") job.partition = value;
    else if (name == "--time") job.timeLimit = value;
    else if (name == "--cpus") job.cpusPerTask = unsigned(parseCount(name, value, 1));
    else if (name == "--max-running") job.maxRunning = unsigned(parseCount(name, value, 1));
    else if (name == "--log-dir") logDir = value;
    else if (name == "--vorel") program = value;
    else if (name == "--sbatch") request.sbatch = value;
    else if (name == "--dry-run") request.dryRun = true;
    else if (name == "-h" || name == "--help") request.help = true;
    // --skip-existing: every task has it already.
  }
  return request;
}

// The frames checked and parsed, the outputs checked, and every path made absolute.
void completeJob(SubmitRequest& request) {
  FarmJob& job = request.job;
  const std::string cwd = fs::current_path().string();
  if (request.frames.empty())
    throw UsageError("farm submit: give the frames with --frames (e.g. --frames 1001-1100)");
  job.frames = parseFrames(request.frames);
  if (job.outputs.empty())
    throw UsageError("farm submit: no output: give -o PATTERN (e.g. -o soft.####.exr)");
  for (const std::string& o : job.outputs)
    if (!hasFramePattern(o))
      throw UsageError("farm submit: the output " + o +
                       " has no frame number (####, %04d or @): every task would write the same file");
  // A task renders a chunk, maybe of one frame, so vorel render alone would not catch this.
  for (std::size_t i = 0; i < job.renderArgs.size(); ++i) {
    const std::string& a = job.renderArgs[i];
    const std::string coc = a == "--coc-out" && i + 1 < job.renderArgs.size() ? job.renderArgs[i + 1]
                            : a.rfind("--coc-out=", 0) == 0                    ? a.substr(10)
                                                                               : "";
    if (!coc.empty() && !hasFramePattern(coc))
      throw UsageError("farm submit: --coc-out " + coc +
                       " has no frame number (####, %04d or @): every task would write the same file");
  }
  if (job.jobName.empty() || job.jobName.find_first_of(" \t\n'\"/") != std::string::npos)
    throw UsageError("--job-name: '" + job.jobName + "' must be one word without quotes or slashes");

  job.workDir = cwd;
  std::string program = request.program;
  if (program.empty()) {
    std::error_code ec;
    program = fs::read_symlink("/proc/self/exe", ec).string();
  }
  job.program = absolute(program, cwd);
  const fs::path outDir = fs::path(job.outputs.front()).parent_path();
  job.logDir = absolute(request.logDir.empty() ? (outDir / "vorel-farm").string() : request.logDir, cwd);
}

// Writes the script beside its final name and renames it into place.
void writeScript(const std::string& path, const std::string& text) {
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  if (ec)
    throw UsageError("cannot make " + fs::path(path).parent_path().string() + ": " + ec.message());
  const std::string temp = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream f(temp, std::ios::binary);
    f << text;
    if (!f.flush())
      throw RenderError("cannot write " + path);
  }
  fs::rename(temp, path, ec);
  if (ec) {
    fs::remove(temp, ec);
    throw RenderError("cannot write " + path);
  }
}

// Runs a program without a shell; its standard output and error, and its exit status (-1 if it
// could not be started, with errno's text in `error`).
struct Ran {
  int status = -1;
  std::string output, error;
};

Ran runProgram(const std::vector<std::string>& argv) {
  Ran ran;
  int outPipe[2], errPipe[2];
  if (::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) {
    ran.error = std::strerror(errno);
    return ran;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]})
    posix_spawn_file_actions_addclose(&actions, fd);
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&ran.output, &ran.error};
  for (int open = 2; open > 0 && spawned == 0;) {
    if (::poll(fds, 2, -1) < 0 && errno != EINTR)
      break;
    for (int k = 0; k < 2; ++k) {
      if (fds[k].fd < 0 || !(fds[k].revents & (POLLIN | POLLHUP | POLLERR)))
        continue;
      char buf[4096];
      const ssize_t n = ::read(fds[k].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[k]->append(buf, std::size_t(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[k].fd);
        fds[k].fd = -1;
        --open;
      }
    }
  }
  for (const pollfd& p : fds)
    if (p.fd >= 0)
      ::close(p.fd);
  if (spawned != 0) {
    ran.error = std::strerror(spawned);
    return ran;
  }
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  ran.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  return ran;
}

std::string lastLine(const std::string& text) {
  std::istringstream lines(text);
  std::string line, last;
  while (std::getline(lines, line))
    if (line.find_first_not_of(" \t\r") != std::string::npos)
      last = line;
  return last;
}

// sbatch --parsable prints "id" or "id;cluster".
std::string submit(const std::string& sbatch, const std::string& script) {
  const Ran ran = runProgram({sbatch, "--parsable", script});
  if (ran.status < 0)
    throw RenderError("cannot run " + sbatch + ": " + ran.error +
                      " (is Slurm installed? see scripts/slurm-local)");
  const std::string id = lastLine(ran.output).substr(0, lastLine(ran.output).find(';'));
  if (ran.status != 0 || id.empty() || id.find_first_not_of("0123456789") != std::string::npos) {
    const std::string why = lastLine(ran.error).empty() ? lastLine(ran.output) : lastLine(ran.error);
    throw RenderError("sbatch refused the job (status " + std::to_string(ran.status) + "): " +
                      (why.empty() ? "no message" : why) + "; the script is " + script);
  }
  return id;
}

}  // namespace

std::vector<std::string> chunkTexts(const std::vector<int>& frames, long chunk) {
  std::vector<std::string> texts;
  for (std::size_t first = 0; first < frames.size(); first += std::size_t(chunk)) {
    const std::size_t end = std::min(frames.size(), first + std::size_t(chunk));
    texts.push_back(frameRangeText(std::vector<int>(frames.begin() + long(first), frames.begin() + long(end))));
  }
  return texts;
}

std::string jobScript(const FarmJob& job) {
  const std::vector<std::string> chunks = chunkTexts(job.frames, job.chunk);
  const std::size_t tasks = chunks.size();
  std::ostringstream s;
  s << "#!/bin/bash\n"
    << "# vorel farm: frames " << frameRangeText(job.frames) << " in " << tasks << " task"
    << (tasks == 1 ? "" : "s") << " of up to " << job.chunk << " frame" << (job.chunk == 1 ? "" : "s")
    << ". Submitting this script again renders only the frames still missing.\n"
    << "#SBATCH --job-name=" << job.jobName << "\n"
    << "#SBATCH --array=0-" << tasks - 1 << (job.maxRunning ? "%" + std::to_string(job.maxRunning) : "") << "\n"
    << "#SBATCH --chdir=" << directiveValue(job.workDir) << "\n"
    << "#SBATCH --output="
    << directiveValue(literalPercent(job.logDir) + "/" + job.jobName + "-%A_%a.log") << "\n";
  if (!job.partition.empty())
    s << "#SBATCH --partition=" << directiveValue(job.partition) << "\n";
  if (!job.timeLimit.empty())
    s << "#SBATCH --time=" << directiveValue(job.timeLimit) << "\n";
  if (job.cpusPerTask)
    s << "#SBATCH --cpus-per-task=" << job.cpusPerTask << "\n";
  // The chunks are written out as --frames texts rather than worked out in bash, so any list
  // vorel render takes splits the same way; task i takes the i-th.
  s << "set -eu\n"
    << "task=${SLURM_ARRAY_TASK_ID:?submit this script with sbatch}\n"
    << "chunks=(\n";
  for (const std::string& chunk : chunks)
    s << "  " << quoted(chunk) << "\n";
  s << ")\n"
    << "frames=${chunks[$task]:?no such task in this job}\n"
    << "echo \"vorel farm: task $task renders frames $frames on $(hostname)\"\n"
    << "exec " << quoted(job.program) << " render";
  if (!job.input.empty())
    s << " " << quoted(job.input);
  for (const std::string& o : job.outputs)
    s << " -o " << quoted(o);
  s << " --frames \"$frames\" --skip-existing";
  for (const std::string& a : job.renderArgs)
    s << " " << quoted(a);
  s << "\n";
  return s.str();
}

int farmMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "-h" || command == "--help") {
    out << kSubmitHelp << "\n";
    return kExitOk;
  }
  if (command != "submit")
    throw UsageError("farm: " + (command.empty() ? "no command" : "unknown command '" + command + "'") +
                     " (farm commands: submit; see vorel farm submit --help)");
  SubmitRequest request = readSubmitArguments(std::vector<std::string>(argv + 2, argv + argc));
  if (request.help) {
    out << kSubmitHelp << "\n";
    return kExitOk;
  }
  completeJob(request);
  const FarmJob& job = request.job;
  const std::string script = jobScript(job);
  if (request.dryRun) {
    out << script;
    return kExitOk;
  }
  const std::string path = job.logDir + "/" + job.jobName + ".sbatch";
  writeScript(path, script);
  const std::string id = submit(request.sbatch, path);
  const std::size_t tasks = chunkTexts(job.frames, job.chunk).size();
  out << id << "\n";
  err << "vorel: submitted job " << id << ": frames " << frameRangeText(job.frames) << " in " << tasks
      << " task" << (tasks == 1 ? "" : "s") << "; script " << path << ", logs " << job.logDir << "/"
      << job.jobName << "-" << id << "_*.log\n";
  return kExitOk;
}

}  // namespace vorelapp
