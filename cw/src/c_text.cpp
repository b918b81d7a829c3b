#include "c_text.h"

#include <quarn/escaped.h>
#include <quarn/logger.h>

namespace cw::internal {

bool ReachesCWhole(std::string_view what, std::string_view text) {
  if (text.find('\0') == std::string_view::npos) {
    return true;
  }
  QUARN_LOG_ERROR() << "The " << what << " '" << quarn::Escaped{text}
                    << "' has a NUL inside, at which the embedder would end it. Nothing was asked "
                       "of the embedder; pass a name without one.";
  return false;
}

}  // namespace cw::internal
