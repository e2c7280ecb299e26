// The simulated SMC, as the helper uses it through the IOKit calls and as smcsim edits it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "QuorvaneFanHelper/HelperSMC.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::simulation {

/// Runs the tool and returns its exit status.
static int smcsim(const std::string& arguments) {
  return WEXITSTATUS(std::system((SMCSIM " " + arguments + " >/dev/null 2>&1").c_str()));
}

TEST(SimulatedSMC, AnswersAsHardwareDoesAndTracesEachCall) {
  const TemporaryRoot root;
  const std::string file = "/var/lib/quorvane/smc", trace = file + ".trace";
  HelperSMC smc;
  EXPECT_EQ(smcsim("create"), 0);
  smc.connect();
  for (const char* usage : {"create --fans 17", "fail F0Tg result 256", "set F0Tg 0"}) {
    EXPECT_EQ(smcsim(usage), 2) << usage;
  }
  for (const char* wrong : {"set F0Tg 0040", "remove F5Tg"}) EXPECT_EQ(smcsim(wrong), 1) << wrong;
  root.write(trace, "");
  EXPECT_EQ(smc.readByte("FNum"), 2);
  EXPECT_THROW(smc.writeByte("FNum", 9), SMCError);
  smcsim("fail F0Tg result 200");
  EXPECT_THROW(smc.writeRPM("F0Tg", 1500), SMCError);
  smcsim("fail F0Tg call -7");
  smc.readRaw("F0Tg");
  smcsim("fail F0Tg clear");
  smc.writeRPM("F0Tg", 2500);
  smc.readRaw("F0Tg");
  EXPECT_EQ(smc.keyInfo(0), std::nullopt) << "a free slot is no key";
  smcsim("create --speed-type fpe2");
  EXPECT_THROW(smc.writeRPM("F0Tg", 1500), SMCError) << "by the key's former size and type";
  EXPECT_EQ(root.read(trace),
            "info FNum 1 75693820 128 - -> 0 0\n"
            "read FNum 1 75693820 128 02 -> 0 0\n"
            "write FNum 1 75693820 128 09 -> 0 134\n"
            "info F0Tg 4 666c7420 192 - -> 0 0\n"
            "write F0Tg 4 666c7420 192 0080bb44 -> 0 200\n"
            "read F0Tg 4 666c7420 192 - -> -7 0\n"
            "write F0Tg 4 666c7420 192 00401c45 -> 0 0\n"
            "read F0Tg 4 666c7420 192 00401c45 -> 0 0\n"
            "info \\x00\\x00\\x00\\x00 0 00000000 0 - -> 0 132\n"
            "write F0Tg 4 666c7420 192 0080bb44 -> 0 135\n");

  const std::string whole = root.read(file);
  root.write(file, whole.substr(0, whole.size() - 1));
  EXPECT_EQ(smc.readByte("FNum"), std::nullopt);
}

}  // namespace quorvane::simulation
