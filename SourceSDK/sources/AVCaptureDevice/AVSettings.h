#pragma once

// The settings of a source as records: what can be chosen, what is chosen, and choosing. Host thread only.

#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>

#include <cstring>
#include <memory>
#include <string>

#include "AVDevice.h"

namespace AV {

class DeviceManager;

/// The choices of one parameter with their titles in the host's language.
std::unique_ptr<zRecord> makeOptionsRecord(Device& source, const char* parameterName, const std::string& languageCode);

/// The selected choices. A parameter whose selection is not known is left out.
std::unique_ptr<zRecord> makeSettingsRecord(Device& source);

/// The choices of every parameter of the media that the source has.
std::unique_ptr<zRecord> makeValidValuesRecord(Device& source);

/// Devices without a source, each with its name and the reason.
std::unique_ptr<zRecord> makeUnofferedRecord(const DeviceManager& manager);

/// The counts of a medium, as decimal texts: they outgrow 32 bits.
std::unique_ptr<zRecord> makeAccountRecord(const Account& account, bool isSound);

/// What stands for a failed setting of a source: 0 minus its position in the manager's list.
int failureOf(const DeviceManager& manager, const Device& source);

/// Applies the children of `settings` in their order. 1 when the last one that applied succeeded, or none applied; else
/// failureOf the source.
int applySettings(DeviceManager& manager, Device& source, const zRecord& settings);

/// A record on its way to the host, between a length call and a copy call.
class RecordText {
 public:
  /// Writes `record` in place of what was held. False, and nothing is held, when it cannot be written.
  bool write(const zRecord& record);

  int length() const { return static_cast<int>(_text.Length()); }

  /// NUL-terminated, valid until the next change.
  const char* text() const { return _text.Data(); }

  /// Copies `length` bytes, or as many as are held, and forgets them. A negative length copies nothing.
  void moveTo(char* buffer, int length);

  /// Turns what is held into as many zero bytes.
  void blank() { std::memset(_text.Data(), 0, _text.Length()); }

  void clear() { _text.MakeEmpty(); }

 private:
  zBuffer _text{0, 0};
};

}  // namespace AV
