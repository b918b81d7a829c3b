#ifndef FAKE_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H
#define FAKE_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

#include <QObject>

namespace RuntimeManager {

class RuntimeDispatcher : public QObject {
 public:
  static constexpr int kSocket = 42;

  static RuntimeDispatcher* instance() {
    static RuntimeDispatcher dispatcher;
    return &dispatcher;
  }
  int localServerSocket() const { return kSocket; }
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H
