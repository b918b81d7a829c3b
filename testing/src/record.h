// The workstation's record of messages, as a transcript.
#ifndef TARV_TESTING_SRC_RECORD_H
#define TARV_TESTING_SRC_RECORD_H

#include <string>

namespace tarv::testing::details {

// What this process and its task said to each other, from the lines of a record: those that this
// process wrote, or, if it keeps no record, those of the task's `process`; and the faults.
std::string TranscriptOf(const std::string& record, const std::string& task, int process);

}  // namespace tarv::testing::details

#endif  // TARV_TESTING_SRC_RECORD_H
