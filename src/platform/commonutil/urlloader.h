#pragma once
// UrlLoader of the utility library: the address book of the cloud services,
// <install>/config/service_urls.json = {"<service name>": {"<key>": "<url>"}}.
#include <string>

class UrlLoader {
 public:
  // Fills url with the entry key of service name. False (url untouched) when
  // the book, the service or the key is absent, or the value is not a text.
  static bool GetServiceUrl(const std::string& name, std::string& url,
                            const std::string& key = "ROOT");
  // The book's file; "" restores <install directory>config/service_urls.json.
  static void SetAddressBookPath(const std::string& path);
  static std::string AddressBookPath();
};
