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

void LogFailedLoad(const std::filesystem::path& path, std::string_view reason) {
  // The quoted path stands between quote marks of the message: two on each side.
  QUARN_LOG_ERROR() << "Couldn't load library \"" << Escaped{Quoted(path)}
                    << "\": " << Escaped{reason};
}

void LogMissingSymbol(std::string_view name, std::string_view reason) {
  QUARN_LOG_ERROR() << "Could not load " << Escaped{name} << " symbol: " << Escaped{reason};
}

// The loader would take a text with a NUL inside for the shorter one before it.
bool HoldsNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

}  // namespace

std::shared_ptr<Library> Library::Create(const std::filesystem::path& path) {
  if (HoldsNul(path.native())) {
    LogFailedLoad(path, "the path holds a NUL");
    return nullptr;
  }
  auto library = std::make_shared<Library>(PrivateTag(), path);
  library->handle_ = dlopen(path.c_str(), RTLD_NOW);
  if (library->handle_ == nullptr) {
    LogFailedLoad(path, std::string(dlerror()));
    return nullptr;
  }
  return library;
}

void* Library::ResolveImpl(std::string_view name) const {
  if (handle_ == nullptr) {
    LogMissingSymbol(name, "Library handle is null");
    return nullptr;
  }
  if (HoldsNul(name)) {
    LogMissingSymbol(name, "the name holds a NUL");
    return nullptr;
  }
  void* const address = dlsym(handle_, std::string(name).c_str());
  if (address == nullptr) {
    LogMissingSymbol(name, std::string(dlerror()));
  }
  return address;
}

Library::~Library() {
  if (handle_ != nullptr) {
    dlclose(handle_);
  }
}

}  // namespace quarn
