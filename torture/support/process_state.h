// What state a process is in, and which children of this process have been stopped.
#ifndef TORTURE_SUPPORT_PROCESS_STATE_H
#define TORTURE_SUPPORT_PROCESS_STATE_H

#include <fstream>
#include <string>

#include "kit/surroundings.h"

namespace tarv::test {

// The state of a process as the system tells it, 'T' for a stopped one; 0 when there is none.
inline char StateOf(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto name_end = text.rfind(") ");
  return name_end == std::string::npos ? '\0' : text[name_end + 2];
}

// One of them; 0 when there is none.
inline int FindStoppedChild() {
  for (const int child : Children()) {
    if (StateOf(child) == 'T') {
      return child;
    }
  }
  return 0;
}

}  // namespace tarv::test

#endif  // TORTURE_SUPPORT_PROCESS_STATE_H
