// The content of a signature, its verification, the requirements on the signer, and the program
// quorvane-codesign.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cctype>

#include "Platform/File.h"
#include "Platform/Linux/CodeSigning/SignatureContent.h"
#include "Platform/Linux/CodeSigning/Verification.h"
#include "Support/SigningIdentity.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::codesigning {

using test::SigningIdentity;

/// Returns "IDENTIFIER of TEAM", or the reason of the refusal.
std::string verdictOn(const Descriptor& executable) {
  const Verdict verdict = verifySignature(executable.get());
  if (const auto* refusal = std::get_if<Refusal>(&verdict)) return refusal->reason;
  const auto& peer = std::get<Identity>(verdict);
  return peer.identifier + " of " + peer.leafOrganizationalUnit.value_or("none");
}

/// Runs commands in the folder, with our programs and scripts in the path.
std::string runIn(const TemporaryRoot& folder, const std::string& commands) {
  return test::shell("cd " + folder.path("") +
                     "; PATH=" PROGRAMS_FOLDER ":" SCRIPTS_FOLDER ":$PATH; { " + commands +
                     "; } 2>&1");
}

TEST(CodeSignature, IsAcceptedOnlyAsItMustBe) {
  const TemporaryRoot folder;
  const auto root = SigningIdentity::makeRoot();
  const auto leaf = root.issue();
  const auto below = [&](const std::string& extensions, const std::string& key = test::p256) {
    return root.issue({.extensions = extensions, .key = key}).issue();
  };
  const std::string& ca = test::authority.extensions;
  const std::string p224 = "ec -pkeyopt ec_paramgen_curve:P-224";
  const std::string toPackage =
      "cd ../etc/quorvane/anchors; own=$PWD; to=" + folder.path(QUORVANE_PACKAGED_ANCHORS) +
      "; mkdir -p $to; mv * $to; cd $to";
  // Each row: words of the verdict, the signer, and a command. The command runs in the executable's
  // folder, after the executable has been signed and opened.
  const struct {
    std::string words;
    SigningIdentity signer;
    std::string command = ":";
  } rows[] = {
      {"app of X4TQ8RW2ZN", below(ca)},
      {"app of X4TQ8RW2ZN", below(ca + "\nextendedKeyUsage=codeSigning")},
      {"intermediate is not for code", below(ca + "\nextendedKeyUsage=serverAuth")},
      {"of CA cert", below("basicConstraints=CA:TRUE")},
      {"below P-256", below(ca, p224)},
      {"below P-256", root.issue({.key = p224})},
      {"key too weak", root.issue({.key = "rsa:1024"})},
      {"app of none", root.issue({.units = "/OU=X4TQ8RW2ZN/OU=B"})},
      {"has expired", root.issue({.days = 0})},
      {"chain: self-signed", SigningIdentity::makeRoot().issue()},
      {"not for code signing", root.issue({.extensions = "keyUsage=digitalSignature"})},
      {"not for digital signatures", root.issue({.extensions = "extendedKeyUsage=codeSigning"})},
      {"not enclose its content", leaf, "resign"},
      {"not exactly one signer", leaf, "resign -nodetach" + root.issue().signer()},
      {"not over SHA-256", leaf, "resign -nodetach -md sha1"},
      {"content is not identifier", leaf, "echo >>content; resign -nodetach"},
      {"in DER", leaf, "echo >>app.codesign"},
      {"not match its content", leaf, "sed -i 's/er: app/er: ape/' app.codesign"},
      {"too large", leaf, "truncate -s 65537 app.codesign"},
      {"does not exist", leaf, "rm app.codesign"},
      {"a regular file", leaf, "rm app.codesign; mkfifo app.codesign"},
      {"a symbolic link", leaf, "mv app.codesign there; ln -s there app.codesign"},
      // A removed file keeps its path. Anybody can then put a link into that path.
      {"behind one", leaf,
       "mkdir ../at; mv *.codesign '../at/app (deleted).codesign'; cd ..; rm -r bin; ln -s at bin"},
      {"not of the signed size", leaf, "echo >>app"},
      {"not the signed one", leaf, "truncate -s -1 app; echo >>app"},
      {"too many anchors", leaf, "cd ../etc/quorvane/anchors; touch $(seq -f%g.pem 16)"},
      {"app of X4TQ8RW2ZN", leaf, toPackage},
      {"chain: self-signed", leaf, toPackage + "; for a in *; do : >$own/$a; done"},
  };
  for (const auto& [words, signer, command] : rows) {
    // The executable is larger than one chunk of the hash.
    runIn(folder, "rm -rf etc usr bin at; mkdir bin; cd bin; head -c 100000 /dev/zero >app");
    root.installAnchor(folder.path(""));
    signer.signExecutable(folder.path("/bin/app"), "app");
    const Descriptor executable = openFile(folder.path("/bin/app"), O_RDONLY);
    runIn(folder,
          "cd bin; openssl cms -verify -noverify -inform DER -in app.codesign -out content;"
          "resign() { openssl cms -sign -binary -outform DER -in content" +
              signer.signer() + " \"$@\" >app.codesign; }; " + command);
    const std::string verdict = verdictOn(executable);
    EXPECT_NE(verdict.find(words), std::string::npos) << words << "; found: " << verdict;
  }
}

TEST(CodeSignature, ContentHasOneText) {
  const auto isContent = [](const std::string& identifier, const std::string& rest) {
    return SignatureContent::parse("identifier: " + identifier + "\nsize: " + rest).has_value();
  };
  const std::string digest = "\nsha256: " + std::string(64, 'a'), end = digest + "\n";
  const std::string longest(255, 'a');
  for (int byte = 0; byte < 256; ++byte) {
    const bool isAllowed = byte < 128 && (std::isalnum(byte) != 0 || byte == '.' || byte == '-');
    EXPECT_EQ(isContent({'a', static_cast<char>(byte)}, "0" + end), isAllowed) << byte;
  }
  EXPECT_TRUE(isContent(longest, "18446744073709551615" + end));
  EXPECT_FALSE(isContent(longest + "a", "1" + end));
  EXPECT_FALSE(isContent("", "1" + end));
  for (const char* size : {"", "01", "+1", "-1", " 1", "1 ", "0x1", "18446744073709551616"}) {
    EXPECT_FALSE(isContent("a", size + end)) << size;
  }
  for (const std::string& ending : {digest, digest + "a\n", end + "\n"}) {
    EXPECT_FALSE(isContent("a", "1" + ending)) << ending;
  }
}

/// Returns whether a requirement holds. In `form`, + is a term that holds and - one that does not.
bool holds(const std::string& form) {
  std::string text;
  for (const char sign : form) {
    if (sign == '+') text += "anchor apple generic";
    if (sign == '-') text += "identifier \"other\"";
    if (sign != '+' && sign != '-') text += sign;
  }
  return requirementHolds(text, {"app", "TEAM"});
}

TEST(CodeRequirement, HoldsOnlyIfItIsUnderstoodWhole) {
  for (const char* text : {"+", "- or +", "+ or + and -", "- and - or +", "- or (+)",
                           "identifier\"app\"and(+)", "certificate leaf[subject.OU] = \"TEAM\"",
                           " certificate leaf [ subject.OU ]\t=\"TEAM\"\r\n"}) {
    EXPECT_TRUE(holds(text)) << text;
  }
  for (const char* text : {"-", "- and +", "(+ or +) and -", "- and (- or +)", "identifier \"APP\"",
                           "certificate leaf[subject.OU] = \"team\""}) {
    EXPECT_FALSE(holds(text)) << text;
  }
  for (const char* text :
       {"", "()", "(+", "+)", "+ +", "+ or", "+ OR +", "+ or not +", "+ or +;", "+ or anchor apple",
        "+ or anchorapple generic", "+ or certificate", "certificate leaf[subject.CN] = \"TEAM\"",
        "+ or identifier app", "+ or identifier \"app", "+ or identifier \"a\\\"p\""}) {
    EXPECT_FALSE(holds(text)) << "not of the language: " << text;
  }
}

TEST(CodeRequirement, IsBoundedInDepthAndLength) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '(') + "+" + std::string(depth, ')');
  };
  EXPECT_TRUE(holds(nested(16)));
  EXPECT_FALSE(holds(nested(17)));
  const std::string longest = "anchor apple generic" + std::string(2048 - 20, ' ');
  EXPECT_TRUE(holds(longest));
  EXPECT_FALSE(holds(longest + " "));
}

TEST(Codesign, SignsAndSaysWhoHasSignedOrWhyNot) {
  const TemporaryRoot folder;
  runIn(folder, "dev-identity id; echo >app; ln -s app link");
  const std::pair<const char*, const char*> rows[] = {
      {"verify app", "app: the signature does not exist\n1\n"},
      {"sign --identity id --identifier an.app link; ls link*", "link\n0\n"},
      {"verify --anchors id/anchors link | sed 's/until .*/until/'",
       "link: signed as an.app by the team X4TQ8RW2ZN, valid until\n0\n"},
      {"verify app", "app: the certificate chain: unable to get local issuer certificate\n1\n"},
      {"verify --anchors id/anchors --team T app", "app: signed by the team X4TQ8RW2ZN\n1\n"},
      {"verify /dev/ptmx", "/dev/ptmx: is not a regular file\n1\n"},
      {"sign --identity no --identifier a app", "no/leaf.pem: no certificate can be read\n1\n"},
      {"sign --identity id --identifier a_b app 2>&-", "2\n"},
  };
  for (const auto& [arguments, output] : rows) {
    EXPECT_EQ(runIn(folder, std::string("quorvane-codesign ") + arguments + "; echo $?"), output);
  }
}

}  // namespace quorvane::codesigning
