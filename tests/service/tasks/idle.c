/* The task "idle": waits to be told to go. */
#include <unistd.h>

int main(void) {
  for (;;) {
    pause();
  }
}
