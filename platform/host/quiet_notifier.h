// Tells when a descriptor is readable that seldom is.
#ifndef RUNTIME_MANAGER_HOST_QUIET_NOTIFIER_H
#define RUNTIME_MANAGER_HOST_QUIET_NOTIFIER_H

#include <QtCore/QSocketNotifier>
#include <functional>
#include <memory>

namespace RuntimeManager::host {

// As a QSocketNotifier for reading, but all of a thread take one place in its event loop between
// them. An event loop looks at every descriptor in every turn: the ends and the error streams of
// many tasks would slow down the messages of each. Belongs to the thread that made it; it may be
// destroyed from inside its own callback, and must be disabled or destroyed before its descriptor
// is closed.
class QuietNotifier {
 public:
  enum class Use { kSeldom, kOften };
  QuietNotifier(int descriptor, std::function<void()> on_readable, Use use = Use::kSeldom);
  ~QuietNotifier();
  QuietNotifier(const QuietNotifier&) = delete;
  QuietNotifier& operator=(const QuietNotifier&) = delete;

  void SetEnabled(bool enabled);

 private:
  class Hub;

  void MakeOwn();

  const int descriptor_;
  // Shared with the call that is under way, which may end the notifier.
  const std::shared_ptr<const std::function<void()>> on_readable_;
  std::shared_ptr<Hub> hub_;              // of the event loop
  std::unique_ptr<QSocketNotifier> own_;  // where the hub cannot take the descriptor
  bool enabled_ = false;
  bool has_place_ = false;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_QUIET_NOTIFIER_H
