#include <curl/curl.h>

#include "platform/ev/tarncore_ev.h"

namespace tarn::ev {
namespace {

// The service's answer carries nothing the library uses.
size_t Discard(char* /*data*/, size_t size, size_t count, void* /*user*/) { return size * count; }

}  // namespace

bool CurlTransport::Post(const std::string& url, const std::string& body) {
  CURL* curl = curl_easy_init();
  if (!curl) return false;
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_POST, 1L);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Discard);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 5000L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 15000L);
  // Signals can't time out a resolver on a thread that isn't the main one.
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  long code = 0;
  const bool sent = curl_easy_perform(curl) == CURLE_OK &&
                    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK;
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return sent && code >= 200 && code < 300;
}

}  // namespace tarn::ev
