// A client and a server in one process, over a loop whose clock the test turns.
#ifndef CALLS_TESTS_LINK_H
#define CALLS_TESTS_LINK_H

#include <tarv/calls/caller.h>
#include <tarv/calls/loop.h>
#include <tarv/calls/service.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
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
  void Advance(Duration duration) {
    {
      const std::lock_guard lock(mutex_);
      now_ += duration;
    }
    Pump();
  }
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

// Both ends; what one sends reaches the other at the next Pump, as text.
class Link {
 public:
  explicit Link(std::shared_ptr<TestLoop> its_loop = std::make_shared<TestLoop>())
      : loop(std::move(its_loop)) {
    client = vorpc::IOwnedClient::Create([this](vorpc::Message&& message) {
      sent.push_back(message);
      Carry(std::move(message), [this](vorpc::Message&& got) { server->Receive(std::move(got)); });
    });
    server = vorpc::IOwnedServer::Create([this](vorpc::Message&& message) {
      answered.push_back(message);
      Carry(std::move(message), [this](vorpc::Message&& got) {
        if (const auto reached = weak_client.lock()) {
          reached->Receive(std::move(got));
        }
      });
    });
    weak_client = client;
    client->SetStarted();
  }

  void Pump() const { loop->Pump(); }

  // How often a request or notification of this method was sent to the server.
  std::size_t CountSent(const std::string& method) const {
    return static_cast<std::size_t>(
        std::count_if(sent.begin(), sent.end(), [&method](const vorpc::Message& message) {
          const auto* const note = message.GetNotification();
          return message.IsRequest(method) || (note != nullptr && note->method == method);
        }));
  }

  const std::shared_ptr<TestLoop> loop;
  std::shared_ptr<vorpc::IOwnedClient> client;  // a test may let it go
  std::weak_ptr<vorpc::IOwnedClient> weak_client;
  std::shared_ptr<vorpc::IOwnedServer> server;
  std::vector<vorpc::Message> sent;      // by the client
  std::vector<vorpc::Message> answered;  // by the server
  std::function<bool(const vorpc::Message&)> drop;

 private:
  void Carry(vorpc::Message&& message, std::function<void(vorpc::Message&&)> to) {
    if (drop && drop(message)) {
      return;
    }
    loop->Post(
        [text = message.ToBase64(), to = std::move(to)] { to(vorpc::Message::FromBase64(text)); });
  }
};

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
