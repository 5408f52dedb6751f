#pragma once
// `tarncore diagnose`: what the platform will make of a machine root
// (TARNCORE_ROOT, default /), found without starting it, each finding with its
// cause and what to do. The container's own readers decide (remote
// configuration, manifests, signatures, service files, scope policy), so this
// and the container agree. Kit libraries are read as files and never loaded.
#include <ostream>
#include <string>
#include <vector>

namespace tarn::diagnose {

enum class Severity {
  kOk,       // checked and fine
  kNote,     // worth knowing, works as it is
  kWarning,  // works, but not as one would expect
  kError,    // something does not work
};

struct Finding {
  Severity severity = Severity::kOk;
  std::string subject;  // "registry", "package com.example.kit", ...
  std::string text;     // what was found and what it causes
  std::string fix;      // what to do; empty when nothing is to be done
};

struct Report {
  std::vector<Finding> findings;
  bool HasErrors() const;
};

struct Options {
  // Also ask whether the service runs and its socket answers.
  bool online = true;
};

Report Run(const Options& options);

// One line per finding: "<SEVERITY> <subject>: <text>[ Fix: <fix>]".
void Print(const Report& report, std::ostream& out);

}  // namespace tarn::diagnose
