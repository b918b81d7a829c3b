// The ways in which a process can leave in good order, with traffic under way.
#ifndef TORTURE_LIFETIME_DEPARTURES_H
#define TORTURE_LIFETIME_DEPARTURES_H

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <cstdlib>
#include <string>

namespace tarv::torture {

constexpr int kDeparted = 7;  // the exit status
constexpr int kCalledAfterwards =
    9;  // the exit status when a callback comes after the objects' end

constexpr const char* kManners[] = {"exit", "quit", "nested-exit", "quick-exit"};

// Who holds the objects: a static object whose members go in this order at the process's end; or
// nobody, so that they never go.
constexpr const char* kHolders[] = {"client-first", "manager-first", "nobody"};

// Returns for "quit" alone.
inline void Depart(const std::string& manner) {
  if (manner == "exit") {
    std::exit(kDeparted);
  }
  if (manner == "quick-exit") {
    std::quick_exit(kDeparted);
  }
  if (manner == "nested-exit") {
    QEventLoop loop;
    QTimer::singleShot(1, &loop, [] { std::exit(kDeparted); });
    loop.exec();
  }
  QCoreApplication::exit(kDeparted);
}

// Holds two ends and whoever made them, and lets them go in the order that was asked for.
template <class Manager, class End>
class Holder {
 public:
  Holder(Manager made, const std::string& holder)
      : manager(std::move(made)), is_manager_first_(holder == "manager-first") {}
  ~Holder() {
    if (is_manager_first_) {
      manager.reset();
    }
    end.reset();
    manager.reset();
    Ended() = true;
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  // Lives until the process ends; forever for the holder "nobody".
  static Holder& Make(Manager made, const std::string& holder) {
    if (holder == "nobody") {
      static Holder* kept = nullptr;  // reachable, so no leak
      kept = new Holder(std::move(made), holder);
      return *kept;
    }
    static Holder held(std::move(made), holder);
    return held;
  }
  // Each callback calls this.
  static void ExpectThere() {
    if (Ended()) {
      std::_Exit(kCalledAfterwards);
    }
  }

  Manager manager;
  End end;

 private:
  static bool& Ended() {
    static bool ended = false;
    return ended;
  }

  const bool is_manager_first_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_DEPARTURES_H
