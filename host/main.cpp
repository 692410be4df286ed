#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Failure.h"

int main(int argumentCount, char** arguments) {
  using namespace brvhost;
  Console& console = Console::standardError();
  try {
    const Options options =
        parseOptions({arguments + (argumentCount > 0 ? 1 : 0), arguments + argumentCount}, std::getenv("LANG"));
    const int exitCode = run(options, std::cout, console);
    std::cout.flush();
    if (!std::cout) throw Failure("cannot write to standard output");
    return exitCode;
  } catch (const Failure& failure) {
    console.endProgress();
    console.line(std::string("brvhost: ") + failure.what());
    return failure.exitCode();
  } catch (const std::exception& exception) {
    console.endProgress();
    console.line(std::string("brvhost: ") + exception.what());
    return ExitFailed;
  }
}
