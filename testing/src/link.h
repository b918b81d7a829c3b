// The connection that a Loopback plays.
#ifndef TARV_TESTING_SRC_LINK_H
#define TARV_TESTING_SRC_LINK_H

#include <tarv/testing/loopback.h>
#include <tarv/testing/manual_loop.h>
#include <tarv/testing/transcript.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "link_client.h"

namespace tarv::testing::details {

// What is to happen to one message.
struct Fault {
  std::optional<Way> way;  // none: either
  Duration delay{};
  bool drops = false;
  bool corrupts = false;
  bool truncates = false;
  bool duplicates = false;

  bool Fits(Way of_message) const { return !way || *way == of_message; }
  // The text that arrives in place of `text`.
  std::string Spoil(std::string text) const;
  // What the transcript says of it.
  std::string Describe() const;
};

// Carries texts between a client and a server, each way in order. Send may be called from any
// thread, the rest from the loop's.
class Link : public std::enable_shared_from_this<Link> {
 public:
  using MessageHandler = std::function<void(const vorpc::Message&)>;

  Link(std::shared_ptr<ManualLoop> loop, const LoopbackOptions& options);

  // Makes both ends.
  void Open();
  // Forgets both ends.
  void Close();

  const std::shared_ptr<ManualLoop>& GetLoop() const { return loop_; }
  const std::shared_ptr<LinkClient>& GetClient() const { return users_client_; }
  const std::shared_ptr<vorpc::IOwnedServer>& GetServer() const { return server_; }
  const std::shared_ptr<Transcript>& GetTranscript() const { return transcript_; }

  std::shared_ptr<Fault> AddFault(std::optional<Way> way);
  std::size_t CountUnusedFaults() const;

  // The task has ended so; `how` goes on from its name: "was killed by ...".
  void EndTask(int code, const std::string& how, const std::string& last_words);
  // A stopped task neither reads nor sends: what its handlers send is sent when it goes on.
  void SetStopped(bool is_stopped);
  // Messages to the task go to `handler` from now on.
  void PlayTask(MessageHandler handler) { play_ = std::move(handler); }
  void Send(Way way, const vorpc::Message& message);

  // The connection ends, after what has been sent; `note` is the transcript's line.
  void End(vorpc::Message::Error error, const std::string& note);

 private:
  // A text on its way, or the news that there comes no more.
  struct Parcel {
    Loop::Time due;
    std::string text;
    std::optional<vorpc::Message::Error> end;
  };
  struct Lane {
    std::deque<Parcel> parcels;
    Loop::Time last_due;
  };

  void Put(Way way, Parcel&& parcel, Duration delay);
  bool FitsBounds(Way way, std::size_t size);
  bool FitsMessage(Way way, std::size_t size);
  bool BreaksQueue(Way way, std::size_t size) const;
  void EndLocked(vorpc::Message::Error error, const std::string& note);
  void Hand(Way way, const vorpc::Message& message) const;
  std::optional<Fault> TakeFault(Way way);
  std::optional<Parcel> TakeDue(Way way);
  void Deliver(Way way);
  void Schedule(Way way, Loop::Time due);
  Lane& LaneOf(Way way) { return lanes_[way == Way::kToTask ? 0 : 1]; }

  const std::shared_ptr<ManualLoop> loop_;
  const std::shared_ptr<Transcript> transcript_ = std::make_shared<Transcript>();
  const LoopbackOptions options_;
  const Loop::Time started_;
  std::shared_ptr<vorpc::IOwnedClient> client_;
  std::shared_ptr<LinkClient> users_client_;
  std::shared_ptr<vorpc::IOwnedServer> server_;
  MessageHandler play_;

  mutable std::mutex mutex_;  // guards what follows
  std::array<Lane, 2> lanes_;
  std::deque<std::shared_ptr<Fault>> faults_;
  std::vector<vorpc::Message> unsent_;  // by a stopped task
  std::size_t waiting_ = 0;             // bytes on their way to the task
  bool is_stopped_ = false;
  bool has_ended_ = false;
};

}  // namespace tarv::testing::details

#endif  // TARV_TESTING_SRC_LINK_H
