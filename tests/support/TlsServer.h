#pragma once

#include <stdexcept>
#include <string>

#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/velumctl/RunningProgram.h"

namespace velum::test {

/// An HTTPS server on a port of 127.0.0.1; ends with the object.
class TlsServer {
 public:
  TlsServer(const std::string& certificate, const std::string& key)
      : program_(RunningProgram::piped({"/usr/bin/openssl", "s_server", "-accept", "127.0.0.1:0",
                                        "-www", "-cert", certificate, "-key", key})) {
    const std::string mark = "ACCEPT 127.0.0.1:";
    const std::string& said = program_.readUntil(mark);  // the whole line, written at once
    const std::size_t begin = said.find(mark) + mark.size();
    const std::size_t end = said.find('\n', begin);
    if (end == std::string::npos) throw std::runtime_error("openssl s_server: " + said);
    port_ = said.substr(begin, end - begin);
  }

  const std::string& port() const { return port_; }

 private:
  RunningProgram program_;
  std::string port_;
};

}  // namespace velum::test
