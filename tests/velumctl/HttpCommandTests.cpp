#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tests/support/Environment.h"
#include "tests/support/HttpServer.h"
#include "tests/support/Inspection.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

class HttpCommand : public VelumctlTest {
 protected:
  Result send(const Strings& arguments, const std::string& input = {}) const {
    return run(Strings{"http", "send"} + arguments, input);
  }
  json echoed(const Strings& arguments, const std::string& input = {}) const {
    const Result result = send(arguments, input);
    EXPECT_EQ(result.status, 0) << result.errors;
    return json::parse(result.output, nullptr, false);
  }

  // Whatever the machine's own settings are.
  ScopedVariable noHttpProxy_{"http_proxy", std::nullopt};
  ScopedVariable noHttpsProxy_{"https_proxy", std::nullopt};
  HttpServer server_;
};

TEST_F(HttpCommand, SendsWhatItIsGiven) {
  const std::string url = server_.url("/echo");
  EXPECT_EQ(echoed({url})["method"], "GET");
  writeFile(folder_ / "headers", "\r\nAuthorization: Bearer hidden\r\n");
  const json seen = echoed(
      {url, "--header", "X-One:1", "--header", "@" + folder_ / "headers", "--data-file", "-"},
      "from input");
  EXPECT_EQ(seen["method"], "POST");
  EXPECT_EQ(seen["body"], "from input");
  EXPECT_EQ(seen["headers"]["x-one"], "1");
  EXPECT_EQ(seen["headers"]["authorization"], "Bearer hidden");
  writeFile(folder_ / "data", "from file");
  EXPECT_EQ(echoed({url, "--method", "PUT", "--data-file", folder_ / "data"})["body"], "from file");
  const std::string form =
      echoed({url, "--form", "one=1=1", "--file", "two=@" + folder_ / "data"})["body"];
  EXPECT_THAT(form, HasSubstr("name=\"one\"\r\n\r\n1=1\r\n"));
  EXPECT_THAT(form, HasSubstr("name=\"two\"; filename=\"data\"\r\n"));
  EXPECT_THAT(form, testing::EndsWith("from file\r\n--" + form.substr(4, form.find('\r', 4) - 4) +
                                      "--\r\n"));
}

TEST_F(HttpCommand, TellsStatusesAndFailuresByItsOwnStatus) {
  const Result refused = send({server_.url("/status/404")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "status");
  EXPECT_EQ(refused.errors, "velumctl: the server answered with status 404\n");
  EXPECT_EQ(send({server_.url("/flaky"), "--retries", "3"}).status, 0);
  EXPECT_THAT(send({server_.url("/never"), "--timeout", "0.2"}).errors, HasSubstr("-1001"));
  EXPECT_EQ(send({server_.url("/"), "--data-file", folder_ / "missing"}).status, 1);
  for (const Strings& option :
       {Strings{"--header", "hidden"}, {"--form", "hidden"}, {"--file", "a=hidden"}}) {
    const Result result = send({server_.url("/"), option[0], option[1]});
    EXPECT_EQ(result.status, 2) << option[0];
    EXPECT_THAT(result.errors, Not(HasSubstr("hidden")));
  }
}

TEST_F(HttpCommand, PrintsForProgramsWithoutSecrets) {
  std::string url = server_.url("/echo?token=hidden");
  url.insert(url.find("//") + 2, "user:hidden@");
  const Result result = send({url, "--json", "--output", folder_ / "body"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, Not(HasSubstr("hidden")));
  const json object = json::parse(result.output, nullptr, false);
  EXPECT_EQ(object["status"], 200);
  EXPECT_EQ(object["url"], server_.url("/echo"));
  EXPECT_THAT(object["headers"].dump(), HasSubstr(R"(["Set-Cookie","stripped"])"));
  EXPECT_THAT(readFile(folder_ / "body"), HasSubstr("token=hidden"));
  EXPECT_EQ(modeOf(folder_ / "body"), 0600);
  // Nothing is sent without a place for the answer, and without an answer the place stays as it
  // was.
  EXPECT_EQ(send({server_.url("/store"), "--data-file", folder_ / "body", "--output",
                  folder_ / "no/body"})
                .status,
            1);
  EXPECT_EQ(server_.stored(), "");
  for (const char* file : {"body", "none"}) {
    EXPECT_EQ(send({url, "--max-size", "10", "--output", folder_ / file}).status, 1);
  }
  EXPECT_THAT(readFile(folder_ / "body"), HasSubstr("token=hidden"));
  EXPECT_EQ(modeOf(folder_ / "none"), -1);
  const Result whole = send({server_.url("/status/500"), "--json"});
  EXPECT_EQ(json::parse(whole.output, nullptr, false)["body"], "status");
}

TEST_F(HttpCommand, ShowsABarAndCancelsOnCtrlC) {
  writeFile(folder_ / "data", std::string(100'000, 'x'));
  auto program = RunningProgram::onTerminal(
      {VELUM_VELUMCTL, "http", "send", server_.url("/never"), "--data-file", folder_ / "data"},
      {"TERM=xterm", "http_proxy"});
  program.readUntil("100 %");
  program.type("\x03");
  EXPECT_THAT(program.readToEnd(), HasSubstr("velumctl: cancelled"));
  EXPECT_EQ(WEXITSTATUS(program.wait()), 1);
}

}  // namespace
}  // namespace velum::test
