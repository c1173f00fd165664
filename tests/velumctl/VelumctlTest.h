#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/RunningProgram.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// Runs velumctl as its users do.
class VelumctlTest : public testing::Test {
 protected:
  struct Result {
    int status = -1;  // the exit status
    std::string output;
    std::string errors;
  };

  Result run(const Strings& arguments, const std::string& input = {}) const {
    return execute(commandLine(arguments), input);
  }

  /// Runs any program to its end.
  Result execute(const Strings& arguments, const std::string& input = {}) const {
    writeFile(folder_ / "input", input);
    constexpr const char* script = R"(exec "$@" <"$0/input" >"$0/output" 2>"$0/errors")";
    auto program =
        RunningProgram::piped(Strings{"/bin/sh", "-c", script, folder_.path()} + arguments);
    const int status = program.wait();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(folder_ / "output"),
            readFile(folder_ / "errors")};
  }

  static Strings commandLine(const Strings& arguments) {
    return Strings{VELUM_VELUMCTL} + arguments;
  }
  static RunningProgram onTerminal(const Strings& arguments, const std::string& pager = "PAGER=cat",
                                   const std::string& colour = "NO_COLOR") {
    return RunningProgram::onTerminal(commandLine(arguments),
                                      {"TERM=xterm", "LESS", colour, pager});
  }

  /// Runs it on a terminal, where it asks before it does anything; what it printed is `output`.
  static Result answered(const Strings& arguments, const std::string& answer) {
    RunningProgram program = onTerminal(arguments);
    program.readUntil("[y/N] ");
    program.type(answer);
    const std::string output = program.readToEnd();
    return {WEXITSTATUS(program.wait()), output, ""};
  }

  static RunningProgram start(const Strings& arguments) {
    return RunningProgram::piped(commandLine(arguments));
  }
  /// Acts until the program has printed `text`: nothing tells when it has begun to look or listen.
  template <class Action>
  static bool prints(RunningProgram& program, std::string_view text, Action action) {
    return eventually([&] {
      action();
      return program.hasPrinted(text, std::chrono::milliseconds(50));
    });
  }

  TemporaryFolder folder_;
};

}  // namespace velum::test
