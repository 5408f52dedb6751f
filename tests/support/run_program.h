#pragma once
// Runs a program to its end through the shell and gives what it wrote.
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

namespace tarn::test {

struct RunResult {
  int exitCode = -1;
  std::string output;  // standard output and error together
  bool Has(const std::string& part) const { return output.find(part) != std::string::npos; }
};

inline std::string ShellQuoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

inline RunResult RunProgram(const std::string& path, const std::vector<std::string>& args) {
  std::string command = ShellQuoted(path);
  for (const auto& a : args) command += " " + ShellQuoted(a);
  RunResult result;
  FILE* pipe = ::popen((command + " </dev/null 2>&1").c_str(), "r");
  if (!pipe) return result;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof(buf), pipe)) > 0;) result.output.append(buf, n);
  const int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace tarn::test
