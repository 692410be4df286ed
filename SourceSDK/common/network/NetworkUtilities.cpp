#include "common/network/NetworkUtilities.h"

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>
#include <CoreFoundation/CFURL.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <runtime/Scheduler.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "common/network/FileDescriptor.h"
#include "common/network/NeighbourTable.h"

namespace CSDK {

namespace {

/// Sets `out` to the text of a string that it releases; null leaves `out` as it was.
void get_and_release_cf_string(std::string& out, CFStringRef string) {
  if (!string) return;
  const auto released = CFRef<CFStringRef>::adopt(string);
  const CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
  std::vector<char> text(static_cast<std::size_t>(size));
  if (CFStringGetCString(string, text.data(), size, kCFStringEncodingUTF8)) out = text.data();
}

/// A text with a zero byte would be read up to there, and another host be asked than the one that was written.
bool isCText(const std::string& text) noexcept {
  return text.find('\0') == std::string::npos;
}

CFStringRef copyStrictPath(CFURLRef url) {
  return CFURLCopyStrictPath(url, nullptr);
}

/// Frees a list of addresses at the end of the scope.
struct AddressList {
  AddressList() = default;
  AddressList(const AddressList&) = delete;
  AddressList& operator=(const AddressList&) = delete;
  ~AddressList() { freeResolvedIP_Addresses(first); }

  std::span<const std::string> all() const noexcept { return {first, count}; }

  std::string* first = nullptr;
  std::uint32_t count = 0;
};

/// The resolver's answer for a name, which lies in `storage`; null when there is none.
hostent* lookUp(const std::string& hostName, hostent& entry, std::vector<char>& storage) {
  constexpr std::size_t FirstSize = 1'024;
  constexpr std::size_t LargestSize = 1'048'576;
  for (std::size_t size = FirstSize; size <= LargestSize; size *= 2) {
    storage.resize(size);
    hostent* found = nullptr;
    int lookUpError = 0;
    const int error =
        ::gethostbyname2_r(hostName.c_str(), AF_INET, &entry, storage.data(), storage.size(), &found, &lookUpError);
    if (error != ERANGE) return error == 0 ? found : nullptr;
  }
  return nullptr;
}

/// Waits until a connection that is being made succeeded or failed; false when the timeout, or polling, ends the wait.
bool waitForOutcome(const FileDescriptor& socket, std::int32_t timeoutSeconds) noexcept {
  constexpr runtime::Nanoseconds NanosecondsPerMillisecond = 1'000'000;
  constexpr runtime::Nanoseconds LongestWait = std::numeric_limits<int>::max();
  runtime::Scheduler& clock = runtime::Scheduler::current();
  const runtime::Nanoseconds deadline = clock.now() + timeoutSeconds * runtime::NanosecondsPerSecond;
  for (;;) {
    const runtime::Nanoseconds remaining = std::max<runtime::Nanoseconds>(deadline - clock.now(), 0);
    // Rounded up: the last wait, too, lasts until the deadline.
    const runtime::Nanoseconds milliseconds = (remaining + NanosecondsPerMillisecond - 1) / NanosecondsPerMillisecond;
    pollfd entry{socket.number(), POLLOUT, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(std::min(milliseconds, LongestWait)));
    if (ready > 0) return true;
    if (ready == 0 && milliseconds <= LongestWait) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
}

}  // namespace

bool getURLString(const std::string& url, std::string* scheme, std::string* host, std::string* path, std::int32_t* port,
                  std::string* user, std::string* password) noexcept try {
  if (url.empty() || !isCText(url)) return false;
  const auto text = CFRef<CFStringRef>::adopt(
      CFStringCreateWithCStringNoCopy(kCFAllocatorDefault, url.c_str(), kCFStringEncodingUTF8, kCFAllocatorNull));
  const auto parsed = CFRef<CFURLRef>::adopt(CFURLCreateWithString(kCFAllocatorDefault, text.get(), nullptr));
  if (!CFURLCanBeDecomposed(parsed.get())) return false;
  if (!CFRef<CFStringRef>::adopt(CFURLCopyHostName(parsed.get()))) return false;

  struct {
    std::string* output;
    CFStringRef (*copyComponent)(CFURLRef);
    std::optional<std::string> written;
  } components[] = {
      {scheme, CFURLCopyScheme, {}}, {host, CFURLCopyHostName, {}},     {path, copyStrictPath, {}},
      {user, CFURLCopyUserName, {}}, {password, CFURLCopyPassword, {}},
  };
  const std::size_t query = url.find('?');
  for (auto& [output, copyComponent, written] : components) {
    if (!output) continue;
    if (CFStringRef component = copyComponent(parsed.get())) {
      written.emplace();
      get_and_release_cf_string(*written, component);
    }
    if (copyComponent == copyStrictPath && query != std::string::npos)
      written = written.value_or(*output).append(url, query);
  }

  // Nothing can fail any more: either all outputs are written or none.
  for (auto& [output, copyComponent, written] : components) {
    if (written) output->swap(*written);
  }
  if (port) *port = CFURLGetPortNumber(parsed.get());
  return true;
} catch (const std::exception&) {
  return false;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): so says the interface
bool resolveHostName(std::string hostName, std::string** addresses, std::uint32_t& count) noexcept try {
  if (!addresses) return false;
  hostent entry{};
  std::vector<char> storage;
  const hostent* const found = isCText(hostName) ? lookUp(hostName, entry, storage) : nullptr;
  if (!found) return count != 0;

  std::uint32_t foundCount = 0;
  while (found->h_addr_list[foundCount]) ++foundCount;
  if (foundCount == 0) {
    count = 0;
    return false;
  }
  auto list = std::make_unique<std::string[]>(foundCount);
  for (std::uint32_t index = 0; index < foundCount; ++index) {
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, found->h_addr_list[index], text, sizeof text);
    list[index] = text;
  }
  count = foundCount;
  *addresses = list.release();
  return true;
} catch (const std::exception&) {
  return false;
}

bool getIPAddresses(const std::string& url, std::string** addresses, std::uint32_t& count) noexcept {
  std::string host;
  return getURLString(url, nullptr, &host) && resolveHostName(std::move(host), addresses, count);
}

void freeResolvedIP_Addresses(std::string*& addresses) noexcept {
  delete[] addresses;
  addresses = nullptr;
}

bool compareIPAddress(const std::string& a, const std::string& b) noexcept {
  AddressList ofA;
  AddressList ofB;
  if (!getIPAddresses(a, &ofA.first, ofA.count) || !getIPAddresses(b, &ofB.first, ofB.count)) return false;
  if (ofA.count != ofB.count) return false;
  return std::ranges::all_of(
      ofA.all(), [&](const std::string& address) { return std::ranges::find(ofB.all(), address) != ofB.all().end(); });
}

bool isAddressReachable(const std::string& address, std::int16_t port, std::int32_t timeoutSeconds) noexcept {
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<std::uint16_t>(port));
  target.sin_addr.s_addr = ::inet_addr(address.c_str());
  if (target.sin_addr.s_addr == INADDR_NONE || !isCText(address) || timeoutSeconds < 0) return false;

  const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) return false;
  if (::connect(socket.number(), reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0) return true;
  // A connection that could not even be begun would look like one without an error.
  if (errno != EINPROGRESS || !waitForOutcome(socket, timeoutSeconds)) return false;
  int error = 0;
  socklen_t length = sizeof error;
  return ::getsockopt(socket.number(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

bool isHostReachable(const std::string& host, std::int16_t port, std::int32_t timeoutSeconds) noexcept try {
  AddressList addresses;
  if (!resolveHostName(host, &addresses.first, addresses.count)) return false;
  return std::ranges::any_of(
      addresses.all(), [&](const std::string& address) { return isAddressReachable(address, port, timeoutSeconds); });
} catch (const std::exception&) {
  return false;
}

bool isURLReachable(const std::string& url, std::int16_t port, std::int32_t timeoutSeconds) noexcept {
  std::string host;
  return getURLString(url, nullptr, &host) && isHostReachable(host, port, timeoutSeconds);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): so says the interface
bool ipAddressToMacAdress(std::string address, std::string& macAddress) noexcept try {
  const auto table = readNeighbourTable();
  if (!table) return false;
  std::string found = hardwareAddressIn(*table, isCText(address) ? address : "");
  if (!found.empty()) macAddress = std::move(found);
  return !macAddress.empty();
} catch (const std::exception&) {
  return false;
}

std::string getMacAddress(const std::string& url) noexcept try {
  std::string macAddress;
  AddressList addresses;
  if (!getIPAddresses(url, &addresses.first, addresses.count)) return macAddress;
  for (const std::string& address : addresses.all()) {
    if (ipAddressToMacAdress(address, macAddress)) break;
  }
  return macAddress;
} catch (const std::exception&) {
  return {};
}

const char* sprintf(std::string* out, const char* format, ...) noexcept {
  if (!out) return nullptr;
  std::va_list arguments;
  std::va_list measured;
  va_start(arguments, format);
  va_copy(measured, arguments);
  const int length = format ? std::vsnprintf(nullptr, 0, format, measured) : -1;
  va_end(measured);

  // Not in place: the arguments may point into `out`.
  std::string text;
  try {
    text.resize(static_cast<std::size_t>(std::max(length, 0)));
    if (length > 0 && std::vsnprintf(text.data(), text.size() + 1, format, arguments) != length) text.clear();
  } catch (const std::exception&) {
    text.clear();
  }
  va_end(arguments);
  out->swap(text);
  return out->c_str();
}

bool convertUTF8toUnicode(std::string&) noexcept {
  return false;
}

}  // namespace CSDK
