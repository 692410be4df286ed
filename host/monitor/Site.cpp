#include "monitor/Site.h"

#include <limits>
#include <random>

#include "capture/Sources.h"
#include "common/Failure.h"
#include "monitor/Page.h"
#include "picture/ImageFile.h"

namespace brvhost {

namespace {

using httplib::Request;
using httplib::Response;
using Json = nlohmann::ordered_json;

constexpr std::size_t MostPayload = 4 << 10;
constexpr const char* JSONType = "application/json";

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

/// "fe80::1%eth0" -> "fe80::1": the zone is not sent.
std::string withoutZone(const std::string& address) {
  return address.substr(0, address.find('%'));
}

/// "HD Webcam Video" -> "HD-Webcam-Video": what a header can hold.
std::string plain(std::string name) {
  for (char& character : name) {
    const bool isPlain = (character >= '0' && character <= '9') || ((character | 32) >= 'a' && (character | 32) <= 'z');
    if (!isPlain) character = '-';
  }
  return name;
}

/// What a body says, or else the query does.
std::string sourceOf(const Request& request, const Json& body) {
  return body.value("source", request.get_param_value("source"));
}

int indexOf(const Json& body) {
  const auto index = body.at("index").get<double>();
  if (!(index >= 0 && index <= std::numeric_limits<int>::max())) throw Failure("no such choice");
  return static_cast<int>(index);
}

std::string endingOf(const Json& body) {
  std::string ending = body.value("ending", "mkv");
  if (ending != "mkv" && ending != "mov" && ending != "mp4") throw Failure("no such kind of file");
  return ending;
}

/// What `act` makes of the body of a request; {"error": reason} where it fails.
template <typename Act>
httplib::Server::Handler answering(Act act) {
  return [act](const Request& request, Response& response) {
    Json answer;
    try {
      const Json body = request.body.empty() ? Json::object() : Json::parse(request.body);
      answer = act(sourceOf(request, body), body);
    } catch (const std::exception& exception) {
      response.status = 409;
      answer = {{"error", exception.what()}};
    }
    response.set_content(answer.dump(-1, ' ', false, Json::error_handler_t::replace), JSONType);
  };
}

}  // namespace

Site::Site(Controls& controls, Broadcast& broadcast, std::string address)
    : _controls(controls), _broadcast(broadcast), _address(std::move(address)), _token(randomToken()) {
  set_payload_max_length(MostPayload);
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

std::string Site::url(const std::string& address) const {
  return "http://" + bracketed(address) + formatted(":%d/?token=", _port) + _token;
}

/// What is wrong with a request, before its body is read; 0 for nothing.
std::pair<int, const char*> Site::refusalOf(const Request& request) const {
  const auto count = [&](const char* header) { return request.get_header_value_count(header); };
  if (count("Host") != 1 || !isHost(request, request.get_header_value("Host"))) return {403, "wrong host"};
  const std::string origin = request.get_header_value("Origin");
  const bool isPost = request.method == "POST";
  if (!isPost && request.method != "GET" && request.method != "HEAD") return {405, "unknown method"};
  if (count("Origin") > 1 || (isPost && origin.empty()) ||
      (!origin.empty() && origin != "http://" + request.get_header_value("Host"))) {
    return {403, "wrong origin"};
  }
  if (!isSame(_token, cookieOf(request, cookieName())) && !isSame(_token, request.get_param_value("token"))) {
    return {401, "the address with the token is needed, as brvhost showed it"};
  }
  if (count("Content-Encoding") > 0 || count("Range") > 0) return {400, "no encodings and no ranges"};
  if (isPost && request.get_header_value("Content-Type") != JSONType) return {415, "JSON is needed"};
  return {0, ""};
}

/// Whether `host` is a name for this machine that no one else gives out: other names may be another site's, made to
/// lead here.
bool Site::isHost(const Request& request, const std::string& host) const {
  const std::string suffix = _port == 80 ? "" : ":" + std::to_string(_port);
  std::string local = withoutZone(request.local_addr);
  if (local.starts_with("::ffff:")) local.erase(0, 7);
  return host == bracketed(local) + suffix || host == bracketed(withoutZone(_address)) + suffix ||
         host == "localhost" + suffix;
}

std::string Site::cookieName() const {
  return "brvhost-" + std::to_string(_port);
}

void Site::addPage() {
  Get("/favicon.ico", [](const Request&, Response& response) { response.status = 204; });
  for (const PageFile& file : pageFiles()) {
    Get(file.path, [this, &file](const Request& request, Response& response) {
      if (request.has_param("token")) {
        response.set_header("Set-Cookie", cookieName() + "=" + _token + "; Path=/; HttpOnly; SameSite=Strict");
      }
      response.set_content(file.content.data(), file.content.size(), file.type);
    });
  }
}

void Site::addStream() {
  Get("/stream", [this](const Request& request, Response& response) {
    const auto viewer = _broadcast.join(request.get_param_value("enlarged"));
    if (!viewer) {
      response.status = 503;
      return response.set_content("too many viewers\n", "text/plain");
    }
    const auto send = [this, viewer](std::size_t, httplib::DataSink& sink) {
      const std::optional<std::string> messages = _broadcast.next(*viewer);
      if (!messages) return sink.done(), true;
      return sink.write(messages->data(), messages->size());
    };
    response.set_chunked_content_provider("application/octet-stream", send,
                                          [this, viewer](bool) { _broadcast.leave(viewer); });
  });
}

void Site::addActions() {
  Get("/settings", answering([this](const std::string& source, const Json&) { return _controls.settings(source); }));
  Post("/settings", answering([this](const std::string& source, const Json& body) {
         return _controls.apply(source, body.at("name").get<std::string>(), indexOf(body));
       }));
  Post("/record", answering([this](const std::string& source, const Json& body) {
         return Json{{"file", _controls.record(source, endingOf(body))}};
       }));
  Post("/stop", answering([this](const std::string& source, const Json&) {
         return Json{{"report", _controls.endRecording(source)}};
       }));
}

void Site::addSnapshot() {
  Get("/snapshot", [this](const Request& request, Response& response) {
    try {
      const std::string source = request.get_param_value("source");
      const bool isJPEG = request.get_param_value("format") == "jpg";
      const brv::Frame frame = _controls.picture(source);
      const std::lock_guard lock(_snapshotLock);  // one at a time: it is a lot of work
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

}  // namespace brvhost
