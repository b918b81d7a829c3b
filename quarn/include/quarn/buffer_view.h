/* QuarnBufferView: bytes as they cross the C boundary. Plain C. */
#ifndef QUARN_BUFFER_VIEW_H
#define QUARN_BUFFER_VIEW_H

#include <stdint.h>

/* Size-versioned: a field is read or written only when struct_size covers it whole. */
typedef struct QuarnBufferView {
  uint64_t struct_size; /* bytes of this structure, as the side that allocated it knows it */
  const uint8_t* data;  /* first byte, or null for no data; owned by whoever filled the view */
  uint64_t size;        /* number of bytes at data */
} QuarnBufferView;

#endif /* QUARN_BUFFER_VIEW_H */
