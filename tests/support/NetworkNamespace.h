#pragma once

// A network of its own for a test: a loopback that nobody else listens on, links and neighbours as the test wants them,
// and host names that mean what it says. Nothing of the machine is changed.

#include <gtest/gtest.h>

#include <functional>
#include <string>

/// Runs `body` in a child process that has a fresh network namespace with its loopback up, as root there: any port may
/// be bound. With a non-empty `hosts`, a file of that text stands in for /etc/hosts. Threads that the body starts are
/// inside as well, and it must join them. Failed assertions of the body fail the calling test; what else the body
/// does to memory is lost. Call it on the main thread while the process has no other.
///
/// Returns why the machine does not allow it (then nothing has run), or an empty text.
[[nodiscard]] std::string runInNetworkNamespace(const std::function<void()>& body, const std::string& hosts = {});

/// The same with a body and maybe hosts, for use in a test, which is skipped where the machine does not allow it.
#define RUN_IN_NETWORK_NAMESPACE(...)                                            \
  do {                                                                           \
    const std::string obstacle = runInNetworkNamespace(__VA_ARGS__);             \
    if (!obstacle.empty()) GTEST_SKIP() << "no network namespace: " << obstacle; \
  } while (false)

// Inside the body alone. Each fails the test when the system refuses; false then.

/// A link called `name` (at most 13 characters) with an address such as "10.77.0.1/24", up. At its other end, which is
/// called like it with "-p" behind, is nobody: what is sent to the link's network is lost without an error.
bool addLink(const std::string& name, const std::string& addressAndPrefix);

/// A permanent entry of the neighbour table, hardware address as in "00:1b:21:0a:0b:0c".
bool addNeighbour(const std::string& link, const std::string& address, const std::string& hardwareAddress);

/// An address that takes connection attempts and never answers, neither with a refusal nor with an error of routing.
/// Makes a link and a neighbour for it at each call; empty when the system refuses.
std::string addSilentAddress();
