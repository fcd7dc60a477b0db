#include "app/Output.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "app/AppError.h"

namespace fs = std::filesystem;

namespace vorelapp {

namespace {

// Temporary files the signal handler must remove. The handler may only read plain memory and
// call async-signal-safe functions, so each slot holds a pointer to a string that stays alive
// from before it is published until after it is withdrawn.
constexpr int kSlots = 1024;
std::atomic<const char*> g_pending[kSlots];
std::mutex g_pendingMutex;  // between threads; the handler does not take it

int publish(const char* path) {
  std::lock_guard<std::mutex> lock(g_pendingMutex);
  for (int i = 0; i < kSlots; ++i)
    if (!g_pending[i].load()) {
      g_pending[i].store(path);
      return i;
    }
  return -1;  // more outputs than slots: those still go away on every path but a signal
}

void withdraw(int slot) {
  if (slot >= 0)
    g_pending[slot].store(nullptr);
}

extern "C" void removePendingAndDie(int sig) {
  for (int i = 0; i < kSlots; ++i)
    if (const char* p = g_pending[i].load())
      ::unlink(p);
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

extern "C" void noteFileSizeLimit(int) {
  // Nothing to do: the write that crossed the limit returns EFBIG and is reported as a failure.
}

const int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Holds the ending signals back while several renames must happen as one.
class SignalsHeld {
public:
  SignalsHeld() {
    sigset_t set;
    sigemptyset(&set);
    for (int s : kEndingSignals)
      sigaddset(&set, s);
    pthread_sigmask(SIG_BLOCK, &set, &old_);
  }
  ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
  sigset_t old_;
};

// A name beside `finalPath` that is short whatever the final name's length, and unique to this
// process and call.
std::string temporaryNameFor(const std::string& finalPath, const char* kind) {
  static std::atomic<unsigned> counter{0};
  const fs::path dir = fs::path(finalPath).parent_path();
  const std::string name = ".vorel-" + std::to_string(::getpid()) + "-" +
                           std::to_string(counter++) + "." + kind;
  return (dir / name).string();
}

std::string reason(int error) {
  if (error == EFBIG)
    return std::string(std::strerror(error)) + " (the file size limit was reached)";
  return std::strerror(error);
}

// Every byte written and flushed to the disk, or the errno of the first failure.
int writeAll(int fd, const FileBytes& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return errno;
    }
    if (n == 0)
      return ENOSPC;
    done += std::size_t(n);
  }
  struct stat st;
  if (::fstat(fd, &st) != 0)
    return errno;
  if (std::size_t(st.st_size) != bytes.size())
    return EIO;
  if (::fsync(fd) != 0 && errno != EINVAL && errno != EROFS)
    return errno;
  return 0;
}

// A temporary file and its slot in the handler's list, for as long as it may be left behind.
struct PendingFile {
  std::string path;
  int slot = -1;
  explicit PendingFile(std::string p) : path(std::move(p)), slot(publish(path.c_str())) {}
};

std::vector<PendingFile*>& pendingFiles() {
  static std::vector<PendingFile*> files;
  return files;
}

void forget(const std::string& tempPath, bool remove) {
  std::lock_guard<std::mutex> lock(g_pendingMutex);
  auto& files = pendingFiles();
  for (auto it = files.begin(); it != files.end(); ++it)
    if ((*it)->path == tempPath) {
      if (remove)
        ::unlink(tempPath.c_str());
      withdraw((*it)->slot);
      delete *it;
      files.erase(it);
      return;
    }
}

void remember(const std::string& tempPath) {
  auto* p = new PendingFile(tempPath);
  std::lock_guard<std::mutex> lock(g_pendingMutex);
  pendingFiles().push_back(p);
}

}  // namespace

OutputBatch::~OutputBatch() {
  for (const Staged& s : staged_)
    forget(s.tempPath, true);
}

void OutputBatch::stage(const std::string& path, const FileBytes& bytes) {
  const std::string temp = temporaryNameFor(path, "tmp");
  remember(temp);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    const int e = errno;
    forget(temp, false);
    throw RenderError("cannot write " + path + ": " + reason(e));
  }
  int error = writeAll(fd, bytes);
  if (::close(fd) != 0 && error == 0)
    error = errno;
  if (error) {
    forget(temp, true);
    throw RenderError("cannot write " + path + ": " + reason(error));
  }
  staged_.push_back({path, temp});
}

void OutputBatch::commit() {
  SignalsHeld held;
  // The old contents of each final name, kept by a second link until every rename is done.
  std::vector<std::string> backups(staged_.size());
  for (std::size_t i = 0; i < staged_.size(); ++i) {
    const std::string backup = temporaryNameFor(staged_[i].finalPath, "old");
    if (::link(staged_[i].finalPath.c_str(), backup.c_str()) == 0) {
      remember(backup);
      backups[i] = backup;
    }
  }
  std::size_t done = 0;
  int error = 0;
  for (; done < staged_.size(); ++done)
    if (::rename(staged_[done].tempPath.c_str(), staged_[done].finalPath.c_str()) != 0) {
      error = errno;
      break;
    }
  if (error) {
    for (std::size_t i = 0; i < done; ++i) {
      if (!backups[i].empty())
        ::rename(backups[i].c_str(), staged_[i].finalPath.c_str());
      else
        ::unlink(staged_[i].finalPath.c_str());
      forget(staged_[i].tempPath, false);
    }
  }
  for (const std::string& b : backups)
    if (!b.empty())
      forget(b, true);
  if (error) {
    const std::string failed = staged_[done].finalPath;
    throw RenderError("cannot write " + failed + ": " + reason(error) +
                      (staged_.size() > 1 ? "; no output was replaced" : ""));
  }
  for (const Staged& s : staged_)
    forget(s.tempPath, false);
  staged_.clear();
}

ScratchFile::ScratchFile(const std::string& finalPath)
    : finalPath_(finalPath), path_(temporaryNameFor(finalPath, "part.exr")) {
  remember(path_);
}

ScratchFile::~ScratchFile() {
  forget(path_, true);
}

FileBytes ScratchFile::bytes() const {
  std::ifstream in(path_, std::ios::binary);
  FileBytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in.good() && !in.eof())
    throw RenderError("cannot write " + finalPath_ + ": the encoded file could not be read back");
  return bytes;
}

void writeFileAtomically(const std::string& path, const FileBytes& bytes) {
  OutputBatch batch;
  batch.stage(path, bytes);
  batch.commit();
}

void installInterruptCleanup() {
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  sigemptyset(&action.sa_mask);
  for (int s : kEndingSignals)
    sigaddset(&action.sa_mask, s);
  action.sa_handler = removePendingAndDie;
  for (int s : kEndingSignals)
    sigaction(s, &action, nullptr);
  action.sa_handler = noteFileSizeLimit;
  sigaction(SIGXFSZ, &action, nullptr);
}

}  // namespace vorelapp
