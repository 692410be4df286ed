#include "monitor/WebServer.h"

#include <nlohmann/json.hpp>
#include <random>
#include <thread>
#include <utility>

#include "capture/Sources.h"
#include "common/Failure.h"
#include "monitor/Connection.h"
#include "monitor/Page.h"
#include "picture/ImageFile.h"

namespace brvhost {

namespace {

using httplib::Request;
using httplib::Response;
using Json = nlohmann::ordered_json;

constexpr std::size_t Threads = 16, MostConnections = 48, MostPayload = 64 << 10;
constexpr const char* JSONType = "application/json";

thread_local bool isTooMuch = false;  ///< for the connection that is dealt with

/// As many connections at a time as there are threads, and some that wait; others are closed.
class Threadpool : public httplib::ThreadPool {
 public:
  Threadpool() : ThreadPool(Threads) {}

  void enqueue(std::function<void()> work) override {
    if (_connections >= MostConnections) {
      isTooMuch = true;
      work();
      isTooMuch = false;
      return;
    }
    ++_connections;
    ThreadPool::enqueue([this, work = std::move(work)] {
      work();
      --_connections;
    });
  }

 private:
  std::atomic<std::size_t> _connections = 0;
};

std::string randomToken() {
  std::random_device random;
  std::string token;
  for (int i = 0; i < 4; ++i) token += formatted("%08x", random());
  return token;
}

/// Takes as long for every wrong token.
bool isSame(const std::string& token, const std::string& given) {
  unsigned difference = token.size() != given.size();
  for (std::size_t i = 0; i < token.size() && i < given.size(); ++i) {
    difference |= static_cast<unsigned char>(token[i] ^ given[i]);
  }
  return difference == 0;
}

std::string cookieOf(const Request& request, const std::string& name) {
  const std::string cookies = "; " + request.get_header_value("Cookie"), start = "; " + name + "=";
  const std::size_t found = cookies.find(start);
  if (found == cookies.npos) return "";
  const std::string value = cookies.substr(found + start.size());
  return value.substr(0, value.find(';'));
}

std::string bracketed(const std::string& address) {
  return address.find(':') == address.npos ? address : "[" + address + "]";
}

/// "HD Webcam Video" -> "HD-Webcam-Video": what a header can hold.
std::string plain(std::string name) {
  for (char& character : name) {
    const bool isPlain = (character >= '0' && character <= '9') || ((character | 32) >= 'a' && (character | 32) <= 'z');
    if (!isPlain) character = '-';
  }
  return name;
}

}  // namespace

struct WebServer::Site : httplib::Server {
  Site(Wall& shown, Broadcast& sent, WorkQueue& work, std::string listened)
      : wall(shown), broadcast(sent), queue(work), address(std::move(listened)) {
    new_task_queue = [] { return new Threadpool; };
    set_payload_max_length(MostPayload);
    set_socket_options([](socket_t socket) {
      const int yes = 1;
      ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    set_default_headers(
        {{"Content-Security-Policy", "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
         {"X-Content-Type-Options", "nosniff"},
         {"Referrer-Policy", "no-referrer"},
         {"Cross-Origin-Resource-Policy", "same-origin"},
         {"Cache-Control", "no-store"}});
    set_pre_routing_handler([this](const Request& request, Response& response) {
      const auto [status, reason] = refusalOf(request);
      if (status == 0) return HandlerResponse::Unhandled;
      response.status = status;
      response.set_content(std::string(reason) + "\n", "text/plain");
      return HandlerResponse::Handled;
    });
    addPage();
    addStream();
    addActions();
    addSnapshot();
  }

  /// One request for each connection.
  bool process_and_close_socket(socket_t socket) override {
    Connection connection(socket, isEnding);
    if (isTooMuch) return false;
    bool isClosed = false;
    return process_request(connection, true, isClosed, nullptr);
  }

  /// What is wrong with a request, before its body is read; 0 for nothing.
  std::pair<int, const char*> refusalOf(const Request& request) const {
    const auto count = [&](const char* header) { return request.get_header_value_count(header); };
    if (count("Host") != 1 || !isHost(request, request.get_header_value("Host"))) return {403, "wrong host"};
    const std::string origin = request.get_header_value("Origin");
    const bool isPost = request.method == "POST";
    if (!isPost && request.method != "GET" && request.method != "HEAD") return {405, "unknown method"};
    if (count("Origin") > 1 || (isPost && origin.empty()) ||
        (!origin.empty() && origin != "http://" + request.get_header_value("Host"))) {
      return {403, "wrong origin"};
    }
    if (!isSame(token, cookieOf(request, cookieName())) && !isSame(token, request.get_param_value("token"))) {
      return {401, "the address with the token is needed, as brvhost showed it"};
    }
    if (count("Content-Encoding") > 0 || count("Range") > 0) return {400, "no encodings and no ranges"};
    if (isPost && request.get_header_value("Content-Type") != JSONType) return {415, "JSON is needed"};
    return {0, ""};
  }

  /// Whether `host` is a name for this machine that no one else gives out: other names may be another site's, made to
  /// lead here.
  bool isHost(const Request& request, const std::string& host) const {
    const std::string suffix = port == 80 ? "" : ":" + std::to_string(port);
    std::string local = request.local_addr;
    if (local.starts_with("::ffff:")) local.erase(0, 7);
    return host == bracketed(local) + suffix || host == bracketed(address) + suffix || host == "localhost" + suffix;
  }

  std::string cookieName() const { return "brvhost-" + std::to_string(port); }

  void addPage() {
    Get("/favicon.ico", [](const Request&, Response& response) { response.status = 204; });
    for (const PageFile& file : pageFiles()) {
      Get(file.path, [this, &file](const Request& request, Response& response) {
        if (request.has_param("token")) {
          response.set_header("Set-Cookie", cookieName() + "=" + token + "; Path=/; HttpOnly; SameSite=Strict");
        }
        response.set_content(file.content.data(), file.content.size(), file.type);
      });
    }
  }

  void addStream() {
    Get("/stream", [this](const Request& request, Response& response) {
      const auto viewer = broadcast.join(request.get_param_value("enlarged"));
      if (!viewer) {
        response.status = 503;
        return response.set_content("too many viewers\n", "text/plain");
      }
      const auto send = [this, viewer](std::size_t, httplib::DataSink& sink) {
        const std::optional<std::string> messages = broadcast.next(*viewer);
        if (!messages) return sink.done(), true;
        return sink.write(messages->data(), messages->size());
      };
      response.set_chunked_content_provider("application/octet-stream", send,
                                            [this, viewer](bool) { broadcast.leave(viewer); });
    });
  }

  /// What `act` makes of a request, on the main thread; {"error": reason} where it fails.
  template <typename Act>
  Handler action(Act act) {
    return [this, act](const Request& request, Response& response) {
      Json answer;
      try {
        const Json body = request.body.empty() ? Json::object() : Json::parse(request.body);
        const std::string source = body.value("source", request.get_param_value("source"));
        answer = queue.run([this, act, source, body] { return act(wall, source, body); });
      } catch (const std::exception& exception) {
        response.status = 409;
        answer = {{"error", exception.what()}};
      }
      response.set_content(answer.dump(-1, ' ', false, Json::error_handler_t::replace), JSONType);
    };
  }

  void addActions() {
    Get("/settings",
        action([](Wall& shown, const std::string& source, const Json&) { return shown.settings(source); }));
    Post("/settings", action([](Wall& shown, const std::string& source, const Json& body) {
           shown.apply(source, body.at("name").get<std::string>(), body.at("index").get<int>());
           return shown.settings(source);
         }));
    Post("/record", action([](Wall& shown, const std::string& source, const Json& body) {
           const std::string ending = body.value("ending", "mkv");
           if (ending != "mkv" && ending != "mov" && ending != "mp4") throw Failure("no such kind of file");
           return Json{{"file", shown.record(source, ending)}};
         }));
    Post("/stop", action([](Wall& shown, const std::string& source, const Json&) {
           return Json{{"report", shown.endRecording(source)}};
         }));
  }

  void addSnapshot() {
    Get("/snapshot", [this](const Request& request, Response& response) {
      try {
        const std::string source = request.get_param_value("source");
        const bool isJPEG = request.get_param_value("format") == "jpg";
        const brv::Frame frame = queue.run([this, source] { return wall.picture(source); });
        const std::lock_guard lock(snapshotLock);  // one at a time: it is a lot of work
        const brv::Pixels pixels = frame.pixels();
        const RGBImage image =
            withSquarePixels(convertToRGB(viewOf(pixels), colorMatrix(frame.pixelBuffer())), pixelAspectOf(frame));
        const auto bytes = encoded(image, isJPEG ? ImageFormat::jpeg : ImageFormat::png);
        response.set_header("Content-Disposition",
                            "attachment; filename=\"" + plain(source) + (isJPEG ? ".jpg\"" : ".png\""));
        response.set_content(reinterpret_cast<const char*>(bytes.data()), bytes.size(),
                             isJPEG ? "image/jpeg" : "image/png");
      } catch (const std::exception& exception) {
        response.status = 409;
        response.set_content(std::string(exception.what()) + "\n", "text/plain; charset=utf-8");
      }
    });
  }

  Wall& wall;
  Broadcast& broadcast;
  WorkQueue& queue;
  const std::string address;
  const std::string token = randomToken();
  int port = 0;
  std::mutex snapshotLock;
  std::atomic<bool> isEnding = false;
  std::thread listening;
};

WebServer::WebServer(Wall& wall, Broadcast& broadcast, WorkQueue& queue, const std::string& address, int port)
    : _site(std::make_unique<Site>(wall, broadcast, queue, address)) {
  if (port == 0)
    _site->port = _site->bind_to_any_port(address);
  else if (_site->bind_to_port(address, port))
    _site->port = port;
  if (_site->port <= 0) {
    throw Failure("cannot listen at " + address + formatted(", port %d", port));
  }
  _site->listening = std::thread([this] { _site->listen_after_bind(); });
}

WebServer::~WebServer() {
  _site->isEnding = true;
  _site->broadcast.close();
  _site->queue.close();
  while (!_site->is_running()) std::this_thread::yield();  // or stop has no effect
  _site->stop();
  _site->listening.join();
}

std::string WebServer::url() const {
  const std::string host = _site->address == "0.0.0.0" || _site->address == "::" ? "127.0.0.1" : _site->address;
  return "http://" + bracketed(host) + formatted(":%d/?token=", _site->port) + _site->token;
}

}  // namespace brvhost
