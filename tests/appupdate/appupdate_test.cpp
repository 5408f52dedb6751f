// The update library with HTTP, processes and signatures replaced, then for
// real against the reference cloud; the channel between the update UI and its
// privileged part; the libcurl client's shutdown.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>

#include "platform/appupdate/upgrade_api.h"
#include "platform/appupdate/upgrade_channel.h"
#include "platform/commonutil/de.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "platform/os/process.h"
#include "platform/security/security.h"
#include "integration/programs.h"
#include "support/fake_launch.h"
#include "support/temp_root.h"

namespace {

using tarn::http::HttpResponse;
using tarn::test::FakeProcesses;
using tarn::test::FakeSignatures;

// Serves canned bodies by URL prefix; a download writes the body to the file.
class FakeHttp : public tarn::http::HttpClient {
 public:
  bool Get(const std::string& url, HttpResponse& response, std::uint32_t) override { return Answer(url, response); }
  bool Post(const std::string&, const std::string&, const std::string&, HttpResponse&, std::uint32_t) override {
    return false;
  }
  bool Download(const std::string& url, const std::string& path, HttpResponse& response, std::uint32_t) override {
    return Answer(url, response) && static_cast<bool>(std::ofstream(path, std::ios::binary) << response.body);
  }
  bool Answer(const std::string& url, HttpResponse& response) {
    requested.push_back(url);
    for (const auto& [prefix, body] : bodies) {
      if (url.rfind(prefix, 0) == 0) {
        response.status = 200;
        response.body = body;
        return true;
      }
    }
    response.status = 404;
    return false;
  }
  std::map<std::string, std::string> bodies;
  std::vector<std::string> requested;
};

constexpr const char* kCheck = "https://upd.example/tarncore/update/check?version=6.0.1.10";
constexpr const char* kPackage = "https://upd.example/pkg/setup";
constexpr const char* kPackageBody = "installer bytes";

class AppUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.WriteFile("opt/config/service_urls.json", R"({"com.vantrel.appupdate": {"ROOT": "https://upd.example/"}})");
    root_.WriteFile(tarn::test::kVtid + "Version", "6.0.1.10");
    UrlLoader::SetAddressBookPath(root_.At("opt/config/service_urls.json"));
    tarn::http::SetHttpClientForTesting(&http_);
    tarn::os::SetProcessesForTesting(&processes_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signatures_);
    api_.Init();
  }
  void TearDown() override {
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
    tarn::os::SetProcessesForTesting(nullptr);
    tarn::http::SetHttpClientForTesting(nullptr);
    UrlLoader::SetAddressBookPath("");
  }

  tarn::test::TempRoot root_;
  FakeHttp http_;
  FakeProcesses processes_;
  FakeSignatures signatures_;
  UpgradeAPI api_;
};

TEST_F(AppUpdateTest, CheckHandsOnTheAnswerCutToTheBuffer) {
  http_.bodies[kCheck] = std::string(20000, 'x');
  std::vector<char> buffer(tarn::appupdate::kCheckBufferSize, '\0');
  ASSERT_TRUE(api_.CheckTarnCoreUpdate(buffer.data()));
  EXPECT_EQ(http_.requested.at(0), std::string(kCheck) + "&force=0");
  EXPECT_EQ(std::string(buffer.data()).size(), tarn::appupdate::kCheckBufferSize - 1);
  http_.bodies.clear();
  EXPECT_FALSE(api_.CheckTarnCoreUpdate(buffer.data()));

  // An address that is not a text is no address: nothing is asked.
  root_.WriteFile("opt/config/service_urls.json", R"({"com.vantrel.appupdate": {"ROOT": 5}})");
  api_.Init();
  http_.requested.clear();
  EXPECT_FALSE(api_.CheckTarnCoreUpdate(buffer.data()));
  EXPECT_TRUE(http_.requested.empty());
}

TEST_F(AppUpdateTest, SilentUpgradeStartsOnlyAVerifiedPackageInTheDownloadFolder) {
  root_.WriteFile("tmp/reference", kPackageBody);
  const std::string digest = DE::GetFileSha256Hex(root_.At("tmp/reference"));
  std::string lower = digest;
  for (auto& c : lower) c = static_cast<char>(std::tolower(c));
  const std::string downloaded = root_.At("var/lib/Vantrel/TARNCORE/Download/setup");
  // Another file put in the package's place once its checks have read it.
  const auto swap = [&] {
    root_.WriteFile("tmp/swapped", "other bytes");
    std::filesystem::rename(root_.At("tmp/swapped"), downloaded);
  };
  // A package swapped after its checks still starts what was checked.
  struct Case { const char* name; std::string installer, sha; bool signedByMaker, swapped, startWorks, starts; };
  for (const Case& c : {Case{"verified", "setup", digest, true, false, true, true},
                        Case{"lower-case digest", "setup", lower, true, false, true, true},
                        Case{"digest mismatch", "setup", std::string(64, 'A'), true, false, true, false},
                        Case{"not the maker's", "setup", digest, false, false, true, false},
                        Case{"swapped after the checks", "setup", digest, true, true, true, true},
                        Case{"installer fails to start", "setup", digest, true, false, false, false},
                        Case{"escaping name", "../setup", digest, true, false, true, false}}) {
    SCOPED_TRACE(c.name);
    processes_.starts.clear();
    processes_.startWorks = c.startWorks;
    signatures_.whileVerifying = c.swapped ? std::function<void()>(swap) : nullptr;
    DE::FileDelete(downloaded);
    http_.bodies[kCheck] = R"({"updateAppInfo":{"packageUrl":")" + std::string(kPackage) + R"(","sha256":")" + c.sha +
                           R"(","installer":")" + c.installer + R"(","arguments":"/quiet /norestart"}})";
    http_.bodies[kPackage] = kPackageBody;
    signatures_.maker = c.signedByMaker;
    EXPECT_EQ(api_.TarnCoreAppSilentUpgrade(true), c.starts);
    const bool tried = c.starts || !c.startWorks;
    EXPECT_EQ(processes_.starts, tried ? std::vector<std::string>{downloaded + "|/quiet /norestart|" + kPackageBody}
                                       : std::vector<std::string>{});
    EXPECT_EQ(DE::FileExists(downloaded), c.starts) << "a rejected package is not left behind";
  }
  EXPECT_EQ(http_.requested.at(0), std::string(kCheck) + "&force=1");

  http_.bodies[kCheck] = R"({"code":0})";  // nothing newer
  processes_.starts.clear();
  EXPECT_FALSE(api_.TarnCoreAppSilentUpgrade(false));
  EXPECT_TRUE(processes_.starts.empty());
}

// The real library, libcurl and signature checks against the reference cloud,
// which signs the package with the build's development key.
TEST(UpgradeFromTheCloud, DownloadsVerifiesAndStartsTheSignedPackageOnlyWhenNewer) {
  tarn::test::TempRoot root;
  const std::string version = tarn::test::kVtid + "Version";
  root.WriteFile(version, "5.3.0");
  root.WriteFile("etc/tarncore/trusted-keys/maker/tarn-dev.pub", tarn::test::ReadText(TARN_DEV_PUBLIC_KEY));
  ASSERT_TRUE(HttpUtil::Https_curl_global_init());
  tarn::test::Cloud cloud(root, root.At("opt/config/service_urls.json"),
                          {"--key", TARN_DEV_PRIVATE_KEY, "--sign-tool", TARN_SIGN_TOOL});
  UrlLoader::SetAddressBookPath(root.At("opt/config/service_urls.json"));
  FakeProcesses processes;
  tarn::os::SetProcessesForTesting(&processes);
  cloud.Serve("update.json", R"({"version": "5.4.0", "installer": "setup.sh", "arguments": "--quiet"})");
  cloud.Serve("packages/setup.sh", "#!/bin/sh\n");

  UpgradeAPI api;
  api.Init();
  std::vector<char> buffer(tarn::appupdate::kCheckBufferSize, '\0');
  ASSERT_TRUE(api.CheckTarnCoreUpdate(buffer.data()));
  EXPECT_NE(std::string(buffer.data()).find("updateAppInfo"), std::string::npos) << buffer.data();
  EXPECT_TRUE(api.TarnCoreAppSilentUpgrade(false));
  ASSERT_EQ(processes.starts.size(), 1u);
  EXPECT_EQ(processes.starts[0].rfind(root.At("var/lib/Vantrel/TARNCORE/Download/setup.sh") + "|--quiet|#!/bin/sh\n", 0),
            0u) << processes.starts[0];

  root.WriteFile(version, "5.4");
  api.Init();
  std::fill(buffer.begin(), buffer.end(), '\0');
  ASSERT_TRUE(api.CheckTarnCoreUpdate(buffer.data()));
  EXPECT_EQ(std::string(buffer.data()).find("updateAppInfo"), std::string::npos) << buffer.data();

  // A failed transfer keeps no body, and libcurl fetches nothing but http and https.
  tarn::http::CurlHttpClient client;
  HttpResponse response;
  const std::string file = root.At("package");
  EXPECT_FALSE(client.Download(cloud.Url() + "/tarncore/update/package/missing", file, response, 20000));
  EXPECT_EQ(response.status, 404);
  EXPECT_FALSE(DE::FileExists(file));
  EXPECT_FALSE(client.Get("file:///etc/passwd", response, 20000));

  tarn::os::SetProcessesForTesting(nullptr);
  UrlLoader::SetAddressBookPath("");
  HttpUtil::Https_curl_global_free();
}

// main frees the library while a worker is still in a transfer: the transfer
// stops instead of running on until its time-out, later ones fail at once,
// and the library is freed only when the last one has left. The server is a
// socket nobody accepts on: the kernel takes the connection, no answer comes.
TEST(CurlHttpClientTest, FreeingTheLibraryStopsRunningTransfersAndRefusesNewOnes) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(addr);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &length);
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/x";

  ASSERT_TRUE(HttpUtil::Https_curl_global_init());
  tarn::http::CurlHttpClient client;
  HttpResponse stalled;
  auto transfer = std::async(std::launch::async, [&] { return client.Get(url, stalled, 60000); });
  pollfd connected{listener, POLLIN, 0};
  ASSERT_EQ(::poll(&connected, 1, 20000), 1) << "the client never connected";
  HttpUtil::Https_curl_global_free();
  ASSERT_EQ(transfer.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "runs to its time-out";
  EXPECT_FALSE(transfer.get());
  HttpResponse refused;
  EXPECT_FALSE(client.Get(url, refused, 60000));
  EXPECT_EQ(refused.error, "the HTTP library is shut down");
  ASSERT_TRUE(HttpUtil::Https_curl_global_init());
  HttpUtil::Https_curl_global_free();
  ::close(listener);
}

}  // namespace

namespace {

// An update library that only counts its runs and gives the outcome it is told.
class CountedUpgrade : public UpgradeAPI {
 public:
  explicit CountedUpgrade(bool outcome) : outcome_(outcome) {}
  void Init() override {}
  bool TarnCoreAppSilentUpgrade(bool force) override {
    ++runs;
    forced = force;
    return outcome_;
  }
  int runs = 0;
  bool forced = false;

 private:
  bool outcome_;
};

struct Channel {
  Channel() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)); }
  ~Channel() {
    for (int end : ends) {
      if (end >= 0) ::close(end);
    }
  }
  void Close(int which) {
    ::close(ends[which]);
    ends[which] = -1;
  }
  int ends[2] = {-1, -1};
};

TEST(UpgradeChannelTest, TheUiLearnsWhetherTheInstallerStartedAndThePartRunsNothingElse) {
  using tarn::appupdate::Served;
  for (const bool outcome : {true, false}) {
    Channel channel;
    CountedUpgrade updater(outcome);
    auto part = std::async(std::launch::async, [&] { return tarn::appupdate::ServeUpgrade(channel.ends[1], updater, 5000); });
    EXPECT_EQ(tarn::appupdate::RequestUpgrade(channel.ends[0]), outcome);
    EXPECT_EQ(part.get(), outcome ? Served::kStarted : Served::kNotStarted);
    EXPECT_EQ(updater.runs, 1);
    EXPECT_TRUE(updater.forced);  // the person agreed already
  }

  // A UI that ends before asking, one that asks for something else, and one
  // that never asks: nothing runs.
  for (const std::string said : {"", "upgrade now\n", "upgrade"}) {
    SCOPED_TRACE(said);
    Channel channel;
    CountedUpgrade updater(true);
    ASSERT_EQ(static_cast<ssize_t>(said.size()), ::write(channel.ends[0], said.data(), said.size()));
    if (said != "upgrade") channel.Close(0);
    EXPECT_EQ(tarn::appupdate::ServeUpgrade(channel.ends[1], updater, 200), Served::kNoRequest);
    EXPECT_EQ(updater.runs, 0);
  }

  // A part that goes away without an answer is a failed update, not a hang.
  Channel channel;
  channel.Close(1);
  EXPECT_FALSE(tarn::appupdate::RequestUpgrade(channel.ends[0]));
}

}  // namespace
