#include <dlfcn.h>
#include <quarn/escaped.h>
#include <quarn/library.h>
#include <quarn/logger.h>

#include <sstream>
#include <string>

namespace quarn {
namespace {

// In quotes, with a backslash before each quote mark and backslash inside.
std::string Quoted(const std::filesystem::path& path) {
  std::ostringstream stream;
  stream << path;
  return stream.str();
}

}  // namespace

std::shared_ptr<Library> Library::Create(const std::filesystem::path& path) {
  auto library = std::make_shared<Library>(PrivateTag(), path);
  library->handle_ = dlopen(path.c_str(), RTLD_NOW);
  if (library->handle_ == nullptr) {
    const std::string reason(dlerror());
    // The quoted path stands between quote marks of the message: two on each side.
    QUARN_LOG_ERROR() << "Couldn't load library \"" << Escaped{Quoted(path)}
                      << "\": " << Escaped{reason};
    return nullptr;
  }
  return library;
}

void* Library::ResolveImpl(std::string_view name) const {
  if (handle_ == nullptr) {
    QUARN_LOG_ERROR() << "Could not load " << Escaped{name} << " symbol: Library handle is null";
    return nullptr;
  }
  void* const address = dlsym(handle_, std::string(name).c_str());
  if (address == nullptr) {
    const std::string reason(dlerror());
    QUARN_LOG_ERROR() << "Could not load " << Escaped{name} << " symbol: " << Escaped{reason};
  }
  return address;
}

Library::~Library() {
  if (handle_ != nullptr) {
    dlclose(handle_);
  }
}

}  // namespace quarn
