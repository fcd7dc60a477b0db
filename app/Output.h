#pragma once
// Output files, written so that nothing is ever lost. A file is written beside its final name
// under a short temporary name (short, so that any final name the file system accepts still
// works), streamed there by its encoder with every write checked, flushed to the disk and closed
// with that checked too, and only then renamed over the final name. Several files of one render
// are all renamed, or none is. A signal that ends the process removes whatever temporary file is
// still there.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vorelapp {

using FileBytes = std::vector<unsigned char>;

// A temporary file being written. The first write that fails is remembered and every later one
// refused, so an encoder that does not look at what its writes return still cannot leave a file
// with a hole in it.
class StagingFile {
public:
  // Writes all of `data` at `offset`. False if this or an earlier write failed.
  bool writeAt(const void* data, std::size_t size, std::int64_t offset);
  // The errno of the first failure; 0 while every write went through.
  int error() const { return error_; }
  // One past the last byte written.
  std::int64_t size() const { return size_; }

private:
  friend class OutputBatch;
  explicit StagingFile(int fd) : fd_(fd) {}
  int fd_;
  int error_ = 0;
  std::int64_t size_ = 0;
};

// Files staged together and put in place together. Destroying a batch that was not committed
// removes what it staged, so a failure anywhere leaves every final name as it was.
class OutputBatch {
public:
  OutputBatch() = default;
  ~OutputBatch();
  OutputBatch(const OutputBatch&) = delete;
  OutputBatch& operator=(const OutputBatch&) = delete;

  // Creates a temporary file beside `path` and lets `encode` stream the file into it, then
  // flushes it to the disk. Throws RenderError, naming `path` and the reason (a full disk, a file
  // size limit, no permission ...), after removing what was written; when a write failed, that
  // failure is the reason whatever `encode` threw.
  void stage(const std::string& path, const std::function<void(StagingFile&)>& encode);
  // The same for an encoder that can only write to a file it opens by name: `encode` is given the
  // temporary file's name (which ends in `path`'s extension) and must throw if it fails.
  void stageNamed(const std::string& path, const std::function<void(const std::string&)>& encode);
  // Renames every staged file over its final name. If one rename fails, the files already
  // renamed get their old contents back (or are removed if there was none) and RenderError is
  // thrown. Signals that end the process wait until this returns.
  void commit();

private:
  struct Staged {
    std::string finalPath, tempPath;
  };
  std::vector<Staged> staged_;
};

// One file, staged and committed.
void writeFileAtomically(const std::string& path, const FileBytes& bytes);
void writeFileAtomically(const std::string& path, const std::function<void(StagingFile&)>& encode);

// Installs handlers for SIGINT, SIGTERM, SIGHUP and SIGQUIT that remove every temporary file
// still being written, then end the process as the signal would have. SIGXFSZ (a file size limit
// reached) does not end the process: the write that hit the limit fails and is reported.
void installInterruptCleanup();

}  // namespace vorelapp
