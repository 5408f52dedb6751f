// A machine root with one of its files replaced by the input, through every
// reader of `tarncore diagnose`. The input's first byte picks the file (one of
// kPick, else by its value); the rest is the file. A broken root must give
// findings, never a crash: each with a subject and a text, printed on one
// line whatever the root's names and values hold.
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "diagnose.h"
#include "platform/log/tarn_log.h"

namespace {

namespace fs = std::filesystem;

void Check(bool ok) {
  if (!ok) std::abort();
}

// The kit's manifest; the seed library (TARN_FUZZ_SEED_LIBRARY, the corpus
// entry after its first byte) carries its digest as string 199 and is the
// healthy root's library.
constexpr const char* kManifest = R"({
  "version": "1.0.0.1",
  "fileName": "libfuzz_kit.so",
  "kits": [ { "kitName": "Fuzz", "apiLevel": "3", "apis": [ { "apiName": "Echo" } ] } ]
}
)";

struct File {
  char pick;
  const char* path;  // under the root
  const char* text;  // in the healthy root
};

const File kFiles[] = {
    {'i', "opt/tarncore/config/remoteConfig.json",
     R"({ "TimerPeriodTarnCoreUpdate": "86400000", "packageInfo": [
          { "packageName": "com.fuzz.kit", "forceUpdate": "1", "invalidVersionCode": ["5.3.0"],
            "subKits": [ { "kitName": "Fuzz" } ] } ] })"},
    {'c', "opt/tarncore/config/cache/remoteConfig.json", nullptr},
    {'m', "opt/tarncore/kits/com.fuzz.kit/kitManifest.json", kManifest},
    {'l', "opt/tarncore/kits/com.fuzz.kit/libfuzz_kit.so", nullptr},
    {'s', "opt/tarncore/kits/com.fuzz.kit/ServiceInfo.json",
     R"({ "services": [ { "name": "dll.scopeService", "kind": "library", "path": "libfuzz_kit.so",
          "methods": ["getScopeService"] } ] })"},
    {'p', "etc/tarncore/scope-policy.json",
     R"({ "clients": { "app": { "fingerprints": ["00"], "permissions": ["p"] } } })"},
    {'k', "etc/tarncore/trusted-keys/maker/fuzz.pub",
     "3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c"},
    {'v', "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/Version", "5.3.0"},
};
constexpr std::size_t kFileCount = sizeof(kFiles) / sizeof(kFiles[0]);

std::string g_root;
std::string g_library;

void Write(const File& file, const char* data, std::size_t size) {
  const fs::path path = g_root + "/" + file.path;
  if (!data) {
    fs::remove(path);
    return;
  }
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(data, static_cast<std::streamsize>(size));
}

void Restore(const File& file) {
  if (file.pick == 'l') {
    Write(file, g_library.data(), g_library.size());
  } else {
    Write(file, file.text, file.text ? std::strlen(file.text) : 0);
  }
}

// A healthy root, made once, with TARNCORE_ROOT pointing at it.
bool MakeRoot() {
  char dir[] = "/tmp/fuzzroot.XXXXXX";
  if (!::mkdtemp(dir)) std::abort();
  g_root = dir;
  ::setenv("TARNCORE_ROOT", dir, 1);
  const File install{'-', "etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/Install_Path", nullptr};
  const std::string installPath = g_root + "/opt/tarncore/";
  Write(install, installPath.data(), installPath.size());
  std::ostringstream seed;
  seed << std::ifstream(TARN_FUZZ_SEED_LIBRARY, std::ios::binary).rdbuf();
  g_library = seed.str();
  if (!g_library.empty()) g_library.erase(0, 1);
  for (const File& file : kFiles) Restore(file);
  tarn::log::SetThreshold(tarn::log::Level::Off);
  std::atexit([] { fs::remove_all(g_root); });
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = MakeRoot();
  (void)ready;
  if (size == 0) return 0;
  std::size_t index = data[0] % kFileCount;
  for (std::size_t i = 0; i < kFileCount; ++i) {
    if (kFiles[i].pick == static_cast<char>(data[0])) index = i;
  }
  const File& file = kFiles[index];
  Write(file, reinterpret_cast<const char*>(data + 1), size - 1);

  tarn::diagnose::Options options;
  options.online = false;
  const tarn::diagnose::Report report = tarn::diagnose::Run(options);
  for (const auto& finding : report.findings) Check(!finding.subject.empty() && !finding.text.empty());
  // One line per finding, whatever the root's texts hold.
  std::ostringstream printed;
  tarn::diagnose::Print(report, printed);
  const std::string lines = printed.str();
  Check(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')) == report.findings.size());

  Restore(file);
  return 0;
}
