// The update library and the address book, with HTTP, processes and
// signatures replaced.
#include <gtest/gtest.h>

#include <map>

#include "platform/appupdate/upgrade_api.h"
#include "platform/commonutil/de.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "platform/os/process.h"
#include "platform/security/security.h"
#include "support/temp_root.h"

namespace {

// Serves canned bodies by URL; a download writes the body to the file.
class FakeHttp : public tarn::http::HttpClient {
 public:
  bool Get(const std::string& url, tarn::http::HttpResponse& response, std::uint32_t) override {
    requested.push_back(url);
    return Answer(url, response);
  }
  bool Post(const std::string&, const std::string&, const std::string&, tarn::http::HttpResponse&,
            std::uint32_t) override { return false; }
  bool Download(const std::string& url, const std::string& path, tarn::http::HttpResponse& response,
                std::uint32_t) override {
    requested.push_back(url);
    if (!Answer(url, response)) return false;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return false;
    std::fwrite(response.body.data(), 1, response.body.size(), file);
    std::fclose(file);
    return true;
  }
  bool Answer(const std::string& url, tarn::http::HttpResponse& response) {
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

class FakeProcesses : public tarn::os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string&) override { return {}; }
  bool StartProcess(const std::string& path, const std::string& arguments) override {
    starts.push_back(path + "|" + arguments);
    return true;
  }
  bool RemoveTreeDetached(const std::string&) override { return true; }
  std::vector<std::string> starts;
};

class FakeSignatures : public tarn::security::FileSignatureChecker {
 public:
  bool VerifyEmbedded(const std::string&) override { return maker; }
  bool VerifyMaker(const std::string&) override { return maker; }
  std::string Thumb(const std::string&) override { return {}; }
  bool maker = true;
};

constexpr const char* kCheck = "https://upd.example/tarncore/update/check?version=6.0.1.10";
constexpr const char* kPackage = "https://upd.example/pkg/setup";
const std::string kPackageBody = "installer bytes";

class AppUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.WriteFile("opt/config/service_urls.json",
                    R"({"com.vantrel.appupdate": {"ROOT": "https://upd.example/"}, "other": {"ROOT": 5}})");
    root_.WriteFile("etc/tarncore/registry/HKEY_LOCAL_MACHINE/SOFTWARE/Tarn Core/VTID/Version", "6.0.1.10");
    UrlLoader::SetAddressBookPath(root_.At("opt/config/service_urls.json"));
    tarn::http::SetHttpClientForTesting(&http_);
    tarn::os::SetProcessesForTesting(&processes_);
    tarn::security::FileSignatureChecker::SetInstanceForTesting(&signatures_);
    root_.WriteFile("tmp/reference", kPackageBody);
    digest_ = DE::GetFileSha256Hex(root_.At("tmp/reference"));
  }
  void TearDown() override {
    tarn::security::FileSignatureChecker::SetInstanceForTesting(nullptr);
    tarn::os::SetProcessesForTesting(nullptr);
    tarn::http::SetHttpClientForTesting(nullptr);
    UrlLoader::SetAddressBookPath("");
  }
  void Announce(const std::string& installer, const std::string& sha256) {
    http_.bodies[kCheck] = R"({"updateAppInfo":{"packageUrl":")" + std::string(kPackage) +
                           R"(","sha256":")" + sha256 + R"(","installer":")" + installer +
                           R"(","arguments":"/quiet /norestart"}})";
    http_.bodies[kPackage] = kPackageBody;
  }

  tarn::test::TempRoot root_;
  FakeHttp http_;
  FakeProcesses processes_;
  FakeSignatures signatures_;
  std::string digest_;
};

TEST_F(AppUpdateTest, AddressBookAnswersOnlyTextEntries) {
  std::string url = "untouched";
  EXPECT_FALSE(UrlLoader::GetServiceUrl("com.vantrel.appupdate", url, "OTHER"));
  EXPECT_FALSE(UrlLoader::GetServiceUrl("other", url, "ROOT"));
  EXPECT_EQ(url, "untouched");
}

TEST_F(AppUpdateTest, CheckHandsOnTheAnswerCutToTheBuffer) {
  http_.bodies[kCheck] = std::string(20000, 'x');
  std::vector<char> buffer(tarn::appupdate::kCheckBufferSize, '\0');
  UpgradeAPI api;
  api.Init();
  ASSERT_TRUE(api.CheckTarnCoreUpdate(buffer.data()));
  EXPECT_EQ(http_.requested.at(0), std::string(kCheck) + "&force=0");
  EXPECT_EQ(std::string(buffer.data()).size(), tarn::appupdate::kCheckBufferSize - 1);

  http_.bodies.clear();
  EXPECT_FALSE(api.CheckTarnCoreUpdate(buffer.data()));
}

TEST_F(AppUpdateTest, SilentUpgradeStartsOnlyAVerifiedPackageInTheDownloadFolder) {
  const std::string downloaded = root_.At("var/lib/Vantrel/TARNCORE/Download/setup");
  struct Case { const char* name; std::string installer; std::string sha; bool signedByMaker; bool starts; };
  const Case cases[] = {
      {"verified", "setup", digest_, true, true},
      {"lower-case digest", "setup", [&] { std::string d = digest_; for (auto& c : d) c = std::tolower(c); return d; }(), true, true},
      {"digest mismatch", "setup", std::string(64, 'A'), true, false},
      {"not the maker's", "setup", digest_, false, false},
      {"escaping name", "../setup", digest_, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    processes_.starts.clear();
    DE::FileDelete(downloaded);
    Announce(c.installer, c.sha);
    signatures_.maker = c.signedByMaker;
    UpgradeAPI api;
    api.Init();
    EXPECT_EQ(api.TarnCoreAppSilentUpgrade(true), c.starts);
    if (c.starts) {
      ASSERT_EQ(processes_.starts.size(), 1u);
      EXPECT_EQ(processes_.starts[0], downloaded + "|/quiet /norestart");
    } else {
      EXPECT_TRUE(processes_.starts.empty());
      EXPECT_FALSE(DE::FileExists(downloaded)) << "a rejected package is not left behind";
    }
  }
  EXPECT_EQ(http_.requested.at(0), std::string(kCheck) + "&force=1");

  http_.bodies[kCheck] = R"({"code":0})";
  processes_.starts.clear();
  UpgradeAPI api;
  api.Init();
  EXPECT_FALSE(api.TarnCoreAppSilentUpgrade(false));
  EXPECT_TRUE(processes_.starts.empty());
}

}  // namespace

// The libcurl client against a one-shot local HTTP server.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace {

class OneShotServer {
 public:
  explicit OneShotServer(std::string reply) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    timeval limit{20, 0};  // accept gives up if the client never comes
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(addr);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    ::listen(fd_, 1);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &length);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this, reply = std::move(reply)] {
      const int client = ::accept(fd_, nullptr, nullptr);
      if (client < 0) return;
      char request[4096];
      (void)::recv(client, request, sizeof(request), 0);
      (void)::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
      ::close(client);
    });
  }
  ~OneShotServer() {
    thread_.join();
    ::close(fd_);
  }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  int fd_;
  int port_ = 0;
  std::thread thread_;
};

std::string Reply(const std::string& status, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

TEST(CurlHttpClientTest, GetAndDownloadKeepOnlySuccessfulBodies) {
  ASSERT_TRUE(HttpUtil::Https_curl_global_init());
  tarn::test::TempRoot root;
  tarn::http::CurlHttpClient client;
  tarn::http::HttpResponse response;
  {
    OneShotServer server(Reply("200 OK", R"({"updateAppInfo":{}})"));
    EXPECT_TRUE(client.Get(server.Url("/check"), response, 20000));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, R"({"updateAppInfo":{}})");
  }
  const std::string file = root.At("package");
  {
    OneShotServer server(Reply("200 OK", "payload"));
    EXPECT_TRUE(client.Download(server.Url("/pkg"), file, response, 20000));
    EXPECT_EQ(DE::GetFileSha256Hex(file).size(), 64u);
  }
  {
    OneShotServer server(Reply("404 Not Found", "missing"));
    EXPECT_FALSE(client.Download(server.Url("/pkg"), file, response, 20000));
    EXPECT_EQ(response.status, 404);
    EXPECT_FALSE(DE::FileExists(file));
  }
  EXPECT_FALSE(client.Get("file:///etc/passwd", response, 20000)) << "only http and https";
  HttpUtil::Https_curl_global_free();
}

}  // namespace
