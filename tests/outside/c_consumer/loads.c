/* Loads the tables, and says which version it was compiled for. */
#include <stdio.h>
#include <tarv/tarv_capi.h>
#include <tarv/version.h>

#if !TARV_VERSION_AT_LEAST(0, 2, 0) || TARV_VERSION_AT_LEAST(9, 0, 0)
#error "the version's macros do not compare"
#endif

int main(void) {
  TARVProcTable root;
  if (TARVProcTableLoad(&root, sizeof(root)) != QUARN_RESULT_SUCCESS || root.Initialize() == NULL) {
    return 1;
  }
  printf("version %s\n", TARV_VERSION);
  root.Release(root.Initialize());
  return 0;
}
