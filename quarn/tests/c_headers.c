/* The headers that C programs include compile as C, and C sees the layouts that C++ sees. */
#include <quarn/buffer_view.h>
#include <quarn/export.h>
#include <quarn/result.h>
#include <stddef.h>

_Static_assert(sizeof(QuarnBufferView) == 24, "the view has 24 bytes");
_Static_assert(offsetof(QuarnBufferView, struct_size) == 0, "the size comes first");
_Static_assert(offsetof(QuarnBufferView, data) == 8, "data in bytes 8 to 15");
_Static_assert(offsetof(QuarnBufferView, size) == 16, "size in bytes 16 to 23");
_Static_assert(QUARN_RESULT_SUCCESS == 0 && QUARN_RESULT_FAILURE == 1, "result codes");
_Static_assert(QUARN_RESULT_INVALID_ARGUMENT == 2 && QUARN_RESULT_REFUSED == 3, "result codes");

size_t QuarnTestSizeOfViewInC(void);

TARV_EXPORT size_t QuarnTestSizeOfViewInC(void) { return sizeof(QuarnBufferView); }
