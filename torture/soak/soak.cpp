// A random mix of everything, for as long as one likes:
//
//   soak SECONDS [SEED]
//
// Two applications play: they start and end tasks in every form, call, notify, cancel, send large
// texts, invoke intents, signal their tasks, read slowly; half of the tasks meet each fault in one of
// a hundred messages. A third application is killed again and again. Every few seconds the two come
// to rest and are measured. Returns 0 when everything has ended once, and where it began.

#include <QCoreApplication>
#include <cstdio>
#include <random>

#include "driver.h"
#include "figures.h"
#include "player.h"

namespace {

constexpr int kUsage = 64;

soak::Play PlayOf(const QStringList& arguments) {
  soak::Play play;
  play.name = arguments.at(2).toStdString();
  play.other_name = arguments.at(3).toStdString();
  play.seed = arguments.at(4).toULongLong();
  play.seconds = arguments.at(5).toDouble();
  play.round_seconds = arguments.at(6).toDouble();
  play.is_restless = arguments.at(7) == "1";
  return play;
}

}  // namespace

int main(int argc, char** argv) {
  soak::LeaveOutLargeBlocks();
  const QCoreApplication application(argc, argv);
  const QStringList arguments = QCoreApplication::arguments();
  constexpr int kArgumentsOfAPlay = 8;
  if (arguments.size() == kArgumentsOfAPlay && arguments.at(1) == "--play") {
    return soak::RunPlay(PlayOf(arguments));
  }
  const double seconds = arguments.size() > 1 ? arguments.at(1).toDouble() : 0;
  if (seconds <= 0 || arguments.size() > 3) {
    std::fputs("usage: soak SECONDS [SEED]\n", stderr);
    return kUsage;
  }
  const std::uint64_t seed =
      arguments.size() > 2 ? arguments.at(2).toULongLong() : std::random_device()();
  return soak::Drive(QCoreApplication::applicationFilePath().toStdString(), seconds, seed);
}
