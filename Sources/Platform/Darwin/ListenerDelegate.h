// The facade's own delegate of an NSXPCListener, whatever that listens on: configures each incoming
// connection as the C++ delegate says, and refuses one that is left without a requirement. Called
// on the listener's thread. Needs ARC.
#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "Platform/XPC.h"

@interface QRVListenerDelegate : NSObject <NSXPCListenerDelegate>
- (nonnull instancetype)initWithDelegate:
    (std::shared_ptr<quorvane::xpc::ListenerDelegate>)listenerDelegate;
@end
