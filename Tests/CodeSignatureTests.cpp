#include "Platform/Linux/XPC/CodeSignature.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <utility>

#include "Platform/Linux/XPC/CodeSignatureContent.h"
#include "Support/SigningIdentity.h"

namespace quorvane::xpc {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::CertificateOptions;
using test::SigningIdentity;

/// An executable in a system root of its own, with one anchor.
class CodeSignature : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string folder = (fs::temp_directory_path() / "codesign.XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    systemRoot = folder;
    setenv("QUORVANE_ROOT", folder.c_str(), 1);
  }
  static void TearDownTestSuite() { fs::remove_all(systemRoot); }

  void SetUp() override {
    fs::remove_all(systemRoot / "etc");
    fs::remove_all(signature);
    root.installAnchor(systemRoot);
    test::writeFile(app, bytes);
  }

  /// "IDENTIFIER TEAM", or the reason of the refusal.
  std::string verify() const {
    const int file = open(app.c_str(), O_RDONLY | O_CLOEXEC);
    const CodeSignatureResult result = verifyCodeSignature(file);
    close(file);
    if (const auto* refusal = std::get_if<CodeSignatureRefusal>(&result)) return refusal->reason;
    const auto& identity = std::get<CodeIdentity>(result);
    return identity.identifier + " " + identity.leafOrganizationalUnit.value_or("(none)");
  }

  /// The script must come to the same verdict for the same reason.
  void expectRefusal(const std::string& reason) const {
    EXPECT_EQ(verify(), reason);
    EXPECT_EQ(run("codesign verify " + app.string()).second, app.string() + ": " + reason + "\n");
  }

  /// Status and output of one of the scripts, both streams together.
  static std::pair<int, std::string> run(const std::string& command) {
    std::FILE* pipe = popen((SCRIPTS_FOLDER "/" + command + " 2>&1").c_str(), "r");
    std::string output;
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
      output += static_cast<char>(byte);
    }
    return {WEXITSTATUS(pclose(pipe)), output};
  }

  static inline fs::path systemRoot;
  const fs::path app = systemRoot / "app";
  const fs::path signature = systemRoot / "app.codesign";
  const Bytes bytes = Bytes(100'000, 0x7F);  // more than one chunk
  const SigningIdentity root = SigningIdentity::makeRoot();
  const SigningIdentity leaf = root.issue();
};

CertificateOptions authority(const char* basicConstraints = "critical,CA:TRUE") {
  return {.basicConstraints = basicConstraints,
          .keyUsage = "critical,keyCertSign",
          .extendedKeyUsage = nullptr};
}

TEST_F(CodeSignature, TellsWhoHasSigned) {
  const std::string unit = "X4TQ8RW2ZN";
  const std::pair<SigningIdentity, std::string> rows[] = {
      {leaf, unit},
      {root.issue({.rsaBits = 2048}), unit},
      {root.issue(authority()).issue(), unit},
      {root.issue({.organizationalUnits = {"OTHERTEAM1"}}), "OTHERTEAM1"},
      {root.issue({.organizationalUnits = {}}), "(none)"},
      {root.issue({.organizationalUnits = {unit, "B"}}), "(none)"},
      {root.issue({.organizationalUnits = {unit + '\0'}}), "(none)"},
  };
  for (const auto& [identity, team] : rows) {
    identity.signExecutable(app, "com.quorvane.app");
    EXPECT_EQ(verify(), "com.quorvane.app " + team);
    EXPECT_EQ(run("codesign verify --team " + unit + " " + app.string()).first, team != unit);
  }
}

TEST_F(CodeSignature, RefusesWhateverIsNotAsItMustBe) {
  using std::chrono::minutes;
  const std::string content = test::signatureContent(app, "com.quorvane.app");
  const Bytes good = leaf.sign(content);
  const SigningIdentity other = root.issue();
  const auto signedBy = [&](const CertificateOptions& options) {
    return root.issue(options).sign(content);
  };
  const auto changed = [&](std::size_t at) {
    Bytes result = good;
    result[at] ^= 1;
    return result;
  };
  Bytes trailing = good;
  trailing.push_back(0);
  const auto copied = [&](std::size_t size) {
    test::writeFile(systemRoot / "other", Bytes(size, 0x7E));
    return leaf.sign(test::signatureContent(systemRoot / "other", "com.quorvane.app"));
  };
  const auto contentStart = static_cast<std::size_t>(
      std::search(good.begin(), good.end(), content.begin(), content.end()) - good.begin());

  const std::string notDER = "the signature is not a CMS SignedData in DER";
  const std::string chain = "the certificate chain: ";
  const std::string mismatch = "the signature does not match its content";
  const std::string notCode = "the certificate is not for code signing";
  const std::string notDigital = "the certificate is not for digital signatures";
  const std::pair<Bytes, std::string> rows[] = {
      {{}, notDER},
      {{good.begin(), good.end() - 1}, notDER},
      {trailing, notDER},
      {leaf.sign(content, {.flags = CMS_STREAM}), notDER},
      {Bytes(300, 'x'), notDER},
      {{0x30, 0x0F, 6, 9, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 7, 1, 0xA0, 2, 4, 0},
       notDER},  // a CMS Data
      {Bytes(maxSignatureSize + 1, 0x30), "the signature is too large"},
      {leaf.sign(content, {.flags = CMS_DETACHED}), "the signature does not enclose its content"},
      {leaf.sign(content, {.secondSigner = &other}), "the signature has not exactly one signer"},
      {leaf.sign(content, {.flags = CMS_NOCERTS}),
       "the signature does not enclose its signer's certificate"},
      {leaf.sign(content, {.digest = "SHA1"}), "the signature is not over SHA-256"},
      {SigningIdentity::makeRoot().issue().sign(content),
       chain + "unable to get local issuer certificate"},
      {leaf.issue().sign(content), chain + "invalid CA certificate"},
      {root.issue(authority("CA:TRUE")).issue().sign(content),
       chain + "Basic Constraints of CA cert not marked critical"},
      {signedBy({.validUntil = -minutes(30)}), chain + "certificate has expired"},
      {signedBy({.validFrom = minutes(30)}), chain + "certificate is not yet valid"},
      {signedBy({.rsaBits = 1024}), chain + "EE certificate key too weak"},
      {signedBy({.extendedKeyUsage = nullptr}), notCode},
      {signedBy({.extendedKeyUsage = "emailProtection"}), notCode},
      {signedBy({.keyUsage = nullptr}), notDigital},
      {signedBy({.keyUsage = "critical,nonRepudiation"}), notDigital},
      {changed(contentStart - 5), notDER},  // in the type of what is enclosed
      {changed(contentStart + 20), mismatch},
      {changed(good.size() - 1), mismatch},
      {leaf.sign(content + "\n"), "the content is not identifier, size and sha256"},
      {copied(bytes.size() + 1), "the executable is not of the signed size"},
      {copied(bytes.size()), "the executable is not the signed one"},
  };
  for (const auto& [signatureBytes, reason] : rows) {
    test::writeFile(signature, signatureBytes);
    expectRefusal(reason);
  }
}

TEST_F(CodeSignature, RefusesWhatIsNoFileInItsPlace) {
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] {}, "the signature does not exist"},
      {[this] { mkfifo(signature.c_str(), 0600); }, "the signature is not a regular file"},
      {[this] { fs::create_directory(signature); }, "the signature is not a regular file"},
      {[this] {
         leaf.signExecutable(app, "com.quorvane.app");
         fs::rename(signature, systemRoot / "elsewhere");
         fs::create_symlink("elsewhere", signature);
       },
       "the signature is a symbolic link"},
  };
  for (const auto& [put, reason] : rows) {
    put();
    expectRefusal(reason);
    fs::remove(signature);
  }
}

TEST_F(CodeSignature, TrustsTheAnchorsThatAreInstalledNow) {
  const fs::path anchors = systemRoot / "etc/quorvane/anchors";
  leaf.signExecutable(app, "com.quorvane.app");
  test::writeFile(anchors / "garbage.pem", Bytes(200, '-'));
  mkfifo((anchors / "fifo.pem").c_str(), 0600);
  EXPECT_EQ(verify(), "com.quorvane.app X4TQ8RW2ZN");
  SigningIdentity issuer = root;
  for (int i = 0; i < 4; ++i) issuer = issuer.issue(authority());
  issuer.issue().signExecutable(app, "com.quorvane.app");
  EXPECT_EQ(verify(), "com.quorvane.app X4TQ8RW2ZN");
  issuer.issue(authority()).issue().signExecutable(app, "com.quorvane.app");
  EXPECT_EQ(verify(), "the certificate chain: certificate chain too long");

  leaf.signExecutable(app, "com.quorvane.app");
  for (int i = 0; i < 13; ++i) SigningIdentity::makeRoot().installAnchor(systemRoot);
  test::writeFile(anchors / "README", {});
  EXPECT_EQ(verify(), "com.quorvane.app X4TQ8RW2ZN");
  SigningIdentity::makeRoot().installAnchor(systemRoot);
  EXPECT_EQ(verify(), "too many anchors are installed");

  fs::remove_all(anchors);
  leaf.installAnchor(systemRoot);  // no self-signed root, so no anchor
  EXPECT_EQ(verify(), "the certificate chain: unable to get local issuer certificate");
}

TEST_F(CodeSignature, ScriptsMakeWhatIsAdmitted) {
  const std::string identity = (systemRoot / "identity").string();
  const std::string sign =
      "codesign sign --identity " + identity + " --identifier com.quorvane.app ";
  const std::pair<int, std::string> silentSuccess;
  EXPECT_EQ(run("dev-identity " + identity), silentSuccess);
  EXPECT_EQ(run("dev-identity " + identity), silentSuccess);
  EXPECT_NE(run("dev-identity --team OTHERTEAM1 " + identity).first, 0);
  EXPECT_EQ(fs::status(identity + "/leaf.key").permissions(), fs::perms(0600));
  EXPECT_EQ(run(sign + app.string()), silentSuccess);
  EXPECT_EQ(verify(), "the certificate chain: unable to get local issuer certificate");
  fs::copy(identity + "/anchors", systemRoot / "etc/quorvane/anchors");
  EXPECT_EQ(verify(), "com.quorvane.app X4TQ8RW2ZN");
  EXPECT_EQ(run("codesign verify --identifier com.quorvane.app " + app.string()),
            std::pair(0, app.string() + ": signed as com.quorvane.app by the team X4TQ8RW2ZN\n"));
  EXPECT_EQ(run("codesign verify --identifier com.quorvane.other " + app.string()).first, 1);
  EXPECT_EQ(run("codesign sign " + app.string()).first, 2);
}

TEST(CodeSignatureContent, IsReadToTheByte) {
  const std::string a64(64, 'a');
  const std::string longest(CodeSignatureContent::maxIdentifierLength, 'a');
  const auto parses = [](const std::string& identifier, const std::string& size,
                         const std::string& digest, const std::string& tail = "\n") {
    const std::string lines = "identifier: " + identifier + "\nsize: " + size + "\nsha256: ";
    return CodeSignatureContent::parse(lines + digest + tail).has_value();
  };
  EXPECT_TRUE(parses("com.Quorvane-1", "18446744073709551615", a64));
  EXPECT_TRUE(parses(longest, "0", a64));
  EXPECT_FALSE(parses(longest + "a", "0", a64));
  for (const char* wrong : {"", " a", "a b", "a_b", "a\r", "\xC3\xA9", "a\nidentifier: a"}) {
    EXPECT_FALSE(parses(wrong, "1", a64)) << wrong;
  }
  for (const char* wrong :
       {"", "01", "00", "+1", "-1", " 1", "1 ", "1\r", "0x1", "18446744073709551616"}) {
    EXPECT_FALSE(parses("a", wrong, a64)) << wrong;
  }
  for (const std::string& wrong :
       {std::string(63, 'a'), a64 + "a", std::string(64, 'A'), a64 + "\r"}) {
    EXPECT_FALSE(parses("a", "1", wrong)) << wrong;
  }
  for (const char* wrong : {"", "\n\n", "\nmore: 1\n", " \n"}) {
    EXPECT_FALSE(parses("a", "1", a64, wrong)) << wrong;
  }
  EXPECT_FALSE(CodeSignatureContent::parse("size: 1\nidentifier: a\nsha256: " + a64 + "\n"));
}

}  // namespace
}  // namespace quorvane::xpc
