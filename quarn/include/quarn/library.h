// quarn::Library: one shared object, loaded for as long as somebody holds it.
#ifndef QUARN_LIBRARY_H
#define QUARN_LIBRARY_H

#include <quarn/export.h>

#include <filesystem>
#include <memory>
#include <string_view>
#include <type_traits>

namespace quarn {

// Any thread; no locking beyond the dynamic loader's own.
class TARV_EXPORT Library {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  Library(PrivateTag, const std::filesystem::path& path) : path_(path) {}
  // Unloads the shared object.
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  // Loads the shared object at `path`, resolving all its symbols now and keeping them to itself.
  // Empty, after a log line with the loader's text, when that fails, or for a path with a NUL
  // inside.
  static std::shared_ptr<Library> Create(const std::filesystem::path& path);

  // The address of a symbol, valid while this object lives; null, after a log line, when the
  // library has none of this name, as for a name with a NUL inside.
  void* ResolveImpl(std::string_view name) const;

  // The same as a pointer to a function of type `Function`.
  template <class Function>
  Function* Resolve(std::string_view name) const {
    static_assert(std::is_function_v<Function>);
    return reinterpret_cast<Function*>(ResolveImpl(name));
  }

  const std::filesystem::path& GetPath() const { return path_; }

 private:
  std::filesystem::path path_;
  void* handle_ = nullptr;
};

}  // namespace quarn

#endif  // QUARN_LIBRARY_H
