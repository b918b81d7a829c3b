/* What the old program offers to the event loop that runs it. */
#ifndef TESTS_ABI_PROGRAM_H
#define TESTS_ABI_PROGRAM_H

#ifdef __cplusplus
extern "C" {
#endif

struct OldProgramState {
  int started, answered, disconnected, released;
};

/* Nonzero when the task is being started. */
int OldProgramStart(void);
const struct OldProgramState* OldProgramHeard(void);

#ifdef __cplusplus
}
#endif

#endif /* TESTS_ABI_PROGRAM_H */
