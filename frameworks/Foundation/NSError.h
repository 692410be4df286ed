#pragma once

// What went wrong in a framework call.

#include <runtime/NSObject.h>

#include <optional>
#include <string>

inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";

class NSError final : public NSObject {
 public:
  NSError(std::string domain, std::int64_t code, std::optional<std::string> description = std::nullopt)
      : _domain(std::move(domain)), _code(code), _description(std::move(description)) {}

  // errorWithDomain:code:userInfo: (of the details only the localized description is modelled)
  static Ref<NSError> errorWithDomain(std::string domain, std::int64_t code,
                                      std::optional<std::string> localizedDescription = std::nullopt) {
    return makeRef<NSError>(std::move(domain), code, std::move(localizedDescription));
  }

  const std::string& domain() const noexcept { return _domain; }
  std::int64_t code() const noexcept { return _code; }

  /// The description the error was made with; without one, a sentence that names domain and code.
  std::string localizedDescription() const;

 private:
  std::string _domain;
  std::int64_t _code;
  std::optional<std::string> _description;
};
