// quorvane-codesign: signs executables for the helper's admission, and says who signed one. The
// helper starts it to learn whether a client meets a requirement.
#include <fcntl.h>
#include <openssl/err.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/CodeSigning/Libcrypto.h"
#include "Platform/Linux/CodeSigning/PeerExecutable.h"
#include "Platform/Linux/CodeSigning/RegularFile.h"
#include "Platform/Linux/CodeSigning/SignatureContent.h"
#include "Platform/Linux/CodeSigning/Verification.h"

namespace quorvane::codesigning {
namespace {

constexpr int exitDone = 0;
constexpr int exitRefused = 1;
constexpr int exitUsage = 2;

constexpr const char* usage =
    R"(usage: quorvane-codesign sign --identity DIR --identifier IDENTIFIER FILE
       quorvane-codesign verify [--anchors DIR] [--team TEAM] [--identifier IDENTIFIER] FILE
       quorvane-codesign --help | --version
)";

constexpr const char* help = R"(
sign     writes FILE.codesign with the key DIR/leaf.key and its certificate, the first in
         DIR/leaf.pem; further certificates in there are enclosed
verify   says who has signed FILE, or why the helper would take it for unsigned; the anchors
         are those of the system, the administrator's and the package's, if not given

exit status: 0 done, 1 it could not be signed or is not signed as it must be, 2 bad usage)";

using Arguments = std::span<const std::string_view>;
/// The options' values by name, and FILE.
using Options = std::map<std::string_view, std::string>;

int show(const std::string& text) {
  std::puts(text.c_str());
  return exitDone;
}

int misused() {
  std::fputs(usage, stderr);
  return exitUsage;
}

int refuse(const std::string& file, const std::string& reason) {
  std::fprintf(stderr, "%s: %s\n", file.c_str(), reason.c_str());
  return exitRefused;
}

/// Returns the signature in DER; empty on failure, with the reason in libcrypto's error queue.
Bytes signatureOver(const std::string& content, EVP_PKEY* key,
                    std::span<const Certificate> certificates) {
  constexpr unsigned flags = CMS_BINARY | CMS_NOSMIMECAP | CMS_PARTIAL;
  const Source source(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  const SignedData cms(CMS_sign(nullptr, nullptr, nullptr, source.get(), flags));
  X509* const leaf = certificates.front().get();
  bool isMade = cms && CMS_add1_signer(cms.get(), leaf, key, EVP_sha256(), flags) != nullptr;
  for (const Certificate& intermediate : certificates.subspan(1)) {
    isMade = isMade && CMS_add1_cert(cms.get(), intermediate.get()) == 1;
  }
  isMade = isMade && CMS_final(cms.get(), source.get(), nullptr, flags) == 1;
  return isMade ? encodingOf(*cms) : Bytes();
}

/// Returns false, with the reason in errno, if the file was not replaced.
bool replaceFile(const std::string& path, const Bytes& bytes) {
  // In the same folder, so that rename() replaces the file in one step.
  std::string fresh = path + ".XXXXXX";
  const Descriptor file(mkostemp(fresh.data(), O_CLOEXEC));
  if (!file) return false;
  if (fchmod(file.get(), 0644) == 0 &&
      writeAll(file.get(), std::string(bytes.begin(), bytes.end())) &&
      std::rename(fresh.c_str(), path.c_str()) == 0) {
    return true;
  }
  const int error = errno;
  unlink(fresh.c_str());
  errno = error;
  return false;
}

int sign(Options options) {
  const std::string& name = options["FILE"];
  const std::string& identity = options["--identity"];
  const std::string& identifier = options["--identifier"];
  if (identity.empty() || !SignatureContent::isIdentifier(identifier)) return misused();
  const RegularFile executable = openRegular(openFile(name, O_PATH));
  if (executable.problem != nullptr) return refuse(name, executable.problem);
  const int file = executable.descriptor.get();

  initialiseLibcrypto();
  const std::vector<Certificate> certificates = readCertificates(identity + "/leaf.pem");
  if (certificates.empty()) return refuse(identity + "/leaf.pem", "no certificate can be read");
  const Key key = readKey(identity + "/leaf.key");
  if (!key) return refuse(identity + "/leaf.key", "no key can be read");
  const std::uint64_t size = sizeOf(file).value_or(0);
  const SignatureContent content{identifier, size, sha256Of(file, size)};
  if (content.sha256.empty()) return refuse(name, "cannot be read");
  const Bytes signature = signatureOver(content.text(), key.get(), certificates);
  if (signature.empty()) {
    const char* why = ERR_reason_error_string(ERR_peek_error());
    return refuse(name, std::string("cannot be signed: ") + (why != nullptr ? why : "no memory"));
  }
  if (signature.size() > maxSignatureSize) return refuse(name, "the signature would be too large");
  if (replaceFile(pathOf(file) + ".codesign", signature)) return exitDone;
  return refuse(name, std::string("the signature cannot be written: ") + std::strerror(errno));
}

int verify(Options options) {
  const std::string& name = options["FILE"];
  const std::string& anchors = options["--anchors"];
  const std::string& team = options["--team"];
  const std::string& identifier = options["--identifier"];
  const RegularFile file = openRegular(openFile(name, O_PATH));
  if (file.problem != nullptr) return refuse(name, file.problem);
  const Verdict verdict = verifySignature(
      file.descriptor.get(), anchors.empty() ? installedAnchors() : std::vector{anchors});
  if (const auto* refusal = std::get_if<Refusal>(&verdict)) return refuse(name, refusal->reason);
  const Identity& signer = std::get<Identity>(verdict);
  const std::string unit = signer.leafOrganizationalUnit.value_or("(none)");
  if (!team.empty() && signer.leafOrganizationalUnit != team) {
    return refuse(name, "signed by the team " + unit);
  }
  if (!identifier.empty() && signer.identifier != identifier) {
    return refuse(name, "signed as " + signer.identifier);
  }
  return show(name + ": signed as " + signer.identifier + " by the team " + unit +
              ", valid until " + signer.validUntil);
}

/// Answers the helper's question: does this process meet the requirement? The process's files may
/// block this call forever. Then the helper kills it at the deadline, or the kernel does when the
/// helper ends.
int admit(std::string_view requirement, const std::string& pid, const std::string& guard) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != std::atoi(guard.c_str())) return exitRefused;  // the helper has already ended
  setsid();                                                       // no terminal's signals come here
  const Descriptor executable = openPeerExecutable(std::atoi(pid.c_str()));
  if (!executable) return exitRefused;
  const Verdict verdict = verifySignature(executable.get());
  const auto* peer = std::get_if<Identity>(&verdict);
  return peer != nullptr && requirementHolds(requirement, *peer) ? exitDone : exitRefused;
}

/// Returns nothing unless the arguments are one FILE and options from `names`, each at most once
/// and with a value.
std::optional<Options> parse(Arguments arguments, std::initializer_list<std::string_view> names) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string_view name = "FILE";
    if (arguments[i].starts_with('-')) {
      name = arguments[i++];
      if (std::ranges::find(names, name) == names.end()) return std::nullopt;
    }
    if (i == arguments.size() || arguments[i].empty()) return std::nullopt;
    if (!options.emplace(name, arguments[i]).second) return std::nullopt;
  }
  if (!options.contains("FILE")) return std::nullopt;
  return options;
}

int run(Arguments arguments) {
  if (arguments.empty()) return misused();
  const std::string_view command = arguments.front();
  const Arguments rest = arguments.subspan(1);
  std::optional<Options> options;
  if (command == "admit" && rest.size() == 3) {
    return admit(rest[0], std::string(rest[1]), std::string(rest[2]));
  }
  if (command == "--help" && rest.empty()) return show(std::string(usage) + help);
  if (command == "--version" && rest.empty()) return show("quorvane-codesign " QUORVANE_VERSION);
  if (command == "sign") options = parse(rest, {"--identity", "--identifier"});
  if (command == "verify") options = parse(rest, {"--anchors", "--team", "--identifier"});
  if (!options) return misused();
  return command == "sign" ? sign(*options) : verify(*options);
}

}  // namespace
}  // namespace quorvane::codesigning

int main(int argc, char** argv) {
  try {
    const std::vector<std::string_view> arguments(argv + std::min(argc, 1), argv + argc);
    return quorvane::codesigning::run(arguments);
  } catch (const std::exception&) {  // out of memory
    return quorvane::codesigning::exitRefused;
  }
}
