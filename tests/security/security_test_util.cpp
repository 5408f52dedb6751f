#include "security_test_util.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

extern char** environ;

namespace tarn::test {

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteBytes(const std::string& path, const std::string& bytes, unsigned mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
  }
  ::chmod(path.c_str(), mode);
}

void CopyExecutable(const std::string& from, const std::string& to) { WriteBytes(to, ReadBytes(from), 0755); }

security::SigningKey NewKey() {
  auto key = security::SigningKey::Generate();
  if (!key) throw std::runtime_error("key generation failed");
  return std::move(*key);
}

void TrustKey(const security::SigningKey& key, security::KeyKind kind, const std::string& name) {
  if (!security::InstallTrustedKey(key.Public(), kind, name)) throw std::runtime_error("cannot trust key");
}

namespace {

std::vector<char*> Argv(const std::string& path, const std::vector<std::string>& args) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  return argv;
}

int WaitStatus(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Child Spawn(const std::string& path, const std::vector<std::string>& args) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  auto argv = Argv(path, args);
  Child child;
  int rc = ::posix_spawn(&child.pid, path.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);
  if (rc != 0) {
    ::close(fds[1]);
    throw std::runtime_error("cannot start " + path);
  }
  child.input = fds[1];
  return child;
}

int Finish(Child& child) {
  if (child.input >= 0) ::close(child.input);
  child.input = -1;
  int status = child.pid > 0 ? WaitStatus(child.pid) : -1;
  child.pid = -1;
  return status;
}

RunResult RunProgram(const std::string& path, const std::vector<std::string>& args) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  auto argv = Argv(path, args);
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  RunResult result;
  if (rc != 0) {
    ::close(fds[0]);
    return result;
  }
  char buf[4096];
  ssize_t n;
  while ((n = ::read(fds[0], buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) result.output.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fds[0]);
  result.exitCode = WaitStatus(pid);
  return result;
}

}  // namespace tarn::test
