#pragma once

// What sources that reach cameras over IPv4 need of the network: URLs taken apart, names looked up, hosts tried,
// hardware addresses found.
//
// Every function blocks its caller until it has an answer, may be called on any thread, several at a time, and throws
// nothing: a failure, lack of memory included, shows in the result alone. Looking a name up blocks for as long as the
// system's resolver does, which its configuration says; dotted addresses need no look-up. A URL is what CFURL.h says.

#include <cstdint>
#include <string>

namespace CSDK {

/// Takes a URL with a host apart. Each output may be null. A component that the URL does not have leaves its output as
/// it was, except that the port is then -1. Scheme as written; host without an IPv6 address's brackets; `path` without
/// its leading slash and with its escapes, and everything from the text's first "?" to its end added to it. In host,
/// user and password the escapes are replaced.
///
/// False, with every output as it was, for a text that is no URL or a URL without a host.
bool getURLString(const std::string& url, std::string* scheme = nullptr, std::string* host = nullptr,
                  std::string* path = nullptr, std::int32_t* port = nullptr, std::string* user = nullptr,
                  std::string* password = nullptr) noexcept;

/// Looks up a host's IPv4 addresses. On success `*addresses` points to `count` strings in dotted-decimal form, in the
/// resolver's order, which the caller gives back with freeResolvedIP_Addresses. When `addresses` is null the result is
/// false.
///
/// A failed look-up writes nothing and results in whether `count` is not zero: set it to 0 before the call. So does a
/// lack of memory for the addresses, with false.
bool resolveHostName(std::string hostName, std::string** addresses, std::uint32_t& count) noexcept;

/// The same for the host of a URL; false when it has none. A bare "192.168.1.20" is no URL with a host.
bool getIPAddresses(const std::string& url, std::string** addresses, std::uint32_t& count) noexcept;

/// Frees what the two functions above gave, and sets the pointer to null. Null is ignored.
void freeResolvedIP_Addresses(std::string*& addresses) noexcept;

/// Whether the hosts of two URLs resolve to equally many addresses, and each address of `a` is among those of `b`.
bool compareIPAddress(const std::string& a, const std::string& b) noexcept;

/// Whether a TCP connection to an IPv4 address succeeds within `timeoutSeconds`. A refusal, or an error that the
/// network reports, ends the wait early; with 0 only what is there at once counts, and a negative timeout gives false.
/// Ports above 32767 are passed as their negative 16-bit values. False, too, for a text that inet_addr does not take,
/// and for 255.255.255.255. The connection is closed at once.
bool isAddressReachable(const std::string& address, std::int16_t port, std::int32_t timeoutSeconds) noexcept;

/// Whether one of a host's addresses is reachable. They are tried one after the other, each for the whole timeout.
bool isHostReachable(const std::string& host, std::int16_t port, std::int32_t timeoutSeconds) noexcept;

/// Whether a URL's host is reachable on the given port; a port in the URL does not count.
bool isURLReachable(const std::string& url, std::int16_t port, std::int32_t timeoutSeconds) noexcept;

/// Looks an IPv4 address up in the system's neighbour table, where it stands once something was sent to it on a network
/// that this machine is on. Writes the hardware address into `macAddress` as in "0:1b:21:a:b:c", hexadecimal without
/// leading zeros. 0.0.0.0 finds the table's first entry; a text that inet_addr does not take, and 255.255.255.255, find
/// none. Entries of multicast and broadcast addresses, and of links whose addresses are shorter, are passed over.
///
/// Without a match `macAddress` stays, and the result is whether it is not empty: pass an empty string. False when the
/// table cannot be read, which takes four seconds at most.
bool ipAddressToMacAdress(std::string address, std::string& macAddress) noexcept;

/// The hardware address of the first address of a URL's host that is in the neighbour table; empty when none is.
std::string getMacAddress(const std::string& url) noexcept;

/// Formats like printf into `out`, and returns its characters; null, with nothing done, when `out` is null. The
/// arguments may point into `out`. A format that fails, such as a wide character that has no form in the locale, and a
/// lack of memory make `out` empty.
const char* sprintf(std::string* out, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

/// Texts are UTF-8 throughout: leaves the string as it is, and is always false.
bool convertUTF8toUnicode(std::string& text) noexcept;

}  // namespace CSDK
