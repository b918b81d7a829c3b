// The application: hands the files of a folder to the task "checksums" and collects their hashes.
#ifndef CHECKSUMS_APPLICATION_H
#define CHECKSUMS_APPLICATION_H

#include <tarv/tarv_capi.h>

#include <QJsonObject>
#include <cstdint>
#include <string>
#include <vector>

#include "file_list.h"
#include "progress.h"

namespace checksums {

enum ExitStatus : int {
  kAllHashed = 0,
  kSomeFilesFailed = 1,
  kBadUsage = 2,
  kTaskFailed = 3,
  kInterrupted = 130,  // as a shell reports a program that SIGINT ended
};

// Lives on the main thread. Ends the Qt event loop, with an ExitStatus, once its client is gone.
class Application {
 public:
  // `libs_path` is the folder of libtarv.so.
  Application(FileList list, std::string libs_path);
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Starts the task; everything else follows from the event loop. False, after a line on standard
  // error, when the library cannot be used.
  bool Start();

  // Has the task drop its work; what was hashed so far is not printed. A second call does not wait
  // for the task's answer.
  void Interrupt();

 private:
  static void OnStarted(void* user_data, int code, const char* message, size_t chunk);
  static void OnMessage(void* user_data, const char* message, size_t chunk);
  static void OnDisconnect(void* user_data, int code, const char* message, size_t chunk);
  static void OnReleased(void* user_data);

  bool LoadTables();
  void RequestMore();
  void Send(const QJsonObject& request);
  void Receive(const QJsonObject& report);
  void FinishFile(std::size_t index);
  void Fail(ExitStatus status, const std::string& line);
  void PrintResults() const;
  void Release();

  const FileList list_;
  const std::string libs_path_;
  std::vector<std::string> hashes_;  // by file; empty until known
  Progress progress_;
  std::size_t requested_ = 0;
  std::size_t finished_ = 0;
  std::uint64_t finished_bytes_ = 0;
  bool running_ = false;
  ExitStatus status_ = kAllHashed;

  TARVProcTable api_{};
  TARVRpcClientProcTable table_{};
  _TARVManagerRef* manager_ = nullptr;
  _TARVRpcClientRef* client_ = nullptr;
};

}  // namespace checksums

#endif  // CHECKSUMS_APPLICATION_H
