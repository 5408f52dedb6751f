// tarncore-sign: keys, appended signatures and fingerprints from the command line.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/os/places.h"
#include "platform/security/signature.h"

namespace ts = tarn::security;

namespace {

// Exit codes.
constexpr int kOk = 0;
constexpr int kRejected = 1;  // a file is unsigned, tampered with or untrusted
constexpr int kUsage = 2;
constexpr int kFailure = 3;  // missing or unreadable file, bad key, write error

constexpr char kHelp[] =
    "Usage: tarncore-sign COMMAND ...\n"
    "\n"
    "  keygen [--force] PRIVATE PUBLIC\n"
    "      Makes an Ed25519 key pair: PRIVATE as a PEM file (mode 0600), PUBLIC as the\n"
    "      64 hex digits a trusted-keys/*.pub file holds. Existing files are kept\n"
    "      unless --force is given.\n"
    "  pubkey PRIVATE PUBLIC\n"
    "      Writes the public key of PRIVATE (PEM or 64 hex digits) as a .pub file\n"
    "      and prints its fingerprint.\n"
    "  sign --key PRIVATE FILE...\n"
    "      Appends a signature to each FILE, replacing one that is there. PRIVATE is\n"
    "      a PEM Ed25519 key or a 32-byte seed as 64 hex digits.\n"
    "  verify [--maker] FILE...\n"
    "      Succeeds when every FILE carries a valid signature by a key trusted in the\n"
    "      machine root ($TARNCORE_ROOT, default /): a platform or maker key, or with\n"
    "      --maker a maker key only.\n"
    "  fingerprint FILE\n"
    "      Prints the fingerprint of FILE's signer, or of the key when FILE is a\n"
    "      .pub file: SHA-256 of the public key, in upper-case hex. Scope policies\n"
    "      know clients by it.\n"
    "  trust [--platform] [--name NAME] PUBLIC\n"
    "      Installs the public key file PUBLIC into the machine root's trust store,\n"
    "      as a maker key (trusted-keys/maker/NAME.pub) or with --platform as a\n"
    "      platform key (trusted-keys/NAME.pub). NAME defaults to PUBLIC's file name.\n"
    "\n"
    "Exit status: 0 success, 1 a file failed verification, 2 usage error,\n"
    "3 a file or key could not be read or written.\n";

int Usage(const char* why) {
  std::fprintf(stderr, "tarncore-sign: %s\nTry 'tarncore-sign --help'.\n", why);
  return kUsage;
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

// A failure to read the file itself is a different matter from a bad signature.
int CodeFor(ts::Status status) {
  switch (status) {
    case ts::Status::kValid: return kOk;
    case ts::Status::kUnreadable:
    case ts::Status::kNotRegularFile: return kFailure;
    default: return kRejected;
  }
}

// Writes key's public half as a trusted-keys .pub file and prints its fingerprint.
int WritePublic(const ts::SigningKey& key, const std::string& path) {
  std::FILE* out = std::fopen(path.c_str(), "we");
  std::string hex = ts::KeyToHex(key.Public()) + "\n";
  bool ok = out && std::fwrite(hex.data(), 1, hex.size(), out) == hex.size();
  if (out) ok = (std::fclose(out) == 0) && ok;
  if (!ok) {
    std::fprintf(stderr, "tarncore-sign: %s: cannot write: %s\n", path.c_str(), std::strerror(errno));
    return kFailure;
  }
  std::printf("%s\n", ts::Fingerprint(key.Public()).c_str());
  return kOk;
}

int Keygen(const std::vector<std::string>& args) {
  bool force = false;
  std::vector<std::string> files;
  for (const auto& a : args) {
    if (a == "--force") {
      force = true;
    } else if (a.rfind("--", 0) == 0) {
      return Usage(("keygen: unknown option " + a).c_str());
    } else {
      files.push_back(a);
    }
  }
  if (files.size() != 2) return Usage("keygen needs PRIVATE and PUBLIC");
  for (const auto& f : files) {
    if (!force && Exists(f)) {
      std::fprintf(stderr, "tarncore-sign: %s exists; use --force to replace it\n", f.c_str());
      return kFailure;
    }
  }
  auto key = ts::SigningKey::Generate();
  if (!key) {
    std::fprintf(stderr, "tarncore-sign: cannot generate a key\n");
    return kFailure;
  }
  std::string error;
  if (!key->SavePem(files[0], &error)) {
    std::fprintf(stderr, "tarncore-sign: %s: %s\n", files[0].c_str(), error.c_str());
    return kFailure;
  }
  return WritePublic(*key, files[1]);
}

int Pubkey(const std::vector<std::string>& args) {
  if (args.size() != 2 || args[0].rfind("--", 0) == 0 || args[1].rfind("--", 0) == 0) {
    return Usage("pubkey needs PRIVATE and PUBLIC");
  }
  std::string error;
  auto key = ts::SigningKey::Load(args[0], &error);
  if (!key) {
    std::fprintf(stderr, "tarncore-sign: %s: bad key: %s\n", args[0].c_str(), error.c_str());
    return kFailure;
  }
  return WritePublic(*key, args[1]);
}

int Sign(const std::vector<std::string>& args) {
  std::string keyPath;
  std::vector<std::string> files;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--key") {
      if (i + 1 >= args.size()) return Usage("sign: --key needs a file");
      keyPath = args[++i];
    } else if (args[i].rfind("--key=", 0) == 0) {
      keyPath = args[i].substr(6);
    } else if (args[i].rfind("--", 0) == 0) {
      return Usage(("sign: unknown option " + args[i]).c_str());
    } else {
      files.push_back(args[i]);
    }
  }
  if (keyPath.empty()) return Usage("sign needs --key PRIVATE");
  if (files.empty()) return Usage("sign needs at least one FILE");
  std::string error;
  auto key = ts::SigningKey::Load(keyPath, &error);
  if (!key) {
    std::fprintf(stderr, "tarncore-sign: %s: bad key: %s\n", keyPath.c_str(), error.c_str());
    return kFailure;
  }
  int rc = kOk;
  for (const auto& f : files) {
    if (!ts::SignFile(f, *key, &error)) {
      std::fprintf(stderr, "tarncore-sign: %s: %s\n", f.c_str(), error.c_str());
      rc = kFailure;
    }
  }
  return rc;
}

int Verify(const std::vector<std::string>& args) {
  ts::Trust trust = ts::Trust::kPlatformOrMaker;
  std::vector<std::string> files;
  for (const auto& a : args) {
    if (a == "--maker") {
      trust = ts::Trust::kMakerOnly;
    } else if (a.rfind("--", 0) == 0) {
      return Usage(("verify: unknown option " + a).c_str());
    } else {
      files.push_back(a);
    }
  }
  if (files.empty()) return Usage("verify needs at least one FILE");
  const ts::TrustStore store = ts::TrustStore::Load();
  int rc = kOk;
  for (const auto& f : files) {
    ts::Inspection r = ts::InspectFile(f);
    if (r.status == ts::Status::kValid && !store.Trusts(r.signer, trust)) r.status = ts::Status::kUntrusted;
    if (r.status == ts::Status::kValid) {
      const char* kind = store.Trusts(r.signer, ts::Trust::kMakerOnly) ? "maker" : "platform";
      std::printf("%s: OK (%s key %s)\n", f.c_str(), kind, ts::Fingerprint(r.signer).c_str());
      continue;
    }
    std::string why = ts::StatusText(r.status);
    if (r.status == ts::Status::kUnreadable && !Exists(f)) why = "no such file";
    if (r.status == ts::Status::kUntrusted) {
      why += " (" + ts::Fingerprint(r.signer) + ", trust store " + tarn::os::TrustedKeysDir() + ")";
    }
    std::fprintf(stderr, "%s: FAILED: %s\n", f.c_str(), why.c_str());
    rc = std::max(rc, CodeFor(r.status));
  }
  return rc;
}

int Fingerprint(const std::vector<std::string>& args) {
  if (args.size() != 1 || args[0].rfind("--", 0) == 0) return Usage("fingerprint needs exactly one FILE");
  if (auto key = ts::ReadPublicKeyFile(args[0])) {
    std::printf("%s\n", ts::Fingerprint(*key).c_str());
    return kOk;
  }
  ts::Inspection r = ts::InspectFile(args[0]);
  if (r.status != ts::Status::kValid) {
    std::string why = ts::StatusText(r.status);
    if (r.status == ts::Status::kUnreadable && !Exists(args[0])) why = "no such file";
    std::fprintf(stderr, "%s: %s\n", args[0].c_str(), why.c_str());
    return CodeFor(r.status);
  }
  std::printf("%s\n", ts::Fingerprint(r.signer).c_str());
  return kOk;
}

int Trust(const std::vector<std::string>& args) {
  ts::KeyKind kind = ts::KeyKind::kMaker;
  std::string name;
  std::vector<std::string> files;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--platform") {
      kind = ts::KeyKind::kPlatform;
    } else if (args[i] == "--name") {
      if (i + 1 >= args.size()) return Usage("trust: --name needs a value");
      name = args[++i];
    } else if (args[i].rfind("--", 0) == 0) {
      return Usage(("trust: unknown option " + args[i]).c_str());
    } else {
      files.push_back(args[i]);
    }
  }
  if (files.size() != 1) return Usage("trust needs exactly one PUBLIC key file");
  auto key = ts::ReadPublicKeyFile(files[0]);
  if (!key) {
    std::fprintf(stderr, "tarncore-sign: %s: bad key: %s\n", files[0].c_str(),
                 Exists(files[0]) ? "not 64 hex digits" : "no such file");
    return kFailure;
  }
  if (name.empty()) {
    std::string_view base = files[0];
    if (auto slash = base.rfind('/'); slash != std::string_view::npos) base.remove_prefix(slash + 1);
    if (base.size() > 4 && base.substr(base.size() - 4) == ".pub") base.remove_suffix(4);
    name = base;
  }
  if (!ts::InstallTrustedKey(*key, kind, name)) {
    std::fprintf(stderr, "tarncore-sign: cannot install the key as '%s' under %s\n", name.c_str(),
                 tarn::os::TrustedKeysDir().c_str());
    return kFailure;
  }
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage("missing command");
  std::string command = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  for (const auto& a : args) {
    if (a == "--help" || a == "-h") command = "--help";
  }
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kHelp, stdout);
    return kOk;
  }
  if (command == "keygen") return Keygen(args);
  if (command == "pubkey") return Pubkey(args);
  if (command == "sign") return Sign(args);
  if (command == "verify") return Verify(args);
  if (command == "fingerprint") return Fingerprint(args);
  if (command == "trust") return Trust(args);
  return Usage(("unknown command " + command).c_str());
}
