// TarnCoreContainer: started by TarnCoreService with the service pipes as
// standard input and output and the exit handle as the only argument.
#include "container/ContainerMain.h"
#include "platform/os/text.h"

int main(int argc, char** argv) {
  return TarnCoreContainerMain(argc > 1 ? tarn::os::Utf8ToWide(argv[1]) : std::wstring());
}
