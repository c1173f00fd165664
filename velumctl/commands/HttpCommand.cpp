#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/HTTP/MultipartBody.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/URLSession.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/ProgressBar.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::URLError;
using velum::URLRequest;
using velum::URLResponse;

struct SendOptions {
  std::string url;
  std::string method;
  std::vector<std::string> headers;
  std::string dataFile;
  std::vector<std::string> fields;
  std::vector<std::string> files;
  unsigned retries = 0;
  double timeout = URLRequest::defaultTimeout;
  std::optional<std::uint64_t> maxSize;
  std::string output;
  bool json = false;
};

constexpr const char* sendCaller = "http send";  // in errors, behind the program's name

std::string wholeFile(int fd) {
  std::string bytes;
  std::string buffer(65536, '\0');
  while (const auto got = velum::checked::read(fd, buffer.data(), buffer.size(), sendCaller)) {
    bytes.append(buffer, 0, got);
  }
  return bytes;
}

std::string wholeFile(const std::string& path) {
  return wholeFile(velum::checked::open(path, O_RDONLY, 0, sendCaller).get());
}

// What is wrong with a header is not repeated: it may hold a secret.
void addHeader(URLRequest& request, std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  const std::size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos) {
    throw UsageError("a header has no name; write --header 'NAME: VALUE'");
  }
  const std::size_t value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
  request.headers.add(std::string(line.substr(0, colon)), std::string(line.substr(value)));
}

void addHeaders(URLRequest& request, const std::vector<std::string>& headers) {
  for (const std::string& header : headers) {
    if (!header.starts_with('@')) {
      addHeader(request, header);
      continue;
    }
    std::istringstream lines(wholeFile(header.substr(1)));
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line != "\r") addHeader(request, line);
    }
  }
}

std::pair<std::string, std::string> named(const std::string& text, const char* usage) {
  const std::size_t equals = text.find('=');
  if (equals == 0 || equals == std::string::npos) {
    throw UsageError(fmt::format("a part of the form has no name; write {}", usage));
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

void setForm(URLRequest& request, const SendOptions& options) {
  auto form = std::make_shared<velum::MultipartBody>();
  std::size_t left = options.fields.size() + options.files.size();
  const auto position = [&left] {
    return --left == 0 ? velum::PartPosition::last : velum::PartPosition::inside;
  };
  for (const std::string& field : options.fields) {
    const auto [name, value] = named(field, "--form NAME=VALUE");
    form->appendField(name, value, position());
  }
  for (const std::string& file : options.files) {
    const auto [name, path] = named(file, "--file NAME=@PATH");
    if (!path.starts_with('@')) throw UsageError("write --file NAME=@PATH");
    form->appendFile(name, std::filesystem::path(path.substr(1)).filename().string(),
                     "application/octet-stream", path.substr(1), position());
  }
  request.headers.set("Content-Type", form->contentType());
  request.bodyStream = std::move(form);
}

void setData(URLRequest& request, const std::string& path) {
  if (!request.headers.value("Content-Type")) {
    request.headers.set("Content-Type", "application/octet-stream");
  }
  std::error_code error;
  if (path == "-") {
    request.body = wholeFile(STDIN_FILENO);
  } else if (std::filesystem::is_regular_file(path, error)) {
    auto file = std::make_shared<velum::BodyParts>();
    file->appendFile(path);
    request.bodyStream = std::move(file);
  } else {  // a pipe, or the error that it can't be opened
    request.body = wholeFile(path);
  }
}

URLRequest parsedRequest(const SendOptions& options) {
  URLRequest request;
  request.url = options.url;
  request.timeoutInterval = options.timeout;
  request.largestBody = options.maxSize;
  addHeaders(request, options.headers);
  const bool isForm = !options.fields.empty() || !options.files.empty();
  if (isForm) {
    setForm(request, options);
  } else if (!options.dataFile.empty()) {
    setData(request, options.dataFile);
  }
  const bool hasBody = isForm || !options.dataFile.empty();
  request.method = !options.method.empty() ? options.method : hasBody ? "POST" : "GET";
  return request;
}

std::atomic<int> interruptWriter{-1};  // for the signal handler

extern "C" void noteInterrupt(int /*signal*/) {
  static_cast<void>(!::write(interruptWriter, "", 1));
}

/// Cancels a task when Ctrl-C or a polite kill comes, from the object's making on.
class Interrupts {
 public:
  Interrupts() {
    interruptWriter = pipe_->writer.get();
    std::signal(SIGINT, noteInterrupt);   // NOLINT(cert-err33-c): can't fail
    std::signal(SIGTERM, noteInterrupt);  // NOLINT(cert-err33-c)
  }
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;
  ~Interrupts() {
    std::signal(SIGINT, SIG_DFL);   // NOLINT(cert-err33-c)
    std::signal(SIGTERM, SIG_DFL);  // NOLINT(cert-err33-c)
  }

  void cancel(std::shared_ptr<velum::URLTask> task) {
    source_ =
        velum::DispatchSource::readable(pipe_->reader.get(), velum::DispatchQueue::global(),
                                        [pipe = pipe_, task = std::move(task)] {
                                          char byte = 0;
                                          static_cast<void>(!::read(pipe->reader.get(), &byte, 1));
                                          task->cancel();
                                        });
  }

 private:
  std::shared_ptr<velum::PipeEnds> pipe_ = std::make_shared<velum::PipeEnds>(velum::makePipe());
  std::unique_ptr<velum::DispatchSource> source_;
};

struct Exchanged {
  std::string data;
  std::optional<URLResponse> response;
  std::optional<URLError> error;
};

Exchanged exchanged(URLRequest request, unsigned retries) {
  const std::int64_t total = request.bodyStream ? request.bodyStream->size()
                                                : static_cast<std::int64_t>(request.body.size());
  const auto end = std::make_shared<std::promise<Exchanged>>();
  auto exchange = end->get_future();
  Interrupts interrupts;
  const auto task = velum::URLSession::shared().execute(
      std::move(request), retries,
      [end](std::string data, std::optional<URLResponse> response, std::optional<URLError> error) {
        end->set_value({std::move(data), std::move(response), std::move(error)});
      });
  interrupts.cancel(task);
  waitWithBar(exchange, total > 0 && isTerminal(STDERR_FILENO), [&] {
    return static_cast<double>(task->countOfBytesSent()) / static_cast<double>(total);
  });
  return exchange.get();
}

std::string_view advice(const URLError& error) {
  if (error.domain != URLError::urlDomain) return "";
  switch (error.code) {
    case URLError::cannotFindHost:
      return "; check the host's name and the network";
    case URLError::cannotConnectToHost:
    case URLError::networkConnectionLost:
    case URLError::notConnectedToInternet:
      return "; check the network and that the server runs";
    case URLError::timedOut:
      return "; try --retries or a longer --timeout";
    case URLError::serverCertificateUntrusted:
      return "; SSL_CERT_FILE names further authorities";
    default:
      return "";
  }
}

[[noreturn]] void report(const URLError& error) {
  if (error.is(URLError::cancelled)) throw Failure("cancelled");
  throw Failure(fmt::format("{} ({} {}){}", error.text, error.domain, error.code, advice(error)));
}

// Without what may be secret in a URL: a password before the host, a token in the query.
std::string shownUrl(std::string url) {
  url.erase(std::min(url.find_first_of("?#"), url.size()));
  const std::size_t host = url.find("//") + 2;
  const std::size_t user = url.substr(0, url.find('/', host)).rfind('@');
  if (user != std::string::npos) url.erase(host, user + 1 - host);
  return url;
}

bool isSecret(std::string_view header) {
  return velum::equalsIgnoringCase(header, "Set-Cookie") ||
         velum::equalsIgnoringCase(header, "Authorization") ||
         velum::equalsIgnoringCase(header, "Cookie");
}

void printJson(const Exchanged& exchange, bool withBody) {
  nlohmann::ordered_json object;
  object["status"] = exchange.response->statusCode;
  object["url"] = velum::repairedUtf8(shownUrl(exchange.response->url));
  auto headers = nlohmann::ordered_json::array();
  for (const auto& [name, value] : exchange.response->headers) {
    headers.push_back(
        {velum::repairedUtf8(name), isSecret(name) ? "stripped" : velum::repairedUtf8(value)});
  }
  object["headers"] = std::move(headers);
  if (withBody) object["body"] = velum::repairedUtf8(exchange.data);
  std::cout << object.dump() << '\n' << std::flush;
}

void write(int fd, std::string_view bytes) {
  velum::checked::write(fd, bytes.data(), bytes.size(), sendCaller);
}

/// The file for an answer's body. Opened before the exchange, so that nothing is sent when there is
/// no place for the answer; what it held stays until that has come, and a new file goes when none
/// comes. Answers may be private: nobody else can read a new file.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path) : path_(path) {
    if (path.empty()) return;
    std::error_code error;
    isNew_ = !std::filesystem::exists(std::filesystem::symlink_status(path, error));
    file_ = velum::checked::open(path, O_WRONLY | O_CREAT, 0600, sendCaller);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile() {
    if (isNew_) ::unlink(path_.c_str());
  }

  void put(std::string_view bytes) {
    if (!file_) return;
    struct stat status {};
    const bool isRegular = ::fstat(file_.get(), &status) == 0 && S_ISREG(status.st_mode);
    if (isRegular && ::ftruncate(file_.get(), 0) != 0) {
      throw velum::lastSystemError(fmt::format("{}, ftruncate ({})", sendCaller, path_));
    }
    isNew_ = false;
    write(file_.get(), bytes);
  }

 private:
  const std::string path_;
  velum::UniqueFd file_;
  bool isNew_ = false;
};

void send(const SendOptions& options) {
  OutputFile output(options.output);
  const Exchanged exchange = exchanged(parsedRequest(options), options.retries);
  if (exchange.error) report(*exchange.error);
  output.put(exchange.data);
  if (options.json) {
    printJson(exchange, options.output.empty());
  } else if (options.output.empty()) {
    write(STDOUT_FILENO, exchange.data);
  }
  if (!exchange.response->isSuccess()) {
    throw Failure(fmt::format("the server answered with status {}", exchange.response->statusCode));
  }
}

}  // namespace

void addHttp(CLI::App& app) {
  CLI::App& http = *app.add_subcommand("http", "Exchange requests with servers");
  http.require_subcommand(1);
  auto options = std::make_shared<SendOptions>();
  CLI::App& send = *http.add_subcommand("send", "Send a request and print the answer's body");
  send.add_option("URL", options->url, "http or https")->required()->type_name("");
  send.add_option("--method", options->method, "GET by default; POST when there is a body")
      ->type_name("METHOD");
  send.add_option("--header", options->headers,
                  "A header field, or @FILE with one per line, which other users of the machine "
                  "can't see; may be repeated")
      ->type_name("'NAME: VALUE'")
      ->allow_extra_args(false);
  CLI::Option& data =
      *send.add_option("--data-file", options->dataFile, "The file to send; - for standard input")
           ->type_name("FILE");
  send.add_option("--form", options->fields, "A field of a form to send; may be repeated")
      ->type_name("NAME=VALUE")
      ->allow_extra_args(false)
      ->excludes(&data);
  send.add_option("--file", options->files, "A file of a form to send; may be repeated")
      ->type_name("NAME=@PATH")
      ->allow_extra_args(false)
      ->excludes(&data);
  send.add_option("--retries", options->retries,
                  "Attempts in all when the network fails; 0 and 1 mean one")
      ->type_name("N");
  send.add_option("--timeout", options->timeout, "Seconds that nothing may move; 60 by default")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 604800.0));  // a week
  send.add_option("--max-size", options->maxSize, "Take no larger answer: 500k, 30M, 1G")
      ->type_name("SIZE")
      ->transform(CLI::AsSizeValue(false))
      ->check([](const std::string& size) {
        return size.starts_with('-') ? "a size can't be negative" : std::string();
      });
  send.add_option("--output", options->output, "Write the answer's body there")->type_name("FILE");
  send.add_flag("--json", options->json,
                R"(Print {"status": ..., "url": ..., "headers": ..., "body": ...})");
  send.footer(
      "Succeeds when the server answers with a status from 200 to 299. Ctrl-C cancels.\n\n"
      "Examples:\n"
      "  velumctl http send https://example.com/status --retries 3\n"
      "  velumctl http send https://example.com/upload --file log=@vpn.zip --header @token.txt");
  send.callback([options] { velumctl::send(*options); });
}

}  // namespace velumctl
