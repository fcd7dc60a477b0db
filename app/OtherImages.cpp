#include "app/OtherImages.h"

#include <dlfcn.h>

#include <filesystem>
#include <mutex>
#include <system_error>

#include "app/AppError.h"

namespace fs = std::filesystem;

namespace vorelapp {

namespace {

constexpr const char* kModule = "vorel_images.so";

// Where the module may be: beside the program (or the Python module) that holds this code, in
// the lib/vorel directory an install puts it in, and where the build left it.
std::vector<fs::path> candidates() {
  std::vector<fs::path> dirs;
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec)
    dirs.push_back(exe.parent_path());
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&otherImages), &info) && info.dli_fname)
    dirs.push_back(fs::absolute(fs::path(info.dli_fname), ec).parent_path());
  std::vector<fs::path> paths;
  for (const fs::path& dir : dirs) {
    paths.push_back(dir / kModule);
    paths.push_back(dir.parent_path() / "lib" / "vorel" / kModule);
    paths.push_back(dir.parent_path() / kModule);
  }
#ifdef VOREL_IMAGES_MODULE
  paths.emplace_back(VOREL_IMAGES_MODULE);
#endif
  return paths;
}

const OtherImages* load(std::string& why) {
  for (const fs::path& path : candidates()) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
      continue;
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) {
      const char* e = dlerror();
      why = e ? e : path.string();
      continue;
    }
    using Entry = const OtherImages* (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(module, "vorelOtherImages"));
    if (entry)
      return entry();
    why = path.string() + " has no vorelOtherImages";
  }
  if (why.empty())
    why = std::string(kModule) + " is not beside vorel nor in ../lib/vorel";
  return nullptr;
}

}  // namespace

const OtherImages& otherImages() {
  static std::once_flag once;
  static const OtherImages* table = nullptr;
  static std::string why;
  std::call_once(once, [] { table = load(why); });
  if (!table)
    throw RenderError("files other than EXR need vorel's image module, which cannot be loaded: " +
                      why);
  return *table;
}

}  // namespace vorelapp
