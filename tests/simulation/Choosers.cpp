#include "Choosers.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace test {

EveryOrder::EveryOrder(int interruptions, std::size_t part, std::size_t parts)
    : _mostInterruptions(interruptions), _part(part), _parts(parts), _interruptions(interruptions) {}

EveryOrder::EveryOrder(const std::string& description)
    : _mostInterruptions(std::atoi(description.c_str())), _part(0), _parts(1), _interruptions(_mostInterruptions) {
  std::istringstream choices(description.substr(description.find(':') + 1));
  for (std::size_t choice; choices >> choice; choices.ignore()) _path.push_back({choice, 0});
}

std::size_t EveryOrder::choose(std::size_t count) {
  if (_depth == _path.size()) _path.push_back({_path.empty() ? _part : 0, count});
  Choice& choice = _path[_depth++];
  if (choice.count == 0) choice.count = count;
  if (choice.count != count || choice.chosen >= count) {
    std::fprintf(stderr, "the same choices led elsewhere: choice %zu was one of %zu, and is one of %zu\n", _depth,
                 choice.count, count);
    std::abort();
  }
  return choice.chosen;
}

bool EveryOrder::interrupts() {
  if (_interruptions == 0 || choose(2) == 0) return false;
  --_interruptions;
  return true;
}

bool EveryOrder::next() {
  _depth = 0;
  _interruptions = _mostInterruptions;
  while (!_path.empty()) {
    Choice& last = _path.back();
    last.chosen += _path.size() == 1 ? _parts : 1;
    if (last.chosen < last.count) return true;
    _path.pop_back();
  }
  return false;
}

std::string EveryOrder::description() const {
  std::string text = std::to_string(_mostInterruptions);
  for (std::size_t i = 0; i < _depth; ++i) text += (i == 0 ? ':' : '.') + std::to_string(_path[i].chosen);
  return text;
}

// SplitMix64.
std::uint64_t RandomOrder::next() {
  std::uint64_t bits = _state += 0x9E3779B97F4A7C15u;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9u;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EBu;
  return bits ^ bits >> 31;
}

}  // namespace test
