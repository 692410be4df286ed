// Camera URLs, as people type them and as attackers do.

#include <gtest/gtest.h>

#include <string>

#include "common/network/NetworkUtilities.h"

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
  const char* const taken[][2] = {
      {"rtsp://admin:pw@192.168.1.20:8554/live/ch1?res=hd", "rtsp admin pw 192.168.1.20 8554 live/ch1?res=hd"},
      {"rtsp://192.168.1.20?res=hd", "rtsp - - 192.168.1.20 -1 -?res=hd"},
      {"RTSPS://Cam-3.Studio.example:322/a", "RTSPS - - Cam-3.Studio.example 322 a"},
      {"svn+ssh-1.0://h/p", "svn+ssh-1.0 - - h -1 p"},
      {"//192.168.1.20/live", "- - - 192.168.1.20 -1 live"},
      {"rtsp://h//a///b/", "rtsp - - h -1 /a///b/"},
      {"rtsp://h/a;b=1,2:3@4/$-_.!~*'()+&=", "rtsp - - h -1 a;b=1,2:3@4/$-_.!~*'()+&="},
      {"rtsp://h/p?a?b=/:@?#f?g", "rtsp - - h -1 p?a?b=/:@?#f?g"},
      {"rtsp://h/p#f?g", "rtsp - - h -1 p?g"},
      {"rtsp://h/a%20b%2Fc%FF%00", "rtsp - - h -1 a%20b%2Fc%FF%00"},
      {"rtsp://us%40er%3a1:p%40%3A%2f%25@h/", "rtsp us@er:1 p@:/% h -1 "},
      {"rtsp://k%C3%A4the:%E2%82%AC@k%c3%bcnstler/x", "rtsp k\xC3\xA4the \xE2\x82\xAC k\xC3\xBCnstler -1 x"},
      {"rtsp://@h/p", "rtsp  - h -1 p"},
      {"rtsp://a:b:c:@h:1/p", "rtsp a b:c: h 1 p"},
      {"rtsp://h:000000554/", "rtsp - - h 554 "},
      {"rtsp://h:/p", "rtsp - - h -1 p"},
      {"rtsp://a:b@[::ffff:10.0.0.1]:0", "rtsp a b ::ffff:10.0.0.1 0 -"},
      {"rtsp://[fe80::1%25eth0]/", "rtsp - - fe80::1%eth0 -1 "},
  };
  const char* const refused[] = {
      // escapes that are broken, or no text
      "rtsp://h/%", "rtsp://h/%4", "rtsp://h/%G0", "rtsp://h%4:80/", "rt%73p://h/", "rtsp://a:b@h%FF/",
      "rtsp://a:%ED%A0%80@h/", "rtsp://good%00.evil/", "rtsp://a:%00@h/",
      // user information and ports
      "rtsp://a@b@h/p", "rtsp://a:b?c@h/p", "rtsp://h:65536/", "rtsp://h:-1/", "rtsp://h:+5/", "rtsp://h:55a/",
      "rtsp://h:5:5/", "rtsp://h:%35/",
      // brackets and addresses of IPv6
      "rtsp://[]/", "rtsp://[::1/", "rtsp://::1]/", "rtsp://[::1]x/", "rtsp://[[::1]]/", "rtsp://h/p[0]",
      "rtsp://[10.0.0.1]/", "rtsp://::1/", "rtsp://[fe80::1%eth0]/", "rtsp://[fe80::1%25]/",
      // schemes, and URLs without a host
      "", "192.168.1.20:554/live", "/dev/video0", "rtsp:", "rtsp:/h/p", "rtsp:///p", "rtsp://:554/p", "rtsp://a:b@/p",
      "mailto:desk@h", "://h/p", "1rtsp://h/p", " rtsp://h/p",
      // characters
      "rtsp://h/a b", "rtsp://h/\r\nHost: x", "rtsp://h/\x7F", "rtsp://h/\xC3\xBC", "rtsp://h/<p>", "rtsp://h/\"",
      "rtsp://h/{p}", "rtsp://h/a|b", "rtsp://h\\p", "rtsp://h/^", "rtsp://h/`", "rtsp://h/p#a#b"};

  for (const auto& [url, parts] : taken) EXPECT_EQ(partsOf(url), parts) << url;
  for (const char* const url : refused) EXPECT_EQ(partsOf(url), "refused") << url;
  EXPECT_EQ(partsOf(std::string("rtsp://good\0.evil/", 18)), "refused");
}

}  // namespace
