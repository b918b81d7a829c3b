// How the requests of this process are named.
#ifndef VORPC_SRC_REQUEST_ID_H
#define VORPC_SRC_REQUEST_ID_H

#include <vorpc/message.h>

#include <cstdint>

namespace vorpc::details {

// The number of the next request of the process, from 1. Lock-free, any thread.
std::uint64_t NextRequestNumber();

// The id of the request with this number: the prefix of the process, then the number.
Message::ID CreateRequestId(std::uint64_t number);

}  // namespace vorpc::details

#endif  // VORPC_SRC_REQUEST_ID_H
