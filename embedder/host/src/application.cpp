#include <quarn/listener.h>
#include <quarn/sized_struct.h>
#include <veltra/host/application.h>

#include <QCoreApplication>
#include <QLocale>
#include <QStandardPaths>
#include <QSysInfo>
#include <chrono>
#include <utility>

#include "platform_thread.h"

namespace veltra::host {
namespace {

constexpr const char* kEmbedderVersion = "1.0.0-workstation";

// An empty `wanted` gives way to what the workstation says.
std::string Choose(const std::string& wanted, const QString& otherwise) {
  return wanted.empty() ? otherwise.toStdString() : wanted;
}

std::filesystem::path GetExecutableFolder() {
  return QCoreApplication::applicationDirPath().toStdString();
}

std::map<std::int32_t, std::string> DescribeApplication() {
  return {
      {FLUTTER_VELTRA_INFO_ID, QCoreApplication::applicationName().toStdString()},
      {FLUTTER_VELTRA_INFO_NAME, QCoreApplication::applicationName().toStdString()},
      {FLUTTER_VELTRA_INFO_VERSION, QCoreApplication::applicationVersion().toStdString()},
      {FLUTTER_VELTRA_INFO_ORGANIZATION, QCoreApplication::organizationName().toStdString()},
      {FLUTTER_VELTRA_INFO_LOCALE, QLocale::system().name().toStdString()},
  };
}

std::map<std::int32_t, std::string> FindFolders() {
  using Paths = QStandardPaths;
  const std::pair<std::int32_t, Paths::StandardLocation> places[] = {
      {FLUTTER_VELTRA_DIRECTORY_DATA, Paths::AppDataLocation},
      {FLUTTER_VELTRA_DIRECTORY_CACHE, Paths::CacheLocation},
      {FLUTTER_VELTRA_DIRECTORY_CONFIG, Paths::AppConfigLocation},
      {FLUTTER_VELTRA_DIRECTORY_TEMPORARY, Paths::TempLocation},
      {FLUTTER_VELTRA_DIRECTORY_DOCUMENTS, Paths::DocumentsLocation},
      {FLUTTER_VELTRA_DIRECTORY_DOWNLOADS, Paths::DownloadLocation},
      {FLUTTER_VELTRA_DIRECTORY_MUSIC, Paths::MusicLocation},
      {FLUTTER_VELTRA_DIRECTORY_PICTURES, Paths::PicturesLocation},
      {FLUTTER_VELTRA_DIRECTORY_VIDEOS, Paths::MoviesLocation},
  };
  std::map<std::int32_t, std::string> folders;
  folders[FLUTTER_VELTRA_DIRECTORY_ASSETS] = GetExecutableFolder().string();
  for (const auto& [type, place] : places) {
    folders[type] = Paths::writableLocation(place).toStdString();
  }
  return folders;
}

const char* FindText(const std::map<std::int32_t, std::string>& texts, std::int32_t key) {
  const auto found = texts.find(key);
  return found == texts.end() ? nullptr : found->second.c_str();
}

}  // namespace

Application::Application(const EngineOptions& options, std::shared_ptr<PlatformThread> thread)
    : thread_(std::move(thread)),
      permissions_(options.permissions),
      os_version_(Choose(options.os_version, QSysInfo::prettyProductName())),
      embedder_version_(Choose(options.embedder_version, kEmbedderVersion)),
      library_folder_(options.library_path.empty()
                          ? (GetExecutableFolder() / ".." / "lib").lexically_normal()
                          : options.library_path),
      info_(DescribeApplication()),
      paths_(FindFolders()),
      arguments_(options.entry_point_args) {
  for (const auto& [type, text] : options.application_info) {
    info_[type] = text;
  }
  for (const auto& [type, path] : options.directories) {
    paths_[type] = path.string();
  }
  for (const std::string& argument : arguments_) {
    argument_pointers_.push_back(argument.c_str());
  }
}

void Application::SetPermission(const std::string& name, bool granted) {
  if (granted) {
    permissions_.insert(name);
  } else {
    permissions_.erase(name);
  }
}

void Application::EnqueueTask(const FlutterVeltraSlot* task, unsigned int param) {
  const auto listener = std::make_shared<quarn::CStyleListener<>>(task);
  thread_->PostDelayed([listener] { listener->InvokeOnce(); }, std::chrono::milliseconds(param));
}

bool Application::HasPermission(const char* name) {
  return name != nullptr && permissions_.count(name) != 0;
}

const char* Application::GetOSVersion() { return os_version_.c_str(); }
const char* Application::GetEmbedderVersion() { return embedder_version_.c_str(); }

void Application::Exit(int exit_code) {
  exit_code_ = exit_code;
  // From the event loop, so that it also ends one that has not begun.
  thread_->Post([exit_code] { QCoreApplication::exit(exit_code); });
}

bool Application::CreateMainWindow(const char* entry_point, const std::uint8_t* payload,
                                   std::size_t payload_size) {
  if (main_window_) {
    return false;
  }
  main_window_ = Window{entry_point == nullptr ? "main" : entry_point,
                        cw::EncodableValue::Deserialize(payload, payload_size)};
  return true;
}

const char* Application::GetApplicationInfo(std::int32_t type) { return FindText(info_, type); }
const char* Application::GetPath(std::int32_t type) { return FindText(paths_, type); }

const char* Application::GetLibraryPath(const char* name) {
  if (name == nullptr || *name == '\0') {
    library_path_ = library_folder_.string();
    return library_path_.c_str();
  }
  const std::filesystem::path path = library_folder_ / name;
  std::error_code error;
  if (!std::filesystem::exists(path, error)) {
    return nullptr;
  }
  library_path_ = path.string();
  return library_path_.c_str();
}

bool Application::GetDartEntryPointArgs(FlutterVeltraStringList* list) {
  if (list == nullptr) {
    return false;
  }
  quarn::StructFiller<FlutterVeltraStringList>(list, quarn::StatedSize(list))
      .Fill(&FlutterVeltraStringList::strings, argument_pointers_.data())
      .Fill(&FlutterVeltraStringList::count, argument_pointers_.size());
  return true;
}

}  // namespace veltra::host
