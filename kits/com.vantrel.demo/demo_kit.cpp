// The demo kit: what a kit can do across the plug-in border.
//
//   Echo       answers inside the call with {"echo": <body>}
//   Late       answers from the kit's own thread after body.delayMs (default
//              100 ms), carrying the request's syncMessageId
//   Broadcast  sends {"header":{"action":"com.vantrel.demo.broadcast"},
//              "notifyMsg": <body>} to every client, then answers
//   LastEvent  tells which system events reached the kit
//   OnWinSessionChanged, OnWinNetworkChanged   the system events
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "tarnkit/tarn_kit.h"

namespace {

using Clock = std::chrono::steady_clock;

Json::Value Parse(const char* text) {
  Json::Value root;
  if (!text || !*text) return root;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream stream(text);
  if (!Json::parseFromStream(builder, stream, &root, &errors)) return Json::Value();
  return root;
}

std::string Render(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

void Answer(const TarnKitCallback& callback, std::string text) {
  if (callback) callback(text.data());
}

// Answers that are due later, given from one thread of the kit's own.
class LateAnswers {
 public:
  void Start() {
    std::call_once(started_, [this] { std::thread([this] { Run(); }).detach(); });
  }

  void Post(Clock::time_point due, std::string text, TarnKitCallback callback) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(Job{due, std::move(text), std::move(callback)});
      std::sort(jobs_.begin(), jobs_.end(), [](const Job& a, const Job& b) { return a.due < b.due; });
    }
    wake_.notify_one();
  }

 private:
  struct Job {
    Clock::time_point due;
    std::string text;
    TarnKitCallback callback;
  };

  void Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (jobs_.empty()) {
        wake_.wait(lock);
        continue;
      }
      if (Clock::now() < jobs_.front().due) {
        wake_.wait_until(lock, jobs_.front().due);
        continue;
      }
      Job job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      Answer(job.callback, std::move(job.text));
      lock.lock();
    }
  }

  std::once_flag started_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;
};

// Never destroyed: the answering thread runs until the process ends.
LateAnswers& LateQueue() {
  static auto* late = new LateAnswers;
  return *late;
}

struct KitState {
  std::mutex mutex;
  TarnKitCallback broadcast;
  std::uint64_t sessionEvents = 0;
  std::uint64_t networkEvents = 0;
  std::string lastSessionType;
  std::string lastSessionId;
  std::string lastNetworkStatus;
};

KitState& State() {
  static auto* state = new KitState;
  return *state;
}

std::string BodyText(const char* body) { return body && *body ? body : "{}"; }

}  // namespace

TARN_KIT_API void Init(TarnKitCallback broadcast) {
  {
    std::lock_guard lock(State().mutex);
    State().broadcast = std::move(broadcast);
  }
  LateQueue().Start();
}

TARN_KIT_API void Echo(const char*, const char* body, TarnKitCallback callback) {
  Answer(callback, "{\"echo\":" + BodyText(body) + "}");
}

TARN_KIT_API void Late(const char* header, const char* body, TarnKitCallback callback) {
  // The texts live only until this returns: take what the answer needs now.
  const Json::Value request = Parse(header);
  const Json::Value content = Parse(body);
  int delayMs = 100;
  const Json::Value& delay = content.isObject() ? content["delayMs"] : Json::Value::nullSingleton();
  if (delay.isNumeric()) delayMs = std::clamp(delay.asInt(), 0, 60000);

  Json::Value answer;
  Json::Value& head = answer["header"];
  head["syncMessageId"] = request.isObject() ? request["syncMessageId"].asString() : "";
  head["api_name"] = request.isObject() ? request["api_name"].asString() : "";
  head["srv_name"] = request.isObject() ? request["srv_name"].asString() : "";
  head["status_code"] = "0";
  head["error_code"] = "0";
  head["error_reason"] = "success";
  head["resolution"] = "";
  answer["body"]["late"] = content;
  answer["body"]["delayMs"] = delayMs;
  LateQueue().Post(Clock::now() + std::chrono::milliseconds(delayMs), Render(answer), std::move(callback));
}

TARN_KIT_API void Broadcast(const char*, const char* body, TarnKitCallback callback) {
  TarnKitCallback broadcast;
  {
    std::lock_guard lock(State().mutex);
    broadcast = State().broadcast;
  }
  if (!broadcast) {
    Answer(callback, "{\"broadcast\":\"unavailable\"}");
    return;
  }
  Answer(broadcast, "{\"header\":{\"action\":\"com.vantrel.demo.broadcast\"},\"notifyMsg\":" +
                        BodyText(body) + "}");
  Answer(callback, "{\"broadcast\":\"sent\"}");
}

TARN_KIT_API void LastEvent(const char*, const char*, TarnKitCallback callback) {
  Json::Value answer;
  {
    KitState& state = State();
    std::lock_guard lock(state.mutex);
    answer["sessionEvents"] = Json::UInt64(state.sessionEvents);
    answer["lastSessionType"] = state.lastSessionType;
    answer["lastSessionId"] = state.lastSessionId;
    answer["networkEvents"] = Json::UInt64(state.networkEvents);
    answer["lastNetworkStatus"] = state.lastNetworkStatus;
  }
  Answer(callback, Render(answer));
}

// Event texts are decimal numbers, not JSON: the event type and the session id.
TARN_KIT_API void OnWinSessionChanged(const char* eventType, const char* sessionId,
                                      TarnKitCallback callback) {
  {
    KitState& state = State();
    std::lock_guard lock(state.mutex);
    ++state.sessionEvents;
    state.lastSessionType = eventType ? eventType : "";
    state.lastSessionId = sessionId ? sessionId : "";
  }
  Answer(callback, "{}");
}

// 0 connected, -1 not connected.
TARN_KIT_API void OnWinNetworkChanged(const char* status, const char*, TarnKitCallback callback) {
  {
    KitState& state = State();
    std::lock_guard lock(state.mutex);
    ++state.networkEvents;
    state.lastNetworkStatus = status ? status : "";
  }
  Answer(callback, "{}");
}
