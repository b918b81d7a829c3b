// How each type of value.h is written, read and described. Read value.h first.
#ifndef TARV_CALLS_CONVERSION_H
#define TARV_CALLS_CONVERSION_H

#include <tarv/calls/conversion_base.h>
#include <tarv/calls/conversion_containers.h>
#include <tarv/calls/conversion_scalars.h>
#include <tarv/calls/conversion_structs.h>

#endif  // TARV_CALLS_CONVERSION_H
