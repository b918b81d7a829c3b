// Every callback of the C interface, and in it every way to end, to use and to mistake what there is.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "service_world.h"

namespace tarv::torture {
namespace {

using Move = std::function<void(ServiceWorld&)>;
struct Named {
  const char* name;
  Move move;
};

void ReleaseAllClients(ServiceWorld& world) {
  for (std::size_t i = 0; i < world.clients.size(); ++i) {
    world.ReleaseClient(*world.clients[i]);
  }
}

void LoseAllClients(ServiceWorld& world) {
  for (std::size_t i = 0; i < world.clients.size(); ++i) {
    world.LoseClient(*world.clients[i]);
  }
}

void MakeEverythingAnew(ServiceWorld& world) {
  OneClient& client = world.NewClient();
  world.Start(client);
  world.CompleteStart(client, true);
  world.RunServer();
  world.OpenUri();
  world.RegisterIntent();
}

const std::vector<Named>& Actions() {
  static const std::vector<Named> kActions = {
      {"release the clients", &ReleaseAllClients},
      {"release the clients twice",
       [](ServiceWorld& world) {
         ReleaseAllClients(world);
         ReleaseAllClients(world);
       }},
      {"release the manager", [](ServiceWorld& world) { world.ReleaseManager(); }},
      {"release the manager twice",
       [](ServiceWorld& world) {
         world.ReleaseManager();
         world.ReleaseManager();
       }},
      {"release the clients, then the manager",
       [](ServiceWorld& world) {
         ReleaseAllClients(world);
         world.ReleaseManager();
       }},
      {"release the clients and let their tasks stop",
       [](ServiceWorld& world) {
         ReleaseAllClients(world);
         world.CompleteStops();
       }},
      {"release all and use all",
       [](ServiceWorld& world) {
         ReleaseAllClients(world);
         world.ReleaseManager();
         world.UseEverything();
       }},
      {"lose the tasks", &LoseAllClients},
      {"use everything", [](ServiceWorld& world) { world.UseEverything(); }},
      {"use handles of other types", [](ServiceWorld& world) { world.UseForeignHandles(); }},
      {"run a nested loop", [](ServiceWorld& world) { world.RunNestedLoop(); }},
      {"release the clients and run a nested loop",
       [](ServiceWorld& world) {
         ReleaseAllClients(world);
         world.RunNestedLoop();
       }},
      {"release the manager and run a nested loop",
       [](ServiceWorld& world) {
         world.ReleaseManager();
         world.RunNestedLoop();
       }},
      {"let more arrive", [](ServiceWorld& world) { world.ArriveEverywhere(); }},
      {"make all anew", &MakeEverythingAnew},
      {"release the manager and make all anew",
       [](ServiceWorld& world) {
         world.ReleaseManager();
         MakeEverythingAnew(world);
       }},
      {"throw", [](ServiceWorld&) { throw std::runtime_error("not now"); }},
  };
  return kActions;
}

// Ends of the life, played in every order.
const std::vector<Named>& Ends() {
  static const std::vector<Named> kEnds = {
      {"clients", &ReleaseAllClients},
      {"losses", &LoseAllClients},
      {"manager", [](ServiceWorld& world) { world.ReleaseManager(); }},
      {"stops", [](ServiceWorld& world) { world.CompleteStops(); }},
  };
  return kEnds;
}

bool MayThrow(Callback callback) { return callback != Callback::kUriRelease; }

// Throwing in the callbacks of what a Release ends is the releaser's to survive.
std::function<void()> Bind(ServiceWorld& world, const Move& move) {
  return [&world, &move] { move(world); };
}

class ServiceLifetimes : public testing::Test {
 protected:
  // Plays one life, and tells its faults with what was played. True when the callback came.
  static bool Play(Callback callback, const Named& action, const std::vector<Named>& ends,
                   bool always) {
    std::string name = std::string(NameOf(callback)) + ": " + action.name + "; ends:";
    for (const Named& end : ends) {
      name += std::string(" ") + end.name;
    }
    std::fprintf(stderr, "%s\n", name.c_str());  // what a crash leaves to see
    ServiceWorld world;
    world.Plan(callback, Bind(world, action.move), always);
    std::vector<std::function<void()>> moves;
    for (const Named& end : ends) {
      moves.push_back(Bind(world, end.move));
    }
    world.Live(moves);
    for (const std::string& fault : world.GetFaults()) {
      ADD_FAILURE() << name << ": " << fault;
    }
    return world.HasActed();
  }

  int argument_count_ = 1;
  char program_[18] = "service_lifetimes";
  char* arguments_[2] = {program_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
};

class EachAction : public ServiceLifetimes, public testing::WithParamInterface<std::size_t> {};

std::string NameOfAction(const testing::TestParamInfo<std::size_t>& info) {
  std::string name;
  bool upper = true;
  for (const char c : std::string(Actions()[info.param].name)) {
    if (std::isalpha(c) != 0) {
      name += static_cast<char>(upper ? std::toupper(c) : c);
    }
    upper = std::isalpha(c) == 0;
  }
  return name;
}

#ifdef FAKE_OPTIONAL_MEMBERS
INSTANTIATE_TEST_SUITE_P(OnAFullPlatform, EachAction,
                         testing::Range(std::size_t{0}, Actions().size()), NameOfAction);
#else
INSTANTIATE_TEST_SUITE_P(OnAPlainPlatform, EachAction,
                         testing::Range(std::size_t{0}, Actions().size()), NameOfAction);
#endif

// The next order of ends; the short form turns them round only. False after the last.
bool NextOrder(std::vector<std::size_t>& order) {
  static const bool kAll = std::getenv("TARV_TORTURE") != nullptr;
  if (kAll) {
    return std::next_permutation(order.begin(), order.end());
  }
  std::rotate(order.begin(), order.begin() + 1, order.end());
  return order.front() != 0;
}

TEST_P(EachAction, InEachCallbackBeforeEachOrderOfEnds) {
  const Named& action = Actions()[GetParam()];
  for (int i = 0; i <= static_cast<int>(kLastCallback); ++i) {
    const auto callback = static_cast<Callback>(i);
    if (std::string(action.name) == "throw" && !MayThrow(callback)) {
      continue;
    }
    std::vector<std::size_t> order(Ends().size());
    for (std::size_t n = 0; n < order.size(); ++n) {
      order[n] = n;
    }
    bool came = false;
    do {
      std::vector<Named> ends;
      for (const std::size_t n : order) {
        ends.push_back(Ends()[n]);
      }
      came = Play(callback, action, ends, order.front() % 2 == 1) || came;
    } while (NextOrder(order));
    EXPECT_TRUE(came) << NameOf(callback);
  }
}

}  // namespace
}  // namespace tarv::torture
