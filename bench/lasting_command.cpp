// Stands for `openvpn`: lives until a signal ends it.
#include <unistd.h>

int main() {
  pause();
  return 0;
}
