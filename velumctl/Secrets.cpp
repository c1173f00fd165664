#include "velumctl/Secrets.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>
#include <utility>

#include "Velum/Base/String.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/KeyChain.h"
#include "Velum/Platform/Bundle.h"
#include "Velum/PropertyList/PropertyListFormats.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"
#include "velumctl/Errors.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::SecretBytes;

constexpr char controlC = '\x03';

/// Turns echo off, and Ctrl-C into the end of a line, so that it can't end the program before echo
/// is on again.
class HiddenInput {
 public:
  HiddenInput() {
    if (::tcgetattr(STDIN_FILENO, &before_) != 0) throw Failure("standard input is not a terminal");
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    hidden.c_cc[VEOL] = static_cast<cc_t>(controlC);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;
  ~HiddenInput() {
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    std::cerr << '\n';
  }

 private:
  termios before_{};
};

bool isPlainText(std::string_view bytes) {
  const auto isPlain = [](char c) {
    return static_cast<unsigned char>(c) >= ' ' && c != '\x7F'
               ? true
               : c == '\n' || c == '\t' || c == '\r';
  };
  // The C1 controls, which some terminals obey, are two bytes in UTF-8.
  const auto isC1 = [&](std::size_t at) {
    return bytes[at] == '\xC2' && at + 1 < bytes.size() &&
           static_cast<unsigned char>(bytes[at + 1]) < 0xA0;
  };
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (!isPlain(bytes[at]) || isC1(at)) return false;
  }
  return velum::isValidUtf8(bytes);
}

}  // namespace

SecretBytes readAll(int fd, std::size_t most, const std::string& name) {
  constexpr std::size_t firstSize = 4096;
  SecretBytes bytes(std::min(firstSize, most + 1));
  std::size_t size = 0;
  for (;;) {
    const std::size_t got =
        velum::checked::read(fd, bytes.data() + size, bytes.size() - size, name);
    if (got == 0) break;
    size += got;
    if (size > most) {
      throw Failure(fmt::format("{} holds more than {} bytes; name another file", name, most));
    }
    if (size == bytes.size()) bytes.resize(std::min(size * 2, most + 1));
  }
  bytes.resize(size);
  return bytes;
}

SecretBytes readAll(const std::string& path, std::size_t most) {
  if (path == "-") return readAll(STDIN_FILENO, most, "standard input");
  const velum::UniqueFd file = velum::checked::open(path, O_RDONLY | O_NOCTTY, 0, "velumctl");
  return readAll(file.get(), most, path);
}

SecretBytes askHidden(const std::string& prompt) {
  constexpr std::size_t most = 4096;  // what a terminal gives as one line
  SecretBytes line(most);
  const HiddenInput hidden;  // first: what is typed after the prompt counts
  std::cerr << prompt << std::flush;
  line.resize(velum::checked::read(STDIN_FILENO, line.data(), line.size(), "velumctl"));
  if (line.empty() || line.back() == controlC) {
    throw Failure("nothing was changed; type the value and press Enter");
  }
  if (line.back() == '\n') line.pop_back();
  return line;
}

void confirmShowing(const std::string& what, bool isAgreed) {
  if (isAgreed || !isTerminal(STDOUT_FILENO)) return;
  if (!isTerminal(STDIN_FILENO) || !isTerminal(STDERR_FILENO)) {
    throw UsageError("there is no terminal to ask on; say --yes to show secrets on this one");
  }
  if (!isConfirmed(fmt::format("Show {} on this screen?", what))) {
    throw Failure("nothing was shown; answer y, or send the output elsewhere");
  }
}

void writeSecret(std::string_view bytes) {
  const bool onTerminal = isTerminal(STDOUT_FILENO);
  if (onTerminal && !isPlainText(bytes)) {
    throw Failure("the result is not text and can't be shown; send it to a file or a program");
  }
  velum::checked::write(STDOUT_FILENO, bytes.data(), bytes.size(), "velumctl");
  if (onTerminal && !bytes.ends_with('\n')) {
    velum::checked::write(STDOUT_FILENO, "\n", 1, "velumctl");
  }
}

void KeychainItem::addOptions(CLI::App& command) {
  command.add_option("--service", service, "The item's service; by default this program's bundle")
      ->type_name("NAME");
  command.add_option("--group", group, "The item's access group")->type_name("NAME");
}

velum::SecretQuery KeychainItem::query() const {
  velum::SecretQuery query;
  query.account = account;
  query.service = service;
  if (query.service.empty()) {
    auto bundle = velum::Bundle::main();
    if (bundle) query.service = std::move(bundle->identifier).value_or("");
  }
  if (query.service.empty()) {
    throw UsageError("this program is not part of a bundle; say --service NAME");
  }
  if (!group.empty()) {
    query.accessGroup = group;
    query.usesDataProtectionKeychain = true;
  }
  return query;
}

void requireSuccess(velum::SecretStatus status, const std::string& what) {
  if (status == velum::errSecSuccess) return;
  std::string text = velum::secretErrorText(status).value_or("unknown status");
  if (text.ends_with('.')) text.pop_back();
  const char* advice =
      "; see that the keychain's service runs and has a default keyring, then try again";
  if (status == velum::errSecItemNotFound) advice = "; check the account, --service and --group";
  if (status == velum::errSecInteractionNotAllowed) advice = "; unlock the keychain first";
  throw Failure(fmt::format("{}: {} ({}){}", what, text, status, advice));
}

velum::PropertyList::Dictionary readSealedFile(const std::string& path, const KeychainItem& key) {
  constexpr std::size_t most = velum::detail::PropertyListLimits::size + velum::SealedBox::overhead;
  const SecretBytes sealed = readAll(path, most);
  const auto found = velum::SecretStore::shared().copyMatching(key.query());
  requireSuccess(found.status, "the key can't be read");
  try {
    const SecretBytes content = velum::SealedBox(found.data).open(sealed);
    auto list = velum::PropertyList::read(velum::textView(content));
    auto* const entries =
        list ? std::get_if<velum::PropertyList::Dictionary>(&list->value) : nullptr;
    if (entries != nullptr) return std::move(*entries);
  } catch (const velum::StorageError&) {
    throw Failure(path + " does not belong to that key, or was changed; check --key-item");
  }
  throw Failure(path + " does not contain a dictionary; name the file of a storage");
}

}  // namespace velumctl
