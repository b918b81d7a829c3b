// Plays every life that a table of callbacks, actions and ends makes.
#ifndef TORTURE_LIFETIME_COURSE_H
#define TORTURE_LIFETIME_COURSE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "life.h"

namespace tarv::torture {

// Where an action is taken.
struct Place {
  const char* name;
  bool may_throw = true;
};

template <class World>
struct Deed {
  const char* name;
  void (*move)(World&);
  bool throws = false;
};

template <class World>
void Throw(World& /*world*/) {
  throw std::runtime_error("not now");
}

// `World` derives from Life, is made without arguments, and has the tables kPlaces, kDeeds and kEnds.
template <class World>
class Course {
 public:
  // Every life with this deed: in each place, before each order of ends. The short form turns the
  // ends round only.
  static void Play(std::size_t deed) {
    for (const Place& place : World::kPlaces) {
      if (!World::kDeeds[deed].throws || place.may_throw) {
        PlayIn(place, World::kDeeds[deed]);
      }
    }
  }

 private:
  using Order = std::vector<std::size_t>;

  static void PlayIn(const Place& place, const Deed<World>& deed) {
    Order order(std::size(World::kEnds));
    std::iota(order.begin(), order.end(), 0);
    bool came = false;
    bool any = false;
    do {
      const std::string name = NameOf(place, deed, order);
      if (IsWanted(name)) {
        any = true;
        came = PlayOne(place, deed, order, name) || came;
      }
    } while (Next(order));
    EXPECT_TRUE(came || !any) << place.name << " never comes";
  }

  // TARV_LIFE plays those lives only whose names contain it, as failures print them.
  static bool IsWanted(const std::string& name) {
    const char* const wanted = std::getenv("TARV_LIFE");
    return wanted == nullptr || name.find(wanted) != std::string::npos;
  }

  static std::string NameOf(const Place& place, const Deed<World>& deed, const Order& order) {
    std::string name = std::string(place.name) + ": " + deed.name + "; ends:";
    for (const std::size_t end : order) {
      name += std::string(" ") + World::kEnds[end].name + ',';
    }
    return name;
  }

  // True when the callback came.
  static bool PlayOne(const Place& place, const Deed<World>& deed, const Order& order,
                      const std::string& name) {
    std::fprintf(stderr, "%s\n", name.c_str());  // what a crash leaves to see
    World world;
    world.Plan(
        place.name, [&] { deed.move(world); }, order.front() % 2 == 1);
    std::vector<Life::Move> ends;
    for (const std::size_t end : order) {
      ends.push_back([&world, end] { World::kEnds[end].move(world); });
    }
    world.Live(ends);
    for (const std::string& fault : world.GetFaults()) {
      ADD_FAILURE() << name << ' ' << fault;
    }
    return world.HasActed();
  }

  static bool Next(Order& order) {
    if (std::getenv("TARV_TORTURE") != nullptr) {
      return std::next_permutation(order.begin(), order.end());
    }
    std::rotate(order.begin(), order.begin() + 1, order.end());
    return order.front() != 0;
  }
};

// "release the clients" as the name of a test.
inline std::string TestNameOf(const char* deed) {
  std::string name;
  bool upper = true;
  for (; *deed != '\0'; ++deed) {
    const auto sign = static_cast<unsigned char>(*deed);
    if (std::isalpha(sign) != 0) {
      name += static_cast<char>(upper ? std::toupper(sign) : sign);
    }
    upper = std::isalpha(sign) == 0;
  }
  return name;
}

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_COURSE_H
