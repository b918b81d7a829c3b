// Clients, servers and replies in one process, and what travels between them.
#ifndef TORTURE_LIFETIME_TALK_WORLD_H
#define TORTURE_LIFETIME_TALK_WORLD_H

#include <vorpc/client.h>
#include <vorpc/requests.h>
#include <vorpc/server.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "course.h"
#include "life.h"

namespace tarv::torture {

// What became of a request.
struct AskedFor {
  vorpc::Message::ID id{""};
  int answers = 0;
  bool is_forgotten = false;
};

// Both ends of one connection. Whoever has let go of an end hears nothing more from it.
struct Talk {
  std::shared_ptr<vorpc::IOwnedClient> client;
  std::shared_ptr<vorpc::IOwnedServer> server;
  std::deque<vorpc::Message> to_client;
  std::deque<vorpc::Message> to_server;
  std::deque<AskedFor> asked;
  std::vector<std::unique_ptr<vorpc::IReply>> replies;
  bool is_client_gone = false;
  bool is_server_gone = false;
  int outcomes = 0;
  int ends = 0;
};

class TalkWorld : public Life {
 public:
  static const std::vector<Place> kPlaces;
  static const std::vector<Deed<TalkWorld>> kDeeds;
  static const std::vector<Deed<TalkWorld>> kEnds;

  void UseEverything() override;
  void ArriveEverywhere() override;

  // ---- Moves, for all talks

  void DropClients();
  void DropServers();
  void DropReplies();
  void AbandonClients();
  void AbandonServers();
  void Disconnect();
  void ForgetAll();
  void AnswerAll(bool well);
  void BeginAnew();

 private:
  std::vector<Move> GetSteps() override;
  std::vector<Move> GetStepsOfABeginning(Talk& talk);
  std::vector<Move> GetStepsOfARefusal(Talk& talk);
  std::vector<Move> GetStepsOfRequests(Talk& talk);
  void EndEverything() override;

  Talk& NewTalk();
  void MakeClient(Talk& talk);
  void MakeServer(Talk& talk);
  void Ask(Talk& talk, const char* method);
  static void Note(Talk& talk);
  static void Deliver(Talk& talk);
  void Check(const Talk& talk);
  void HearOfClient(const Talk& talk, const char* place);
  void HearOfServer(const Talk& talk, const char* place);

  std::vector<std::unique_ptr<Talk>> talks_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_TALK_WORLD_H
