// How a real task's end reads.
#ifndef TARV_TESTING_SRC_TASK_END_H
#define TARV_TESTING_SRC_TASK_END_H

#include <tarv/testing/real_task.h>

#include <optional>
#include <string>

namespace tarv::testing::details {

// "was killed by signal 9 (SIGKILL)"
std::string TextOfSignal(int signal);
// "exited with status 3"
std::string TextOfStatus(int status);

// What such a text says.
std::optional<TaskExit> ExitIn(const std::string& text);

}  // namespace tarv::testing::details

#endif  // TARV_TESTING_SRC_TASK_END_H
