// Fuzzes the code signature of one small executable, under one anchor. Also fuzzes the content's
// text alone, because no mutated content passes the check of the signature over it.
#include <fcntl.h>

#include <cassert>
#include <regex>

#include "Platform/Linux/CodeSigning/SignatureContent.h"
#include "Platform/Linux/CodeSigning/Verification.h"
#include "Support/TemporaryRoot.h"

using namespace quorvane;
using namespace quorvane::codesigning;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const TemporaryRoot root;
  static const int executable = [] {
    root.write("/app", "executable");
    std::filesystem::copy(FUZZ_FOLDER "/Signature/root.crt",
                          root.prepare("/etc/quorvane/anchors/root.pem"));
    std::filesystem::copy(FUZZ_FOLDER "/Seeds/signature/good", root.path("/app.codesign"));
    const int file = open(root.path("/app").c_str(), O_RDONLY | O_CLOEXEC);
    assert(std::holds_alternative<Identity>(verifySignature(file)));
    return file;
  }();
  const std::string input(data, data + size);
  root.write("/app.codesign", input);
  const auto result = verifySignature(executable);
  if (const auto* signer = std::get_if<Identity>(&result)) {
    // The content that Signature/make signs.
    assert(input.find("identifier: com.quorvane.app\nsize: 10\nsha256: "
                      "a29c2123a01df1d0febb9d308a20d8a2fe3d40a91ca8b1294f59f08f9773ebea\n") !=
           std::string::npos);
    assert(signer->identifier == "com.quorvane.app");
    assert(signer->leafOrganizationalUnit == "X4TQ8RW2ZN");
  }
  static const std::regex text(
      "identifier: [A-Za-z0-9.-]{1,255}\nsize: (0|[1-9][0-9]{0,19})\nsha256: [0-9a-f]{64}\n");
  assert(!SignatureContent::parse(input) || std::regex_match(input, text));
  return 0;
}
