#include "NetworkNamespace.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if_arp.h>
#include <netinet/ether.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace {

std::string failureOf(const char* call) {
  return std::string(call) + ": " + std::strerror(errno);
}

bool writeFile(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool isWritten = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(file);
  return isWritten;
}

/// Root may do it as it is; others become root of a user namespace.
std::string unshareNetwork() {
  constexpr int Namespaces = CLONE_NEWNET | CLONE_NEWNS;
  if (unshare(Namespaces) == 0) return {};
  const std::string uid = std::to_string(getuid());
  const std::string gid = std::to_string(getgid());
  if (unshare(CLONE_NEWUSER | Namespaces) != 0) return failureOf("unshare");
  if (!writeFile("/proc/self/setgroups", "deny")) return failureOf("setgroups");
  if (!writeFile("/proc/self/uid_map", "0 " + uid + " 1")) return failureOf("uid_map");
  if (!writeFile("/proc/self/gid_map", "0 " + gid + " 1")) return failureOf("gid_map");
  return {};
}

/// Runs a command of the ip tool, which lies where users other than root do not look.
bool runIp(const std::string& arguments) {
  return std::system(("PATH=$PATH:/usr/sbin:/sbin; ip " + arguments).c_str()) == 0;
}

std::string replaceHosts(const std::string& hosts) {
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failureOf("mount");
  char path[] = "/tmp/hosts-XXXXXX";
  const int file = mkstemp(path);
  if (file < 0) return failureOf("mkstemp");
  close(file);
  std::string failure;
  if (!writeFile(path, hosts) || mount(path, "/etc/hosts", nullptr, MS_BIND, nullptr) != 0)
    failure = failureOf("hosts");
  unlink(path);
  return failure;
}

std::string enterNetworkNamespace(const std::string& hosts) {
  std::string obstacle = unshareNetwork();
  if (obstacle.empty() && !runIp("link set lo up")) obstacle = "the ip tool (package iproute2) does not work";
  if (obstacle.empty() && !hosts.empty()) obstacle = replaceHosts(hosts);
  return obstacle;
}

[[noreturn]] void runAsChild(const std::function<void()>& body, const std::string& hosts, int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string obstacle = enterNetworkNamespace(hosts);
  if (!obstacle.empty()) {
    if (write(report, obstacle.data(), obstacle.size()) < 0) std::perror("report");
  } else {
    try {
      body();
    } catch (const std::exception& exception) {
      ADD_FAILURE() << "the body threw " << exception.what();
    }
  }
  // Not _exit: leaks are looked for on the way out.
  std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

std::string readToEnd(int file) {
  std::string text;
  char part[256];
  for (;;) {
    const ssize_t count = read(file, part, sizeof part);
    if (count > 0) {
      text.append(part, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

bool configure(const std::string& arguments) {
  const bool isDone = runIp(arguments);
  if (!isDone) ADD_FAILURE() << "ip " << arguments;
  return isDone;
}

}  // namespace

std::string runInNetworkNamespace(const std::function<void()>& body, const std::string& hosts) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return failureOf("pipe");
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(report[0]);
    runAsChild(body, hosts, report[1]);
  }
  close(report[1]);
  std::string obstacle = child < 0 ? failureOf("fork") : readToEnd(report[0]);
  close(report[0]);
  if (child < 0) return obstacle;

  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (status != 0) ADD_FAILURE() << "failed in its network namespace, wait status " << status;
  return obstacle;
}

bool addLink(const std::string& name, const std::string& addressAndPrefix) {
  const std::string peer = name + "-p";
  return configure("link add " + name + " type veth peer name " + peer) &&
         configure("address add " + addressAndPrefix + " dev " + name) && configure("link set " + name + " up") &&
         configure("link set " + peer + " up");
}

bool addNeighbour(const std::string& link, const std::string& address, const std::string& hardwareAddress) {
  arpreq request{};
  sockaddr_in protocolAddress{};
  protocolAddress.sin_family = AF_INET;
  protocolAddress.sin_addr.s_addr = inet_addr(address.c_str());
  std::memcpy(&request.arp_pa, &protocolAddress, sizeof protocolAddress);
  request.arp_ha.sa_family = ARPHRD_ETHER;
  request.arp_flags = ATF_PERM | ATF_COM;
  link.copy(request.arp_dev, sizeof request.arp_dev - 1);
  ether_addr bytes{};
  const bool isParsed = ether_aton_r(hardwareAddress.c_str(), &bytes) != nullptr;
  std::memcpy(request.arp_ha.sa_data, &bytes, sizeof bytes);

  const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool isDone = isParsed && ioctl(control, SIOCSARP, &request) == 0;
  if (!isDone) ADD_FAILURE() << "neighbour " << address << " at " << hardwareAddress << ": " << std::strerror(errno);
  close(control);
  return isDone;
}

std::string addSilentAddress() {
  static int made = 0;
  const std::string link = "silent" + std::to_string(made);
  const std::string network = "10.99." + std::to_string(made++) + ".";
  // With the hardware address known nobody is asked for it, so the lack of an answer is no error.
  if (!addLink(link, network + "1/24") || !addNeighbour(link, network + "2", "02:00:00:00:00:02")) return {};
  return network + "2";
}
