#pragma once
// Files, keys and child processes for the signature tests.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/security/signature.h"

namespace tarn::test {

inline std::string ReadBytes(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

inline void WriteBytes(const std::string& path, const std::string& bytes, unsigned mode = 0644) {
  if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes)) throw std::runtime_error("cannot write " + path);
  ::chmod(path.c_str(), mode);
}

inline void CopyExecutable(const std::string& from, const std::string& to) { WriteBytes(to, ReadBytes(from), 0755); }

inline security::SigningKey NewKey() {
  auto key = security::SigningKey::Generate();
  if (!key) throw std::runtime_error("key generation failed");
  return std::move(*key);
}

inline void TrustKey(const security::SigningKey& key, security::KeyKind kind, const std::string& name) {
  if (!security::InstallTrustedKey(key.Public(), kind, name)) throw std::runtime_error("cannot trust key");
}

// A child whose standard input is a pipe we hold: closing it ends a "wait" helper.
struct Child {
  pid_t pid = -1;
  int input = -1;
};

// posix_spawn returns once the program is in place, so /proc/<pid>/exe names it.
inline Child Spawn(const std::string& path, const std::vector<std::string>& args) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  Child child{-1, fds[1]};
  int rc = ::posix_spawn(&child.pid, path.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);
  if (rc != 0) throw std::runtime_error("cannot start " + path);
  return child;
}

// Closes the child's input and reaps it; its exit status, or -1.
inline int Finish(Child& child) {
  if (child.input >= 0) ::close(child.input);
  int status = 0;
  bool reaped = child.pid > 0 && ::waitpid(child.pid, &status, 0) == child.pid;
  child = Child{};
  return reaped && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct RunResult {
  int exitCode = -1;
  std::string output;  // standard output and error together
};

// Runs a program through the shell; the tests' paths and arguments hold no quotes.
inline RunResult RunProgram(const std::string& path, const std::vector<std::string>& args) {
  std::string command = "'" + path + "'";
  for (const auto& a : args) command += " '" + a + "'";
  RunResult result;
  FILE* pipe = ::popen((command + " </dev/null 2>&1").c_str(), "r");
  if (!pipe) return result;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof(buf), pipe)) > 0;) result.output.append(buf, n);
  int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace tarn::test
