// Where the macOS client gets its connections. A program links its own in the place of this one, to
// try the client without launchd. Needs ARC.
#pragma once

#import <Foundation/Foundation.h>

namespace quorvane {

/// A new connection, not yet resumed, over which only a helper with our team's signature is heard.
NSXPCConnection* _Nonnull connectionToHelper();

}  // namespace quorvane
