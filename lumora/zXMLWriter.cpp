#include <lumora/Utf8.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <variant>

namespace {

/// Escapes what an attribute value needs: markup, and the blanks that a reader would turn into spaces otherwise.
std::string_view escapeOf(char character) {
  switch (character) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\t':
      return "&#9;";
    case '\n':
      return "&#10;";
    case '\r':
      return "&#13;";
    default:
      return {};
  }
}

/// Writes into an empty buffer, piece by piece: only the buffer grows to the length of the document.
class RecordWriter {
 public:
  RecordWriter(zBuffer& buffer, bool indented) : _buffer(buffer), _indented(indented) {
    _text.reserve(LongestPiece + LongestPiece / 4);
  }

  zXML::Result write(const zRecord& record, bool declaration) {
    if (declaration) {
      _text += R"(<?xml version="1.0" encoding="UTF-8"?>)";
      endLine();
    }
    const zXML::Result result = writeRecord(record, 1);
    return result == zXML::Success ? flush() : result;
  }

 private:
  static constexpr std::size_t LongestPiece = 65'536;

  /// Recursive, which the bound on depth allows.
  zXML::Result writeRecord(const zRecord& record, unsigned int depth) {
    if (depth > zXML::MaximumDepth) return zXML::TooDeep;
    indent(depth);
    _text += "<record name=\"";
    if (!appendValue(record.Name())) return zXML::NotRepresentable;
    if (record.Fields().empty() && record.ChildCount() == 0) {
      _text += "\"/>";
      endLine();
      return zXML::Success;
    }
    _text += "\">";
    endLine();
    for (const zField& field : record.Fields()) {
      if (!writeField(field, depth + 1)) return zXML::NotRepresentable;
    }
    for (unsigned int i = 0; i < record.ChildCount(); ++i) {
      if (const auto result = writeRecord(*record.Child(i), depth + 1); result != zXML::Success) return result;
    }
    indent(depth);
    _text += "</record>";
    endLine();
    return _text.size() < LongestPiece ? zXML::Success : flush();
  }

  zXML::Result flush() {
    if (_text.size() > zXML::MaximumLength - _buffer.Length()) return zXML::TooLong;
    if (!_buffer.Append(_text.data(), static_cast<unsigned int>(_text.size()))) return zXML::OutOfMemory;
    _text.clear();
    return zXML::Success;
  }

  bool writeField(const zField& field, unsigned int depth) {
    const auto* const text = std::get_if<std::string>(&field.value);
    const auto* const uint16 = std::get_if<std::uint16_t>(&field.value);

    indent(depth);
    _text += text ? "<text name=\"" : uint16 ? "<uint16 name=\"" : "<int32 name=\"";
    if (!appendValue(field.name)) return false;
    _text += "\" value=\"";
    if (text) {
      if (!appendValue(*text)) return false;
    } else {
      appendNumber(uint16 ? *uint16 : *std::get_if<std::int32_t>(&field.value));
    }
    _text += "\"/>";
    endLine();
    return true;
  }

  /// Appends the text as the inside of a quoted attribute; false when XML cannot carry it.
  bool appendValue(std::string_view text) {
    std::size_t plainStart = 0;
    std::size_t at = 0;
    while (at < text.size()) {
      const auto byte = static_cast<unsigned char>(text[at]);
      const std::string_view escape = escapeOf(text[at]);
      if (byte >= 0x80) {
        const lumora::CodePoint codePoint = lumora::decodeUtf8(text.substr(at));
        const bool isNonCharacter = codePoint.value == 0xFFFE || codePoint.value == 0xFFFF;
        if (codePoint.length == 0 || isNonCharacter) return false;
        at += codePoint.length;
      } else if (!escape.empty()) {
        _text.append(text, plainStart, at - plainStart);
        _text += escape;
        plainStart = ++at;
      } else if (byte < 0x20) {
        return false;
      } else {
        ++at;
      }
    }
    _text.append(text, plainStart);
    return true;
  }

  void appendNumber(std::int32_t value) {
    char digits[16];
    _text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  }

  void indent(unsigned int depth) {
    if (_indented) _text.append(2 * std::size_t{depth - 1}, ' ');
  }

  void endLine() {
    if (_indented) _text += '\n';
  }

  zBuffer& _buffer;
  std::string _text;  ///< the piece
  const bool _indented;
};

}  // namespace

int zXML::RecordToBuffer(zBuffer* buffer, const zRecord& record, unsigned int format, bool declaration,
                         bool indented) noexcept {
  if (!buffer) return InvalidArgument;
  buffer->MakeEmpty();
  if (format != Format) return InvalidArgument;
  Result result = OutOfMemory;
  try {
    result = RecordWriter(*buffer, indented).write(record, declaration);
  } catch (const std::exception&) {  // out of memory
  }
  if (result != Success) buffer->MakeEmpty();
  return result;
}
