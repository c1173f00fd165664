#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Spawn.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// http_server.py on ports of its own, with a folder for what it stores and for its certificate.
/// Ends with the object, and with the test's process.
class HttpServer {
 public:
  enum class Tls : bool { no, yes };

  explicit HttpServer(Tls tls = Tls::no) {
    SpawnOptions options;
    options.executable = "/usr/bin/env";
    options.arguments = {"env", "python3", VELUM_HTTP_SERVER, folder_.path()};
    if (tls == Tls::yes) {
      makeCertificate();
      options.arguments.insert(options.arguments.end(), {certificate(), folder_ / "key.pem"});
    }
    PipeEnds input = makePipe();
    PipeEnds output = makePipe();
    options.standardStreams = {input.reader.get(), output.writer.get(), STDERR_FILENO};
    pid_ = spawn(options);
    keepsRunning_ = std::move(input.writer);
    output.writer.reset();
    readPorts(output.reader.get());
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer() {
    ::kill(pid_, SIGKILL);
    reapChild(pid_);
  }

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + ports_[0] + path; }
  /// The same server under another origin.
  std::string otherUrl(const std::string& path) const {
    return "http://127.0.0.1:" + ports_[1] + path;
  }
  /// Its certificate is for this address only.
  std::string tlsUrl(const std::string& path, const std::string& host = "127.0.0.1") const {
    return "https://" + host + ":" + ports_.at(2) + path;
  }
  /// Two that demand a certificate of the client's, in TLS 1.3 and 1.2.
  std::array<std::string, 2> demandingUrls() const {
    return {"https://127.0.0.1:" + ports_.at(3) + "/", "https://127.0.0.1:" + ports_.at(4) + "/"};
  }
  std::string certificate() const { return folder_ / "certificate.pem"; }
  /// What was sent to /store last.
  std::string stored() const { return readFile(folder_ / "stored"); }

 private:
  void makeCertificate() const {
    const pid_t tool = startShell("cd '" + folder_.path() +
                                  "' && exec openssl req -x509 -newkey ec -pkeyopt "
                                  "ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=test -addext "
                                  "subjectAltName=IP:127.0.0.1 -keyout key.pem -out "
                                  "certificate.pem");
    if (exitStatus(tool) != 0) throw std::runtime_error("openssl req");
  }
  void readPorts(int output) {
    std::string line;
    while (line.find('\n') == std::string::npos) {
      std::array<char, 256> buffer{};
      if (!isReadable(output)) throw std::runtime_error("http_server.py says nothing");
      const ssize_t got = ::read(output, buffer.data(), buffer.size());
      if (got <= 0) throw std::runtime_error("http_server.py has ended");
      line.append(buffer.data(), static_cast<std::size_t>(got));
    }
    std::istringstream words(line);
    for (std::string word; words >> word;) ports_.push_back(word);
  }

  TemporaryFolder folder_;
  pid_t pid_ = -1;
  UniqueFd keepsRunning_;
  std::vector<std::string> ports_;
};

/// The URL of a port on which nobody listens as long as the object lives.
class ClosedPort {
 public:
  ClosedPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);  // NOLINT: as sockets want it
    if (::bind(socket_.get(), generic, size) != 0 ||
        ::getsockname(socket_.get(), generic, &size) != 0) {
      throw std::runtime_error("no free port");
    }
    port_ = ntohs(address.sin_port);
  }
  std::string url(const std::string& path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  UniqueFd socket_;
  int port_ = 0;
};

}  // namespace velum::test
