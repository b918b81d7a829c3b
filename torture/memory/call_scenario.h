// Both ends of the layer of calls in one process, so that memory fails for both.
#ifndef TORTURE_CALL_SCENARIO_H
#define TORTURE_CALL_SCENARIO_H

#include <tarv/calls/caller.h>
#include <tarv/calls/service.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <QTimer>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "failing_memory.h"
#include "scenario.h"

namespace tarv::torture {

// A text that no memory is too small for.
inline constexpr char kLongText[] = "a text of some length, too long for no memory";

inline constexpr Method<std::string(std::string)> kEcho{"echo a text that is given"};
inline constexpr Method<void()> kFail{"fail with an error of its own"};
inline constexpr Method<void()> kUnknown{"a method that nobody answers"};
inline constexpr Method<void(), std::string> kStep{"report a step and answer"};
inline constexpr Method<void()> kKeep{"keep the request until told"};

// A client and a server, and the messages on their way, each as its text. A transport that loses one
// for want of memory ends, as the library's own does.
class Wire {
 public:
  Wire();
  // A client that is still connecting learns that nothing comes of it.
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  std::shared_ptr<vorpc::IOwnedServer> server;
  std::shared_ptr<vorpc::IOwnedClient> client;
  bool has_ended = false;

 private:
  using Texts = std::deque<std::string>;

  void Carry();
  bool CarryOne(Texts& way, const std::function<void(vorpc::Message&&)>& receive);
  void End() noexcept;

  Texts to_server_;
  Texts to_client_;
  QTimer timer_;
};

// How a call is to end when memory does not run out.
enum class End { kValue, kError };

class CallScenario : public Scenario {
 public:
  using Scenario::Scenario;

  void Begin() override;
  std::string Recover() override;

 protected:
  // Each lets no std::bad_alloc out.
  void MakeService();
  void MakeCaller();
  void Release();

  // Counts what is owed from then on: the end of the call.
  template <class Ask>
  auto Call(End expected, const Ask& ask) {
    using CallType = decltype(ask(*caller_));
    std::shared_ptr<CallType> made;
    const auto debt = Owe();
    Try(debt, [&] {
      const CallType call = ask(*caller_);
      {
        const OwnMemory own;
        made = std::make_shared<CallType>(call);
      }
      Await(debt, expected, call);
    });
    return made;
  }
  template <class CallType>
  void Await(const std::shared_ptr<Debt>& debt, End expected, const CallType& call) {
    call.Then([this, debt, expected](const auto& outcome) {
      debt->Pay();
      if (outcome.HasValue() != (expected == End::kValue)) {
        CountError();
      }
    });
  }
  void Echo();
  // Whether both ends are there, and connected.
  bool Lives() const;
  // Until each call that has not ended is kept by its handler.
  void WaitForKept();

  std::unique_ptr<Wire> wire_;
  std::shared_ptr<Service> service_;
  std::unique_ptr<Caller> caller_;
  std::deque<Request<void>> kept_;
};

}  // namespace tarv::torture

#endif  // TORTURE_CALL_SCENARIO_H
