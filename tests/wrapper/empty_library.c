/* A library of the right name that offers nothing. */
#include <quarn/export.h>

TARV_EXPORT int NothingOfInterest(void) { return 0; }
