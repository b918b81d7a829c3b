// The libtarv.so that this program runs with, which need not be the one that it was built with.
#ifndef TARVCTL_LOADED_LIBRARY_H
#define TARVCTL_LOADED_LIBRARY_H

#include <string>

namespace tarvctl {

// The folder of its file.
std::string LibraryFolder();

// The version that its file carries in a note; "unknown" when it carries none.
std::string LibraryVersion();

}  // namespace tarvctl

#endif  // TARVCTL_LOADED_LIBRARY_H
