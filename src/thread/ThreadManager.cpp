#include "thread/ThreadManager.h"

#include <cstdio>
#include <string>

#include "platform/log/tarn_log.h"
#include "platform/os/cancellable_io.h"
#include "platform/os/last_error.h"
#include "platform/os/message_queue.h"

namespace VantrelThread {

namespace {

constexpr std::uint32_t kQuitThreadTimeoutMs = 200;
constexpr std::uint32_t kPlainThreadTimeoutMs = 200;
constexpr std::uint32_t kRemovableThreadTimeoutMs = 1000;
constexpr std::uint32_t kAfterTerminateTimeoutMs = 20;

std::mutex g_instanceMutex;
// Never destroyed: threads the registry gave up on may still look at it while
// the process exits.
ThreadManager* g_instance = nullptr;

// The id as the registry compares and posts it: rendered as text and scanned back.
bool ScanThreadId(const tarn::os::Thread& thread, int* id) {
  std::string text = std::to_string(thread.Id());
  return std::sscanf(text.c_str(), "%d", id) == 1;
}

void CancelBlockingIo(tarn::os::Thread* handle) {
  if (tarn::os::CancelSynchronousIo(handle)) return;
  std::uint32_t error = tarn::os::GetLastError();
  if (error != tarn::os::kErrorNotFound) {
    CLOGI("ThreadManager::WaitAll", "CancelSynchronousIo: " << error);
  }
}

}  // namespace

ThreadManager& ThreadManager::Instance() {
  std::lock_guard<std::mutex> lock(g_instanceMutex);
  if (!g_instance) g_instance = new ThreadManager;
  return *g_instance;
}

void ThreadManager::ResetInstanceForTesting() {
  std::lock_guard<std::mutex> lock(g_instanceMutex);
  delete g_instance;
  g_instance = new ThreadManager;
}

ThreadManager::ThreadManager() : processExitEvent(tarn::os::Event::Create(true, false)) {}

ThreadManager::~ThreadManager() {
  plainThreads.clear();
  quitThreads.clear();
  processExitEvent.reset();
}

ThreadHandle ThreadManager::StartThread(ThreadFunction fn,
                                        const std::shared_ptr<ThreadParam>& param) {
  // The thread keeps its own reference to the parameters, so they outlive an
  // entry that del or the destructor drops.
  return tarn::os::Thread::Start([fn = std::move(fn), param]() { fn(param.get()); });
}

bool ThreadManager::Create(ThreadFunction fn, void* arg, const std::string& name, bool flag) {
  if (tarn::os::WaitForSingle(processExitEvent, 0) == tarn::os::kWaitObject0) return false;
  auto param = std::make_shared<ThreadParam>(arg, name);
  ThreadHandle thread = StartThread(std::move(fn), param);
  if (!thread) return false;
  std::lock_guard<std::mutex> lock(mapsMutex_);
  (flag ? quitThreads : plainThreads).emplace(thread, param);
  return true;
}

bool ThreadManager::CreateRemovable(ThreadFunction fn, void* arg, const std::string& name) {
  if (tarn::os::WaitForSingle(processExitEvent, 0) == tarn::os::kWaitObject0) return false;
  auto param = std::make_shared<ThreadParam>(arg, name);
  ThreadHandle thread = StartThread(std::move(fn), param);
  if (!thread) return false;
  std::lock_guard<std::mutex> lock(mutex);
  removableThreads.emplace(thread, param);
  return true;
}

bool ThreadManager::del(std::uint32_t threadId) {
  std::unique_lock<std::mutex> lock(mutex);
  for (auto it = removableThreads.begin(); it != removableThreads.end(); ++it) {
    int id = 0;
    if (!ScanThreadId(*it->first, &id) || static_cast<std::uint32_t>(id) != threadId) continue;
    it->first->detach();  // std::system_error when it is no longer attached
    removableThreads.erase(it);
    lock.unlock();
    CLOGI("ThreadManager::del", "del delThreadId = " << threadId);
    return true;
  }
  return false;
}

bool ThreadManager::ThreadEndHandle(tarn::os::Thread* handle, std::uint32_t timeoutMs) {
  if (!handle) return true;
  if (tarn::os::WaitForSingle(handle, timeoutMs) == tarn::os::kWaitObject0) return true;
  if (!tarn::os::TerminateThread(handle, 0)) {
    CLOGE("ThreadManager::ThreadEndHandle", "TerminateThread fail error = " << tarn::os::GetLastError());
    return false;
  }
  std::uint32_t result = tarn::os::WaitForSingle(handle, kAfterTerminateTimeoutMs);
  if (result != tarn::os::kWaitObject0) {
    CLOGE("ThreadManager::ThreadEndHandle", "WaitForSingleObject fail exitHandle = " << result);
  }
  return false;
}

void ThreadManager::WaitAll() {
  if (processExitEvent) processExitEvent->Set();

  ThreadMap quit;
  ThreadMap plain;
  {
    std::lock_guard<std::mutex> lock(mapsMutex_);
    quit = quitThreads;
    plain = plainThreads;
  }

  for (auto& [thread, param] : quit) {
    param->running = false;
    int id = 0;
    if (ScanThreadId(*thread, &id)) {
      tarn::os::PostThreadMessage(static_cast<std::uint32_t>(id), tarn::os::kWmQuit, 0, 0);
    }
    CancelBlockingIo(thread->native_handle());
  }
  for (auto& [thread, param] : plain) {
    param->running = false;
    CancelBlockingIo(thread->native_handle());
  }

  auto endThread = [this](const ThreadHandle& thread, const ThreadParam& param,
                          std::uint32_t timeoutMs) {
    if (!ThreadEndHandle(thread->native_handle(), timeoutMs)) {
      CLOGW("ThreadManager::WaitAll", "ExitThread failed! thread entry function: " << param.name);
    }
    thread->detach();  // std::system_error when it is no longer attached
  };
  for (auto& [thread, param] : quit) endThread(thread, *param, kQuitThreadTimeoutMs);
  for (auto& [thread, param] : plain) endThread(thread, *param, kPlainThreadTimeoutMs);

  // Loader threads are neither told nor cancelled: processExitEvent is their only signal.
  std::lock_guard<std::mutex> lock(mutex);
  for (auto& [thread, param] : removableThreads) {
    if (thread->native_handle()) endThread(thread, *param, kRemovableThreadTimeoutMs);
  }
}

}  // namespace VantrelThread
