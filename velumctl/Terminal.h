#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Velum/Files/UniqueFd.h"

namespace velumctl {

/// The path of a program in one of the folders of PATH; empty when it is in none.
std::string findInPath(const std::string& program);

/// The path of a tool as a shell would find it. Throws Failure when it is no executable file.
std::string toolPath(const std::string& tool);

/// True when the descriptor is a terminal.
bool isTerminal(int fd);

/// True when colours are welcome on a terminal: NO_COLOR is unset or empty, and the terminal is not
/// a dumb one.
bool wantsColour();

/// A line without what a terminal would obey, which is written as usual: ^[ for escape, <9B> for
/// U+009B. Tabs stay unless the line's fields are separated by them.
enum class Tabs : bool { stay, shown };
std::string visibleText(std::string_view line, Tabs tabs = Tabs::stay);

/// Asks a question on standard error that "y" or "yes" on standard input agrees to. Both must be
/// terminals.
bool isConfirmed(const std::string& question);

/// Prints the library's warnings on standard error from now on: what it waits for, what it left
/// out.
void showWarnings();

/// Buffered output to a descriptor. Throws SystemError, with EPIPE when the reader has gone.
class Output {
 public:
  explicit Output(int fd) : fd_(fd) {}

  void write(std::string_view bytes);
  void write(char byte) { write(std::string_view(&byte, 1)); }
  void flush();

 private:
  int fd_;
  std::string buffer_;
};

/// The user's pager, fed through a pipe: what PAGER says, run by the shell, else "less -FRX" where
/// there is one. While it runs, Ctrl-C is the pager's affair.
class Pager {
 public:
  /// Nothing when standard output is no terminal, or the user wants no pager (PAGER is empty or
  /// "cat"). Throws SystemError.
  static std::optional<Pager> start();

  Pager(Pager&& other) noexcept;
  Pager& operator=(Pager&&) = delete;
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;
  /// Waits until the user has left the pager.
  ~Pager();

  /// Where the text goes.
  int descriptor() const noexcept { return input_.get(); }
  /// The same as the destructor, but throws Failure when the pager could not be started.
  void finish();

 private:
  Pager(velum::UniqueFd input, pid_t pid) : input_(std::move(input)), pid_(pid) {}
  int wait();

  velum::UniqueFd input_;
  pid_t pid_;
};

}  // namespace velumctl
