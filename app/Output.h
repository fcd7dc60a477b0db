#pragma once
// Output files, written so that nothing is ever lost. A file is encoded in memory first, then
// written beside its final name under a short temporary name (short, so that any final name the
// file system accepts still works), every write and the final close checked, and only then
// renamed over the final name. Several files of one render are all renamed, or none is. A signal
// that ends the process removes whatever temporary file is still there.

#include <string>
#include <vector>

namespace vorelapp {

using FileBytes = std::vector<unsigned char>;

// Files staged together and put in place together. Destroying a batch that was not committed
// removes what it staged, so a failure anywhere leaves every final name as it was.
class OutputBatch {
public:
  OutputBatch() = default;
  ~OutputBatch();
  OutputBatch(const OutputBatch&) = delete;
  OutputBatch& operator=(const OutputBatch&) = delete;

  // Writes `bytes` to a temporary file beside `path`. Throws RenderError, naming `path` and the
  // reason (a full disk, a file size limit, no permission ...), after removing what it wrote.
  void stage(const std::string& path, const FileBytes& bytes);
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

// A scratch file beside `finalPath` for an encoder that can only write to a file; removed when
// this goes (and by the signal handler).
class ScratchFile {
public:
  explicit ScratchFile(const std::string& finalPath);
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  const std::string& path() const { return path_; }
  // The whole file. Throws RenderError naming `finalPath` if it cannot be read.
  FileBytes bytes() const;

private:
  std::string finalPath_, path_;
};

// One file, staged and committed.
void writeFileAtomically(const std::string& path, const FileBytes& bytes);

// Installs handlers for SIGINT, SIGTERM, SIGHUP and SIGQUIT that remove every temporary file
// still being written, then end the process as the signal would have. SIGXFSZ (a file size limit
// reached) does not end the process: the write that hit the limit fails and is reported.
void installInterruptCleanup();

}  // namespace vorelapp
