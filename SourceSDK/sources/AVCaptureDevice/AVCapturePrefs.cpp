#include "AVCapturePrefs.h"

#include <lumora/zXML.h>

namespace AV {

CapturePrefs::CapturePrefs(std::string path) : _path(std::move(path)) {
  zXML::ParseFile(zXML::Mode, &_record, _path.c_str());
}

}  // namespace AV
