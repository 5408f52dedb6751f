#pragma once
// TarnCore client library: calls the TarnCore platform from an application on
// the same machine, and hears the platform's broadcasts.
//
// Building against it:
//   CMake:       find_package(TarnCoreClient CONFIG REQUIRED)
//                target_link_libraries(app PRIVATE TarnCore::client)
//   pkg-config:  pkg-config --cflags --libs tarncore-client
// Request bodies and parsed responses are jsoncpp values, so the application
// also needs jsoncpp's headers: Debian package libjsoncpp-dev (the library
// itself comes with libjsoncpp25). Like the platform and its kits, build with
// Debian's g++ and libstdc++: std::string and std::function cross this border.
//
// The platform. TarnCoreService keeps the TarnCoreContainer process running;
// the container listens on the Unix socket $TARNCORE_ROOT/run/tarncore/ipc.sock
// (TARNCORE_ROOT defaults to "/"; set it to talk to a platform run under
// another machine root). A request is one JSON text,
//   {"header":{"api_name":"<Kit>.<Api>","srv_name":"<Kit>",...},"body":{...}}
// and the container answers each one once, with
//   {"header":{"status_code":"0","error_reason":"success",...},"body":{...}}
// The container checks who calls: the calling program must carry a signature
// by a key the machine trusts (tarncore-sign), and the machine's scope policy
// must list the request's client_id with the fingerprint of that key.
// Otherwise the answer has status_code "907135004" ("API is illegal. ").
//
// Two kinds of failure.
//  - The platform's: a response arrived and its header.status_code isn't "0"
//    (Response::StatusCode; the texts are in header.error_reason).
//  - The library's own: no usable response, Response::clientCode is one of
//    9000 to 9005 (ClientCode), with the texts of ClientCodeText.
//
// Threads. One Client may be used from several threads at once; calls from
// several threads run at the same time over its one connection. The handler
// of an asynchronous call runs on a thread of its own; broadcast handlers run
// one after the other on one thread of the library. A handler must not
// destroy its Client. Destroying a Client waits for the handlers of its
// asynchronous calls, each of which comes by its call's time-out at the latest.
//
// Time-outs are in milliseconds and must be positive. A call never waits
// longer than its time-out for its answer; a container that goes away
// during a call ends the call at once with kResponseError.
#include <json/value.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#define TARNCORE_CLIENT_API __attribute__((visibility("default")))

namespace tarncore {

// The library's own failures, as the platform's status table numbers them.
enum ClientCode : int {
  kOk = 0,
  kDataFormatError = 9000,  // "data format is error." the request could not be formed
  kServiceNotUsed = 9001,   // "TarnCoreService is not usered." the container can't be reached
  kResponseError = 9002,    // "TarnCoreService resonse error." the connection ended before the
                            //   answer, or the answer is not JSON
  kTimeout = 9003,          // "Sending Message is TimeOut." no answer within the time-out
  kBadTimeout = 9004,       // "Input param timeout is error." the time-out is not positive
  kInnerError = 9005,       // "basesdk inner error." the library ran out of resources
};

// The text of a client code ("success" for 0, "" for a number that isn't one).
TARNCORE_CLIENT_API const char* ClientCodeText(int code);

// Header values of a request; every value travels as a JSON string.
using Header = std::map<std::string, std::string>;

struct TARNCORE_CLIENT_API Response {
  int clientCode = kOk;  // kOk when a response arrived
  std::string text;      // the response as it came (also when it isn't JSON)
  Json::Value json;      // text parsed; null unless clientCode is kOk

  // header.status_code of the response, "" when there is none.
  std::string StatusCode() const;
  // A response arrived and its status_code is "0".
  bool Ok() const;
};

class TARNCORE_CLIENT_API Client {
 public:
  static constexpr int kDefaultTimeoutMs = 5000;

  // defaults: header values of every request this client sends, above the
  // library's own and below a call's header argument. An application sets
  // at least its identity here: client_id (the key of the scope policy),
  // app_id and pkg_name. The library's own values: version "1.0",
  // srv_name the uri up to its first '.', api_name the uri, sdk_version and
  // kitSdkVersion "1.0.0", apiLevel "1", session_id random per client,
  // transaction_id random per call.
  explicit Client(Header defaults = {});
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Connects to the container now; calls connect by themselves when needed,
  // and after the container restarted the next call connects again. Returns
  // kOk or kServiceNotUsed. A listener that lost its connection (IsConnected
  // false) calls Connect to hear broadcasts again.
  int Connect();
  bool IsConnected() const;

  // Sends a request for uri ("<Kit>.<Api>") with body and waits for its answer.
  Response Call(const std::string& uri, const Json::Value& body = Json::Value(Json::objectValue),
                const Header& header = {}, int timeoutMs = kDefaultTimeoutMs);
  // Sends text as the whole request, exactly as given, and waits for its answer.
  Response Send(const std::string& text, int timeoutMs = kDefaultTimeoutMs);

  // Call without waiting: done receives the response (or the client code)
  // exactly once, on a thread of the library.
  using ResponseHandler = std::function<void(const Response&)>;
  void CallAsync(const std::string& uri, const Json::Value& body, const Header& header, int timeoutMs,
                 ResponseHandler done);

  // Hands each broadcast of the container (a JSON text, as the container or a
  // kit sent it) to handler, on a thread of the library, until StopListening
  // or the end of the client. A second Listen replaces the handler. Returns
  // kOk or kServiceNotUsed.
  using BroadcastHandler = std::function<void(const std::string& text)>;
  int Listen(BroadcastHandler handler);
  // No handler runs after it returns (unless called from the handler itself).
  void StopListening();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarncore
