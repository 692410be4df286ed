#include <lumora/zRecord.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <system_error>
#include <utility>

namespace {

std::string textOrEmpty(const char* text) {
  return text ? std::string(text) : std::string();
}

int integerFromText(const std::string& text, int fallback) noexcept {
  int value = 0;
  const char* const end = text.data() + text.size();
  const auto [parsedEnd, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && parsedEnd == end ? value : fallback;
}

const char* textFromInteger(int value, char (&scratch)[64]) noexcept {
  *std::to_chars(std::begin(scratch), std::end(scratch) - 1, value).ptr = '\0';
  return scratch;
}

}  // namespace

zRecord::zRecord(const char* name) : _name(textOrEmpty(name)) {}

zRecord::~zRecord() {
  DestroyChildren();
}

void zRecord::SetCString(const char* key, const char* value, char /*reserved*/) {
  Set(key, textOrEmpty(value));
}

void zRecord::SetUInt16(const char* key, unsigned short value, char /*reserved*/) {
  Set(key, std::uint16_t{value});
}

void zRecord::SetInt32(const char* key, int value, char /*reserved*/) {
  Set(key, std::int32_t{value});
}

const char* zRecord::AsCString(const char* key, const char* fallback, char (*scratch)[64]) const noexcept {
  const zField* const field = Find(key);
  if (!field) return fallback;
  if (const auto* text = std::get_if<std::string>(&field->value)) return text->c_str();
  return scratch ? textFromInteger(AsInt32(key, 0), *scratch) : fallback;
}

int zRecord::AsInt32(const char* key, int fallback) const noexcept {
  const zField* const field = Find(key);
  if (!field) return fallback;
  if (const auto* text = std::get_if<std::string>(&field->value)) return integerFromText(*text, fallback);
  if (const auto* number = std::get_if<std::uint16_t>(&field->value)) return *number;
  return *std::get_if<std::int32_t>(&field->value);
}

bool zRecord::AddChild(zRecord* child, int position) {
  if (!child || child->_parent || child->IsSameOrAbove(this)) return false;

  std::unique_ptr<zRecord> owned(child);
  const std::size_t index = std::min(static_cast<std::size_t>(std::max(position, 0)), _children.size());
  _children.insert(_children.begin() + static_cast<std::ptrdiff_t>(index), std::move(owned));
  child->_parent = this;
  return true;
}

const zRecord* zRecord::Child(unsigned int index) const noexcept {
  return index < _children.size() ? _children[index].get() : nullptr;
}

void zRecord::MakeEmpty() noexcept {
  DestroyChildren();
  _fields.clear();
  _name.clear();
}

bool operator==(const zRecord& left, const zRecord& right) {
  std::vector<std::pair<const zRecord*, const zRecord*>> pending{{&left, &right}};
  while (!pending.empty()) {
    const auto [ours, theirs] = pending.back();
    pending.pop_back();
    if (ours->_name != theirs->_name || ours->_fields != theirs->_fields ||
        ours->_children.size() != theirs->_children.size()) {
      return false;
    }
    for (std::size_t i = 0; i < ours->_children.size(); ++i) {
      pending.emplace_back(ours->_children[i].get(), theirs->_children[i].get());
    }
  }
  return true;
}

/// Walks down to a leaf, destroys it and goes on from its parent: recursion would need stack for every level.
void zRecord::DestroyChildren() noexcept {
  zRecord* record = this;
  while (true) {
    if (!record->_children.empty()) {
      record = record->_children.back().get();
    } else if (record == this) {
      return;
    } else {
      record = record->_parent;
      record->_children.pop_back();
    }
  }
}

bool zRecord::IsSameOrAbove(const zRecord* record) const noexcept {
  if (_children.empty()) return record == this;
  while (record && record != this) record = record->_parent;
  return record == this;
}

const zField* zRecord::Find(const char* key) const noexcept {
  if (!key) return nullptr;
  const auto field = std::find_if(_fields.begin(), _fields.end(), [key](const zField& f) { return f.name == key; });
  return field != _fields.end() ? &*field : nullptr;
}

template <typename Value>
void zRecord::Set(const char* key, Value value) {
  if (!key) return;
  const zField* const known = Find(key);
  zField& field = known ? _fields[static_cast<std::size_t>(known - _fields.data())] : Append(key);
  field.value = std::move(value);
}

/// A field without a value yet, after all others. Made in its place: moving a field costs as much as making it.
zField& zRecord::Append(const char* name) {
  std::string text(name);
  zField& field = _fields.emplace_back();
  field.name = std::move(text);
  return field;
}
