// One way of a connection between which a FaultRelay stands.
#ifndef RUNTIME_MANAGER_HOST_FAULT_LANE_H
#define RUNTIME_MANAGER_HOST_FAULT_LANE_H

#include <QtCore/QByteArray>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <chrono>
#include <deque>
#include <functional>
#include <random>
#include <vector>

#include "fault_rules.h"

namespace RuntimeManager::host {

// Carries lines from one socket to another, and has the rules' faults strike them. What waits is
// bounded: when the reader does not read, this does not read either. Belongs to the thread that
// makes it; the sockets stay open until it is gone.
class FaultLane {
 public:
  struct Config {
    QString task;
    FaultRule::Way way = FaultRule::Way::kToTask;
    std::vector<FaultRule> rules;  // those for this task and way
    quint64 seed = 0;
    // A message has been delivered.
    std::function<void()> on_delivered;
  };

  FaultLane(Config config, int from, int to);
  ~FaultLane() = default;
  FaultLane(const FaultLane&) = delete;
  FaultLane& operator=(const FaultLane&) = delete;

  // Delivers all that has come, early or not. True when it did something and there is more: the
  // other socket has to be read first.
  bool Drain();

 private:
  using Clock = std::chrono::steady_clock;
  struct Line {
    Clock::time_point due;
    QByteArray bytes;
  };
  enum class News { kSome, kNone, kEnd };

  News Read(std::size_t most);
  void OnReadable();
  void OnTick();
  void OnWritable();
  void TakeLines();
  void TakeLine(QByteArray line);
  void Hold(Line line);
  void Spoil(const FaultRule& rule, QByteArray& line, Line& held, int& copies);
  bool Strikes(const FaultRule& rule);
  quint64 Draw(quint64 least, quint64 most);
  void Record(const QString& fault) const;
  void MoveDue(Clock::time_point now);
  void Write();
  void DropAll();
  void CloseIfDone();
  bool IsFull() const;

  const Config config_;
  const int from_;
  const int to_;
  const std::size_t max_message_;
  std::mt19937_64 random_;
  quint64 bytes_per_tick_ = 0;  // 0: as fast as it goes
  QByteArray in_;               // a line whose end has not come
  int searched_ = 0;            // bytes of it that hold no end
  std::deque<Line> held_;       // in order
  std::size_t held_size_ = 0;
  QByteArray out_;          // what the other socket has not taken
  bool has_ended_ = false;  // nothing more comes
  int vain_reads_ = 0;      // in a row
  int vain_writes_ = 0;
  QTimer due_;
  QTimer tick_;
  QSocketNotifier readable_;
  QSocketNotifier writable_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_FAULT_LANE_H
