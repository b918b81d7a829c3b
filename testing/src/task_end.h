// How a real task's end reads.
#ifndef TARV_TESTING_SRC_TASK_END_H
#define TARV_TESTING_SRC_TASK_END_H

#include <string>

namespace tarv::testing::details {

// "was killed by signal 9 (SIGKILL)"
std::string TextOfSignal(int signal);
// "exited with status 3"
std::string TextOfStatus(int status);

}  // namespace tarv::testing::details

#endif  // TARV_TESTING_SRC_TASK_END_H
