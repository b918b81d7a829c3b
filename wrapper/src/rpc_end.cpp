#include "rpc_end.h"

#include <quarn/escaped.h>
#include <quarn/logger.h>

#include <cerrno>

namespace tarv::details {
namespace {

constexpr std::size_t kShownOfText = 80;

}  // namespace

std::string PeerOfClient(const std::string& task) { return "the task '" + task + "'"; }

// The program of a task has the task's name.
std::string PeerOfServer() {
  return "the starter of the task '" + std::string(program_invocation_short_name) + "'";
}

void WarnAboutText(std::string_view text, const std::string& peer) {
  QUARN_LOG_WARN() << "No message can be made of " << text.size() << " bytes from "
                   << quarn::Escaped{peer}
                   << "; they begin with: " << quarn::Escaped{text.substr(0, kShownOfText)};
}

}  // namespace tarv::details
