// The clients that the managers of this process have made, so that each can hear of a manager's end.
#ifndef WRAPPER_SRC_MADE_CLIENTS_H
#define WRAPPER_SRC_MADE_CLIENTS_H

#include <tarv/rpc_client.h>
#include <tarv/tarv_capi.h>

#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace tarv {

class ManagerWrapper;

namespace details {

// Any thread.
class MadeClients {
 public:
  struct Maker {
    const ManagerWrapper* manager;
    _TARVManagerRef* service;  // the same for all managers of one library
  };
  using Ref = _RpcClientWrapperRef*;

  static MadeClients& Get();

  void Add(Ref client, const Maker& maker);
  void Remove(Ref client);
  // Takes out the clients of a service that is about to end, in the order of their making.
  std::vector<std::pair<Ref, Maker>> TakeClientsOf(_TARVManagerRef* service);

 private:
  std::mutex mutex_;
  std::map<Ref, Maker> clients_;
};

}  // namespace details
}  // namespace tarv

#endif  // WRAPPER_SRC_MADE_CLIENTS_H
