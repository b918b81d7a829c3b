#ifndef RUNTIME_MANAGER_HOST_HIDDEN_FILE_H
#define RUNTIME_MANAGER_HOST_HIDDEN_FILE_H

#include <unistd.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <cerrno>
#include <cstdio>

namespace RuntimeManager::host {

// A socket's file under its hidden name, where it stays in no case, also not when memory runs out.
class HiddenFile {
 public:
  HiddenFile(int folder, const QString& name) : folder_(folder), name_(name.toUtf8()) {}
  ~HiddenFile() {
    if (!name_.isEmpty()) {
      ::unlinkat(folder_, name_.constData(), 0);
    }
  }
  HiddenFile(const HiddenFile&) = delete;
  HiddenFile& operator=(const HiddenFile&) = delete;

  // Shows it; an error number when that fails.
  int Rename(const QString& name) {
    if (::renameat(folder_, name_.constData(), folder_, name.toUtf8().constData()) != 0) {
      return errno;
    }
    name_.clear();
    return 0;
  }

 private:
  const int folder_;
  QByteArray name_;  // empty once it is shown
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_HIDDEN_FILE_H
