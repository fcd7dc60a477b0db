#include "app/Output.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
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
std::string temporaryNameFor(const std::string& finalPath, const std::string& kind) {
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

// The file as written flushed to the disk, or the errno of the first failure: a file shorter than
// what was written to it means a write was lost.
int flushToDisk(int fd, std::int64_t written) {
  struct stat st;
  if (::fstat(fd, &st) != 0)
    return errno;
  if (std::int64_t(st.st_size) != written)
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

bool StagingFile::writeAt(const void* data, std::size_t size, std::int64_t offset) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::size_t done = 0;
  while (!error_ && done < size) {
    const ssize_t n = ::pwrite(fd_, bytes + done, size - done, off_t(offset + std::int64_t(done)));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      error_ = errno;
    else if (n == 0)
      error_ = ENOSPC;
    else
      done += std::size_t(n);
  }
  size_ = std::max(size_, offset + std::int64_t(done));
  return !error_;
}

namespace {

// A new temporary file beside `path`, known to the signal handler before it exists.
int createTemporary(const std::string& path, const std::string& temp) {
  remember(temp);
  const int fd = ::open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    const int e = errno;
    forget(temp, false);
    throw RenderError("cannot write " + path + ": " + reason(e));
  }
  return fd;
}

// After an encoder ran: the temporary file removed and the failure thrown, if there was one. A
// write that failed is the reason given, since what the encoder made of it says less.
void settle(const std::string& path, const std::string& temp, int writeError,
            std::exception_ptr encoderFailure) {
  if (!writeError && !encoderFailure)
    return;
  forget(temp, true);
  if (writeError)
    throw RenderError("cannot write " + path + ": " + reason(writeError));
  std::rethrow_exception(encoderFailure);
}

}  // namespace

void OutputBatch::stage(const std::string& path,
                        const std::function<void(StagingFile&)>& encode) {
  const std::string temp = temporaryNameFor(path, "tmp");
  const int fd = createTemporary(path, temp);
  StagingFile file(fd);
  std::exception_ptr failure;
  try {
    encode(file);
  } catch (...) {
    failure = std::current_exception();
  }
  int error = file.error();
  if (!error && !failure)
    error = flushToDisk(fd, file.size());
  if (::close(fd) != 0 && !error)
    error = errno;
  settle(path, temp, error, failure);
  staged_.push_back({path, temp});
}

void OutputBatch::stageNamed(const std::string& path,
                             const std::function<void(const std::string&)>& encode) {
  const std::string temp = temporaryNameFor(path, "tmp" + fs::path(path).extension().string());
  ::close(createTemporary(path, temp));
  std::exception_ptr failure;
  try {
    encode(temp);
  } catch (...) {
    failure = std::current_exception();
  }
  int error = 0;
  if (!failure) {
    const int fd = ::open(temp.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0)
      error = errno;
    else
      error = flushToDisk(fd, std::int64_t(st.st_size));
    if (fd >= 0 && ::close(fd) != 0 && !error)
      error = errno;
  }
  settle(path, temp, error, failure);
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

void writeFileAtomically(const std::string& path,
                         const std::function<void(StagingFile&)>& encode) {
  OutputBatch batch;
  batch.stage(path, encode);
  batch.commit();
}

void writeFileAtomically(const std::string& path, const FileBytes& bytes) {
  writeFileAtomically(path, [&](StagingFile& file) { file.writeAt(bytes.data(), bytes.size(), 0); });
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
