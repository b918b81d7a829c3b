// Texts on their way to C.
#ifndef CW_SRC_C_TEXT_H
#define CW_SRC_C_TEXT_H

#include <string_view>

namespace cw::internal {

// Whether the text reaches C whole. False, after a log line, when there is a NUL inside, at which C
// would end it: another name than the one that was meant. `what` says what the text is.
bool ReachesCWhole(std::string_view what, std::string_view text);

}  // namespace cw::internal

#endif  // CW_SRC_C_TEXT_H
