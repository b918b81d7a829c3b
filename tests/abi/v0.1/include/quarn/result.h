/* QuarnResult: the result code of every C function of the library. Plain C. */
#ifndef QUARN_RESULT_H
#define QUARN_RESULT_H

typedef enum QuarnResult {
  QUARN_RESULT_SUCCESS = 0,
  /* A failure that no other code describes. */
  QUARN_RESULT_FAILURE = 1,
  /* A null table or structure, a null or empty string, an unknown handle where the entry takes that
     for an argument error. */
  QUARN_RESULT_INVALID_ARGUMENT = 2,
  /* The object is missing, not ready, or in the wrong state for the call. */
  QUARN_RESULT_REFUSED = 3
} QuarnResult;

#endif /* QUARN_RESULT_H */
