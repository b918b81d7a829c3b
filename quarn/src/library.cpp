#include <dlfcn.h>
#include <quarn/library.h>
#include <quarn/logger.h>

#include <string>

namespace quarn {

std::shared_ptr<Library> Library::Create(const std::filesystem::path& path) {
  auto library = std::make_shared<Library>(PrivateTag(), path);
  library->handle_ = dlopen(path.c_str(), RTLD_NOW);
  if (library->handle_ == nullptr) {
    const std::string reason(dlerror());
    // A path streams itself in quotes, so it stands between two quote marks on each side.
    QUARN_LOG_ERROR() << "Couldn't load library \"" << path << "\": " << reason;
    return nullptr;
  }
  return library;
}

void* Library::ResolveImpl(std::string_view name) const {
  if (handle_ == nullptr) {
    QUARN_LOG_ERROR() << "Could not load " << name << " symbol: Library handle is null";
    return nullptr;
  }
  void* const address = dlsym(handle_, std::string(name).c_str());
  if (address == nullptr) {
    const std::string reason(dlerror());
    QUARN_LOG_ERROR() << "Could not load " << name << " symbol: " << reason;
  }
  return address;
}

Library::~Library() {
  if (handle_ != nullptr) {
    dlclose(handle_);
  }
}

}  // namespace quarn
