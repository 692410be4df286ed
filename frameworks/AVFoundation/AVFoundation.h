#pragma once

// Everything of AVFoundation.

#include <AVFoundation/AVAudioSettings.h>
#include <AVFoundation/AVCaptureAudioDataOutput.h>
#include <AVFoundation/AVCaptureConnection.h>
#include <AVFoundation/AVCaptureDevice.h>
#include <AVFoundation/AVCaptureDeviceFormat.h>
#include <AVFoundation/AVCaptureInput.h>
#include <AVFoundation/AVCaptureOutput.h>
#include <AVFoundation/AVCaptureSession.h>
#include <AVFoundation/AVCaptureVideoDataOutput.h>
#include <AVFoundation/AVMediaFormat.h>
