// quorvane::FanControlXPC in Foundation's types, for both ends: the protocol, its reply blocks, and
// the conversion of texts. Needs ARC.
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

/// A peer may send nil for any object, also for the reply block.
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

/// Returns nil if the text is not UTF-8.
inline NSString* _Nullable toNSString(std::string_view text) {
  return [[NSString alloc] initWithBytes:text.data()
                                  length:text.size()
                                encoding:NSUTF8StringEncoding];
}

/// Returns the text in UTF-8, with U+FFFD for each unpaired surrogate; empty for nil.
inline std::string fromNSString(NSString* _Nullable text) {
  std::u16string units(text.length, u'\0');
  [text getCharacters:reinterpret_cast<unichar*>(units.data()) range:{0, units.size()}];
  return toUTF8(units);
}

}  // namespace quorvane::xpc
