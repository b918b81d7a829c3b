// In the place of libtarv.so, for plug-ins that load it: the service that is in the program itself.
#include <tarv/tarv_capi.h>

extern "C" QuarnResult LoadServiceOfTheProgram(TARVProcTable* table, size_t size);

QuarnResult TARVProcTableLoad(TARVProcTable* table, size_t size) {
  return LoadServiceOfTheProgram(table, size);
}
