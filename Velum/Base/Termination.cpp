#include "Velum/Base/Termination.h"

#include <sys/wait.h>

namespace velum {

Termination Termination::ofWaitStatus(int waitStatus) noexcept {
  if (WIFSIGNALED(waitStatus)) return {WTERMSIG(waitStatus), Reason::uncaughtSignal};
  return {WEXITSTATUS(waitStatus), Reason::exit};
}

std::string Termination::text() const {
  return (reason == Reason::exit ? "ended with status " : "was ended by signal ") +
         std::to_string(status);
}

}  // namespace velum
