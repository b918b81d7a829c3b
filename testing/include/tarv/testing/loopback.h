// tarv::testing::Loopback: an application and its task in one process, without a socket, over a queue
// that the test pumps and a clock that it turns.
//
//   tarv::testing::Loopback link;
//   WordCount task(link.GetServer());
//   const auto call = link.Call(kCount, {{"a b"}});
//   link.Pump();
//   EXPECT_THAT(call, tarv::testing::Answers(Totals{2, {2}}));
#ifndef TARV_TESTING_LOOPBACK_H
#define TARV_TESTING_LOOPBACK_H

#include <tarv/testing/manual_loop.h>
#include <tarv/testing/transcript.h>
#include <tarv/testing/world.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarv::testing {

namespace details {
class Link;
struct Fault;
}  // namespace details

struct LoopbackOptions {
  // For the texts of errors.
  std::string task_name = "task";
  // From the first call until the task has answered the handshake.
  Duration connect_timeout = std::chrono::seconds(10);
  // Bounds in bytes, as messages travel: of one message, on the application's side and on the
  // task's, and of what waits for a task that does not read. What is above ends the connection.
  std::size_t max_message = std::size_t{256} << 20U;
  std::size_t task_max_message = std::size_t{256} << 20U;
  std::size_t max_queue = std::size_t{512} << 20U;

  LoopbackOptions TaskName(std::string value) const {
    LoopbackOptions changed = *this;
    changed.task_name = std::move(value);
    return changed;
  }
  LoopbackOptions ConnectTimeout(Duration value) const {
    LoopbackOptions changed = *this;
    changed.connect_timeout = value;
    return changed;
  }
  // Of both sides.
  LoopbackOptions MaxMessage(std::size_t value) const {
    LoopbackOptions changed = *this;
    changed.max_message = changed.task_max_message = value;
    return changed;
  }
  LoopbackOptions TaskMaxMessage(std::size_t value) const {
    LoopbackOptions changed = *this;
    changed.task_max_message = value;
    return changed;
  }
  LoopbackOptions MaxQueue(std::size_t value) const {
    LoopbackOptions changed = *this;
    changed.max_queue = value;
    return changed;
  }
};

// What shall happen to one message. Operations may be joined: Next().Delay(2s).Duplicate().
class NextMessage {
 public:
  explicit NextMessage(std::shared_ptr<details::Fault> fault) : fault_(std::move(fault)) {}

  // It arrives that much later, and everything behind it on its way no earlier.
  NextMessage& Delay(Duration duration);
  // It does not arrive.
  NextMessage& Drop();
  // It arrives as something that is no message.
  NextMessage& Corrupt();
  // Only the first half of it arrives.
  NextMessage& Truncate();
  // It arrives twice.
  NextMessage& Duplicate();

 private:
  std::shared_ptr<details::Fault> fault_;
};

// Pumps a loop and, where there is a QCoreApplication, Qt's events, until neither has anything left to
// do at this time. For several Loopbacks on one loop.
void PumpWithQt(ManualLoop& loop);

// The client and the server are the ones that plug-ins and tasks get; only the socket between them is
// played: what one sends reaches the other as text, at the next Pump, in order. Belongs to the
// thread that makes it; handlers may send from any thread.
//
// The same test gives the same transcript in every run, unless threads of its own send.
class Loopback final : public World {
 public:
  explicit Loopback(const LoopbackOptions& options = {},
                    std::shared_ptr<ManualLoop> loop = std::make_shared<ManualLoop>());
  // Ends open calls with kReleased.
  ~Loopback() override;

  std::shared_ptr<vorpc::IClient> GetClient() override;
  // The task's end, which nobody has run.
  std::shared_ptr<vorpc::IServer> GetServer() const;
  std::shared_ptr<Loop> GetLoop() override;
  // The same loop.
  ManualLoop& GetManualLoop() const;

  // Where there is a QCoreApplication, its events run, too: those of the workstation's embedder, and
  // of services on Qt's loop. Qt's timers go by the machine's clock, not by this one.
  void Pump() override;
  void Advance(Duration duration) override;

  // The next message that no earlier Next() has claimed, either way or one.
  NextMessage Next();
  NextMessage Next(Way way);
  // How many messages are claimed and have not been sent yet: 0 at the end of a test whose faults
  // have all struck.
  std::size_t CountUnusedFaults() const;

  // The task ends: what it had sent arrives, then the application hears of the end as it would of a
  // real task's. `last_words` are the end of what it wrote to standard error. Nothing that the
  // task's end does afterwards has an effect. A second end is none. SIGSTOP does not end the task:
  // it neither reads nor sends until SIGCONT.
  void KillTask(int signal) override;
  void KillTask(int signal, const std::string& last_words);
  void ExitTask(int status, const std::string& last_words = {});
  // The task could not be started: `why` says it.
  void RefuseToStart(const std::string& why);
  // The task closes the connection, and runs on.
  void HangUp();
  // What the end of the application's ManagerWrapper does.
  void EndManager();

  // Plays the task by hand, instead of the server: `on_message` gets what the application sends,
  // and SendAsTask sends in the task's name. For a task that no server of this library would be.
  void PlayTask(std::function<void(const vorpc::Message&)> on_message);
  void SendAsTask(const vorpc::Message& message);

  std::string GetTranscript() const override;
  // Begins a new transcript; requests are still numbered on.
  void ClearTranscript();

 private:
  std::unique_ptr<Caller> MakeCaller() override;
  TellTranscript GetTranscriptTeller() const override;

  const LoopbackOptions options_;
  std::shared_ptr<details::Link> link_;
};

}  // namespace tarv::testing

#endif  // TARV_TESTING_LOOPBACK_H
