// Requests to the monitor's page: as they come, and with the right token and origin. Nothing but what is asked for
// properly reaches the sources, and no request without the token gets more than a refusal.

#include <httplib.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

#include "FuzzInput.h"
#include "monitor/Broadcast.h"
#include "monitor/Journal.h"
#include "monitor/Site.h"

namespace {

using Json = nlohmann::ordered_json;

/// A connection on which everything has come already.
class Text : public httplib::Stream {
 public:
  explicit Text(std::string_view request) : _rest(request) {}

  bool is_readable() const override { return !_rest.empty(); }
  bool is_writable() const override { return true; }
  ssize_t read(char* bytes, std::size_t size) override {
    const std::size_t count = _rest.copy(bytes, size);
    _rest.remove_prefix(count);
    return static_cast<ssize_t>(count);
  }
  ssize_t write(const char* bytes, std::size_t size) override {
    answer.append(bytes, size);
    return static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1", port = 40'000; }
  void get_local_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1", port = 8730; }
  socket_t socket() const override { return -1; }

  std::string answer;

 private:
  std::string_view _rest;
};

/// Takes what the sources would be asked for.
class Asked : public brvhost::Controls {
 public:
  Json settings(const std::string& source) override { return {{"settings", ask(source)}}; }
  Json apply(const std::string& source, const std::string& parameter, int index) override {
    fuzz::require(index >= 0);
    return {{parameter, ask(source)}};
  }
  brv::Frame picture(const std::string& source) override { throw std::runtime_error(ask(source)); }
  std::string record(const std::string& source, const std::string& ending) override {
    fuzz::require(ending.size() == 3 && ending[0] == 'm');
    return ask(source) + "." + ending;
  }
  std::string endRecording(const std::string& source) override { return ask(source); }

  int count = 0;

 private:
  std::string ask(const std::string& source) {
    ++count;
    return source;
  }
};

struct Fuzzed : brvhost::Site {
  using Site::Site;

  std::string answerTo(const std::string& request) {
    Text text(request);
    bool isClosed = false;
    process_request(text, true, isClosed, nullptr);
    return text.answer;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const brvhost::Journal journal;
  static brvhost::Broadcast broadcast(journal);
  static Asked asked;
  static Fuzzed site(asked, broadcast, "127.0.0.1");
  static const std::string proof = [] {
    broadcast.close();  // a stream would not end
    site.setPort(8730);
    const std::string url = site.url("127.0.0.1");
    return "Host: 127.0.0.1:8730\r\nOrigin: http://127.0.0.1:8730\r\nCookie: brvhost-8730=" +
           url.substr(url.find('=') + 1) + "\r\n";
  }();
  asked.count = 0;
  const std::string request(reinterpret_cast<const char*>(data), size);
  const std::string refusal = site.answerTo(request);
  fuzz::require(asked.count == 0);
  fuzz::require(refusal.empty() || refusal.starts_with("HTTP/1.1 4") || refusal.starts_with("HTTP/1.1 100 "));

  // The same after its first line, and as the body of an action.
  const std::size_t line = request.find("\r\n") == request.npos ? 0 : request.find("\r\n") + 2;
  site.answerTo(request.substr(0, line) + proof + request.substr(line));
  fuzz::require(asked.count <= 1);
  for (const char* action : {"settings", "record", "stop"}) {
    const std::string answer = site.answerTo(
        "POST /" + std::string(action) + " HTTP/1.1\r\n" + proof +
        "Content-Type: application/json\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" + request);
    if (size > 0) fuzz::require(answer.starts_with("HTTP/1.1 200 ") || answer.starts_with("HTTP/1.1 4"));
  }
  return 0;
}
