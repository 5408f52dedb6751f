// A small program for the signature tests: "exit N" ends with status N;
// "wait" lives until its standard input closes.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  if (argc > 2 && std::strcmp(argv[1], "exit") == 0) return std::atoi(argv[2]);
  if (argc > 1 && std::strcmp(argv[1], "wait") == 0) {
    char c;
    while (::read(0, &c, 1) > 0) {
    }
    return 0;
  }
  return 0;
}
