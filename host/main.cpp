#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "common/Failure.h"

namespace {

/// No file that is opened later takes the place of a closed standard stream, or log lines would go into a recording.
/// Writing to what stands there instead still fails.
void occupyStandardStreams() {
  int descriptor = 0;
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = ::open("/dev/null", O_RDONLY);
  if (descriptor >= 0) ::close(descriptor);
}

/// Lets writing without a reader, or past the limit on the size of files, fail and be told like any other failure.
void ignoreSignalsOfWriting() {
  for (const int signal : {SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  using namespace brvhost;
  occupyStandardStreams();
  ignoreSignalsOfWriting();
  const auto told = [](const char* reason, ExitCode exitCode) {
    Console& console = Console::standardError();
    console.endProgress();
    console.line(std::string("brvhost: ") + reason);
    return exitCode;
  };
  try {
    const Options options =
        parseOptions({arguments + (argumentCount > 0 ? 1 : 0), arguments + argumentCount}, std::getenv("LANG"));
    // What goes on until it is stopped ends with its reader too; the others have something to finish first.
    if (options.command == Command::watch || options.command == Command::monitor)
      std::cout.exceptions(std::ios::badbit);
    const int exitCode = run(options, std::cout, Console::standardError());
    std::cout.exceptions(std::ios::badbit);
    std::cout.flush();
    return exitCode;
  } catch (const Failure& failure) {
    return told(failure.what(), failure.exitCode());
  } catch (const std::ios_base::failure&) {
    return told("cannot write to standard output", ExitFailed);
  } catch (const std::exception& exception) {
    return told(exception.what(), ExitFailed);
  }
}
