#pragma once
// HttpUtil of the utility library, on libcurl: the process-wide set-up and
// tear-down, and small GET/POST/download helpers. The helpers go through a
// replaceable HttpClient so that logic built on them is tested without a network.
#include <cstdint>
#include <string>

namespace tarn::http {

struct HttpResponse {
  long status = 0;     // HTTP status; 0 when no answer came
  std::string header;  // the header lines as received, status line and CRLFs included
  std::string body;
  std::string error;   // libcurl's text when the transfer failed
};

class HttpClient {
 public:
  virtual ~HttpClient() = default;
  // True when the transfer completed with a 2xx status.
  virtual bool Get(const std::string& url, HttpResponse& response, std::uint32_t timeoutMs) = 0;
  virtual bool Post(const std::string& url, const std::string& body, const std::string& contentType,
                    HttpResponse& response, std::uint32_t timeoutMs) = 0;
  // Writes the body to path (replaced); a failed transfer leaves no file behind.
  virtual bool Download(const std::string& url, const std::string& path, HttpResponse& response,
                        std::uint32_t timeoutMs) = 0;
};

// libcurl easy transfers: TLS verified, redirects followed, HTTP(S) only.
class CurlHttpClient : public HttpClient {
 public:
  bool Get(const std::string& url, HttpResponse& response, std::uint32_t timeoutMs) override;
  bool Post(const std::string& url, const std::string& body, const std::string& contentType,
            HttpResponse& response, std::uint32_t timeoutMs) override;
  bool Download(const std::string& url, const std::string& path, HttpResponse& response,
                std::uint32_t timeoutMs) override;
};

// The process-wide client; tests install their own (nullptr restores libcurl).
HttpClient& GetHttpClient();
void SetHttpClientForTesting(HttpClient* client);

}  // namespace tarn::http

class HttpUtil {
 public:
  // curl_global_init(CURL_GLOBAL_DEFAULT) / curl_global_cleanup: once at the
  // start of main and once at its end. After the free no transfer starts (it
  // fails at once), running ones stop at their next progress call, and the
  // cleanup waits for the last of them to leave.
  static bool Https_curl_global_init();
  static void Https_curl_global_free();

  // Shorthands over the installed client.
  static bool HttpGet(const std::string& url, tarn::http::HttpResponse& response,
                      std::uint32_t timeoutMs = 30000);
  static bool HttpPost(const std::string& url, const std::string& body,
                       const std::string& contentType, tarn::http::HttpResponse& response,
                       std::uint32_t timeoutMs = 30000);
  static bool HttpDownload(const std::string& url, const std::string& path,
                           tarn::http::HttpResponse& response, std::uint32_t timeoutMs = 300000);
};
