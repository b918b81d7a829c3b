#include "socket_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <algorithm>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "hidden_file.h"
#include "socket_name.h"
#include "support.h"

namespace RuntimeManager::host {
namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kSocketMode = 0600;
constexpr mode_t kOthersMask = 0077;
// Connections that wait for a busy task; one is its starter's, the rest are closed anyway.
constexpr int kBacklog = 64;

const QString kFolderName = QStringLiteral("runtime-manager");
// Much longer than a socket stays hidden, however busy the machine is.
constexpr std::time_t kHiddenSeconds = 60;

Error FolderError(const QString& path, const QString& why) {
  return {Error::kRuntimeFolder,
          QString("the folder of the runtime manager's sockets, '%1', %2").arg(path, why)};
}

// Whether the folder is there now.
bool MakeFolder(int parent, const QByteArray& name) {
  if (::mkdirat(parent, name.constData(), kFolderMode) != 0) {
    return errno == EEXIST;
  }
  // The umask may have taken rights that the user needs.
  ::fchmodat(parent, name.constData(), kFolderMode, 0);
  return true;
}

Error CheckFolder(int folder, const QString& path) {
  struct stat facts {};
  if (::fstat(folder, &facts) != 0) {
    return FolderError(path, "cannot be read: " + ErrnoText(errno));
  }
  if (facts.st_uid != ::geteuid()) {
    return FolderError(path, QString("belongs to the user with id %1, not to %2: remove it, or set "
                                     "XDG_RUNTIME_DIR to a folder of your own")
                                 .arg(facts.st_uid)
                                 .arg(::geteuid()));
  }
  if ((facts.st_mode & kOthersMask) != 0) {
    return FolderError(path,
                       QString("can be entered by other users (mode 0%1): run chmod 700 on it")
                           .arg(facts.st_mode & 07777U, 0, 8));
  }
  return {};
}

QString TemporaryFolder() {
  const QString chosen = QString::fromUtf8(Variable("TMPDIR"));
  return chosen.startsWith('/') ? chosen : QStringLiteral("/tmp");
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// Whether `file` may be a socket that its maker has not bound or renamed yet: one that refuses a
// connection in that moment is not dead.
bool IsBeingMade(const SocketFolder& folder, const QString& file) {
  struct stat facts {};
  return IsHiddenSocketName(file) &&
         ::fstatat(folder.Descriptor(), file.toUtf8().constData(), &facts, AT_SYMLINK_NOFOLLOW) ==
             0 &&
         std::time(nullptr) - facts.st_mtime < kHiddenSeconds;
}

bool IsDead(const SocketFolder& folder, const QString& file) {
  return HasNoStarter(file) && !IsBeingMade(folder, file) && folder.Probe(file) == ECONNREFUSED;
}

void Sweep(const SocketFolder& folder) {
  const auto names = folder.ListNames();
  if (!names) {
    Warn(QString("cannot look for left-behind sockets in '%1': %2")
             .arg(folder.PathOf("."), ErrnoText(errno)));
    return;
  }
  for (const QString& name : *names) {
    if (IsDead(folder, name)) {
      folder.Remove(name);
    }
  }
}

// Where the folder of the tasks lies.
struct Place {
  Place()
      : runtime(QString::fromUtf8(Variable("XDG_RUNTIME_DIR"))),
        // A relative path would mean another folder in every process.
        is_set(runtime.startsWith('/')),
        parent(is_set ? runtime : TemporaryFolder()),
        name(is_set ? kFolderName : kFolderName + '-' + QString::number(::geteuid())) {}

  const QString runtime;
  const bool is_set;
  const QString parent;
  const QString name;
};

bool IsFirstUse(const QString& path) {
  static std::mutex mutex;
  static std::set<QString> used;
  const std::lock_guard lock(mutex);
  return used.insert(path).second;
}

sockaddr_un Address(const QByteArray& path, int* error_number) {
  sockaddr_un address{};
  if (static_cast<std::size_t>(path.size()) >= sizeof(address.sun_path)) {
    *error_number = ENAMETOOLONG;
    return address;
  }
  address.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), address.sun_path);
  return address;
}

// The path of a name in an open folder. It is short however long the folder's own path is.
QByteArray PathThrough(int folder, const QString& name) {
  return "/proc/self/fd/" + QByteArray::number(folder) + '/' + name.toUtf8();
}

UniqueFd ConnectShort(const QByteArray& path, int* error_number) {
  *error_number = 0;
  const sockaddr_un address = Address(path, error_number);
  if (*error_number != 0) {
    return {};
  }
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto connect = [&socket, &address] {
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  };
  if (socket.IsValid() && RetryOnEintr(connect) == 0) {
    return socket;
  }
  *error_number = errno;
  return {};
}

}  // namespace

SocketFolder SocketFolder::OpenIn(int parent, const QString& parent_path, const QString& name,
                                  Error* error) {
  const QString path = QDir::cleanPath(parent_path + '/' + name);
  const QByteArray entry = name.toUtf8();
  if (!MakeFolder(parent, entry)) {
    *error = FolderError(path, "cannot be made: " + ErrnoText(errno));
    return {};
  }
  UniqueFd folder(
      ::openat(parent, entry.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder.IsValid()) {
    const bool is_other = errno == ENOTDIR || errno == ELOOP;
    *error = FolderError(path, is_other ? QString("is not a folder, or a symbolic link: remove it")
                                        : "cannot be opened: " + ErrnoText(errno));
    return {};
  }
  *error = CheckFolder(folder.Get(), path);
  if (error->isError()) {
    return {};
  }
  return {std::move(folder), path};
}

SocketFolder SocketFolder::OpenTasks(Error* error) {
  const Place place;
  const UniqueFd parent(
      ::open(place.parent.toUtf8().constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!parent.IsValid()) {
    const QString why =
        QString("cannot be made, because '%1' (%2) cannot be opened: %3")
            .arg(place.parent, place.is_set ? "XDG_RUNTIME_DIR" : "the temporary folder",
                 ErrnoText(errno));
    *error = FolderError(place.parent + '/' + place.name, why);
    return {};
  }
  SocketFolder folder = OpenIn(parent.Get(), place.parent, place.name, error);
  if (folder.IsValid() && IsFirstUse(folder.path_)) {
    Sweep(folder);
  }
  return folder;
}

SocketFolder SocketFolder::OpenIntents(Error* error) {
  const SocketFolder tasks = OpenTasks(error);
  if (!tasks.IsValid()) {
    return {};
  }
  return OpenIn(tasks.Descriptor(), tasks.path_, QStringLiteral("intents"), error);
}

QString SocketFolder::TasksPath() {
  const Place place;
  return QDir::cleanPath(place.parent + '/' + place.name);
}

SocketFolder SocketFolder::Look(const QString& path) {
  UniqueFd folder(
      ::open(path.toUtf8().constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return {std::move(folder), path};
}

Error SocketFolder::Check() const { return CheckFolder(Descriptor(), path_); }

std::optional<std::vector<QString>> SocketFolder::ListNames() const {
  // A descriptor of its own: the position in the folder is part of what a duplicate shares.
  UniqueFd own(::openat(Descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseDirectory> directory(own.IsValid() ? ::fdopendir(own.Get())
                                                                     : nullptr);
  if (directory == nullptr) {
    return std::nullopt;
  }
  own.Release();
  std::vector<QString> names;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this call's own
  while (const dirent* entry = ::readdir(directory.get())) {
    QString name = QString::fromUtf8(entry->d_name);
    if (name != "." && name != "..") {
      names.push_back(std::move(name));
    }
  }
  return names;
}

UniqueFd SocketFolder::Listen(const QString& name, Error* error) const {
  const QByteArray entry = name.toUtf8();
  int error_number = 0;
  const sockaddr_un address = Address(PathThrough(Descriptor(), name), &error_number);
  // A blocking socket, as socket activation hands it to programs of any kind.
  UniqueFd socket(error_number != 0 ? -1 : ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (error_number == 0 && !socket.IsValid()) {
    error_number = errno;
  }
  const auto* target = reinterpret_cast<const sockaddr*>(&address);
  if (error_number == 0 && ::bind(socket.Get(), target, sizeof(address)) != 0) {
    error_number = errno;
  }
  if (error_number == 0 && (::fchmodat(Descriptor(), entry.constData(), kSocketMode, 0) != 0 ||
                            ::listen(socket.Get(), kBacklog) != 0)) {
    error_number = errno;
    ::unlinkat(Descriptor(), entry.constData(), 0);
  }
  if (error_number == 0) {
    return socket;
  }
  *error = SystemError(Error::kRuntimeFolder,
                       QString("cannot listen on the socket '%1'").arg(PathOf(name)), error_number);
  return {};
}

UniqueFd SocketFolder::ListenConnected(const QString& name, UniqueFd* first, Error* error) const {
  const QString hidden = HiddenSocketName(name);
  HiddenFile file(Descriptor(), hidden);
  UniqueFd socket = Listen(hidden, error);
  if (!socket.IsValid()) {
    return socket;
  }
  int error_number = 0;
  *first = Connect(hidden, &error_number);
  if (error_number == 0) {
    error_number = file.Rename(name);
  }
  if (error_number == 0) {
    return socket;
  }
  *error =
      SystemError(Error::kRuntimeFolder,
                  QString("cannot connect to the new socket '%1'").arg(PathOf(name)), error_number);
  return {};
}

UniqueFd SocketFolder::Connect(const QString& name, int* error_number) const {
  return ConnectShort(PathThrough(Descriptor(), name), error_number);
}

// A datagram socket cannot connect to the stream socket of a live process, and the kernel says so
// (EPROTOTYPE); where no process has the file's socket, it says what it says to everybody.
int SocketFolder::Probe(const QString& name) const {
  int error_number = 0;
  const sockaddr_un address = Address(PathThrough(Descriptor(), name), &error_number);
  if (error_number != 0) {
    return error_number;
  }
  const UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto* target = reinterpret_cast<const sockaddr*>(&address);
  const auto connect = [&] { return ::connect(probe.Get(), target, sizeof(address)); };
  if (!probe.IsValid() || RetryOnEintr(connect) != 0) {
    return errno == EPROTOTYPE ? 0 : errno;
  }
  return 0;
}

void SocketFolder::Remove(const QString& name) const {
  ::unlinkat(Descriptor(), name.toUtf8().constData(), 0);
}

UniqueFd ConnectSocket(const QString& path, int* error_number) {
  const QByteArray whole = path.toUtf8();
  if (static_cast<std::size_t>(whole.size()) < sizeof(sockaddr_un::sun_path)) {
    return ConnectShort(whole, error_number);
  }
  const int slash = path.lastIndexOf('/');
  const UniqueFd folder(::open(QFile::encodeName(path.left(std::max(slash, 1))).constData(),
                               O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.IsValid()) {
    *error_number = errno;
    return {};
  }
  return ConnectShort(PathThrough(folder.Get(), path.mid(slash + 1)), error_number);
}

}  // namespace RuntimeManager::host
