// From connect to the first reply, which waits for the check of the client's signature.
#include <fcntl.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

#include "Groups.h"

namespace quorvane::bench {
namespace {

constexpr int connectionsInARow = 5;

template <auto release>
struct Release {
  template <class Object>
  void operator()(Object* object) const {
    release(object);
  }
};

void hash(int file) {
  const std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>> digest(EVP_MD_CTX_new());
  std::vector<unsigned char> chunk(std::size_t{64} * 1024);
  EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr);
  for (off_t offset = 0;; offset += static_cast<off_t>(chunk.size())) {
    const ssize_t count = pread(file, chunk.data(), chunk.size(), offset);
    if (count <= 0) break;
    EVP_DigestUpdate(digest.get(), chunk.data(), static_cast<std::size_t>(count));
  }
  unsigned char value[EVP_MAX_MD_SIZE];
  EVP_DigestFinal_ex(digest.get(), value, nullptr);
}

/// The floor: one SHA-256 of the file and the verification of one signature.
double hashAndVerify(const std::string& executable) {
  std::ifstream file(executable + ".codesign", std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  const Descriptor opened(open(executable.c_str(), O_RDONLY | O_CLOEXEC));
  const auto start = Clock::now();
  hash(opened.get());
  const void* const first = bytes.data();
  const auto* next = static_cast<const unsigned char*>(first);
  const std::unique_ptr<CMS_ContentInfo, Release<CMS_ContentInfo_free>> signature(
      d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(bytes.size())));
  if (!signature || CMS_verify(signature.get(), nullptr, nullptr, nullptr, nullptr,
                               CMS_NO_SIGNER_CERT_VERIFY) != 1) {
    fail("the floor's signature is bad");
  }
  return microsecondsSince(start);
}

/// Each connection's microseconds, by a process of that executable.
void connectFrom(const std::string& executable, const Machine& machine, Samples& samples) {
  const std::string command =
      "'" + executable + "' connect '" + machine.root + "' " + std::to_string(connectionsInARow);
  std::FILE* const output = popen(command.c_str(), "r");
  double microseconds = 0;
  while (std::fscanf(output, "%lf", &microseconds) == 1) samples.add(microseconds / 1000);
  if (pclose(output) != 0) fail("not admitted: " + executable);
}

}  // namespace

int connectRepeatedly(const std::string& root, int count) {
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    const Channel channel = Channel::enter(root);
    std::printf("%f\n", microsecondsSince(start));
  }
  return 0;
}

void measureAdmission(Report& report, const Setting& setting) {
  const Machine machine = setting.machine("admission");
  const Helper helper(Helper::real, machine);
  for (const char* size : {"1MB", "50MB"}) {
    const std::string what = std::string("connect to first reply, ") + size + " client";
    Report::progress(what);
    const std::string executable = programsFolder() + "/client-" + size;
    Samples measured, bare, warmUp;
    connectFrom(executable, machine, warmUp);
    warmUp.add(hashAndVerify(executable));
    for (int round = 0; round < setting.rounds(20); ++round) {
      connectFrom(executable, machine, measured);
      for (int i = 0; i < connectionsInARow; ++i) bare.add(hashAndVerify(executable) / 1000);
    }
    report.add({what,
                "ms",
                std::move(measured),
                std::move(bare),
                {"<= floor + 4", [](double taken, double floor) { return taken <= floor + 4; }}});
  }
}

}  // namespace quorvane::bench
