#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <httplib.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "commands/Commands.h"
#include "common/Failure.h"
#include "support/FrameworkTest.h"
#include "support/MediaReader.h"
#include "support/Rigs.h"
#include "support/TemporaryFolder.h"

namespace brvhost {
namespace {

using httplib::Headers;
using nlohmann::json;

/// Output that is the address of the page.
struct AddressLine : std::stringbuf {
  int sync() override {
    line.set_value(str());
    return 0;
  }

  std::promise<std::string> line;
};

struct Message {
  char kind = 0;
  std::string source, content;
};

/// A viewer of the page of brvhost, which runs on the main thread with the real module.
class MonitorTest : public FrameworkTest {
 protected:
  MonitorTest() {
    zThread::SetSleepFunction([](unsigned) {});
    zTrace::Default().SetSink([](const char*) {});
    _provider = rigs::install(
        "[device]\nid = cam\nname = Camera\nmedia = video\nlinks = mic\n"
        "video format = 720x576 yuvs, rates 25, active\nvideo format = 320x240 yuvs, rates 30\n"
        "[device]\nid = mic\nname = Microphone\nmedia = audio\naudio format = 48000 Hz\nsound = tone 1000 -20\n"
        "[device]\nid = lone\nname = Lone\nmedia = audio\naudio format = 48000 Hz\nsound = tone 500 -6\n");
  }
  ~MonitorTest() override {
    std::fclose(_log);
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  /// Runs brvhost for as long as `visit` takes.
  void serve(const std::function<void()>& visit) {
    AddressLine address;
    std::thread visitor([&] {
      const std::string url = address.line.get_future().get();  // "http://127.0.0.1:8730/?token=..."
      _site = url.substr(0, url.find("/?"));
      _token = url.substr(url.find('=') + 1, 32);
      visit();
      std::raise(SIGINT);
    });
    Console console(_log, false);
    std::ostream out(&address);
    const Options options = parseOptions(
        {"--module", MODULE_PATH, "--quiet", "monitor", "--port", "0", "--folder", _folder.file("")}, nullptr);
    EXPECT_EQ(run(options, out, console), ExitDone);
    visitor.join();
  }

  std::uint16_t port() const { return static_cast<std::uint16_t>(std::stoi(_site.substr(_site.rfind(':') + 1))); }
  httplib::Client client() const { return httplib::Client(_site); }
  Headers cookie() const {
    return {{"Cookie", "a=b; brvhost" + _site.substr(_site.rfind(':')).replace(0, 1, "-") + "=" + _token}};
  }
  json post(const std::string& path, const json& body) const {
    Headers headers = cookie();
    headers.emplace("Origin", _site);
    const auto answer = client().Post(path, headers, body.dump(), "application/json");
    return answer ? json::parse(answer->body) : json();
  }

  /// Watches until `wanted` has been seen.
  void watch(const std::function<bool(const Message&)>& wanted) const {
    std::string bytes;
    bool isSeen = false;
    const auto take = [&](const char* data, std::size_t count) {
      bytes.append(data, count);
      const auto number = [&](std::size_t at, std::size_t size) {
        std::size_t value = 0;
        while (size-- > 0) value = value << 8 | (bytes[at++] & 0xFF);
        return value;
      };
      while (!isSeen && bytes.size() >= 4 && bytes.size() >= 4 + number(0, 4)) {
        const std::size_t end = 4 + number(0, 4), name = number(5, 2);
        isSeen = wanted({bytes[4], bytes.substr(7, name), bytes.substr(7 + name, end - 7 - name)});
        bytes.erase(0, end);
      }
      return !isSeen;
    };
    while (true) {
      const auto answer = client().Get("/stream", cookie(), take);
      if (!answer || answer->status != 503) break;  // those that have just left may count still
      bytes.clear();
    }
    EXPECT_TRUE(isSeen);
  }
  /// Until the state of all sources is as wanted.
  void watchStates(const std::function<bool(const json&)>& wanted) const {
    watch([&](const Message& message) { return message.kind == 's' && wanted(json::parse(message.content)); });
  }
  /// Until there is a picture of the camera that is so wide.
  void expectPicture(int width, int height) const {
    DecodedMedia picture;
    watch([&](const Message& message) {
      if (message.kind != 't' || message.source != "Camera Video") return false;
      picture = decodeMedia(_folder.write("tile.jpg", message.content));
      return picture.width == width;
    });
    EXPECT_EQ(picture.height, height);
    const auto cbOfBar = [&](int bar) {  // of eight, in the middle of its first line
      return static_cast<unsigned char>(
          picture.pictures[0][static_cast<std::size_t>(width * height + width * bar / 16 + width / 32)]);
    };
    EXPECT_TRUE(cbOfBar(1) < 40 && cbOfBar(6) > 200) << "yellow and blue";
  }

  TemporaryFolder _folder;
  std::FILE* _log = std::fopen(_folder.file("log").c_str(), "w");
  std::shared_ptr<hardware::simulated::Provider> _provider;
  std::string _site, _token;
};

TEST_F(MonitorTest, ShowsSetsRecordsAndFollowsItsSources) {
  serve([&] {
    const json wrong = {{"source", "Camera Video"}, {"name", "Video Settings"}, {"index", 1LL << 32}};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(post("/settings", wrong)["error"], "no such choice");
    EXPECT_EQ(_provider->device("cam")->capturedVideo(), 0U) << "nobody watches";
    expectPicture(450, 360);
    watchStates([](const json& states) {
      const auto isNear = [&](std::size_t source, double level) {
        const json& levels = states[source]["levels"];
        return std::abs(levels[0][0].get<double>() - level) < 0.3 && levels[0] == levels[1];
      };
      return states.size() == 2 && isNear(0, -20) && isNear(1, -6) && states[0]["rate"].get<double>() > 24;
    });

    const json settings = post("/settings", {{"source", "Camera Video"}, {"name", "Video Settings"}, {"index", 1}});
    EXPECT_EQ(settings[0]["selected"], 1);
    expectPicture(320, 240);

    const std::string take = post("/record", {{"source", "Camera Video"}})["file"];
    EXPECT_THAT(post("/record", {{"source", "Camera Video"}})["error"], testing::EndsWith("is being recorded already"));
    watchStates([](const json& states) {
      return states[0].contains("recording") && states[0]["recording"]["seconds"].get<double>() > 0.5;
    });
    const std::string report = post("/stop", {{"source", "Camera Video"}})["report"];
    EXPECT_THAT(report, testing::HasSubstr("missing 0, not written 0"));
    const DecodedMedia media = decodeMedia(_folder.file(take));
    EXPECT_TRUE(media.width == 320 && media.pictures.size() > 10 && media.sound.size() > 44'100) << report;

    expectPicture(320, 240);
    EXPECT_THAT(client().Get("/snapshot?source=Camera%20Video", cookie())->body, testing::StartsWith("\x89PNG"));
    _provider->unplug("lone");
    watchStates([](const json& states) { return states.size() == 1; });
    EXPECT_EQ(post("/record", {{"source", "Lone Audio"}})["error"], "\"Lone Audio\" is not there");
  });
}

TEST_F(MonitorTest, RefusesStrangersAndWhatIsTooMuchAndGoesOn) {
  serve([&] {
    const auto get = [&](const std::string& path, Headers headers) { return client().Get(path, headers)->status; };
    const auto with = [&](const char* header, const std::string& value) {
      Headers headers = cookie();
      headers.emplace(header, value);
      return headers;
    };
    EXPECT_EQ(get("/", {}), 401);
    EXPECT_EQ(get("/?token=" + _token.substr(1), {}), 401);
    EXPECT_EQ(get("/?token=" + _token, {}), 200);
    EXPECT_EQ(get("/monitor.js", cookie()), 200);
    for (const char* host : {"evil.example", "127.0.0.1", "evil.example:8730"})
      EXPECT_EQ(get("/", with("Host", host)), 403);
    EXPECT_EQ(get("/stream", with("Origin", "http://evil.example")), 403);
    EXPECT_EQ(get("/", with("Range", "bytes=0-1")), 400);
    EXPECT_EQ(get("/", with("Content-Encoding", "gzip")), 400);

    const auto send = [&](const Headers& headers, const std::string& body, const char* type = "application/json") {
      return client().Post("/record", headers, body, type)->status;
    };
    EXPECT_EQ(send(cookie(), "{}"), 403) << "without an origin";
    EXPECT_EQ(send(with("Origin", "null"), "{}"), 403);
    EXPECT_EQ(send(with("Origin", _site), "{}", "text/plain"), 415);
    EXPECT_EQ(send(with("Origin", _site), std::string(70'000, ' ')), 413);
    for (const char* body : {"{", "[]", "{\"source\": 1}", "{\"source\": \"Camera Video\", \"ending\": \"sh\"}"}) {
      EXPECT_EQ(send(with("Origin", _site), body), 409) << body;
    }

    std::vector<std::thread> viewers;
    std::atomic<int> watching = 0;
    std::atomic<bool> isOver = false;
    for (int i = 0; i < 8; ++i) {
      viewers.emplace_back([&] {
        bool isFirst = true;
        watch([&](const Message&) {
          if (std::exchange(isFirst, false)) ++watching;
          return isOver.load();
        });
      });
    }
    while (watching < 8) std::this_thread::yield();
    EXPECT_EQ(get("/stream", cookie()), 503);
    isOver = true;
    for (std::thread& viewer : viewers) viewer.join();
    expectPicture(450, 360);
  });
}

TEST_F(MonitorTest, GivesUpOnRequestsThatDoNotEnd) {
  serve([&] {
    std::vector<int> slow(16);  // as many as are dealt with at a time
    for (int& each : slow) {
      each = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(port());
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      ASSERT_EQ(::connect(each, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      EXPECT_EQ(::send(each, "GET / HT", 8, MSG_NOSIGNAL), 8);
    }

    httplib::Client patient = client();
    patient.set_read_timeout(60);
    EXPECT_EQ(patient.Get("/", cookie())->status, 200);
    char byte = 0;
    EXPECT_EQ(::recv(slow[0], &byte, 1, 0), 0);
    for (const int each : slow) ::close(each);
    expectPicture(450, 360);
  });
}

}  // namespace
}  // namespace brvhost
