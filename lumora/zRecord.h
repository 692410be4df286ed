#pragma once

// A tree of named records with typed fields: the form in which modules and host exchange settings. A record owns its
// children, so whoever owns the root owns the tree. Not synchronised: one thread at a time while the tree changes.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

/// A named value: text in UTF-8, a 16-bit unsigned or a 32-bit signed integer.
struct zField {
  using Value = std::variant<std::string, std::uint16_t, std::int32_t>;

  std::string name;
  Value value;

  bool operator==(const zField&) const = default;
};

class zRecord {
 public:
  /// The position that puts a child after all others.
  static constexpr int AtEnd = 0x7FFFFFFF;

  /// A record without name, fields and children.
  zRecord() noexcept = default;

  /// A record with a name in UTF-8, which is copied; null stands for the empty name.
  explicit zRecord(const char* name);

  zRecord(const zRecord&) = delete;
  zRecord& operator=(const zRecord&) = delete;

  /// Destroys the tree below as well, however deep, without memory or stack of its own.
  ~zRecord();

  const char* Name() const noexcept { return _name.c_str(); }

  /// Sets the field `key`: in its place when the record has one, otherwise after all others. Texts are copied; a null
  /// `value` stands for the empty text, and with a null `key` nothing is set. The last argument is reserved; pass 0.
  void SetCString(const char* key, const char* value, char reserved);
  void SetUInt16(const char* key, unsigned short value, char reserved);
  void SetInt32(const char* key, int value, char reserved);

  /// The fields in order, valid until the record changes.
  const std::vector<zField>& Fields() const noexcept { return _fields; }

  /// The field `key` as text, valid until the record changes. An integer is written in decimal into `scratch`, which
  /// the caller provides and which the result then points to. `fallback` when there is no such field, or it is an
  /// integer and `scratch` is null.
  const char* AsCString(const char* key, const char* fallback, char (*scratch)[64]) const noexcept;

  /// The field `key` as an integer. A text counts as one when it is nothing but decimal digits, perhaps after a minus
  /// sign, and in range. Otherwise, and when there is no such field, `fallback`.
  int AsInt32(const char* key, int fallback) const noexcept;

  /// Puts `child`, made with `new`, before the child now at `position`; after all when there is none (`AtEnd`), in
  /// front when `position` is negative. The child belongs to this record from then on. False, and the child stays the
  /// caller's, when it is null, already has a parent, or is this record or one above it. Destroyed when there is no
  /// memory to take it, which is thrown.
  bool AddChild(zRecord* child, int position);

  unsigned int ChildCount() const noexcept { return static_cast<unsigned int>(_children.size()); }

  /// The child at `index`, owned by this record; null from `ChildCount()` on.
  const zRecord* Child(unsigned int index) const noexcept;

  /// Makes the record like a new one without name. Its own place in a tree stays.
  void MakeEmpty() noexcept;

  /// Whether both trees have the same names, fields (names, types, values) and children, in the same order.
  friend bool operator==(const zRecord& left, const zRecord& right);

 private:
  friend class zXMLReader;

  void DestroyChildren() noexcept;
  bool IsSameOrAbove(const zRecord* record) const noexcept;
  const zField* Find(const char* key) const noexcept;
  template <typename Value>
  void Set(const char* key, Value value);
  zField& Append(const char* name);

  std::string _name;
  zRecord* _parent = nullptr;
  std::vector<zField> _fields;
  std::vector<std::unique_ptr<zRecord>> _children;
};
