// tarncore-hello URI [BODY]: calls the platform once and prints the answer.
#include <json/reader.h>
#include <tarncore/client.h>

#include <iostream>
#include <sstream>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: tarncore-hello URI [BODY]\n";
    return 2;
  }
  Json::Value body(Json::objectValue);
  if (argc > 2) {
    std::istringstream text(argv[2]);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &body, &errors)) {
      std::cerr << "BODY is not JSON: " << errors;
      return 2;
    }
  }
  tarncore::Client client(tarncore::Header{{"client_id", "tarncore-hello"},
                                           {"app_id", "tarncore-hello"},
                                           {"pkg_name", "tarncore-hello"}});
  const tarncore::Response response = client.Call(argv[1], body);
  if (response.clientCode != tarncore::kOk) {
    std::cerr << response.clientCode << " " << tarncore::ClientCodeText(response.clientCode) << "\n";
    return 3;
  }
  std::cout << response.text << "\n";
  return response.Ok() ? 0 : 1;
}
