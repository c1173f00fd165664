#pragma once

#include <gtest/gtest.h>

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
    options.standardStreams = {input.reader.get(), SpawnOptions::nullDevice, STDERR_FILENO};
    pid_ = spawn(options);
    keepsRunning_ = std::move(input.writer);
    std::string line;
    if (!eventually([&] { return (line = readFile(folder_ / "ports")).ends_with('\n'); })) {
      throw std::runtime_error("http_server.py does not listen");
    }
    std::istringstream words(line);
    for (std::string word; words >> word;) ports_.push_back(word);
  }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer() {
    ::kill(pid_, SIGKILL);
    reapChild(pid_);
  }

  std::string url(const std::string& path, std::size_t port = 0) const {
    return "http://127.0.0.1:" + ports_.at(port) + path;
  }
  /// The same server under another origin.
  std::string otherUrl(const std::string& path) const { return url(path, 1); }
  /// Where nobody listens.
  std::string closedUrl(const std::string& path) const { return url(path, 2); }
  /// Its certificate is for this address only.
  std::string tlsUrl(const std::string& path, const std::string& host = "127.0.0.1") const {
    return "https://" + host + ":" + ports_.at(3) + path;
  }
  /// Two that demand a certificate of the client's, in TLS 1.3 and 1.2.
  std::array<std::string, 2> demandingUrls() const {
    return {"https://127.0.0.1:" + ports_.at(4) + "/", "https://127.0.0.1:" + ports_.at(5) + "/"};
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

  TemporaryFolder folder_;
  pid_t pid_ = -1;
  UniqueFd keepsRunning_;
  std::vector<std::string> ports_;
};

}  // namespace velum::test
