// What is promised for any thread, used by eight at once in random order, while what they use ends
// and begins anew. The thread sanitizer and the checker of locks look on; the test counts.
#include "hammer.h"

#include <gtest/gtest.h>
#include <quarn/dispatcher.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>
#include <quarn/run_once_signal.h>
#include <quarn/signal.h>
#include <tarv/tarv_capi.h>
#include <vorpc/client.h>
#include <vorpc/requests.h>
#include <vorpc/server.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarv::torture {
namespace {

using vorpc::Message;

// What a request came to.
struct Request {
  std::atomic<int> answers{0};
  std::atomic<bool> forgotten{false};
};

// Two ends and what travels between them. Any thread moves messages on, as an event loop would.
class Link : public std::enable_shared_from_this<Link> {
 public:
  void Open() {
    client = vorpc::IOwnedClient::Create([weak = weak_from_this()](Message&& message) {
      Put(weak, &Link::to_server_, std::move(message));
    });
    server = vorpc::IOwnedServer::Create([weak = weak_from_this()](Message&& message) {
      Put(weak, &Link::to_client_, std::move(message));
    });
    server->OnRequest("ask", [weak = weak_from_this()](const std::string&, const auto&,
                                                       std::unique_ptr<vorpc::IReply>&& reply) {
      if (const auto link = weak.lock()) {
        const std::lock_guard lock(link->mutex_);
        link->replies_.push_back(std::move(reply));
      }
    });
    server->Run();
    client->Run();
    client->SetStarted();
  }

  // The connection's end answers what is under way, on this thread.
  void End() { client->Disconnect(Message::Error(-32003, "hung up")); }

  void MoveOne() {
    Message message;
    if (Take(to_server_, message)) {
      server->Receive(std::move(message));
    }
    if (Take(to_client_, message)) {
      client->Receive(std::move(message));
    }
  }

  void Ask() {
    const auto request = std::make_shared<Request>();
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request);
    }
    const Message::ID id = Requests().StartRequest(
        "ask", 1, [request](const Message::Response&) { ++request->answers; });
    const std::lock_guard lock(mutex_);
    ids_.emplace_back(id, request);
  }

  void ForgetOne() {
    std::pair<Message::ID, std::shared_ptr<Request>> asked{Message::ID(""), nullptr};
    if (TakeFront(ids_, asked) && Requests().ForgetRequest(asked.first)) {
      asked.second->forgotten = true;
    }
  }

  void AnswerOne(bool well) {
    std::unique_ptr<vorpc::IReply> reply;
    if (!TakeFront(replies_, reply)) {
      return;
    }
    if (well) {
      reply->SendResult(7);
    } else {
      reply->SendError(3, "no", {});
    }
  }

  // Once it has ended and no thread uses it any more.
  void Check() const {
    for (const auto& request : requests_) {
      EXPECT_EQ(request->answers, request->forgotten ? 0 : 1);
    }
    EXPECT_TRUE(client->HasConnectionFailed());
  }

  std::shared_ptr<vorpc::IOwnedClient> client;
  std::shared_ptr<vorpc::IOwnedServer> server;

 private:
  using Messages = std::deque<Message>;

  static void Put(const std::weak_ptr<Link>& weak, Messages Link::*queue, Message&& message) {
    if (const auto link = weak.lock()) {
      const std::lock_guard lock(link->mutex_);
      ((*link).*queue).push_back(std::move(message));
    }
  }
  bool Take(Messages& messages, Message& message) { return TakeFront(messages, message); }
  template <class T>
  bool TakeFront(std::deque<T>& things, T& thing) {
    const std::lock_guard lock(mutex_);
    if (things.empty()) {
      return false;
    }
    thing = std::move(things.front());
    things.pop_front();
    return true;
  }
  vorpc::IRequests& Requests() const { return dynamic_cast<vorpc::IRequests&>(*client); }

  std::mutex mutex_;
  Messages to_server_;
  Messages to_client_;
  std::deque<std::unique_ptr<vorpc::IReply>> replies_;
  std::deque<std::pair<Message::ID, std::shared_ptr<Request>>> ids_;
  std::vector<std::shared_ptr<Request>> requests_;
};

// Runs what it is given at once.
class AtOnce final : public quarn::IDispatcher {
 public:
  void Invoke(const std::function<void()>& task, unsigned int) override { task(); }
};

// An object that others know by its handle.
struct ThingRef;
class Thing : public quarn::Object<Thing, ThingRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  explicit Thing(PrivateTag) : Object(std::make_shared<AtOnce>()) {}
  static std::shared_ptr<Thing> Create() { return Object::Create(PrivateTag()); }
};

// Links, one after the other: threads use the current one while others end it.
class Links {
 public:
  Links() { Begin(); }

  std::shared_ptr<Link> Get() const { return current_.Get(); }
  void EndCurrent() {
    const auto link = Begin();
    link->End();
    const std::lock_guard lock(mutex_);
    ended_.push_back(link);
  }
  // Ends the last one, too, and looks at all; how many there were.
  std::size_t EndAll() {
    EndCurrent();
    Get()->End();
    for (const auto& link : ended_) {
      link->Check();
    }
    return ended_.size();
  }

 private:
  // The one before.
  std::shared_ptr<Link> Begin() {
    const auto link = std::make_shared<Link>();
    link->Open();
    return current_.Swap(link);
  }

  Shared<Link> current_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Link>> ended_;
};

// What any thread may do to a link, and what brings a message from one end to the other.
std::vector<Move> MovesOfALink(const Links& links) {
  const auto with = [&links](void (*move)(Link&)) {
    return [&links, move](Random&) { move(*links.Get()); };
  };
  std::vector<Move> moves = {
      with([](Link& link) { link.Ask(); }),
      with([](Link& link) { link.ForgetOne(); }),
      with([](Link& link) { link.AnswerOne(true); }),
      with([](Link& link) { link.AnswerOne(false); }),
      with([](Link& link) { link.client->SendNotify("note", "from the client"); }),
      with([](Link& link) { link.server->SendNotify("note", "from the server"); }),
      with([](Link& link) { link.client->IsConnected(); }),
      with([](Link& link) { link.client->HasConnectionFailed(); }),
      with([](Link& link) { link.server->OnRequest("other", nullptr); }),
      with([](Link& link) { link.server->OnRequest("other", [](auto&&...) {}); }),
  };
  moves.insert(moves.end(), 15, with([](Link& link) { link.MoveOne(); }));
  return moves;
}

TEST(AnyThread, UsesClientsServersAndRepliesWhileTheyEnd) {
  std::atomic<int> heard{0};
  Links links;
  const auto hear = [&heard](const auto&) { ++heard; };
  std::vector<Move> moves = MovesOfALink(links);
  moves.emplace_back([&](Random&) { links.Get()->client->OnNotify("note", hear); });
  moves.emplace_back([&](Random&) { links.Get()->server->OnNotify("note", hear); });
  moves.emplace_back([&](Random&) { links.Get()->client->OnConnected(hear); });
  moves.emplace_back([&](Random&) { links.Get()->client->OnDisconnected(hear); });
  moves.emplace_back([&](Random& random) {
    if (random() % 16 == 0) {
      links.EndCurrent();
    }
  });
  Hammer(moves);
  EXPECT_GT(links.EndAll(), 8U);
  EXPECT_GT(heard, 0);
}

class HammeredSignals : public testing::Test {
 protected:
  using Signal = quarn::OwnedSignal<int>;
  using Once = quarn::OwnedRunOnceSignal<int>;
  using Listener = quarn::CppStyleListener<int>;

  HammeredSignals() {
    signal_.Swap(std::make_shared<Signal>());
    once_.Swap(std::make_shared<Once>());
  }
  std::shared_ptr<Listener> NewListener() {
    return std::make_shared<Listener>([this](int) { ++heard_; });
  }
  std::vector<Move> MovesOfASignal() {
    return {
        [this](Random& random) { signal_.Get()->Emit(static_cast<int>(random())); },
        [this](Random&) { signal_.Get()->Subscribe(NewListener()); },
        [this](Random&) {
          const auto kept = signal_.Get();
          kept->Unsubscribe(kept->Subscribe(NewListener()));
        },
        [this](Random&) { signal_.Get()->SubscribeWeak(weak_); },
        [this](Random& random) { signal_.Get()->Unsubscribe(random() % 10'000); },
        [this](Random&) { signal_.Swap(std::make_shared<Signal>()); },
    };
  }
  std::vector<Move> MovesOfAOneShot() {
    return {
        [this](Random&) { once_.Get()->Subscribe(NewListener()); },
        [this](Random&) { once_.Get()->SubscribeWeak(weak_); },
        [this](Random&) { once_.Get()->Emit(1); },
        [this](Random&) { once_.Swap(std::make_shared<Once>()); },
    };
  }

  Shared<Signal> signal_;
  Shared<Once> once_;
  std::atomic<int> heard_{0};
  const std::shared_ptr<Listener> weak_ = NewListener();
};

TEST_F(HammeredSignals, AreSubscribedEmittedAndLeftWhileTheyEnd) {
  std::vector<Move> moves = MovesOfASignal();
  for (const Move& move : MovesOfAOneShot()) {
    moves.push_back(move);
  }
  Hammer(moves);
  EXPECT_GT(heard_, 0);
}

// Each thread finds the latest by its number, too.
std::vector<Move> MovesOfAThing(Shared<Thing>& thing, std::atomic<std::uint64_t>& last,
                                std::atomic<int>& invoked) {
  return {
      [&](Random&) { last = thing.Swap(Thing::Create())->GetId(); },
      [&](Random&) {
        const std::uint64_t id = last;
        const auto found = Thing::FromRef(reinterpret_cast<ThingRef*>(id));
        EXPECT_TRUE(found == nullptr || found->GetId() == id);
      },
      [&](Random&) {
        const auto kept = thing.Get();
        EXPECT_EQ(Thing::FromRef(kept->GetRef()), kept);
      },
      [&](Random&) { thing.Get()->Invoke([&invoked] { ++invoked; }, 0); },
      [&](Random&) { thing.Get()->ResetDispatcher(); },
  };
}

TEST(AnyThread, FindsObjectsByHandleAndKeepsTextsWhileTheyEnd) {
  Shared<Thing> thing;
  thing.Swap(Thing::Create());
  std::atomic<std::uint64_t> last{0};
  std::atomic<int> invoked{0};
  quarn::ResourcesCache cache;
  std::vector<Move> moves = MovesOfAThing(thing, last, invoked);
  moves.emplace_back([&](Random& random) {
    const std::uint64_t chunk = cache.CreateChunk();
    const std::string text = std::to_string(random());
    const char* const kept = cache.AppendStr(chunk, text);
    EXPECT_EQ(text, kept);
    cache.RemoveChunk(chunk);
  });
  Hammer(moves);
  EXPECT_GT(invoked, 0);
}

// In a process that has made no manager yet, if each test has its own.
TEST(AnyThread, LoadsTheTablesAndMakesTheOneManager) {
  std::atomic<_TARVManagerRef*> manager{nullptr};
  Hammer({[&manager](Random&) {
            TARVProcTable root{};
            EXPECT_EQ(TARVProcTableLoad(&root, sizeof(root)), QUARN_RESULT_SUCCESS);
            _TARVManagerRef* const own = root.Initialize();
            _TARVManagerRef* expected = nullptr;
            EXPECT_TRUE(manager.compare_exchange_strong(expected, own) || expected == own);
          },
          [](Random& random) {
            TARVProcTable root{};
            TARVProcTableLoad(&root, sizeof(root));
            TARVRpcClientProcTable client{};
            const std::size_t size = random() % (sizeof(client) + 1);
            EXPECT_EQ(root.RpcClientProcTableLoad(&client, size), QUARN_RESULT_SUCCESS);
            EXPECT_EQ(client.Release != nullptr, size == sizeof(client));
          }});
  EXPECT_NE(manager, nullptr);
}

}  // namespace
}  // namespace tarv::torture
