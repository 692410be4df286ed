#include <Foundation/NSError.h>

std::string NSError::localizedDescription() const {
  if (_description) return *_description;
  return "The operation couldn\u2019t be completed. (" + _domain + " error " + std::to_string(_code) + ".)";
}
