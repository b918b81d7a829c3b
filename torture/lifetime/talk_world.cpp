#include "talk_world.h"

#include <utility>

namespace tarv::torture {

using vorpc::IReply;
using vorpc::Message;

namespace {

using OptionalError = std::optional<Message::Error>;

const Message::Error kHungUp(-32003, "hung up");

// What is said to an end that may have been dropped. It may drop itself meanwhile.
template <class End, class Action>
void To(const std::shared_ptr<End>& end, Action&& action) {
  if (End* const there = end.get()) {
    Survive([&] { action(*there); });
  }
}

}  // namespace

void TalkWorld::HearOfClient(const Talk& talk, const char* place) {
  if (talk.is_client_gone) {
    Fault(std::string("a client that is gone tells: ") + place);
  }
  Hear(place);
}

void TalkWorld::HearOfServer(const Talk& talk, const char* place) {
  if (talk.is_server_gone) {
    Fault(std::string("a server that is gone tells: ") + place);
  }
  Hear(place);
}

Talk& TalkWorld::NewTalk() {
  Talk& talk = *talks_.emplace_back(std::make_unique<Talk>());
  MakeClient(talk);
  MakeServer(talk);
  return talk;
}

void TalkWorld::MakeClient(Talk& talk) {
  talk.client = vorpc::IOwnedClient::Create(
      [this, &talk, held = Hold("the end of the client's send")](Message&& message) {
        talk.to_server.push_back(std::move(message));
        Hear("the client's send");
      });
  talk.client->OnConnected(
      [this, &talk, held = Hold("the end of OnConnected")](const OptionalError& error) {
        if (++talk.outcomes > 1) {
          Fault("connected twice");
        }
        HearOfClient(talk, error ? "a failed OnConnected" : "OnConnected");
      });
  talk.client->OnDisconnected(
      [this, &talk, held = Hold("the end of OnDisconnected")](const OptionalError& /*error*/) {
        if (++talk.ends > 1 || talk.outcomes == 0) {
          Fault("disconnected twice, or before it was connected");
        }
        HearOfClient(talk, "OnDisconnected");
      });
  talk.client->OnNotify(
      "note", [this, &talk, held = Hold("the end of the client's OnNotify")](const auto& /*note*/) {
        HearOfClient(talk, "the client's OnNotify");
      });
}

void TalkWorld::MakeServer(Talk& talk) {
  talk.server = vorpc::IOwnedServer::Create(
      [this, &talk, held = Hold("the end of the server's send")](Message&& message) {
        talk.to_client.push_back(std::move(message));
        Hear("the server's send");
      });
  talk.server->OnConnected(
      [this, &talk, held = Hold("the end of the server's OnConnected")](
          const OptionalError& /*error*/) { HearOfServer(talk, "the server's OnConnected"); });
  talk.server->OnRequest("ask", [this, &talk, held = Hold("the end of OnRequest")](
                                    const std::string& /*method*/, const auto& /*params*/,
                                    std::unique_ptr<IReply>&& reply) {
    talk.replies.push_back(std::move(reply));
    HearOfServer(talk, "OnRequest");
  });
  talk.server->OnNotify(
      "note", [this, &talk, held = Hold("the end of the server's OnNotify")](const auto& /*note*/) {
        HearOfServer(talk, "the server's OnNotify");
      });
}

void TalkWorld::Ask(Talk& talk, const char* method) {
  if (talk.client == nullptr) {
    return;
  }
  AskedFor& asked = talk.asked.emplace_back();
  auto& requests = dynamic_cast<vorpc::IRequests&>(*talk.client);
  asked.id = requests.StartRequest(
      method, 1,
      [this, &talk, &asked,
       held = Hold("the end of a response's callback")](const Message::Response& response) {
        if (++asked.answers > 1 || asked.is_forgotten) {
          Fault("answered twice, or though it was forgotten");
        }
        HearOfClient(talk, response.IsError() ? "a failed response" : "a response");
      });
}

// Each end gets one message at most, as from an event loop. What the other end sends meanwhile waits.
void TalkWorld::Deliver(Talk& talk) {
  if (!talk.to_server.empty()) {
    Message message = std::move(talk.to_server.front());
    talk.to_server.pop_front();
    To(talk.server, [&](auto& server) { server.Receive(std::move(message)); });
  }
  if (!talk.to_client.empty()) {
    Message message = std::move(talk.to_client.front());
    talk.to_client.pop_front();
    To(talk.client, [&](auto& client) { client.Receive(std::move(message)); });
  }
}

std::vector<Life::Move> TalkWorld::GetSteps() {
  Talk& talk = NewTalk();
  std::vector<Move> steps = GetStepsOfABeginning(talk);
  for (Move& step : GetStepsOfARefusal(NewTalk())) {
    steps.push_back(std::move(step));
  }
  for (Move& step : GetStepsOfRequests(talk)) {
    steps.push_back(std::move(step));
  }
  return steps;
}

std::vector<Life::Move> TalkWorld::GetStepsOfABeginning(Talk& talk) {
  return {[&] { Ask(talk, "ask"); },
          [&] { Note(talk); },
          [&] { To(talk.client, [](auto& client) { client.Run(); }); },
          [&] { To(talk.client, [](auto& client) { client.SetStarted(); }); },
          [&] { To(talk.server, [](auto& server) { server.Run(); }); },
          [&] { ArriveEverywhere(); }};
}

// Its connection does not come about.
std::vector<Life::Move> TalkWorld::GetStepsOfARefusal(Talk& talk) {
  return {[&] { Ask(talk, "ask"); }, [&] { To(talk.client, [](auto& client) { client.Run(); }); },
          [&] { To(talk.client, [](auto& client) { client.SetStarted(); }); },
          [&] { To(talk.client, [](auto& client) { client.Disconnect(kHungUp); }); },
          [&] { ArriveEverywhere(); }};
}

std::vector<Life::Move> TalkWorld::GetStepsOfRequests(Talk& talk) {
  return {[&] { AnswerAll(true); },   [&] { Ask(talk, "nobody answers this"); },
          [&] { Ask(talk, "ask"); },  [&] { ArriveEverywhere(); },
          [&] { AnswerAll(false); },  [&] { ArriveEverywhere(); },
          [&] { Ask(talk, "ask"); },  [&] { ForgetAll(); },
          [&] { Ask(talk, "ask"); },  [&] { UseEverything(); },
          [&] { ArriveEverywhere(); }};
}

void TalkWorld::Note(Talk& talk) {
  To(talk.client, [](auto& client) { client.SendNotify("note", {}); });
  To(talk.server, [](auto& server) { server.SendNotify("note", {}); });
}

void TalkWorld::ArriveEverywhere() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    for (int n = 0; n < 12; ++n) {
      Deliver(*talks_[i]);
    }
  }
}

void TalkWorld::UseEverything() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    Talk& talk = *talks_[i];
    Survive([&] { Ask(talk, "ask"); });
    Note(talk);
    To(talk.client, [](auto& client) { client.SetStarted(); });
    To(talk.client, [](auto& client) { client.Run(); });
    To(talk.server, [](auto& server) { server.Run(); });
    To(talk.server, [](auto& server) { server.OnRequest("other", nullptr); });
  }
}

void TalkWorld::DropClients() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    talks_[i]->is_client_gone = true;
    const auto client = std::move(talks_[i]->client);
    talks_[i]->client = nullptr;
  }
}

void TalkWorld::DropServers() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    talks_[i]->is_server_gone = true;
    const auto server = std::move(talks_[i]->server);
    talks_[i]->server = nullptr;
  }
}

void TalkWorld::DropReplies() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    const auto replies = std::exchange(talks_[i]->replies, {});
  }
}

void TalkWorld::AbandonClients() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    talks_[i]->is_client_gone = true;
    if (const auto client = talks_[i]->client) {
      client->Abandon();
    }
  }
}

void TalkWorld::AbandonServers() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    talks_[i]->is_server_gone = true;
    if (const auto server = talks_[i]->server) {
      server->Abandon();
    }
  }
}

// Nobody but the world holds a client meanwhile.
void TalkWorld::Disconnect() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    To(talks_[i]->client, [](auto& client) { client.Disconnect(kHungUp); });
  }
}

void TalkWorld::ForgetAll() {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    Talk& talk = *talks_[i];
    for (std::size_t n = 0; n < talk.asked.size(); ++n) {
      if (talk.client != nullptr) {
        AskedFor& asked = talk.asked[n];
        auto& requests = dynamic_cast<vorpc::IRequests&>(*talk.client);
        asked.is_forgotten = requests.ForgetRequest(asked.id) || asked.is_forgotten;
      }
    }
  }
}

// Each reply is used twice, as it must not be: that is a second response, which nobody waits for.
void TalkWorld::AnswerAll(bool well) {
  for (std::size_t i = 0; i < talks_.size(); ++i) {
    for (const auto& reply : std::exchange(talks_[i]->replies, {})) {
      if (well) {
        Survive([&] { reply->SendResult(1); });
        Survive([&] { reply->SendResult(2); });
      } else {
        Survive([&] { reply->SendError(7, "no", {}); });
      }
    }
  }
}

void TalkWorld::BeginAnew() {
  Talk& talk = NewTalk();
  To(talk.server, [](auto& server) { server.Run(); });
  Survive([&] { Ask(talk, "ask"); });
  To(talk.client, [](auto& client) { client.Run(); });
  To(talk.client, [](auto& client) { client.SetStarted(); });
  Deliver(talk);
}

void TalkWorld::EndEverything() {
  Disconnect();
  for (const auto& talk : talks_) {
    Check(*talk);
  }
  DropReplies();
  DropClients();
  DropServers();
  ExpectNothingHeld();
}

// Whoever still has its client has been told everything.
void TalkWorld::Check(const Talk& talk) {
  if (talk.is_client_gone || talk.outcomes == 0) {
    return;
  }
  for (const AskedFor& asked : talk.asked) {
    if (asked.answers != (asked.is_forgotten ? 0 : 1)) {
      Fault("a request has " + std::to_string(asked.answers) + " answers");
    }
  }
}

const std::vector<Place> TalkWorld::kPlaces = {
    {"OnConnected"},
    {"a failed OnConnected"},
    {"OnDisconnected"},
    {"the client's OnNotify"},
    {"a response"},
    {"a failed response"},
    {"the client's send"},
    {"the server's OnConnected"},
    {"OnRequest"},
    {"the server's OnNotify"},
    {"the server's send"},
    {"the end of the client's send", false},
    {"the end of OnConnected", false},
    {"the end of OnDisconnected", false},
    {"the end of the client's OnNotify", false},
    {"the end of a response's callback", false},
    {"the end of the server's send", false},
    {"the end of the server's OnConnected", false},
    {"the end of OnRequest", false},
    {"the end of the server's OnNotify", false},
};

const std::vector<Deed<TalkWorld>> TalkWorld::kDeeds = {
    {"drop the clients", [](TalkWorld& world) { world.DropClients(); }},
    {"drop the servers", [](TalkWorld& world) { world.DropServers(); }},
    {"drop the replies", [](TalkWorld& world) { world.DropReplies(); }},
    {"drop all",
     [](TalkWorld& world) {
       world.DropClients();
       world.DropServers();
       world.DropReplies();
     }},
    {"abandon the clients, twice",
     [](TalkWorld& world) {
       world.AbandonClients();
       world.AbandonClients();
     }},
    {"abandon the servers, twice",
     [](TalkWorld& world) {
       world.AbandonServers();
       world.AbandonServers();
     }},
    {"abandon the clients, then drop them",
     [](TalkWorld& world) {
       world.AbandonClients();
       world.DropClients();
     }},
    {"disconnect", [](TalkWorld& world) { world.Disconnect(); }},
    {"disconnect and drop the clients",
     [](TalkWorld& world) {
       world.Disconnect();
       world.DropClients();
     }},
    {"forget all requests", [](TalkWorld& world) { world.ForgetAll(); }},
    {"answer all", [](TalkWorld& world) { world.AnswerAll(true); }},
    {"refuse all", [](TalkWorld& world) { world.AnswerAll(false); }},
    {"use everything", [](TalkWorld& world) { world.UseEverything(); }},
    {"drop the clients and use everything",
     [](TalkWorld& world) {
       world.DropClients();
       world.UseEverything();
     }},
    {"abandon all and use everything",
     [](TalkWorld& world) {
       world.AbandonClients();
       world.AbandonServers();
       world.UseEverything();
     }},
    {"let more arrive", [](TalkWorld& world) { world.ArriveEverywhere(); }},
    {"drop the servers and let more arrive",
     [](TalkWorld& world) {
       world.DropServers();
       world.ArriveEverywhere();
     }},
    {"begin anew", [](TalkWorld& world) { world.BeginAnew(); }},
    {"throw", &Throw<TalkWorld>, true},
};

const std::vector<Deed<TalkWorld>> TalkWorld::kEnds = {
    {"clients", [](TalkWorld& world) { world.DropClients(); }},
    {"servers", [](TalkWorld& world) { world.DropServers(); }},
    {"connections", [](TalkWorld& world) { world.Disconnect(); }},
    {"replies", [](TalkWorld& world) { world.DropReplies(); }},
};

}  // namespace tarv::torture
