#include "Platform/Linux/CodeSigning/CodeSignature.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "Support/SigningIdentity.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::xpc {
namespace {

/// "IDENTIFIER of TEAM", or the reason of the refusal.
std::string verdictOn(const std::string& executable) {
  const int file = open(executable.c_str(), O_RDONLY | O_CLOEXEC);
  const CodeSignatureResult result = verifyCodeSignature(file);
  close(file);
  if (const auto* refusal = std::get_if<CodeSignatureRefusal>(&result)) return refusal->reason;
  const auto& [identifier, team] = std::get<CodeIdentity>(result);
  return identifier + " of " + team.value_or("none");
}

TEST(CodeSignature, IsAcceptedOnlyAsItMustBe) {
  const TemporaryRoot folder;
  const std::string inFolder = "PATH=" SCRIPTS_FOLDER ":$PATH; cd " + folder.path("") + "; ";
  // The executable is more than one chunk to hash.
  const std::string reset = inFolder + "rm -rf etc app.codesign; head -c 100000 /dev/zero >app";
  test::shell(reset);
  const std::string lines = test::signatureContent(folder.path("/app"), "app");
  const auto root = test::SigningIdentity::makeRoot();
  const auto by = [&](const test::CertificateOptions& how) { return root.issue(how).sign(lines); };
  const auto leaf = root.issue();
  const std::string good = leaf.sign(lines);
  // Each: words of the verdict, the signature, and a command that is run when all is in place.
  const std::array<std::string, 3> rows[] = {
      {"app of X4TQ8RW2ZN", root.issue(test::authority).issue().sign(lines)},
      {"app of none", by({.units = "/OU=X4TQ8RW2ZN/OU=B"}), "codesign verify app"},
      {"has expired", by({.days = -1})},
      {"key too weak", by({.key = "rsa:1024"})},
      {"of CA cert", root.issue({.extensions = "basicConstraints=CA:TRUE"}).issue().sign(lines)},
      {"chain: self-signed", test::SigningIdentity::makeRoot().issue().sign(lines)},
      {"not for code signing", by({.extensions = "keyUsage=digitalSignature"})},
      {"not for digital signatures", by({.extensions = "extendedKeyUsage=codeSigning"})},
      {"not enclose its content", leaf.sign(lines, "")},
      {"not exactly one signer", leaf.sign(lines, "-nodetach" + root.issue().signer())},
      {"not enclose its signer's", leaf.sign(lines, "-nodetach -nocerts")},
      {"not over SHA-256", leaf.sign(lines, "-nodetach -md sha1")},
      {"in DER", good + '\0'},
      {"not match its content", good.substr(0, good.size() - 1) + static_cast<char>(~good.back())},
      {"not match its content", good, "sed -i 's/er: app/er: ape/' app.codesign"},
      {"too large", good, "truncate -s 65537 app.codesign"},
      {"not a regular file", good, "rm app.codesign; mkfifo app.codesign"},
      {"a symbolic link", good, "mv app.codesign there; ln -s there app.codesign"},
      {"not of the signed size", good, "echo >>app; ! codesign verify app 2>log"},
      {"not the signed one", good, "truncate -s -1 app; echo >>app"},
      {"too many anchors", good, "cd etc/quorvane/anchors; touch $(seq -f%g.pem 16)"},
      {"b of X4TQ8RW2ZN", good,
       "dev-identity i; cp -r i/anchors etc/*; codesign sign --identity i --identifier b app"},
  };
  for (const auto& [words, signature, command] : rows) {
    test::shell(reset);
    root.installAnchor(folder.path(""));
    folder.write("/app.codesign", signature);
    test::shell(inFolder + command);
    const std::string verdict = verdictOn(folder.path("/app"));
    EXPECT_NE(verdict.find(words), std::string::npos) << words << "; found: " << verdict;
  }
}

}  // namespace
}  // namespace quorvane::xpc
