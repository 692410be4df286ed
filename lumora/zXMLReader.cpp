#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

/// Builds one tree from one document. Its handlers run inside the XML parser, which is C: nothing may leave them by
/// throwing. After the first error the parser is stopped and the handlers do nothing more.
class zXMLReader {
 public:
  explicit zXMLReader(zRecord& root) : _root(root), _parser(XML_ParserCreate(nullptr)) {}

  /// Reads the whole document at once: in pieces, a token that spans many of them would be scanned again and again.
  zXML::Result read(std::string_view document) {
    if (!_parser) return zXML::OutOfMemory;
    XML_SetUserData(_parser.get(), this);
    XML_SetStartDoctypeDeclHandler(_parser.get(),
                                   [](void* reader, const XML_Char*, const XML_Char*, const XML_Char*, int) {
                                     // No form of ours has a document type, and without one there is no entity to
                                     // expand or fetch.
                                     static_cast<zXMLReader*>(reader)->fail(zXML::Malformed);
                                   });
    XML_SetElementHandler(
        _parser.get(),
        [](void* reader, const XML_Char* element, const XML_Char** attributes) {
          static_cast<zXMLReader*>(reader)->guarded([&](zXMLReader& self) { self.startElement(element, attributes); });
        },
        [](void* reader, const XML_Char*) {
          static_cast<zXMLReader*>(reader)->guarded([](zXMLReader& self) { self.endElement(); });
        });
    XML_SetCharacterDataHandler(_parser.get(), [](void* reader, const XML_Char* text, int length) {
      static_cast<zXMLReader*>(reader)->checkCharacters({text, static_cast<std::size_t>(length)});
    });

    const auto status = XML_Parse(_parser.get(), document.data(), static_cast<int>(document.size()), XML_TRUE);
    if (_result == zXML::Success && status != XML_STATUS_OK) {
      _result = XML_GetErrorCode(_parser.get()) == XML_ERROR_NO_MEMORY ? zXML::OutOfMemory : zXML::Malformed;
    }
    return _result;
  }

 private:
  struct FreeParser {
    void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
  };

  void fail(zXML::Result result) noexcept {
    if (_result != zXML::Success) return;
    _result = result;
    XML_StopParser(_parser.get(), XML_FALSE);
  }

  template <typename Handler>
  void guarded(Handler handler) noexcept {
    if (_result != zXML::Success) return;
    try {
      handler(*this);
    } catch (const std::exception&) {
      fail(zXML::OutOfMemory);
    }
  }

  void startElement(std::string_view element, const XML_Char** attributes) {
    if (_inField) return fail(zXML::Malformed);
    if (element == "record") return startRecord(attributes);
    if (!_current) return fail(zXML::Malformed);
    startField(element, attributes);
  }

  void startRecord(const XML_Char** attributes) {
    const char* name = nullptr;
    if (!readAttributes(attributes, &name, nullptr)) return fail(zXML::Malformed);
    if (_depth == zXML::MaximumDepth) return fail(zXML::TooDeep);
    if (_current) {
      auto* const child = new zRecord(name);
      _current->AddChild(child, zRecord::AtEnd);
      _current = child;
    } else {
      _root._name = name;
      _current = &_root;
    }
    ++_depth;
  }

  void startField(std::string_view type, const XML_Char** attributes) {
    const char* name = nullptr;
    const char* value = nullptr;
    if (!readAttributes(attributes, &name, &value)) return fail(zXML::Malformed);
    std::optional<zField::Value> typed = valueOfType(type, value);
    if (!typed) return fail(zXML::Malformed);
    _current->Append(name).value = *std::move(typed);
    _inField = true;
  }

  void endElement() {
    if (_inField) {
      _inField = false;
      return;
    }
    if (hasRepeatedField(*_current)) return fail(zXML::Malformed);
    --_depth;
    _current = _current->_parent;  // behind the root, where it may be anything, the parser lets no element pass
  }

  void checkCharacters(std::string_view text) noexcept {
    if (text.find_first_not_of(" \t\r\n") != std::string_view::npos) fail(zXML::Malformed);
  }

  /// Reads exactly the attributes asked for, in any order. The parser has refused repeated ones.
  static bool readAttributes(const XML_Char** attributes, const char** name, const char** value) {
    for (; *attributes; attributes += 2) {
      const std::string_view attribute = attributes[0];
      if (attribute == "name") {
        *name = attributes[1];
      } else if (value && attribute == "value") {
        *value = attributes[1];
      } else {
        return false;
      }
    }
    return *name && (!value || *value);
  }

  static std::optional<zField::Value> valueOfType(std::string_view type, const char* value) {
    if (type == "text") return zField::Value(std::string(value));
    if (type == "uint16") return integer<std::uint16_t>(value);
    if (type == "int32") return integer<std::int32_t>(value);
    return std::nullopt;
  }

  template <typename Integer>
  static std::optional<zField::Value> integer(std::string_view text) {
    Integer value = 0;
    const char* const end = text.data() + text.size();
    const auto [parsedEnd, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || parsedEnd != end) return std::nullopt;
    return zField::Value(value);
  }

  /// Looks at a record's fields once they are all there: comparing each new one with those before would take quadratic
  /// time in a document of nothing but fields.
  bool hasRepeatedField(const zRecord& record) {
    if (record._fields.size() < 2) return false;
    _names.clear();
    for (const zField& field : record._fields) _names.push_back(field.name);
    std::sort(_names.begin(), _names.end());
    return std::adjacent_find(_names.begin(), _names.end()) != _names.end();
  }

  zRecord& _root;
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> _parser;
  zXML::Result _result = zXML::Success;
  zRecord* _current = nullptr;
  unsigned int _depth = 0;
  bool _inField = false;
  std::vector<std::string_view> _names;
};

namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) noexcept : _descriptor(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (_descriptor >= 0) close(_descriptor);
  }
  int get() const noexcept { return _descriptor; }

 private:
  const int _descriptor;
};

/// Reads a regular file into `text`.
zXML::Result readFile(const char* path, std::string& text) {
  // Opening a pipe that nobody writes to would block otherwise.
  const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return zXML::Unreadable;
  if (status.st_size > std::ptrdiff_t{zXML::MaximumLength}) return zXML::TooLong;

  // The size is where to begin: the file may change while it is read.
  text.resize(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t length = 0;
  while (true) {
    const ssize_t count = read(file.get(), text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return zXML::Unreadable;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
    if (length > zXML::MaximumLength) return zXML::TooLong;
    if (length == text.size()) text.resize(2 * length);
  }
  text.resize(length);
  return zXML::Success;
}

zXML::Result readDocument(zRecord& record, std::string_view document) {
  if (document.size() > zXML::MaximumLength) return zXML::TooLong;
  return zXMLReader(record).read(document);
}

/// Runs `read`, which fills `record`, and sees to it that an error leaves the record empty.
template <typename Read>
zXML::Result fillRecord(zRecord& record, Read read) noexcept {
  zXML::Result result = zXML::OutOfMemory;
  record.MakeEmpty();
  try {
    result = read();
  } catch (const std::exception&) {  // out of memory
  }
  if (result != zXML::Success) record.MakeEmpty();
  return result;
}

}  // namespace

int zXML::ParseBuffer(unsigned int mode, zRecord* record, const char* text, int length) noexcept {
  if (!record) return InvalidArgument;
  return fillRecord(*record, [&] {
    if (mode != Mode || !text || length < -1) return InvalidArgument;
    return readDocument(
        *record, length == -1 ? std::string_view(text) : std::string_view(text, static_cast<std::size_t>(length)));
  });
}

int zXML::ParseFile(unsigned int mode, zRecord* record, const char* path) noexcept {
  if (!record) return InvalidArgument;
  return fillRecord(*record, [&] {
    if (mode != Mode || !path) return InvalidArgument;
    std::string document;
    if (const Result result = readFile(path, document); result != Success) return result;
    return readDocument(*record, document);
  });
}
