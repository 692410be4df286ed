#pragma once

// Records as XML and back, in the one form that README.md describes. What the writer produces, the reader turns into an
// equal tree. The functions keep no state: any thread, while no other thread changes the arguments.

class zBuffer;
class zRecord;

class zXML {
 public:
  /// What the functions return.
  enum Result : int {
    Success = 0,
    InvalidArgument,   ///< A null pointer, a negative length, an unknown format or mode.
    NotRepresentable,  ///< A name or text that XML cannot carry: ill-formed UTF-8, most control characters.
    TooDeep,           ///< More than `MaximumDepth` records, one in another.
    TooLong,           ///< A document of more than `MaximumLength` bytes.
    Malformed,         ///< Not XML, or not a record in the form described.
    Unreadable,        ///< No regular file at the path, or reading it failed.
    OutOfMemory,
  };

  /// The format that `RecordToBuffer` writes, and the mode in which the readers read: everything.
  static constexpr unsigned int Format = 5;
  static constexpr unsigned int Mode = 255;

  /// Bounds on documents, the same for writing and reading. They keep what a hostile document costs in proportion.
  static constexpr unsigned int MaximumDepth = 256;
  static constexpr unsigned int MaximumLength = 64u << 20;

  /// Writes the tree of `record` into `buffer` in place of its contents, in UTF-8; the buffer's length counts the text
  /// alone. `format` must be `Format`. `declaration` puts the XML declaration in front; `indented` puts every element
  /// on a line of its own. With any result but `Success` the buffer is empty.
  static int RecordToBuffer(zBuffer* buffer, const zRecord& record, unsigned int format, bool declaration,
                            bool indented) noexcept;

  /// Reads the document in the `length` bytes at `text`, or up to the terminating zero when `length` is -1, into
  /// `record` in place of its contents, which `text` must not be part of. `mode` must be `Mode`. With any result but
  /// `Success` the record is empty.
  static int ParseBuffer(unsigned int mode, zRecord* record, const char* text, int length) noexcept;

  /// The same for the document in the file at `path`. Blocks while it reads the file; waits for no pipe or device.
  static int ParseFile(unsigned int mode, zRecord* record, const char* path) noexcept;
};
