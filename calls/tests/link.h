// A client and a server in one process, over a loop whose clock the test turns.
#ifndef CALLS_TESTS_LINK_H
#define CALLS_TESTS_LINK_H

#include <tarv/calls/caller.h>
#include <tarv/calls/loop.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarv::test {

// Runs what it is given when the test pumps it. Post and WakeAt from any thread.
class TestLoop final : public Loop {
 public:
  bool IsCurrent() const override { return std::this_thread::get_id() == thread_; }
  void Post(Function function) override {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(function));
  }
  Time Now() const override {
    const std::lock_guard lock(mutex_);
    return now_;
  }
  void WakeAt(Time time, Function function) override {
    const std::lock_guard lock(mutex_);
    wakes_.emplace_back(time, std::move(function));
    most_wakes_ = std::max(most_wakes_, wakes_.size());
  }

  // Runs everything until nothing is left to do at this time.
  void Pump() {
    while (Function function = TakeNext()) {
      function();
    }
  }
  // Runs the next thing there is to do.
  void RunNext() {
    if (const Function function = TakeNext()) {
      function();
    }
  }
  void Advance(Duration duration) {
    {
      const std::lock_guard lock(mutex_);
      now_ += duration;
    }
    Pump();
  }
  // The wakes that are to come.
  std::size_t CountWakes() const { return wakes_.size(); }
  // The wakes that were set at one time, at most.
  std::size_t GetMostWakes() const { return most_wakes_; }

 private:
  Function TakeNext() {
    const std::lock_guard lock(mutex_);
    Function next;
    if (!posted_.empty()) {
      next = std::move(posted_.front());
      posted_.pop_front();
      return next;
    }
    const auto due =
        std::min_element(wakes_.begin(), wakes_.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
    if (due != wakes_.end() && due->first <= now_) {
      next = std::move(due->second);
      wakes_.erase(due);
    }
    return next;
  }

  const std::thread::id thread_ = std::this_thread::get_id();
  mutable std::mutex mutex_;
  Time now_{std::chrono::hours(1)};
  std::deque<Function> posted_;
  std::vector<std::pair<Time, Function>> wakes_;
  std::size_t most_wakes_ = 0;
};

// Both ends; what one sends reaches the other in a later turn of the loop, as text.
template <class LoopType>
class LinkOn {
  using Messages = std::vector<vorpc::Message>;

  // What an operation needs that outlives the link.
  struct Wire {
    template <class End>
    void Carry(vorpc::Message&& message, const std::weak_ptr<End>& to) const {
      if (const auto running = loop.lock()) {
        running->Post([text = message.ToBase64(), to] {
          if (const auto end = to.lock()) {
            end->Receive(Read(text));
          }
        });
      }
    }

    // What was a message is one, unless memory runs out for it.
    static vorpc::Message Read(const std::string& text) {
      vorpc::Message message = vorpc::Message::FromBase64(text);
      if (message.GetType() == vorpc::Message::Type::Error) {  // what is unreadable
        throw std::bad_alloc();
      }
      return message;
    }

    std::weak_ptr<LoopType> loop;
    std::weak_ptr<vorpc::IOwnedClient> client;
    std::weak_ptr<vorpc::IOwnedServer> server;
    Messages sent;
    Messages answered;
    std::set<std::thread::id> answerers;
  };

  const std::shared_ptr<Wire> wire_ = std::make_shared<Wire>();

 public:
  explicit LinkOn(std::shared_ptr<LoopType> its_loop) : loop(std::move(its_loop)) {
    client = vorpc::IOwnedClient::Create([wire = wire_](vorpc::Message&& message) {
      wire->sent.push_back(message);
      wire->Carry(std::move(message), wire->server);
    });
    server = vorpc::IOwnedServer::Create([wire = wire_](vorpc::Message&& message) {
      wire->answered.push_back(message);
      wire->answerers.insert(std::this_thread::get_id());
      wire->Carry(std::move(message), wire->client);
    });
    wire_->loop = loop;
    wire_->client = weak_client = client;
    wire_->server = server;
    client->SetStarted();
  }
  LinkOn() : LinkOn(std::make_shared<LoopType>()) {}

  void Pump() const { loop->Pump(); }

  // How often a request or notification of this method was sent to the server.
  std::size_t CountSent(const std::string& method) const {
    return static_cast<std::size_t>(
        std::count_if(sent.begin(), sent.end(), [&method](const vorpc::Message& message) {
          const auto* const note = message.GetNotification();
          return message.IsRequest(method) || (note != nullptr && note->method == method);
        }));
  }
  // Reports a step to the call whose request has this id, as a task's handler does.
  void SendStep(const std::string& id, cw::EncodableValue value) const {
    server->SendNotify("$/progress", cw::EncodableMap{{"token", id}, {"value", std::move(value)}});
  }

  const Messages& sent = wire_->sent;                             // by the client
  const Messages& answered = wire_->answered;                     // by the server
  const std::set<std::thread::id>& answerers = wire_->answerers;  // the threads that sent these
  // A test may let these go.
  std::shared_ptr<LoopType> loop;
  std::shared_ptr<vorpc::IOwnedClient> client;
  std::weak_ptr<vorpc::IOwnedClient> weak_client;
  std::shared_ptr<vorpc::IOwnedServer> server;
};

using Link = LinkOn<TestLoop>;

// Keeps what a call ends with.
template <class Result>
class Ending {
 public:
  template <class Step>
  explicit Ending(const Call<Result, Step>& call) {
    call.Then([outcomes = outcomes_](Outcome<Result> outcome) {
      outcomes->push_back(std::move(outcome));
    });
  }

  std::size_t Count() const { return outcomes_->size(); }
  const Outcome<Result>& Get() const { return outcomes_->at(0); }
  CallReason GetReason() const { return Get().GetError().GetReason(); }
  std::string GetText() const { return Get().GetError().what(); }

 private:
  std::shared_ptr<std::vector<Outcome<Result>>> outcomes_ =
      std::make_shared<std::vector<Outcome<Result>>>();
};

}  // namespace tarv::test

#endif  // CALLS_TESTS_LINK_H
