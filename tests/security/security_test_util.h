#pragma once
// Files, keys and child processes for the signature tests.
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/security/signature.h"

namespace tarn::test {

std::string ReadBytes(const std::string& path);
void WriteBytes(const std::string& path, const std::string& bytes, unsigned mode = 0644);
// Copies a file, keeping it executable.
void CopyExecutable(const std::string& from, const std::string& to);

security::SigningKey NewKey();
void TrustKey(const security::SigningKey& key, security::KeyKind kind, const std::string& name);

// A child whose standard input is a pipe we hold: closing it ends a "wait" helper.
struct Child {
  pid_t pid = -1;
  int input = -1;
};
Child Spawn(const std::string& path, const std::vector<std::string>& args);
// Closes the child's input and reaps it; its exit status, or -1.
int Finish(Child& child);

struct RunResult {
  int exitCode = -1;
  std::string output;  // standard output and error together
};
RunResult RunProgram(const std::string& path, const std::vector<std::string>& args);

}  // namespace tarn::test
