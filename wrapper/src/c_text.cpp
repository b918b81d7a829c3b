#include "c_text.h"

#include <quarn/logger.h>

namespace tarv::details {

bool ReachesCWhole(std::string_view text, std::string_view what) {
  const std::size_t end = text.find('\0');
  if (end == std::string_view::npos) {
    return true;
  }
  QUARN_LOG_ERROR() << "The " << what << " holds a NUL at byte " << end << " of " << text.size()
                    << " and was refused: take it out.";
  return false;
}

}  // namespace tarv::details
