// The Foundation classes that the helper, its client and their test use, declared from macOS's
// documentation.
#pragma once

#include <objc/NSObject.h>
#include <stddef.h>

#pragma clang assume_nonnull begin

typedef NSUInteger NSStringEncoding;
static const NSStringEncoding NSUTF8StringEncoding = 4;

typedef unsigned short unichar;
typedef struct _NSRange {
  NSUInteger location;
  NSUInteger length;
} NSRange;

@interface NSString : NSObject
@property(readonly) NSUInteger length;
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
+ (instancetype)stringWithCharacters:(const unichar*)characters length:(NSUInteger)length;
- (void)getCharacters:(unichar*)buffer range:(NSRange)range;
@end

typedef struct {
  unsigned long state;
  id __unsafe_unretained _Nullable* _Nullable itemsPtr;
  unsigned long* _Nullable mutationsPtr;
  unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)len;
@end

@interface NSDictionary<__covariant Key, __covariant Value> : NSObject <NSFastEnumeration>
- (nullable Value)objectForKeyedSubscript:(Key)key;
@end

@interface NSMutableDictionary<Key, Value> : NSDictionary <Key, Value>
- (instancetype)init;
- (void)setObject:(nullable Value)value forKeyedSubscript:(Key)key;
@end

@interface NSError : NSObject
@property(readonly) NSInteger code;
@property(readonly) NSString* localizedDescription;
@end

enum : NSInteger {
  NSXPCConnectionReplyInvalid = 4101,
  NSXPCConnectionCodeSigningRequirementFailure
  __attribute__((availability(macos, introduced = 13.0))) = 4102,
};

@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

typedef enum NSXPCConnectionOptions : NSUInteger {
  NSXPCConnectionPrivileged = 1 << 12,
} NSXPCConnectionOptions;

@interface NSXPCListenerEndpoint : NSObject
@end

@interface NSXPCConnection : NSObject
- (instancetype)initWithListenerEndpoint:(NSXPCListenerEndpoint*)endpoint;
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options;
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, retain) NSXPCInterface* remoteObjectInterface;
@property(readonly, retain) id remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler;
@property(nullable, copy) void (^interruptionHandler)(void);
@property(nullable, copy) void (^invalidationHandler)(void);
- (void)invalidate;
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
+ (NSXPCListener*)anonymousListener;
@property(readonly, retain) NSXPCListenerEndpoint* endpoint;
- (instancetype)initWithMachServiceName:(NSString*)name;
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
@end

#pragma clang assume_nonnull end
