// The update server's answer, as the update library takes it: the check's
// text handed on in a bounded buffer, and the silent upgrade's reading of the
// announcement, download, digest and signature test and installer start
// (transfers, signatures and process starts replaced). An installer may start
// only from the download folder, named by a plain file name, when the
// package's digest is the announced one; nothing may leave the library.
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "platform/appupdate/upgrade_api.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "platform/os/places.h"
#include "platform/os/process.h"
#include "platform/security/security.h"

namespace {

using tarn::fuzz::Check;
using tarn::http::HttpResponse;

// The package every download delivers; its SHA-256 is in the dictionary.
constexpr const char* kPackage = "fuzz package";

class CannedHttp : public tarn::http::HttpClient {
 public:
  bool Get(const std::string&, HttpResponse& response, std::uint32_t) override {
    response.status = 200;
    response.body = answer;
    return true;
  }
  bool Post(const std::string&, const std::string&, const std::string&, HttpResponse&, std::uint32_t) override {
    return false;
  }
  bool Download(const std::string&, const std::string& path, HttpResponse& response, std::uint32_t) override {
    response.status = 200;
    return static_cast<bool>(std::ofstream(path, std::ios::binary | std::ios::trunc) << kPackage);
  }
  std::string answer;
};

class RecordedStarts : public tarn::os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string&) override { return {}; }
  bool StartFile(int fd, const std::string& path, const std::string&, const tarn::os::StartAs*, int) override {
    char content[64] = {};
    const ssize_t n = ::pread(fd, content, sizeof(content), 0);
    Check(std::string(content, n > 0 ? static_cast<std::size_t>(n) : 0) == kPackage, "what starts is the package");
    started.push_back(path);
    return true;
  }
  bool RemoveTreeDetached(const std::string&) override { return true; }
  std::vector<std::string> started;
};

class AllSigned : public tarn::security::FileSignatureChecker {
 public:
  bool VerifyEmbedded(const std::string&) override { return true; }
  bool VerifyMaker(const std::string&) override { return true; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  static CannedHttp http;
  static RecordedStarts starts;
  static AllSigned signatures;
  static const bool prepared = [&] {
    root.WriteFile("opt/config/service_urls.json", R"({"com.vantrel.appupdate": {"ROOT": "https://upd.example/"}})");
    UrlLoader::SetAddressBookPath(root.At("opt/config/service_urls.json"));
    tarn::http::SetHttpClientForTesting(&http);
    tarn::os::SetProcessesForTesting(&starts);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signatures);
    return true;
  }();
  (void)prepared;
  http.answer.assign(tarn::fuzz::Bytes(data, size));
  starts.started.clear();

  UpgradeAPI api;
  api.Init();
  std::string buffer(tarn::appupdate::kCheckBufferSize, '\0');
  Check(api.CheckTarnCoreUpdate(buffer.data()), "a 2xx answer is handed on");
  const std::size_t handed = std::min(http.answer.size(), buffer.size() - 1);
  Check(buffer.compare(0, handed, http.answer, 0, handed) == 0 && buffer[handed] == '\0',
        "the answer is handed on as it came, cut to fit and terminated");

  const bool started = api.TarnCoreAppSilentUpgrade(false);
  Check(started == !starts.started.empty(), "the upgrade reports the installer's start");
  const std::string folder = tarn::os::CommonAppDataPath() + "/Vantrel/TARNCORE/Download/";
  for (const auto& path : starts.started) {
    const std::string name = path.substr(folder.size());
    Check(path.compare(0, folder.size(), folder) == 0 && !name.empty() && name != "." && name != ".." &&
              name.find('/') == std::string::npos,
          "an installer starts only from the download folder");
  }
  return 0;
}
