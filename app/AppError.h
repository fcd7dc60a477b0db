#pragma once
// Every failure of the command-line tool ends as one of these, caught in one place, printed as
// one line and turned into the exit status: 2 when the command line asked for something that
// cannot be (a file that is not there, a knob that does not exist, a value that does not parse),
// 1 when the render itself fails (the node reports an error, a file cannot be decoded or written).

#include <stdexcept>
#include <string>

namespace vorelapp {

enum ExitStatus { kExitOk = 0, kExitRender = 1, kExitUsage = 2 };

class AppError : public std::runtime_error {
public:
  AppError(ExitStatus status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  ExitStatus status() const { return status_; }

private:
  ExitStatus status_;
};

struct UsageError : AppError {
  explicit UsageError(const std::string& message) : AppError(kExitUsage, message) {}
};

struct RenderError : AppError {
  explicit RenderError(const std::string& message) : AppError(kExitRender, message) {}
};

// The exit status a failure stands for: an AppError's own; anything else the libraries throw
// happened while rendering.
inline ExitStatus exitStatusOf(const std::exception& e) {
  const auto* app = dynamic_cast<const AppError*>(&e);
  return app ? app->status() : kExitRender;
}

}  // namespace vorelapp
