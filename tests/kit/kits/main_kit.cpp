// A kit for the tests: good answers, the bad ones a kit can give, and the
// system events.
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "tarnkit/tarn_kit.h"

// From the library beside the kit.
extern "C" const char* TestKitEchoKey();

namespace {

std::mutex g_mutex;
TarnKitCallback g_broadcast;

void Answer(const TarnKitCallback& callback, std::string text) { callback(text.data()); }

// The value of "syncMessageId" in the header text the container passes.
std::string SyncMessageId(const char* header) {
  const std::string text = header ? header : "";
  const std::string key = "\"syncMessageId\"";
  std::size_t at = text.find(key);
  if (at == std::string::npos) return "";
  at = text.find('"', text.find(':', at + key.size()) + 1);
  const std::size_t end = text.find('"', at + 1);
  return text.substr(at + 1, end - at - 1);
}

std::string LateAnswer(const std::string& id, const std::string& note) {
  return "{\"header\":{\"syncMessageId\":\"" + id +
         "\",\"status_code\":\"0\",\"error_code\":\"0\",\"error_reason\":\"success\"},"
         "\"body\":{\"late\":\"" + note + "\"}}";
}

// Broadcasts a notify message through the callback the entry function was given.
void Tell(const std::string& notifyMsg) {
  TarnKitCallback broadcast;
  {
    std::lock_guard lock(g_mutex);
    broadcast = g_broadcast;
  }
  Answer(broadcast, "{\"header\":{\"action\":\"test\"},\"notifyMsg\":" + notifyMsg + "}");
}

// Answers from a thread of the kit's own once the api function has returned.
void Later(std::function<void()> work) {
  std::thread([work = std::move(work)] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    work();
  }).detach();
}

}  // namespace

TARN_KIT_API void Init(TarnKitCallback broadcast) {
  std::lock_guard lock(g_mutex);
  g_broadcast = std::move(broadcast);
}

TARN_KIT_API void Echo(const char*, const char* body, TarnKitCallback callback) {
  Answer(callback, std::string("{\"") + TestKitEchoKey() + "\":" + (body && *body ? body : "{}") + "}");
}

TARN_KIT_API void Late(const char* header, const char*, TarnKitCallback callback) {
  const std::string id = SyncMessageId(header);
  Later([id, callback] { Answer(callback, LateAnswer(id, "once")); });
}

TARN_KIT_API void Never(const char*, const char*, TarnKitCallback) {}

TARN_KIT_API void NotJson(const char*, const char*, TarnKitCallback callback) {
  Answer(callback, "this is no JSON, \"syncMessageId\" or not");
}

TARN_KIT_API void UnknownId(const char*, const char*, TarnKitCallback callback) {
  Answer(callback, LateAnswer("424242", "unknown"));
}

TARN_KIT_API void Twice(const char*, const char*, TarnKitCallback callback) {
  Answer(callback, "{\"answer\":1}");
  Answer(callback, "{\"answer\":2}");
}

TARN_KIT_API void TwiceLate(const char* header, const char*, TarnKitCallback callback) {
  const std::string id = SyncMessageId(header);
  Later([id, callback] {
    Answer(callback, LateAnswer(id, "first"));
    Answer(callback, LateAnswer(id, "second"));
    Answer(callback, "{\"answer\":\"third, without the id\"}");
  });
}

TARN_KIT_API void Throw(const char*, const char*, TarnKitCallback) {
  throw std::runtime_error("a kit that throws");
}

// System events, told to the test through the broadcast callback the entry
// function was given, with their two texts.
TARN_KIT_API void OnWinSessionChanged(const char* header, const char* body, TarnKitCallback notify) {
  Tell(std::string("{\"session\":[\"") + header + "\",\"" + body + "\"]}");
  Answer(notify, "{}");
}

TARN_KIT_API void OnWinNetworkChanged(const char* header, const char* body, TarnKitCallback notify) {
  Tell(std::string("{\"network\":[\"") + header + "\",\"" + body + "\"]}");
  Answer(notify, "{}");
}
