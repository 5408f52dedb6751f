#include "platform/commonutil/httputil.h"

#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <unistd.h>

namespace tarn::http {
namespace {

std::atomic<HttpClient*> g_client{nullptr};

// main frees the library while workers may still be in a transfer. From then
// on no transfer starts, those running stop at their next progress call, and
// the last one to leave frees the library.
struct LibraryState {
  std::mutex mutex;
  int transfers = 0;
  bool cleanupOwed = false;
  std::atomic<bool> closing{false};
};

LibraryState& Library() {
  static auto* state = new LibraryState;  // workers may outlive main's statics
  return *state;
}

class Transfer {
 public:
  Transfer() {
    LibraryState& lib = Library();
    std::lock_guard lock(lib.mutex);
    open_ = !lib.closing.load();
    if (open_) ++lib.transfers;
  }
  ~Transfer() {
    if (!open_) return;
    LibraryState& lib = Library();
    std::lock_guard lock(lib.mutex);
    if (--lib.transfers == 0 && lib.cleanupOwed) {
      lib.cleanupOwed = false;
      curl_global_cleanup();
    }
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  bool Open(HttpResponse& response) const {
    if (!open_) response.error = "the HTTP library is shut down";
    return open_;
  }

 private:
  bool open_ = false;
};

int StopWhenClosing(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return Library().closing.load() ? 1 : 0;
}

size_t AppendToString(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

size_t WriteToFile(char* data, size_t size, size_t count, void* target) {
  return std::fwrite(data, size, count, static_cast<FILE*>(target)) * size;
}

// One easy transfer with the common options; the caller sets the sink.
bool Perform(CURL* curl, const std::string& url, std::uint32_t timeoutMs, HttpResponse& response) {
  char error[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeoutMs < 15000 ? timeoutMs : 15000));
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &StopWhenClosing);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &AppendToString);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response.header);
#if LIBCURL_VERSION_NUM >= 0x075500
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#endif
  const CURLcode code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  if (code != CURLE_OK) {
    response.error = error[0] ? error : curl_easy_strerror(code);
    return false;
  }
  return response.status >= 200 && response.status < 300;
}

struct EasyHandle {
  EasyHandle() : curl(curl_easy_init()) {}
  ~EasyHandle() {
    if (curl) curl_easy_cleanup(curl);
  }
  CURL* curl;
};

}  // namespace

bool CurlHttpClient::Get(const std::string& url, HttpResponse& response, std::uint32_t timeoutMs) {
  response = HttpResponse{};
  Transfer transfer;  // made first, so the easy handle is cleaned up before it
  if (!transfer.Open(response)) return false;
  EasyHandle easy;
  if (!easy.curl) return false;
  curl_easy_setopt(easy.curl, CURLOPT_WRITEFUNCTION, &AppendToString);
  curl_easy_setopt(easy.curl, CURLOPT_WRITEDATA, &response.body);
  return Perform(easy.curl, url, timeoutMs, response);
}

bool CurlHttpClient::Post(const std::string& url, const std::string& body,
                          const std::string& contentType, HttpResponse& response,
                          std::uint32_t timeoutMs) {
  response = HttpResponse{};
  Transfer transfer;
  if (!transfer.Open(response)) return false;
  EasyHandle easy;
  if (!easy.curl) return false;
  const std::string header = "Content-Type: " + contentType;
  curl_slist* headers = curl_slist_append(nullptr, header.c_str());
  curl_easy_setopt(easy.curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy.curl, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(easy.curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(easy.curl, CURLOPT_WRITEFUNCTION, &AppendToString);
  curl_easy_setopt(easy.curl, CURLOPT_WRITEDATA, &response.body);
  const bool ok = Perform(easy.curl, url, timeoutMs, response);
  curl_slist_free_all(headers);
  return ok;
}

bool CurlHttpClient::Download(const std::string& url, const std::string& path,
                              HttpResponse& response, std::uint32_t timeoutMs) {
  response = HttpResponse{};
  Transfer transfer;
  if (!transfer.Open(response)) return false;
  EasyHandle easy;
  if (!easy.curl) return false;
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) {
    response.error = "cannot create " + path;
    return false;
  }
  curl_easy_setopt(easy.curl, CURLOPT_WRITEFUNCTION, &WriteToFile);
  curl_easy_setopt(easy.curl, CURLOPT_WRITEDATA, file);
  bool ok = Perform(easy.curl, url, timeoutMs, response);
  if (std::fclose(file) != 0) ok = false;
  if (!ok) ::unlink(path.c_str());
  return ok;
}

HttpClient& GetHttpClient() {
  // Never destroyed: workers that outlive main may still ask for it.
  static auto* real = new CurlHttpClient;
  HttpClient* installed = g_client.load(std::memory_order_acquire);
  return installed ? *installed : *real;
}

void SetHttpClientForTesting(HttpClient* client) { g_client.store(client, std::memory_order_release); }

}  // namespace tarn::http

bool HttpUtil::Https_curl_global_init() {
  auto& lib = tarn::http::Library();
  std::lock_guard lock(lib.mutex);
  lib.closing = false;
  return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
}

void HttpUtil::Https_curl_global_free() {
  auto& lib = tarn::http::Library();
  std::lock_guard lock(lib.mutex);
  lib.closing = true;
  if (lib.transfers == 0) {
    curl_global_cleanup();
  } else {
    lib.cleanupOwed = true;
  }
}

bool HttpUtil::HttpGet(const std::string& url, tarn::http::HttpResponse& response,
                       std::uint32_t timeoutMs) {
  return tarn::http::GetHttpClient().Get(url, response, timeoutMs);
}

bool HttpUtil::HttpPost(const std::string& url, const std::string& body,
                        const std::string& contentType, tarn::http::HttpResponse& response,
                        std::uint32_t timeoutMs) {
  return tarn::http::GetHttpClient().Post(url, body, contentType, response, timeoutMs);
}

bool HttpUtil::HttpDownload(const std::string& url, const std::string& path,
                            tarn::http::HttpResponse& response, std::uint32_t timeoutMs) {
  return tarn::http::GetHttpClient().Download(url, path, response, timeoutMs);
}
