// A small program for the signature tests: "exit N" ends with status N;
// "wait" lives until it is killed.
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "exit") return std::atoi(argv[2]);
  while (argc > 1 && std::string(argv[1]) == "wait") ::pause();
  return 0;
}
