// The task "misbehaving": what it can be asked, and the mistakes that it makes.
#ifndef CALLS_TESTS_MISTAKES_H
#define CALLS_TESTS_MISTAKES_H

#include <tarv/calls/method.h>
#include <tarv/calls/service.h>
#include <vorpc/server.h>

#include <cstdint>
#include <memory>
#include <string>

namespace mistakes {

inline constexpr tarv::Method<void()> kPing{"ping"};
inline constexpr tarv::Method<std::string(std::string)> kEcho{"echo"};
inline constexpr tarv::Method<void(std::string)> kDo{"do", "one of the deeds, or throws"};
inline constexpr tarv::Method<void()> kDrop{"drop"};
inline constexpr tarv::Method<std::string(std::int32_t)> kFill{"fill", "a text of this size"};
inline constexpr tarv::Method<std::uint64_t()> kHuge{"huge", "a number that no message holds"};
inline constexpr tarv::Method<void()> kKeep{"keep"};
inline constexpr tarv::Method<void()> kForget{"forget"};
inline constexpr tarv::Method<void()> kEndManager{"end manager", "and keeps the request"};
inline constexpr tarv::Method<std::string()> kWrongType{"wrong type"};
inline constexpr tarv::Method<void()> kUnknown{"unknown"};
inline constexpr tarv::Method<std::string(std::int32_t)> kEchoOfNumbers{"echo"};

// Made at the task's start, before it answers anything.
inline constexpr char kExitsAtStart[] = "exits at start";  // "there is no disk" on standard error
inline constexpr char kDiesAtStart[] = "dies at start";    // by SIGKILL
inline constexpr char kNeverAccepts[] = "never accepts";
inline constexpr char kNeverAnswers[] = "never answers the handshake";
inline constexpr char kExitsInHandshake[] = "exits during the handshake";
inline constexpr char kSendsGarbage[] = "sends garbage";
inline constexpr char kRefuses[] = "refuses the handshake";  // with 42, "not today"
inline constexpr char kForgetsRun[] = "forgets Run";
inline constexpr char kHasNoBound[] = "has no bound";  // of its messages, whatever its starter's is

inline constexpr int kExitStatus = 3;

// What the task does to its own process when kDo says so. In a test without processes, whoever plays
// the task does as if.
class Deeds {
 public:
  virtual ~Deeds() = default;
  virtual void Exit(int status, const std::string& last_words) = 0;  // kDo: "exit"
  virtual void Crash(const std::string& last_words) = 0;             // "crash": by SIGSEGV
  virtual void Block() = 0;                                          // "block": its loop
  virtual void Stop() = 0;                                           // "stop": by SIGSTOP
  virtual void HangUp() = 0;                                         // "hang up": and lives on
  virtual void EndManager() = 0;  // kEndManager: destroys the task's ManagerWrapper
};

// Gives the task its handlers.
void Serve(tarv::Service& service, vorpc::IServer& server, const std::shared_ptr<Deeds>& deeds);

}  // namespace mistakes

#endif  // CALLS_TESTS_MISTAKES_H
