// Signals that a platform may have or lack, however its header spells their argument.

#include "error_relay.h"

#include <RuntimeManager/Error.h>
#include <gtest/gtest.h>

#include <QObject>
#include <vector>

namespace RuntimeManager {

// As a header writes it that spells the argument in full.
class InFull : public QObject {
  Q_OBJECT

 Q_SIGNALS:
  void finished(const RuntimeManager::Error& error);
};

// As one writes it that stands in the same namespace.
class InBrief : public QObject {
  Q_OBJECT

 Q_SIGNALS:
  void finished(const Error& error);
};

}  // namespace RuntimeManager

namespace tarv::test {
namespace {

using details::ErrorRelay;
using RuntimeManager::Error;

template <class Sender>
std::vector<int> CodesHeard() {
  std::vector<int> codes;
  Sender sender;
  ErrorRelay::Listen(&sender, "finished",
                     [&codes](const Error& error) { codes.push_back(error.code()); });
  Q_EMIT sender.finished(Error(7, "gone"));
  return codes;
}

TEST(ErrorRelay, HearsASignalWhoseArgumentIsSpelledInFull) {
  EXPECT_EQ(CodesHeard<RuntimeManager::InFull>(), std::vector<int>{7});
}

TEST(ErrorRelay, HearsASignalWhoseArgumentIsSpelledWithoutItsNamespace) {
  EXPECT_EQ(CodesHeard<RuntimeManager::InBrief>(), std::vector<int>{7});
}

TEST(ErrorRelay, OfASignalThatIsNotThereHearsNothing) {
  RuntimeManager::InBrief sender;
  ErrorRelay::Listen(&sender, "disconnected", [](const Error&) { FAIL(); });
  Q_EMIT sender.finished(Error(7, "gone"));
  EXPECT_TRUE(sender.children().isEmpty());
}

TEST(ErrorRelay, LetsItsHandlerEndTheSender) {
  auto* const sender = new RuntimeManager::InBrief;
  int heard = 0;
  ErrorRelay::Listen(sender, "finished", [&heard, sender](const Error&) {
    sender->disconnect();
    sender->deleteLater();
    ++heard;
  });
  Q_EMIT sender->finished(Error(7, "gone"));
  Q_EMIT sender->finished(Error(7, "gone"));
  EXPECT_EQ(heard, 1);
  delete sender;
}

}  // namespace
}  // namespace tarv::test

#include "error_relay_test.moc"
