// Texts on their way to C, where a NUL ends them.
#ifndef WRAPPER_SRC_C_TEXT_H
#define WRAPPER_SRC_C_TEXT_H

#include <string_view>

namespace tarv::details {

// True when C gets all of `text`. False, after an error line that calls it `what`, when it holds a
// NUL: C would take the part before it for the whole.
bool ReachesCWhole(std::string_view text, std::string_view what);

}  // namespace tarv::details

#endif  // WRAPPER_SRC_C_TEXT_H
