#pragma once

namespace brvhost {

/// The English text for a key of the module; the key itself when it is not known, "" for null. Any thread; the text
/// stays valid as long as `key`.
const char* translated(const char* key) noexcept;

}  // namespace brvhost
