#include "DemoRig.h"

namespace hardware::simulated {

std::string_view demoRigText() {
  return R"rig(# A desk with a little of everything.

[device]
id = webcam-hd
name = HD Webcam
media = video
links = webcam-hd-microphone
video format = 640x480 yuvs, rates 15-30
video format = 1280x720 yuvs, rates 15 29.97 30
video format = 1920x1080 yuvs, rates 15 29.97 30, name "Full HD", active
video format = 3840x2160 mjpg, rates 15
picture = test picture

[device]
id = webcam-hd-microphone
name = HD Webcam Microphone
media = audio
audio format = 48000 Hz, 32-bit float, stereo, active
audio format = 44100 Hz, 16-bit integer, stereo
sound = tone 440 -20

# Two cameras that cannot be told apart by name.
[device]
id = desk-camera-left
name = Desk Camera
media = video
video format = 640x480 2vuy, rates 30
video format = 1280x720 2vuy, rates 30 60

[device]
id = desk-camera-right
name = Desk Camera
media = video
video format = 640x480 2vuy, rates 30
video format = 1280x720 2vuy, rates 30 60

# Behind the first character of its id stands its FireWire GUID.
[device]
id = F0x0080880303480cd1
name = HDV Camcorder
media = muxed
video format = 1440x1080 mp2t, presentation 1920x1080, rates 29.97, name "HDV 1080i"
pixel aspect = 4:3
audio format = 48000 Hz, 16-bit integer, stereo, big endian
sound = tone 1000 -18
firewire unit = 0x0080880303480cd1, mpeg

# Listed once screen-capture devices are admitted.
[device]
id = tethered-phone
name = Tethered Phone
media = muxed
screen capture = yes
video format = 1080x1920 avc1, rates 30-60
audio format = 48000 Hz, 16-bit integer, stereo
sound = tone 660 -24

[device]
id = studio-microphone
name = Studio Microphone
media = audio
audio format = 96000 Hz, 24-bit integer, mono
audio format = 48000 Hz, 32-bit float, mono, active
audio format = 48000 Hz, 24-bit integer, stereo, non-mixable, name "Digital Output"
sound = tone 220 -18

# A virtual camera that shows what the host itself puts out.
[device]
id = brevanta-virtual-camera
name = Brevanta Virtual Camera
media = video
video format = 1280x720 2vuy, rates 30
)rig";
}

}  // namespace hardware::simulated
