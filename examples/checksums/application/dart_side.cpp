#include "dart_side.h"

#include <QByteArray>
#include <QCoreApplication>
#include <algorithm>
#include <iostream>
#include <numeric>
#include <utility>

#include "../names.h"

namespace checksums {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Kind = veltra::host::MethodOutcome::Kind;

std::uint64_t TotalSize(const std::vector<File>& files) {
  return std::accumulate(files.begin(), files.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const File& file) { return sum + file.size; });
}

// A path is bytes of no known encoding, so it does not travel as a string.
cw::EncodableList PathsOf(const std::vector<File>& files) {
  cw::EncodableList paths;
  paths.reserve(files.size());
  for (const File& file : files) {
    paths.emplace_back(Bytes(file.path.begin(), file.path.end()));
  }
  return paths;
}

std::string ToHex(const Bytes& bytes) {
  return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()))
      .toHex()
      .toStdString();
}

// A line as sha256sum writes it: a name with a backslash or a line break in it is escaped, which a
// backslash before the hash announces.
std::string ResultLine(const std::string& hash, const std::string& path) {
  std::string name;
  for (const char c : path) {
    switch (c) {
      case '\\':
        name += "\\\\";
        break;
      case '\n':
        name += "\\n";
        break;
      case '\r':
        name += "\\r";
        break;
      default:
        name += c;
    }
  }
  return (name.size() != path.size() ? "\\" : "") + hash + "  " + name + "\n";
}

// A reason of the platform's may quote the last lines that a task wrote.
std::string InOneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

DartSide::DartSide(veltra::host::Engine& engine, FileList list)
    : engine_(engine),
      list_(std::move(list)),
      hashes_(list_.files.size()),
      progress_(list_.files.size(), TotalSize(list_.files)) {
  for (const std::string& problem : list_.problems) {
    Complain(kSomeFilesFailed, problem);
  }
}

void DartSide::Start() {
  auto& messenger = engine_.GetMessenger();
  messenger.ListenEvents(kEventChannel,
                         {[this](const cw::EncodableValue& event) { OnEvent(event); }, {}, {}});
  messenger.InvokeMethod(kMethodChannel, "hash", PathsOf(list_.files),
                         [this](const auto& outcome) { OnOutcome(outcome); });
}

void DartSide::Interrupt() {
  if (status_ == kInterrupted) {
    QCoreApplication::exit(kInterrupted);
    return;
  }
  status_ = kInterrupted;
  engine_.GetMessenger().InvokeMethod(kMethodChannel, "cancel");
}

void DartSide::OnEvent(const cw::EncodableValue& event) {
  const auto file = static_cast<std::size_t>(event.Find("file")->AsInt64().value());
  if (const auto* const hash = event.Find<Bytes>("sha256")) {
    hashes_.at(file) = ToHex(*hash);
    FinishFile(file);
  } else if (const auto* const error = event.Find<std::string>("error")) {
    Complain(kSomeFilesFailed, list_.files.at(file).path + ": " + *error);
    FinishFile(file);
  } else if (const auto* const bytes = event.Find("bytes")) {
    const auto hashed = static_cast<std::uint64_t>(bytes->AsInt64().value());
    progress_.Update(finished_, finished_bytes_ + hashed);
  }
}

void DartSide::FinishFile(std::size_t file) {
  ++finished_;
  finished_bytes_ += list_.files[file].size;
  progress_.Update(finished_, finished_bytes_);
}

void DartSide::OnOutcome(const veltra::host::MethodOutcome& outcome) {
  if (status_ == kInterrupted || outcome.code == kCancelled) {
    // Also when the task had just ended its work, or its life.
    Complain(kInterrupted, "interrupted");
  } else if (outcome.kind == Kind::Success) {
    progress_.Clear();
    PrintResults();
  } else if (outcome.code == kNotStarted) {
    Complain(kTaskFailed, "the task could not be started: " + InOneLine(outcome.message));
  } else {
    Complain(kTaskFailed, "the task ended before its work was done: " + InOneLine(outcome.message));
  }
  QCoreApplication::exit(status_);
}

// The first serious reason decides the exit status.
void DartSide::Complain(ExitStatus status, const std::string& line) {
  progress_.Clear();
  std::cerr << "checksums: " << line << '\n';
  if (status_ == kAllHashed || status_ == kSomeFilesFailed) {
    status_ = status;
  }
}

void DartSide::PrintResults() const {
  for (std::size_t i = 0; i < hashes_.size(); ++i) {
    if (!hashes_[i].empty()) {
      std::cout << ResultLine(hashes_[i], list_.files[i].path);
    }
  }
  std::cout << std::flush;
}

}  // namespace checksums
