// Settings as text: what is read is written and read again as the same, from memory as from a file, and applied to a
// source; and files of preferences.

#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include "AVCapturePrefs.h"
#include "Machine.h"
#include "support/FakeHardware.h"

namespace {

void checkRoundTrip(const std::string& text, const std::string& path) {
  zRecord record, again;
  const int result = zXML::ParseBuffer(zXML::Mode, &record, text.data(), static_cast<int>(text.size()));
  fuzz::require(zXML::ParseFile(zXML::Mode, &again, path.c_str()) == result && record == again);
  for (const bool isIndented : {false, true}) {
    if (result != zXML::Success) return;
    zBuffer written(0, 0);
    fuzz::require(zXML::RecordToBuffer(&written, record, zXML::Format, true, isIndented) == zXML::Success);
    fuzz::require(zXML::ParseBuffer(zXML::Mode, &again, written.Data(), static_cast<int>(written.Length())) == 0);
    fuzz::require(record == again);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  const std::string text(reinterpret_cast<const char*>(data), size), path = file.holding(data, size);
  checkRoundTrip(text, path);
  const AV::CapturePrefs preferences(path);

  auto provider = std::make_shared<fake::Provider>();
  provider->plug(fake::camera("Camera", "c", {"m"}));
  provider->plug(fake::microphone("Mic", "m", {"c"}));
  const fuzz::Machine machine(provider);
  BRV_IntitializeLibrary();
  BRV_RegisterLogCallback(nullptr, nullptr, nullptr);
  fuzz::require(BRV_SetSourceSettings(nullptr, "Camera Video", text.c_str()) <= 1);
  int length = 0;
  BRV_GetSourceSettings(nullptr, "Camera Video", nullptr, &length);
  fuzz::require(length > 0);
  return 0;
}
