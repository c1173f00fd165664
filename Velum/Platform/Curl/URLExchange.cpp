#include "Velum/Platform/Curl/URLExchange.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/HTTP/RequestRules.h"

namespace velum {
namespace {

constexpr long maxRedirects = 20;
constexpr std::size_t uploadPiece = std::size_t{256} * 1024;  // bytes read of a body at a time

// The value of a variable that names a file or folder; null for an empty one as well.
const char* namedBy(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

// Errors of a connection that somebody closed.
bool isBroken(CURLcode result) {
  return result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR || result == CURLE_GOT_NOTHING ||
         result == CURLE_SSL_CONNECT_ERROR;
}

URLError noSocket(int systemError) {
  return URLError::posix(systemError,
                         systemError == EMFILE
                             ? "this process may open no more files; raise its limit (ulimit -n)"
                             : "the system can't open a socket: " + systemErrorText(systemError));
}

URLError bodyEnded() {
  return URLError::url(URLError::requestBodyStreamExhausted,
                       "the request's body ended before its announced size");
}

template <class Value>
void set(CURL* transfer, CURLoption option, Value value) {
  // Fails only for want of memory, which shows when the transfer begins, or for an option that
  // this libcurl was built without.
  static_cast<void>(curl_easy_setopt(transfer, option, value));
}

}  // namespace

URLExchange::URLExchange(std::shared_ptr<const URLRequest> request, DispatchQueue& queue,
                         URLCompletion completion, Canceller canceller)
    : request_(std::move(request)),
      queue_(queue),
      completion_(std::move(completion)),
      canceller_(std::move(canceller)),
      timeout_(timeoutOf(*request_)),
      isRewound_(request_->bodyStream != nullptr),
      answer_(request_->method, request_->largestBody) {}

URLExchange& URLExchange::of(CURL* transfer) {
  char* self = nullptr;
  curl_easy_getinfo(transfer, CURLINFO_PRIVATE, &self);
  return *reinterpret_cast<URLExchange*>(self);  // NOLINT(*-reinterpret-cast): how it was put in
}

void URLExchange::cancel() {
  canceller_(shared_from_this());
}

std::optional<URLError> URLExchange::prepare(SocketOwner& sockets) {
  if (const CURLcode bad = checkedUrl(request_->url); bad != CURLE_OK) {
    std::string text = curl_easy_strerror(bad);
    if (bad != CURLE_OUT_OF_MEMORY) text += "; write a URL such as https://host/path";
    return urlError({.code = bad, .text = std::move(text)});
  }
  if (auto error = requestError(*request_)) return error;
  transfer_.reset(curl_easy_init());
  if (!transfer_ || !setHeaders()) return urlError({.code = CURLE_OUT_OF_MEMORY});
  setSafety();
  setSockets(sockets);
  setRequest();
  return std::nullopt;
}

bool URLExchange::setHeaders() {
  const HTTPHeaders headers = headersToSend(*request_);
  for (const auto& [name, value] : headers) {
    // ';' is how libcurl is told of an empty value; "Name:" would remove a field.
    const std::string line = value.empty() ? name + ';' : (name + ": ").append(value);
    if (!append(name, line)) return false;
  }
  // Else a large body would wait a second for servers that don't know of asking first.
  return headers.value("Expect") || append("Expect", "Expect:");
}

bool URLExchange::append(std::string_view name, const std::string& line) {
  List& list = equalsIgnoringCase(name, "Proxy-Authorization") ? proxyHeaders_ : headers_;
  curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
  if (longer == nullptr) return false;
  static_cast<void>(list.release());
  list.reset(longer);
  return true;
}

void URLExchange::setSafety() {
  CURL* const transfer = transfer_.get();
  set(transfer, CURLOPT_NOSIGNAL, 1L);
  set(transfer, CURLOPT_PROTOCOLS_STR, "http,https");
  set(transfer, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(transfer, CURLOPT_FOLLOWLOCATION, 1L);
  set(transfer, CURLOPT_MAXREDIRS, maxRedirects);
  set(transfer, CURLOPT_SSL_VERIFYPEER, 1L);
  set(transfer, CURLOPT_SSL_VERIFYHOST, 2L);
  demand_.noticeIn(transfer);
  // OpenSSL's own variables name another store, as they do for most programs of the system.
  if (const char* const file = namedBy("SSL_CERT_FILE")) set(transfer, CURLOPT_CAINFO, file);
  if (const char* const folder = namedBy("SSL_CERT_DIR")) set(transfer, CURLOPT_CAPATH, folder);
  // A lookup that is given up is left to its thread: waiting for it would hold up all exchanges.
  set(transfer, CURLOPT_QUICK_EXIT, 1L);
}

// A socket is closed when a connection is given up, perhaps long after the exchange.
void URLExchange::setSockets(SocketOwner& sockets) {
  CURL* const transfer = transfer_.get();
  sockets_ = &sockets;
  set(transfer, CURLOPT_OPENSOCKETDATA, this);
  set(
      transfer, CURLOPT_OPENSOCKETFUNCTION,
      +[](void* self, curlsocktype /*purpose*/, curl_sockaddr* address) -> curl_socket_t {
        return static_cast<URLExchange*>(self)->openSocket(*address);
      });
  set(transfer, CURLOPT_CLOSESOCKETDATA, &sockets);
  set(
      transfer, CURLOPT_CLOSESOCKETFUNCTION, +[](void* owner, curl_socket_t socket) -> int {
        static_cast<SocketOwner*>(owner)->close(socket);
        return 0;
      });
}

void URLExchange::setRequest() {
  CURL* const transfer = transfer_.get();
  set(transfer, CURLOPT_PRIVATE, this);
  set(transfer, CURLOPT_URL, request_->url.c_str());
  set(transfer, CURLOPT_HTTPHEADER, headers_.get());
  set(transfer, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
  set(transfer, CURLOPT_PROXYHEADER, proxyHeaders_.get());
  set(transfer, CURLOPT_ERRORBUFFER, errorText_.data());
  set(transfer, CURLOPT_ACCEPT_ENCODING, ContentDecoder::known);
  set(transfer, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  set(transfer, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // The limit is on inactivity and kept by the loader. libcurl is told of it all the same, so that
  // it shares the time out among a host's addresses.
  const auto limit = std::chrono::ceil<std::chrono::milliseconds>(timeout_).count();
  set(transfer, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limit));
  set(transfer, CURLOPT_HEADERDATA, this);
  set(
      transfer, CURLOPT_HEADERFUNCTION,
      +[](char* bytes, std::size_t, std::size_t size, void* self) -> std::size_t {
        return static_cast<URLExchange*>(self)->takeHeader({bytes, size});
      });
  set(transfer, CURLOPT_WRITEDATA, this);
  set(
      transfer, CURLOPT_WRITEFUNCTION,
      +[](char* bytes, std::size_t, std::size_t size, void* self) -> std::size_t {
        return static_cast<URLExchange*>(self)->takeData({bytes, size});
      });
  set(transfer, CURLOPT_NOPROGRESS, 0L);
  set(transfer, CURLOPT_XFERINFODATA, this);
  set(
      transfer, CURLOPT_XFERINFOFUNCTION,
      +[](void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) -> int {
        static_cast<URLExchange*>(self)->noteProgress(received, sent);
        return 0;
      });
  setBody();
}

// libcurl knows the methods by what they do with bodies; redirects depend on it.
void URLExchange::setBody() {
  CURL* const transfer = transfer_.get();
  const std::string& method = request_->method;
  const bool hasBody = request_->bodyStream || !request_->body.empty();
  bool isNamed = true;  // by what is set here, so that a redirect may change it
  if (method == "POST") {
    set(transfer, CURLOPT_POST, 1L);
    set(transfer, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodySize()));
  } else if (hasBody || method == "PUT") {
    set(transfer, CURLOPT_UPLOAD, 1L);
    set(transfer, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bodySize()));
    isNamed = method == "PUT";
  } else if (method == "HEAD") {
    set(transfer, CURLOPT_NOBODY, 1L);
  } else {
    isNamed = method == "GET";
  }
  if (!isNamed) set(transfer, CURLOPT_CUSTOMREQUEST, method.c_str());
  set(transfer, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(uploadPiece));
  set(transfer, CURLOPT_READDATA, this);
  set(
      transfer, CURLOPT_READFUNCTION,
      +[](char* buffer, std::size_t unit, std::size_t count, void* self) -> std::size_t {
        return static_cast<URLExchange*>(self)->readBody(buffer, unit * count);
      });
  set(transfer, CURLOPT_SEEKDATA, this);
  set(
      transfer, CURLOPT_SEEKFUNCTION, +[](void* self, curl_off_t offset, int origin) -> int {
        const bool isRewind = offset == 0 && origin == SEEK_SET;
        if (!isRewind) return CURL_SEEKFUNC_FAIL;
        static_cast<URLExchange*>(self)->rewindBody();
        return CURL_SEEKFUNC_OK;
      });
}

std::int64_t URLExchange::bodySize() const noexcept {
  return request_->bodyStream ? request_->bodyStream->size()
                              : static_cast<std::int64_t>(request_->body.size());
}

// Runs what a callback does; its exception becomes the exchange's error.
template <class Work>
bool URLExchange::guarded(Work work) noexcept {
  try {
    work();
    return true;
  } catch (const SystemError& error) {
    callbackError_ = URLError::posix(error.code(), error.what());
  } catch (const BodyChanged& error) {
    callbackError_ = URLError::url(URLError::requestBodyStreamExhausted, error.what());
  } catch (const ContentUndecodable& error) {
    callbackError_ = URLError::url(URLError::cannotDecodeContentData, error.what());
  } catch (const BadAnswer& error) {
    callbackError_ = URLError::url(URLError::badServerResponse, error.what());
  } catch (const BodyTooLarge& error) {
    callbackError_ = URLError::url(URLError::dataLengthExceedsMaximum, error.what());
  } catch (const std::bad_alloc&) {
    callbackError_ = URLError::posix(ENOMEM, "out of memory for the exchange");
  } catch (const std::exception& error) {
    callbackError_ = URLError::url(URLError::unknown, error.what());
  }
  return false;
}

bool URLExchange::isHungry() const noexcept {
  return request_->bodyStream && !callbackError_ && taken_ == ahead_.size() &&
         (isRewound_ || bodyLeft_ > 0);
}

void URLExchange::feed() noexcept {
  guarded([this] {
    if (std::exchange(isRewound_, false)) {
      body_ = request_->bodyStream->open();
      bodyLeft_ = bodySize();
    }
    ahead_.resize(static_cast<std::size_t>(
        std::min<std::int64_t>(bodyLeft_, static_cast<std::int64_t>(uploadPiece))));
    taken_ = 0;
    if (ahead_.empty()) return;
    ahead_.resize(body_->read(ahead_.data(), ahead_.size()));
    bodyLeft_ -= static_cast<std::int64_t>(ahead_.size());
    if (ahead_.empty()) callbackError_ = bodyEnded();
  });
}

std::size_t URLExchange::readBody(char* buffer, std::size_t size) noexcept {
  if (callbackError_) return CURL_READFUNC_ABORT;
  if (isHungry()) {
    isPaused_ = true;
    return CURL_READFUNC_PAUSE;
  }
  const std::string_view source = request_->bodyStream ? ahead_ : request_->body;
  const std::size_t got = source.copy(buffer, size, taken_);
  taken_ += got;
  return got;
}

void URLExchange::rewindBody() noexcept {
  isRewound_ = request_->bodyStream != nullptr;
  ahead_.clear();
  taken_ = 0;
}

std::size_t URLExchange::takeHeader(std::string_view line) noexcept {
  lastActivity_ = Clock::now();
  const bool isTaken = guarded([&] {
    if (line.starts_with("HTTP/")) beginAnswer();
    answer_.takeLine(line);
  });
  return isTaken ? line.size() : 0;
}

// The first one, or that after a redirect or after an interim one.
void URLExchange::beginAnswer() {
  demand_.withdraw();
  // A redirect after 303 is a GET, whatever the method was; a name given as text would stay.
  long status = 0;
  curl_easy_getinfo(transfer(), CURLINFO_RESPONSE_CODE, &status);
  constexpr long seeOther = 303;
  if (status == seeOther && request_->method != "HEAD") {
    set(transfer(), CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
  }
  // What was sent safely once is not sent in clear afterwards.
  const char* scheme = nullptr;
  curl_easy_getinfo(transfer(), CURLINFO_SCHEME, &scheme);
  if (scheme != nullptr && equalsIgnoringCase(scheme, "https")) {
    set(transfer(), CURLOPT_REDIR_PROTOCOLS_STR, "https");
  }
}

std::size_t URLExchange::takeData(std::string_view bytes) noexcept {
  const bool isTaken = guarded([&] { answer_.takeData(bytes); });
  return isTaken ? bytes.size() : CURL_WRITEFUNC_ERROR;
}

int URLExchange::openSocket(const curl_sockaddr& address) noexcept {
  const int socket = sockets_->open(address.family, address.socktype, address.protocol);
  if (socket < 0) socketError_ = errno;
  return socket;
}

void URLExchange::noteProgress(curl_off_t received, curl_off_t sent) noexcept {
  if (received == received_ && sent == countOfBytesSent()) return;
  received_ = received;
  sent_.store(sent, std::memory_order_relaxed);
  lastActivity_ = Clock::now();
}

void URLExchange::finish(CURLcode result) {
  long status = 0;
  const char* url = nullptr;
  curl_easy_getinfo(transfer(), CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(transfer(), CURLINFO_EFFECTIVE_URL, &url);
  const bool isWhole = result == CURLE_OK && guarded([this] { answer_.finish(); });
  if (!isWhole) {
    end(callbackError_ ? std::move(*callbackError_) : failure(result, status));
    return;
  }
  response_ = {.statusCode = static_cast<int>(status),
               .headers = std::move(answer_.headers()),
               .url = url == nullptr ? request_->url : url};
  transfer_.reset();
}

URLError URLExchange::failure(CURLcode result, long status) const {
  if (result == CURLE_COULDNT_CONNECT && socketError_ != 0) {
    return noSocket(socketError_);
  }
  CurlFailure failure{.code = result, .text = errorText_.data()};
  curl_easy_getinfo(transfer(), CURLINFO_OS_ERRNO, &failure.systemError);
  curl_easy_getinfo(transfer(), CURLINFO_SSL_VERIFYRESULT, &failure.verifyResult);
  curl_off_t firstByte = 0;  // when it came, in microseconds
  curl_easy_getinfo(transfer(), CURLINFO_STARTTRANSFER_TIME_T, &firstByte);
  if (demand_.isMade() && isBroken(result)) {
    failure.code = CURLE_SSL_CLIENTCERT;
    failure.text = "the server demands a client certificate, which is not supported";
  } else if ((result == CURLE_UNSUPPORTED_PROTOCOL && status == 0) ||
             result == CURLE_BAD_FUNCTION_ARGUMENT) {
    // Before any answer, it is not the URL: what the server sent is no HTTP. Nor is a trailer that
    // can't be read our argument.
    failure.code = CURLE_WEIRD_SERVER_REPLY;
  } else if (result == CURLE_UNSUPPORTED_PROTOCOL) {
    const auto place = answer_.headers().value("Location").value_or("");
    failure.text = equalsIgnoringCase(place.substr(0, 5), "http:")
                       ? "the server redirected from https to http, which is not followed"
                       : "the server redirected to what is neither http nor https";
  } else if (result == CURLE_OUT_OF_MEMORY && firstByte > 0) {
    // So older versions of libcurl say that a line is longer than they take.
    failure.code = CURLE_WEIRD_SERVER_REPLY;
    failure.text = AnswerReader::hugeHeader;
  }
  return urlError(failure);
}

void URLExchange::end(URLError error) {
  transfer_.reset();
  error_ = std::move(error);
}

void URLExchange::fail(URLError error) {
  end(std::move(error));
  deliver();
}

void URLExchange::deliver() {
  if (!completion_) return;
  body_.reset();
  ahead_ = {};
  // On the heap, because work has to be copyable and the data should not be copied.
  struct Delivery {
    URLCompletion completion;
    std::string data;
    std::optional<URLResponse> response;
    std::optional<URLError> error;
  };
  auto delivery =
      std::make_shared<Delivery>(Delivery{std::exchange(completion_, nullptr), {}, {}, {}});
  if (error_) {
    delivery->error = std::move(error_);
  } else {
    delivery->data = std::move(answer_.data());
    delivery->response = std::move(response_);
  }
  answer_.drop();
  queue_.async([delivery = std::move(delivery)] {
    delivery->completion(std::move(delivery->data), std::move(delivery->response),
                         std::move(delivery->error));
  });
}

}  // namespace velum
