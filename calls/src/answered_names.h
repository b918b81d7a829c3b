// Reads the answer to "$/describe".
#ifndef TARV_CALLS_SRC_ANSWERED_NAMES_H
#define TARV_CALLS_SRC_ANSWERED_NAMES_H

#include <vorpc/message.h>

#include <string>
#include <vector>

namespace tarv::details {

// The names of the methods that the answer describes; none when it does not.
std::vector<std::string> MethodNamesIn(const vorpc::Message::Response& response);

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_ANSWERED_NAMES_H
