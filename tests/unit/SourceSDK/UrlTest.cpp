// Camera URLs, as people type them and as attackers do, through getURLString and the CFURL calls beneath.

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <CoreFoundation/CFURL.h>
#include <Foundation/NSObject.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/NetworkUtilities.h"

namespace {

/// "scheme user password host port path", each "-" where the URL left it alone.
std::string partsOf(const std::string& url) {
  std::string scheme = "-", user = "-", password = "-", host = "-", path = "-";
  std::int32_t port = 77;
  const bool isTaken = CSDK::getURLString(url, &scheme, &host, &path, &port, &user, &password);
  const std::string parts = scheme + " " + user + " " + password + " " + host + " " + std::to_string(port) + " " + path;
  if (isTaken) return parts;
  EXPECT_EQ(parts, "- - - - 77 -") << "a refused URL wrote something: " << url;
  return "refused";
}

TEST(UrlTest, IsTakenApartOrRefusedAsAWhole) {
  struct {
    const char *url, *parts;
  } const taken[] = {
      {"rtsp://admin:pw@192.168.1.20:8554/live/ch1?res=hd", "rtsp admin pw 192.168.1.20 8554 live/ch1?res=hd"},
      {"rtsp://admin:pw@192.168.1.20/live/ch1?res=hd", "rtsp admin pw 192.168.1.20 -1 live/ch1?res=hd"},
      {"rtsp://192.168.1.20/", "rtsp - - 192.168.1.20 -1 "},
      {"rtsp://192.168.1.20?res=hd", "rtsp - - 192.168.1.20 -1 -?res=hd"},
      {"rtsp://cam/media/a.amp?codec=h264&fps=25", "rtsp - - cam -1 media/a.amp?codec=h264&fps=25"},
      {"rtsp://cam:554/user=admin&password=&channel=1.sdp", "rtsp - - cam 554 user=admin&password=&channel=1.sdp"},
      {"RTSPS://Cam-3.Studio.example:322/a", "RTSPS - - Cam-3.Studio.example 322 a"},
      {"srt://10.0.0.9:9000?streamid=a/b:c@d", "srt - - 10.0.0.9 9000 -?streamid=a/b:c@d"},
      {"svn+ssh-1.0://h/p", "svn+ssh-1.0 - - h -1 p"},
      {"//192.168.1.20/live", "- - - 192.168.1.20 -1 live"},
      {"rtsp://h//a///b/", "rtsp - - h -1 /a///b/"},
      {"rtsp://h/a;b=1,2:3@4/$-_.!~*'()+&=", "rtsp - - h -1 a;b=1,2:3@4/$-_.!~*'()+&="},
      {"rtsp://h/p?a?b=/:@?#f?g", "rtsp - - h -1 p?a?b=/:@?#f?g"},
      {"rtsp://h/p#f?g", "rtsp - - h -1 p?g"},
      {"rtsp://h/a%20b%2Fc%FF%00", "rtsp - - h -1 a%20b%2Fc%FF%00"},
      {"rtsp://us%40er%3a1:p%40%3A%2f%25@h/", "rtsp us@er:1 p@:/% h -1 "},
      {"rtsp://k%C3%A4the:%E2%82%AC@k%c3%bcnstler/x", "rtsp k\xC3\xA4the \xE2\x82\xAC k\xC3\xBCnstler -1 x"},
      {"rtsp://user@h/p", "rtsp user - h -1 p"},
      {"rtsp://user:@h/p", "rtsp user  h -1 p"},
      {"rtsp://@h/p", "rtsp  - h -1 p"},
      {"rtsp://h:0/", "rtsp - - h 0 "},
      {"rtsp://h:000000554/", "rtsp - - h 554 "},
      {"rtsp://h:/p", "rtsp - - h -1 p"},
      {"rtsp://[2001:db8::1]:554/p", "rtsp - - 2001:db8::1 554 p"},
      {"rtsp://a:b@[::ffff:10.0.0.1]", "rtsp a b ::ffff:10.0.0.1 -1 -"},
      {"rtsp://[fe80::1%25eth0]/", "rtsp - - fe80::1%eth0 -1 "},
  };
  struct {
    const char* why;
    std::vector<const char*> urls;
  } const refused[] = {
      {"broken escapes", {"rtsp://h/%", "rtsp://h/%4", "rtsp://h/%G0", "rtsp://h%4:80/", "rt%73p://h/"}},
      {"escapes that are no text",
       {"rtsp://a:b@h%FF/", "rtsp://a:%ED%A0%80@h/", "rtsp://good%00.evil/", "rtsp://a:%00@h/"}},
      {"user information", {"rtsp://a@b@h/p", "rtsp://a:b:c@h/p", "rtsp://a:b?c@h/p", "rtsp://a[b]:c@h/p"}},
      {"ports",
       {"rtsp://h:65536/", "rtsp://h:4294967850/", "rtsp://h:-1/", "rtsp://h:+5/", "rtsp://h:55a/", "rtsp://h:5:5/",
        "rtsp://h:%35/"}},
      {"brackets",
       {"rtsp://[]/", "rtsp://[::1/", "rtsp://::1]/", "rtsp://[::1]x/", "rtsp://[[::1]]/", "rtsp://h/p[0]",
        "rtsp://h/p?x]"}},
      {"IPv6 addresses", {"rtsp://[10.0.0.1]/", "rtsp://::1/", "rtsp://[fe80::1%eth0]/", "rtsp://[fe80::1%25]/"}},
      {"no host",
       {"", "192.168.1.20", "192.168.1.20:554/live", "localhost:554", "/dev/video0", "rtsp:", "rtsp:/h/p", "rtsp://",
        "rtsp:///p", "rtsp://:554/p", "rtsp://a:b@/p", "mailto:desk@h"}},
      {"schemes", {"://h/p", "1rtsp://h/p", "rt sp://h/p", " rtsp://h/p"}},
      {"characters",
       {"rtsp://h/a b", "rtsp://h/\r\nHost: x", "rtsp://h/\x7F", "rtsp://h/\xC3\xBC", "rtsp://h\t/p", "rtsp://h/<p>",
        "rtsp://h/\"", "rtsp://h/{p}", "rtsp://h/a|b", "rtsp://h\\p", "rtsp://h/^", "rtsp://h/`", "rtsp://h/p#a#b"}},
  };
  const std::int64_t objectsBefore = NSObject::liveObjectCount();

  for (const auto& each : taken) EXPECT_EQ(partsOf(each.url), each.parts) << each.url;
  for (const auto& each : refused) {
    for (const char* const url : each.urls) EXPECT_EQ(partsOf(url), "refused") << each.why << ": " << url;
  }
  EXPECT_EQ(partsOf(std::string("rtsp://good\0.evil/", 18)), "refused");
  EXPECT_EQ(NSObject::liveObjectCount(), objectsBefore);
}

TEST(UrlTest, MayBeLong) {
  const std::string longText(64 * 1024, 'a');
  std::string escapes;
  for (int count = 0; count < 21'000; ++count) escapes += "%41";

  EXPECT_EQ(partsOf("rtsp://" + longText + ":1/" + longText), "rtsp - - " + longText + " 1 " + longText);
  EXPECT_EQ(partsOf("rtsp://" + escapes + "@h"), "rtsp " + std::string(21'000, 'A') + " - h -1 -");
  for (const char repeated : {'@', ':', '[', ']', '%', '#'}) {
    EXPECT_EQ(partsOf("rtsp://" + std::string(64 * 1024, repeated) + "/"), "refused") << repeated;
  }
}

TEST(UrlTest, WithoutAHostHasTheOtherParts) {
  struct {
    const char *url, *scheme, *path;
    bool canBeDecomposed, isAbsolute;
  } const cases[] = {
      {"file:///home/clip%20.mov?x", "file", "home/clip%20.mov", true, true},
      {"clips/a:b", nullptr, "clips/a:b", true, false},
      {"/", nullptr, "", true, true},
      {"?query", nullptr, nullptr, true, false},
      {"mailto:desk", "mailto", nullptr, false, false},
  };
  const auto textOf = [](CFStringRef string) {
    const auto released = CFRef<CFStringRef>::adopt(string);
    return std::string(string ? CFStringGetCStringPtr(string, kCFStringEncodingUTF8) : "none");
  };

  for (const auto& each : cases) {
    const auto text = CFRef<CFStringRef>::adopt(
        CFStringCreateWithCStringNoCopy(nullptr, each.url, kCFStringEncodingUTF8, kCFAllocatorNull));
    const auto url = CFRef<CFURLRef>::adopt(CFURLCreateWithString(nullptr, text.get(), nullptr));
    ASSERT_TRUE(url) << each.url;
    Boolean isAbsolute = !each.isAbsolute;
    EXPECT_EQ(textOf(CFURLCopyStrictPath(url.get(), &isAbsolute)), each.path ? each.path : "none");
    EXPECT_EQ(isAbsolute, each.isAbsolute) << each.url;
    EXPECT_EQ(textOf(CFURLCopyScheme(url.get())), each.scheme ? each.scheme : "none");
    EXPECT_EQ(CFURLCanBeDecomposed(url.get()), each.canBeDecomposed) << each.url;
    EXPECT_EQ(textOf(CFURLCopyHostName(url.get())), "none");
  }
}

}  // namespace
