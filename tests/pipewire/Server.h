#pragma once

// A PipeWire of the process's own: a daemon and a session manager in a folder that goes with it. Nothing of the
// machine's is used or touched. What is started ends by its process id, at the latest with the process.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TemporaryFolder.h"

namespace test::pipewire {

/// Runs the main loop until `condition` holds; false when it does not within a time that only a fault takes.
bool until(const std::function<bool()>& condition, double seconds = 30);

/// A program that runs beside this one: its name and arguments, and in front of them what env(1) takes.
class Process {
 public:
  explicit Process(const std::vector<std::string>& command);
  /// Kills it.
  ~Process();
  void freeze() const;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

 private:
  pid_t _id = -1;
};

class Server {
 public:
  /// The one of this process, running. It lives as long as the process: clients that look for a server go on to look
  /// where it is.
  static Server& instance();

  /// Returns when clients can connect.
  void start();
  /// At once, as if it had crashed.
  void kill();
  /// From now on the daemon answers nobody, until it is killed.
  void freeze() { _daemon->freeze(); }

  /// A file of the tests' folder.
  static std::string file(const std::string& name) { return folder().file(name); }
  /// How the preloaded webcam is from now on (VirtualWebcam.cpp); empty for well.
  void setWebcam(const std::string& state) const {
    std::filesystem::rename(folder().write("next", state), file("webcam"));
  }

 private:
  Server();
  static const TemporaryFolder& folder();

  std::unique_ptr<Process> _daemon, _manager;
};

}  // namespace test::pipewire
