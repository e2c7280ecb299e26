// A companion in Swift for macOS, over XPC and without the library: holds a fan at a speed until Enter, and reports what
// happens to it. It was written without a Mac and has never been compiled or run.
//
// usage: companion FAN RPM
import Foundation

@objc(FanControlXPC) protocol FanControlXPC {
  @objc(writeFanKey:value:isFloat:reply:)
  func writeFanKey(_ key: String, value: Int64, isFloat: Bool, reply: @escaping (Bool, String?) -> Void)
  @objc(restoreAutoWithReply:) func restoreAuto(reply: @escaping (Bool, String?) -> Void)
  @objc(statusWithReply:) func status(reply: @escaping ([String: String]) -> Void)
  @objc(pingWithReply:) func ping(reply: @escaping (String) -> Void)
}

guard CommandLine.arguments.count == 3, let rpm = Int64(CommandLine.arguments[2]) else { exit(2) }
let fan = CommandLine.arguments[1], team = "X4TQ8RW2ZN"
let connection = NSXPCConnection(machServiceName: "com.quorvane.fanhelper", options: .privileged)
connection.remoteObjectInterface = NSXPCInterface(with: FanControlXPC.self)
connection.setCodeSigningRequirement("identifier \"com.quorvane.fanhelper\" and anchor apple generic and "
  + "certificate leaf[subject.OU] = \"\(team)\"")

// Waits for the reply, so that calls follow each other.
func call(_ what: (FanControlXPC, @escaping () -> Void) -> Void) -> Bool {
  var answered = false
  let proxy = connection.synchronousRemoteObjectProxyWithErrorHandler { print("no answer: \($0)") }
  if let helper = proxy as? FanControlXPC { what(helper) { answered = true } }
  return answered
}
func write(_ key: String, _ value: Int64, isFloat: Bool) -> Bool {
  var done = false
  let answered = call { helper, settle in
    helper.writeFanKey(key, value: value, isFloat: isFloat) { success, message in
      if !success { print(message ?? "refused") }
      done = success
      settle()
    }
  }
  return answered && done
}
func isForced() -> Bool {
  var forced = ""
  return call { helper, settle in helper.status { forced = $0["forcedFans"] ?? ""; settle() } }
    && forced.contains(fan)
}

// The next call reconnects an interrupted connection and makes launchd start the helper. So this calls immediately: a
// helper that starts puts the fans into automatic mode.
connection.interruptionHandler = { _ = call { helper, settle in helper.ping { _ in settle() } } }
connection.resume()
guard write("F\(fan)Md", 1, isFloat: false), write("F\(fan)Tg", rpm, isFloat: true) else { exit(1) }

// Renews only while the fan is still forced, and ends before the longest manual period does.
let end = Date(timeIntervalSinceNow: 1785)
let timer = DispatchSource.makeTimerSource(queue: .global())
timer.schedule(deadline: .now() + 5, repeating: 5)
timer.setEventHandler {
  guard Date() < end, isForced(), write("F\(fan)Tg", rpm, isFloat: true) else {
    print("fan \(fan) is no longer held")
    return timer.cancel()
  }
}
timer.resume()
_ = readLine()
timer.cancel()
_ = write("F\(fan)Md", 0, isFloat: false)
