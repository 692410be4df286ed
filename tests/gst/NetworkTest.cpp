#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "GStreamerTest.h"

// A camera sent over the loopback interface and received again, where GStreamer has what that takes.

namespace {

int freePort() {
  const int handle = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(handle, reinterpret_cast<sockaddr*>(&address), length);
  ::getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(handle);
  return ntohs(address.sin_port);
}

TEST_F(GStreamerTest, ACameraIsReceivedOverRTP) {
  for (const char* name : {"rtpvrawpay", "udpsink", "rtpjitterbuffer"}) {
    GstElementFactory* const factory = gst_element_factory_find(name);
    if (!factory) GTEST_SKIP() << "no " << name;
    gst_object_unref(factory);
  }
  rigs::install(camera());
  const std::string port = std::to_string(freePort());
  const Pipeline receiver("udpsrc address=127.0.0.1 port=" + port +
                          " caps=\"application/x-rtp, media=video, clock-rate=90000, encoding-name=RAW, "
                          "sampling=YCbCr-4:2:2, depth=(string)8, width=(string)96, height=(string)48, payload=96\" "
                          "! rtpjitterbuffer ! rtpvrawdepay ! appsink name=video sync=false");
  const Pipeline sender("brvsrc source=Cam ! videoconvert ! rtpvrawpay ! udpsink host=127.0.0.1 port=" + port);
  ASSERT_TRUE(receiver.play());
  ASSERT_TRUE(sender.play());

  const SamplePtr first = receiver.pull(), second = receiver.pull();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(bytesOf(first).size(), 96U * 48 * 2);
  EXPECT_GT(GST_BUFFER_PTS(bufferOf(second)), GST_BUFFER_PTS(bufferOf(first)));
}

}  // namespace
