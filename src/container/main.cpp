// TarnCoreContainer: started by TarnCoreService with the service pipes as
// standard input and output and the exit handle as the only argument.
#include <cstdlib>

#include "container/ContainerMain.h"
#include "platform/os/text.h"
#include "tarnkit/scope.h"

// Kits resolve these from the program when they are loaded; the reference
// keeps them in the link, and ENABLE_EXPORTS makes them visible.
[[maybe_unused]] static int (*const kScopeForKits)(const std::string&, std::list<Scope>&) =
    &TarnGetScopeByAppId;

int main(int argc, char** argv) {
  // The service asks that GnuTLS skip its set-up at load (it is here only as a
  // dependency of libcurl's); what the container starts sets it up as usual.
  ::unsetenv("GNUTLS_NO_IMPLICIT_INIT");
  return TarnCoreContainerMain(argc > 1 ? tarn::os::Utf8ToWide(argv[1]) : std::wstring());
}
