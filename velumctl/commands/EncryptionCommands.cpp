#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/AES.h"
#include "Velum/Base/ByteView.h"
#include "Velum/Base/SecretBytes.h"
#include "Velum/Files/AtomicFile.h"
#include "Velum/Files/CheckedIo.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Secrets.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::SecretBytes;

struct CipherOptions {
  std::string input = "-";
  std::string output;
  std::string keyFile;
  std::optional<int> keyDescriptor;
  bool isAgreed = false;
};

SecretBytes readKey(const CipherOptions& options) {
  constexpr std::size_t longest = 4096;  // enough to say how long a wrong key is
  if (options.keyFile.empty() && !options.keyDescriptor) {
    throw UsageError("say --key-file FILE or --key-fd NUMBER; a key is never on the command line");
  }
  if (options.input == "-" && (options.keyDescriptor == STDIN_FILENO || options.keyFile == "-")) {
    throw UsageError("standard input can't be both key and data; name a FILE");
  }
  SecretBytes key = options.keyDescriptor
                        ? readAll(*options.keyDescriptor, longest,
                                  fmt::format("descriptor {}", *options.keyDescriptor))
                        : readAll(options.keyFile, longest);
  if (key.size() != 16 && key.size() != 24 && key.size() != 32) {
    throw Failure(
        fmt::format("the key has {} bytes; give 16, 24 or 32, without a line feed", key.size()));
  }
  return key;
}

// Replaces a file, also where a link leads to one; whatever else has the name (a device, a FIFO)
// stays and gets the bytes.
void writeOutput(const std::string& path, std::string_view result) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::file_type kind = fs::status(path, error).type();
  if (kind == fs::file_type::regular) {
    velum::AtomicFile(fs::canonical(path).string()).replace(result, "velumctl");
  } else if (kind == fs::file_type::not_found && !fs::is_symlink(path, error)) {
    velum::AtomicFile(path).replace(result, "velumctl");
  } else {
    constexpr mode_t ownerOnly = 0600;
    const velum::UniqueFd file =
        velum::checked::open(path, O_WRONLY | O_CREAT | O_NOCTTY, ownerOnly, "velumctl");
    velum::checked::write(file.get(), result.data(), result.size(), "velumctl");
  }
}

void writeResult(const CipherOptions& options, std::string_view result) {
  if (options.output.empty()) {
    writeSecret(result);
  } else {
    writeOutput(options.output, result);
  }
}

constexpr std::size_t mostBytes = std::size_t{1} << 30U;

void encrypt(const CipherOptions& options) {
  const SecretBytes key = readKey(options);
  if (options.output.empty() && isTerminal(STDOUT_FILENO)) {
    throw UsageError("the result is not text; say --output FILE, or send it to a program");
  }
  const auto blob = velum::AES::encrypted(readAll(options.input, mostBytes), key);
  const std::string_view bytes(reinterpret_cast<const char*>(blob.data()), blob.size());  // NOLINT
  writeResult(options, bytes);
}

void decrypt(const CipherOptions& options) try {
  if (options.output.empty()) confirmShowing("what is decrypted", options.isAgreed);
  const SecretBytes key = readKey(options);
  writeResult(options,
              velum::textView(velum::AES::decrypted(readAll(options.input, mostBytes), key)));
} catch (const velum::AESError& error) {
  throw Failure(fmt::format("{} ({}); the blob was made with another key, or it is damaged",
                            error.what(), error.detail()));
}

CLI::App& addCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& footer, const std::shared_ptr<CipherOptions>& options,
                     void (*work)(const CipherOptions&)) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.add_option("FILE", options->input, "What is read; standard input by default");
  auto* const file =
      command.add_option("--key-file", options->keyFile, "The file that holds the key's raw bytes")
          ->type_name("FILE");
  command.add_option("--key-fd", options->keyDescriptor, "An open descriptor the key is read from")
      ->type_name("NUMBER")
      ->check(CLI::Range(0, std::numeric_limits<int>::max()))
      ->excludes(file);
  command
      .add_option("--output", options->output,
                  "The file that is written, for your eyes only; standard output by default")
      ->type_name("FILE");
  command.footer(footer);
  command.callback([options, work] { work(*options); });
  return command;
}

}  // namespace

void addEncryption(CLI::App& app) {
  addCommand(app, "encrypt", "Encrypt a file with AES",
             "The blob is 16 random bytes and the ciphertext (CBC mode, PKCS#7 padding). The key "
             "has 16, 24 or\n32 bytes.\n\n"
             "Examples:\n"
             "  head -c 32 /dev/urandom >key\n"
             "  velumctl encrypt notes.txt --key-file key --output notes.aes",
             std::make_shared<CipherOptions>(), encrypt);
  const auto options = std::make_shared<CipherOptions>();
  addCommand(app, "decrypt", "Decrypt what encrypt made",
             "Nothing tells a wrong key or a damaged blob for sure: the result may be garbage "
             "then. On a terminal\nit asks first.\n\n"
             "Examples:\n"
             "  velumctl decrypt notes.aes --key-file key --output notes.txt\n"
             "  velumctl decrypt notes.aes --key-fd 3 3<key | less",
             options, decrypt)
      .add_flag("-y,--yes", options->isAgreed, "Show it on a terminal without asking");
}

}  // namespace velumctl
