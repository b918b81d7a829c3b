// The task "checksums": hashes the files that its starter names, a slice at a time, so that its
// event loop always has an ear for the next message.

#include <dlfcn.h>
#include <fcntl.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>

#include "protocol.h"

namespace {

constexpr qint64 kSliceSize = 1 << 20;       // a few milliseconds of hashing
constexpr qint64 kProgressIntervalMs = 100;  // what an eye can follow

// Hashes one file after another and reports through `send`.
class Hasher {
 public:
  using Send = std::function<void(const QJsonObject&)>;

  explicit Hasher(Send send) : send_(std::move(send)) {
    QObject::connect(&next_slice_, &QTimer::timeout, [this] { HashSlice(); });
    since_progress_.start();
  }

  void Add(int id, const std::string& path) {
    waiting_.push_back({id, path});
    next_slice_.start(0);
  }

  void Cancel() {
    waiting_.clear();
    current_.reset();
    next_slice_.stop();
    send_({{"cancelled", true}});
  }

 private:
  struct Job {
    int id;
    std::string path;
  };

  struct Work {
    explicit Work(int job_id) : id(job_id) {}
    int id;
    QFile file;
    QCryptographicHash hash{QCryptographicHash::Sha256};
  };

  void HashSlice() {
    if (!current_ && !OpenNext()) {
      return;
    }
    const QByteArray slice = current_->file.read(kSliceSize);
    current_->hash.addData(slice);
    if (current_->file.error() != QFile::NoError) {
      Finish({{"failed", current_->id}, {"why", current_->file.errorString()}});
    } else if (slice.isEmpty()) {
      Finish({{"done", current_->id}, {"sha256", QString(current_->hash.result().toHex())}});
    } else {
      ReportProgress();
    }
  }

  bool OpenNext() {
    if (waiting_.empty()) {
      next_slice_.stop();
      return false;
    }
    const Job job = std::move(waiting_.front());
    waiting_.pop_front();
    current_ = std::make_unique<Work>(job.id);
    // Opened by its bytes: a path need not be text, which is all that QFile takes.
    const int descriptor = open(job.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
      Finish({{"failed", job.id}, {"why", QString::fromLocal8Bit(std::strerror(errno))}});
      return false;
    }
    return current_->file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered,
                               QFileDevice::AutoCloseHandle);
  }

  void ReportProgress() {
    if (since_progress_.elapsed() >= kProgressIntervalMs) {
      since_progress_.restart();
      send_({{"progress", current_->id}, {"bytes", static_cast<double>(current_->file.pos())}});
    }
  }

  void Finish(const QJsonObject& report) {
    current_.reset();
    send_(report);
  }

  Send send_;
  std::deque<Job> waiting_;
  std::unique_ptr<Work> current_;
  QTimer next_slice_;
  QElapsedTimer since_progress_;
};

// The server's end of the channel: texts in, texts out.
class Channel {
 public:
  explicit Channel(const TARVProcTable& api)
      : server_(api.GetRpcServer(api.Initialize())), hasher_([this](const QJsonObject& report) {
          table_.SendMessage(server_, checksums::ToText(report).c_str());
        }) {
    api.RpcServerProcTableLoad(&table_, sizeof(table_));
  }

  void Run() {
    TARVRpcServerSlots callbacks{};
    callbacks.size = sizeof(callbacks);
    callbacks.OnMessage = &Channel::OnMessage;
    callbacks.user_data = this;
    table_.Run(server_, &callbacks);
  }

 private:
  static void OnMessage(void* user_data, const char* message, size_t chunk) {
    auto* const self = static_cast<Channel*>(user_data);
    const QJsonObject request = checksums::FromText(message);
    self->table_.UnlockResources(self->server_, chunk);
    self->Serve(request);
  }

  void Serve(const QJsonObject& request) {
    if (request.contains("hash")) {
      hasher_.Add(request["hash"].toInt(), checksums::PathFromJson(request["path"]));
    } else if (request.contains("cancel")) {
      hasher_.Cancel();
    }
  }

  TARVRpcServerProcTable table_{};
  _TARVRpcServerRef* server_;
  Hasher hasher_;
};

// The folder that the starter names is where the library lies.
std::string LibraryPath(const QStringList& arguments) {
  const int option = arguments.indexOf("--libs-path");
  if (option < 0 || option + 1 >= arguments.size()) {
    return {};
  }
  return QFile::encodeName(arguments[option + 1]).toStdString() + "/libtarv.so";
}

bool LoadApi(const std::string& path, TARVProcTable& api) {
  void* const library = dlopen(path.c_str(), RTLD_NOW);
  if (library == nullptr) {
    std::cerr << "checksums task: " << dlerror() << '\n';
    return false;
  }
  const auto load =
      reinterpret_cast<decltype(&TARVProcTableLoad)>(dlsym(library, "TARVProcTableLoad"));
  return load != nullptr && load(&api, sizeof(api)) == QUARN_RESULT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  const std::string library = LibraryPath(QCoreApplication::arguments());
  if (library.empty()) {
    std::cerr << "checksums task: this program is started by its application, which tells it where "
                 "its libraries are (--libs-path FOLDER)\n";
    return EXIT_FAILURE;
  }
  TARVProcTable api{};
  if (!LoadApi(library, api)) {
    std::cerr << "checksums task: cannot use the library '" << library << "'\n";
    return EXIT_FAILURE;
  }
  Channel channel(api);
  channel.Run();
  const int status = QCoreApplication::exec();
  api.Release(api.Initialize());
  return status;
}
