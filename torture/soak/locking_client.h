// A client over the C interface that keeps its messages' chunks locked for long.
#ifndef TORTURE_SOAK_LOCKING_CLIENT_H
#define TORTURE_SOAK_LOCKING_CLIENT_H

#include <vorpc/client.h>

#include <memory>
#include <string>

#include "ledger.h"

namespace soak {

// Starts the task. Chunks are given back by the hundred, in any order; what is locked must stay as it
// is until then, or the ledger gets a complaint. Whoever lets go of the client releases its handle,
// with all that is locked.
std::shared_ptr<vorpc::IClient> MakeLockingClient(const std::string& task, Ledger& ledger);

}  // namespace soak

#endif  // TORTURE_SOAK_LOCKING_CLIENT_H
