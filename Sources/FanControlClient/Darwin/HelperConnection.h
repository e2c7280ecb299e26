// Where the macOS client gets its connections. A test program links its own version, to try the
// client without launchd. Needs ARC.
#pragma once

#import <Foundation/Foundation.h>

namespace quorvane {

/// Returns a new connection, not yet resumed, that accepts only a helper signed by our team.
NSXPCConnection* _Nonnull connectionToHelper();

}  // namespace quorvane
