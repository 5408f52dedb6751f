#include "platform/os/thread_context.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <unordered_map>

namespace tarn::os::detail {

namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_map<std::uint32_t, std::shared_ptr<ThreadContext>> contexts;
};

// Never destroyed: abandoned threads may still post or read during the
// static destructors at exit.
Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

void Unregister(const std::shared_ptr<ThreadContext>& context) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.contexts.find(context->id);
  if (it != r.contexts.end() && it->second == context) r.contexts.erase(it);
}

struct Holder {
  std::shared_ptr<ThreadContext> context;
  ~Holder() {
    if (!context) return;
    Unregister(context);
    context->ended.Set();
  }
};

thread_local Holder t_holder;

}  // namespace

ThreadContext::ThreadContext() : cancelFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ThreadContext::~ThreadContext() {
  if (cancelFd >= 0) ::close(cancelFd);
}

std::shared_ptr<ThreadContext> CurrentContext() {
  if (!t_holder.context) {
    auto context = std::make_shared<ThreadContext>();
    context->id = GetCurrentThreadId();
    Registry& r = TheRegistry();
    {
      std::lock_guard<std::mutex> lock(r.mutex);
      r.contexts[context->id] = context;
    }
    t_holder.context = std::move(context);
  }
  return t_holder.context;
}

std::shared_ptr<ThreadContext> FindContext(std::uint32_t id) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.contexts.find(id);
  return it == r.contexts.end() ? nullptr : it->second;
}

void EndCurrentThread() {
  if (!t_holder.context) return;
  Unregister(t_holder.context);
  t_holder.context->ended.Set();
}

}  // namespace tarn::os::detail
