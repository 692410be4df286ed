#include "record/NetworkStream.h"

#include <utility>

#include "record/AV.h"

namespace brvhost {

NetworkStream::NetworkStream(const std::string& url, std::function<bool()> isInterrupted)
    : _isInterrupted(std::move(isInterrupted)) {
  const AVIOInterruptCB interrupt{
      [](void* self) { return static_cast<const NetworkStream*>(self)->_isInterrupted() ? 1 : 0; }, this};
  const int level = av_log_get_level();
  av_log_set_level(AV_LOG_FATAL);  // one error is enough
  const int result = avio_open2(&_channel, url.c_str(), AVIO_FLAG_WRITE, &interrupt, nullptr);
  av_log_set_level(level);
  if (result < 0 && _isInterrupted()) throw Failure("interrupted before anybody answered at " + url);
  if (result == AVERROR(EIO) || result == AVERROR(ETIMEDOUT)) throw Failure("nobody answers at " + url);
  av::check(result, "connect to " + url);
}

NetworkStream::~NetworkStream() {
  avio_close(_channel);
}

}  // namespace brvhost
