// Preference files, read by the module and by the XML reader on its own.

#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include "AVCapturePrefs.h"
#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  const std::string path = file.holding(data, size);
  const AV::CapturePrefs preferences(path);

  zRecord fromFile, fromMemory;
  const int result = zXML::ParseFile(zXML::Mode, &fromFile, path.c_str());
  const auto* text = reinterpret_cast<const char*>(data);
  fuzz::require(result == zXML::ParseBuffer(zXML::Mode, &fromMemory, text, static_cast<int>(size)));
  fuzz::require(fromFile == fromMemory);
  return 0;
}
