// The Foundation classes that the helper uses, declared after macOS's documentation.
#pragma once

#include <objc/NSObject.h>
#include <stddef.h>

#pragma clang assume_nonnull begin

typedef NSUInteger NSStringEncoding;
static const NSStringEncoding NSUTF8StringEncoding = 4;

@interface NSData : NSObject
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes;
@end

@interface NSString : NSObject
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
- (nullable NSData*)dataUsingEncoding:(NSStringEncoding)encoding;
@end

@interface NSDictionary<__covariant Key, __covariant Value> : NSObject
@end

@interface NSMutableDictionary<Key, Value> : NSDictionary <Key, Value>
- (instancetype)init;
- (void)setObject:(nullable Value)value forKeyedSubscript:(Key)key;
@end

@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

@interface NSXPCConnection : NSObject
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
- (void)setCodeSigningRequirement:(NSString*)requirement
    __attribute__((availability(macos, introduced = 13.0)));
- (void)resume;
@end

@class NSXPCListener;

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection;
@end

@interface NSXPCListener : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name;
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
@end

#pragma clang assume_nonnull end
