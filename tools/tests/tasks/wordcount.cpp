// The task "wordcount" of the tests: counts, fails, dawdles, dies and tells.
#include <quarn/dispatcher.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <QFile>
#include <QTimer>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Texts {
  std::vector<std::string> texts;
  std::optional<std::int64_t> at_least;
};
struct Totals {
  std::int64_t total = 0;
  std::vector<std::int32_t> each;
};
struct Step {
  std::int32_t done = 0, of = 0;
};
struct Content {
  std::vector<std::uint8_t> file;
};
TARV_VALUE(Texts, texts, at_least)
TARV_VALUE(Totals, total, each)
TARV_VALUE(Step, done, of)
TARV_VALUE(Content, file)

using cw::EncodableValue;

constexpr tarv::Method<Totals(Texts), Step> kCount{"count", "counts the words of each text"};
constexpr tarv::Method<EncodableValue(EncodableValue)> kEcho{"echo", "gives back what it gets"};
constexpr tarv::Method<std::int64_t(Content)> kSize{"size", "how many bytes the file has"};
constexpr tarv::Method<void()> kFail{"fail", "answers with an error"};
constexpr tarv::Method<void()> kSleep{"sleep", "never answers; cancelled, it leaves a file"};
constexpr tarv::Method<void()> kDie{"die", "exits with status 7"};
constexpr tarv::Method<void()> kTick{"tick", "tells \"ticked\" three times, then answers"};

std::int32_t CountWords(const std::string& text) {
  std::istringstream words(text);
  std::int32_t count = 0;
  for (std::string word; words >> word;) {
    ++count;
  }
  return count;
}

void AddCounting(tarv::Service& service) {
  service.On(kCount, [](const Texts& texts, tarv::Request<Totals, Step> request) {
    Totals totals;
    for (const std::string& text : texts.texts) {
      totals.each.push_back(CountWords(text));
      totals.total += totals.each.back();
      request.Progress({static_cast<std::int32_t>(totals.each.size()),
                        static_cast<std::int32_t>(texts.texts.size())});
    }
    request.Answer(totals);
  });
  service.On(kEcho, [](EncodableValue value) { return value; });
  service.On(kSize,
             [](const Content& content) { return static_cast<std::int64_t>(content.file.size()); });
}

void Touch(const char* variable) {
  QFile file(QString::fromLocal8Bit(qgetenv(variable)));
  static_cast<void>(file.open(QIODevice::WriteOnly));
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const auto manager =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), std::string(argv[2]));
  const auto server = manager->CreateRpcServer();
  server->OnNotify("remember",
                   [](const vorpc::Message::Notification& /*note*/) { Touch("REMEMBERED"); });
  const auto service = tarv::Service::For(server);
  AddCounting(*service);
  service->On(kFail, [] { throw tarv::RequestError(4711, "no luck", EncodableValue("today")); });
  std::optional<tarv::Request<void>> asleep;
  service->On(kSleep, [&asleep](tarv::Request<void> request) {
    request.OnCancel([] { Touch("CANCELLED"); });
    asleep.emplace(std::move(request));
  });
  service->On(kDie, [] { std::_Exit(7); });
  service->On(kTick, [&server] {
    for (std::int32_t i = 1; i <= 3; ++i) {
      server->SendNotify("ticked", cw::EncodableMap{{"n", i}});
    }
  });
  service->Run();
  return QCoreApplication::exec();
}
