// What it costs to check who signed the program of a process, against the cryptography alone.

#include <fmt/format.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "Velum/Platform/CodeIdentity.h"
#include "bench/support/Memory.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

constexpr const char* team = "R8K2ZP5WQN";

using Bio = std::unique_ptr<BIO, int (*)(BIO*)>;

void require(bool isDone, const char* what) {
  if (!isDone) throw std::runtime_error(what);
}

void run(const std::string& command) {
  const std::string quiet = "{ " + command + "; } >/dev/null 2>&1";
  require(std::system(quiet.c_str()) == 0, command.c_str());  // NOLINT(cert-env33-c)
}

// Of the processor: nothing here waits, and other programs don't matter.
template <class Work>
double timed(Work work) {
  const auto now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
  };
  const double start = now();
  work();
  return now() - start;
}

// An authority, and the maker's certificate below it, in the folder.
void makeCertificates(const bench::TemporaryFolder& folder) {
  std::filesystem::create_directory(folder / "roots");
  ::chmod((folder / "roots").c_str(), 0755);
  const std::string root = folder / "roots/root.pem";
  run(fmt::format(
      "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=Authority -keyout {0}/root.key"
      " -out {1} && chmod 644 {1}",
      folder.path(), root));
  run(
      fmt::format("openssl req -newkey rsa:2048 -nodes -subj /CN=Maker/OU={1} -keyout {0}/team.key"
                  " -out {0}/team.csr && echo extendedKeyUsage=codeSigning >{0}/extensions &&"
                  " openssl x509 -req -in {0}/team.csr -CA {2} -CAkey {0}/root.key"
                  " -extfile {0}/extensions -out {0}/team.pem",
                  folder.path(), team, root));
}

// A program of so many bytes, signed by the team.
std::string makeProgram(const bench::TemporaryFolder& folder, std::uintmax_t size) {
  const std::string path = folder / fmt::format("program-{}", size);
  std::filesystem::copy_file("/bin/sleep", path);
  // Not a hole: what is read is to be on the disk, as a program is.
  std::ofstream file(path, std::ios::binary | std::ios::app);
  const auto missing = size - std::filesystem::file_size(path);
  for (std::uintmax_t byte = 0; byte < missing; ++byte) file.put(static_cast<char>(byte * 31));
  file.close();
  run(
      fmt::format("openssl cms -sign -binary -nosmimecap -md sha256 -outform DER -in {0} -signer "
                  "{1}/team.pem -inkey {1}/team.key -out {0}.p7s",
                  path, folder.path()));
  return path;
}

// The library's own verification, with everything that can be made beforehand.
class BareVerify {
 public:
  explicit BareVerify(const std::string& root) : store_(X509_STORE_new(), X509_STORE_free) {
    const Bio pem(BIO_new_file(root.c_str(), "r"), BIO_free);
    const std::unique_ptr<X509, void (*)(X509*)> certificate(
        PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr), X509_free);
    require(X509_STORE_add_cert(store_.get(), certificate.get()) == 1, "root");
    X509_VERIFY_PARAM_set_purpose(X509_STORE_get0_param(store_.get()), X509_PURPOSE_ANY);
  }
  void operator()(const std::string& program) const {
    const Bio signature(BIO_new_file((program + ".p7s").c_str(), "r"), BIO_free);
    const std::unique_ptr<CMS_ContentInfo, void (*)(CMS_ContentInfo*)> message(
        d2i_CMS_bio(signature.get(), nullptr), CMS_ContentInfo_free);
    const Bio content(BIO_new_file(program.c_str(), "r"), BIO_free);
    require(
        CMS_verify(message.get(), nullptr, store_.get(), content.get(), nullptr, CMS_BINARY) == 1,
        "CMS_verify");
  }

 private:
  std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> store_;
};

void benchCheck(const bench::TemporaryFolder& folder) {
  const BareVerify bare(folder / "roots/root.pem");
  const auto identity = velum::CodeIdentity::trusting(folder / "roots");
  struct Size {
    std::uintmax_t bytes;
    const char* name;
    int rounds;
  };
  for (const Size size : {Size{std::uintmax_t{64} << 10U, "64 KiB", 501},
                          Size{std::uintmax_t{1} << 20U, "1 MiB", 501},
                          Size{std::uintmax_t{32} << 20U, "32 MiB", 51}}) {
    const std::string program = makeProgram(folder, size.bytes);
    const bench::Process process({program, "600"});
    const auto check = [&] {
      const velum::CodeVerdict verdict = identity->check(process.id(), team);
      require(verdict.valid, verdict.reason.c_str());
    };
    while (!identity->check(process.id(), team).valid) ::usleep(1000);  // until it is that program
    // The roots are kept between checks once nobody has written them lately.
    ::sleep(3);
    check();
    const auto times = bench::interleaved(
        size.rounds, {[&] { return timed(check); }, [&] { return timed([&] { bare(program); }); }});
    bench::report(fmt::format("peer check, warm, {}", size.name), times[0],
                  "CMS_verify of the file", times[1], {1.1});
    if (size.rounds < 100) {
      const std::int64_t memory = bench::peakMemory(check);
      bench::report("memory of it", fmt::format("{} KiB", memory / 1024), "", "<= 1 MiB",
                    memory <= std::int64_t{1} << 20U);
    }
  }
}

}  // namespace

int main() {  // NOLINT(bugprone-exception-escape): a benchmark that fails says why and ends
  const bench::TemporaryFolder folder;
  makeCertificates(folder);
  benchCheck(folder);
}
