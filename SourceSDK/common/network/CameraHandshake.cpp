#include "common/network/CameraHandshake.h"

#include <lumora/zSocket.h>
#include <lumora/zString.h>

namespace CSDK {

// NOLINTNEXTLINE(performance-unnecessary-value-param): so says the interface
bool Perform_BrevantaCam_HandShaking(std::string host) noexcept {
  static constexpr char kHandShakeMsg[] = "MERIDIANLINKOPENS";
  static constexpr char kHandShakeOK[] = "OK";
  static constexpr unsigned int kHandShakeMsgSize = 17;  // Without its terminator, which is not sent.
  static constexpr unsigned int kHandShakeOKSize = 2;
  static constexpr unsigned short kHandShakePort = 554;
  static constexpr int kHandShakeTimeoutMilliseconds = 3000;
  static_assert(sizeof kHandShakeMsg == kHandShakeMsgSize + 1 && sizeof kHandShakeOK == kHandShakeOKSize + 1);

  // As a C string it would name another host: the part in front of the zero byte.
  if (host.find('\0') != std::string::npos) return false;

  const zSocketHolder socket(zSocket::Factory());
  if (!socket) return false;
  socket->SetNoDelay(1);
  if (socket->Connect(host.c_str(), kHandShakePort, kHandShakeTimeoutMilliseconds) != 0) return false;

  unsigned int sent = 0;
  char answer[kHandShakeOKSize + 1] = {};
  unsigned int received = 0;
  socket->SetRecvTimeout(kHandShakeTimeoutMilliseconds);
  return socket->Send(kHandShakeMsg, kHandShakeMsgSize, sent, kHandShakeTimeoutMilliseconds) == 0 &&
         socket->Receive(answer, kHandShakeOKSize, received) == 0 && zString::string_equal(answer, kHandShakeOK);
}

}  // namespace CSDK
