// Texts, numbers in them, and queues.

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <Foundation/NSScanner.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <runtime/Scheduler.h>

#include <optional>
#include <string>

namespace {

TEST(NSScannerTest, ReadsHexadecimalDigitsAsFarAsTheyGo) {
  const struct {
    const char* text;
    std::size_t location;
    std::optional<std::uint64_t> first, second;
  } cases[] = {{"0123456789 abcdef", 0, 0x0123456789, 0xABCDEF},
               {" \t\n\v\f\r0xABCDEF 0Xfg", 0, 0xABCDEF, 0xF},
               {"0x 1", 0, 0, {}},
               {"0xg", 0, 0, {}},
               {"0x", 2, {}, {}},
               {"é12345", 2, 0x2345, {}},
               {"12", 3, {}, {}},
               {"FFFFFFFFFFFFFFFF 10000000000000000", 0, UINT64_MAX, UINT64_MAX}};
  for (const auto& [text, location, first, second] : cases) {
    auto scanner = NSScanner::scannerWithString(text);
    scanner.setScanLocation(location);
    for (const auto& expected : {first, second}) {
      std::uint64_t number = 7;
      EXPECT_EQ(scanner.scanHexLongLong(&number), expected.has_value()) << text;
      EXPECT_EQ(number, expected.value_or(7)) << text;
    }
  }
  for (const char next : std::string("/:@G`g"))  // what lies beside the digits
    EXPECT_FALSE(NSScanner::scannerWithString({next}).scanHexLongLong(nullptr)) << next;
}

TEST(CFStringTest, ItsLengthIsInUnitsOfUTF16) {
  const auto text = CFRef<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, "aé€😀", kCFStringEncodingUTF8));
  EXPECT_EQ(CFStringGetLength(text.get()), 5);
}

TEST(DispatchTest, AQueueDoesWhatItIsGivenInOrderAndWithoutAnyoneWaiting) {
  const auto queue = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("queue", DISPATCH_QUEUE_SERIAL));
  std::string order;
  const auto add = [](void* text) { *static_cast<std::string*>(text) += 'a'; };
  for (int i = 0; i < 3; ++i) dispatch_async_f(queue.get(), &order, add);
  dispatch_sync(queue.get(), [&] { order += dispatch_queue_is_current(queue.get()) ? 'b' : '?'; });
  EXPECT_EQ(order, "aaab");
  runtime::Event isDone;
  dispatch_async_f(queue.get(), &isDone, [](void* event) { static_cast<runtime::Event*>(event)->signal(); });
  auto& scheduler = runtime::Scheduler::current();
  EXPECT_TRUE(scheduler.wait(isDone, scheduler.now() + 10 * runtime::NanosecondsPerSecond));
}

}  // namespace
