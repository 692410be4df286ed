#include "Server.h"

#include <runtime/Scheduler.h>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "Stream.h"
#include "support/MainLoop.h"

namespace test::pipewire {

bool until(const std::function<bool()>& condition, double seconds) {
  const runtime::Nanoseconds end =
      runtime::Scheduler::current().now() + static_cast<runtime::Nanoseconds>(seconds * 1e9);
  while (!condition()) {
    if (runtime::Scheduler::current().now() > end) return false;
    runMainLoop(0.002);
  }
  return true;
}

Process::Process(const std::vector<std::string>& command) {
  std::vector<const char*> arguments{"setpriv", "--pdeathsig", "KILL", "env"};
  for (const std::string& word : command) arguments.push_back(word.c_str());
  arguments.push_back(nullptr);
  if (posix_spawnp(&_id, arguments[0], nullptr, nullptr, const_cast<char**>(arguments.data()), environ) != 0)
    throw std::runtime_error("setpriv cannot be run");
}

Process::~Process() {
  ::kill(_id, SIGKILL);
  waitpid(_id, nullptr, 0);
}

void Process::freeze() const {
  ::kill(_id, SIGSTOP);
}

const TemporaryFolder& Server::folder() {
  static const TemporaryFolder folder;
  return folder;
}

Server& Server::instance() {
  static auto* const server = new Server;
  if (!server->_daemon) server->start();
  server->setWebcam("");
  return *server;
}

Server::Server() {
  for (const char* name : {"XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR", "HOME", "XDG_STATE_HOME"})
    setenv(name, folder().file("").c_str(), 1);
  // The session manager finds what it adds to its configuration there.
  setenv("XDG_CONFIG_HOME", AVC_PIPEWIRE_CONFIG, 1);
  for (const char* name : {"PIPEWIRE_REMOTE", "DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "CAPTURE_RIG"}) unsetenv(name);
}

void Server::start() {
  const std::string config = std::string(AVC_PIPEWIRE_CONFIG) + "/wireplumber";
  _daemon = std::make_unique<Process>(std::vector<std::string>{
      "LD_PRELOAD=" AVC_VIRTUAL_WEBCAM, "VIRTUAL_WEBCAM=" + file("webcam"), "pipewire", "-c", config + "/daemon.conf"});
  const Client client;  // where there is one, others can connect as well
  _manager = std::make_unique<Process>(std::vector<std::string>{"wireplumber", "-c", config + "/manager.conf"});
}

void Server::kill() {
  _manager.reset();
  _daemon.reset();
  std::filesystem::remove(file("pipewire-0"));
}

}  // namespace test::pipewire
