// The facade's delegate of an NSXPCListener of any kind. The C++ delegate configures each
// connection; the facade refuses one without a requirement. Called on the listener's thread. Needs
// ARC.
#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "Platform/XPC.h"

@interface QRVListenerDelegate : NSObject <NSXPCListenerDelegate>
- (nonnull instancetype)initWithDelegate:
    (std::shared_ptr<quorvane::xpc::ListenerDelegate>)listenerDelegate;
@end
