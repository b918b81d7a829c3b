// What docs/quick-start.md leaves out.
#include <tarv/calls/call_options.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/method.h>
#include <tarv/calls/service.h>
#include <tarv/calls/value.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>
