#import "FanControlClient/Darwin/HelperConnection.h"

#import "Platform/Darwin/FanControlProtocol.h"
#include "QRVFanShared/FanControlXPC.h"

namespace quorvane {

NSXPCConnection* _Nonnull connectionToHelper() {
  NSXPCConnection* const connection = [[NSXPCConnection alloc]
      initWithMachServiceName:xpc::toNSString(FanControlConstants::helperMachService)
                      options:NSXPCConnectionPrivileged];
  [connection
      setCodeSigningRequirement:xpc::toNSString(FanControlConstants::helperCodeRequirement)];
  return connection;
}

}  // namespace quorvane
