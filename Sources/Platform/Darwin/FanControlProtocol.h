// quorvane::FanControlXPC as Foundation carries it, for both ends: the protocol, the blocks that
// take its replies, and its texts. Needs ARC.
#pragma once

#import <Foundation/Foundation.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/UTF8.h"

#if !__has_feature(objc_arc)
#error "Without ARC reply blocks would outlive their stack frames."
#endif

using OutcomeBlock = void (^)(BOOL success, NSString* _Nullable message);
using StatusBlock = void (^)(NSDictionary<NSString*, NSString*>* _Nullable status);
using PingBlock = void (^)(NSString* _Nullable answer);

/// Either end sends what it likes: any object may be absent, the reply block included.
@protocol FanControlXPC
- (void)writeFanKey:(nullable NSString*)key
              value:(std::int64_t)value
            isFloat:(BOOL)isFloat
              reply:(nullable OutcomeBlock)reply;
- (void)restoreAutoWithReply:(nullable OutcomeBlock)reply;
- (void)statusWithReply:(nullable StatusBlock)reply;
- (void)pingWithReply:(nullable PingBlock)reply;
@end

namespace quorvane::xpc {

/// Nil for a text that is not UTF-8.
inline NSString* _Nullable toNSString(std::string_view text) {
  return [[NSString alloc] initWithBytes:text.data()
                                  length:text.size()
                                encoding:NSUTF8StringEncoding];
}

/// In UTF-8, with U+FFFD for what it cannot express; empty for an absent text.
inline std::string fromNSString(NSString* _Nullable text) {
  std::u16string units(text.length, u'\0');
  [text getCharacters:reinterpret_cast<unichar*>(units.data()) range:{0, units.size()}];
  return toUTF8(units);
}

}  // namespace quorvane::xpc
