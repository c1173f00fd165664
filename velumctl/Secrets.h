#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Base/SecretBytes.h"
#include "Velum/Platform/SecretStore.h"
#include "Velum/PropertyList/PropertyList.h"

// What the commands that touch secrets share. Secrets come from standard input, a descriptor or a
// hidden prompt, never from the command line, which every user of the machine can read.
namespace velumctl {

/// All bytes up to the end; `name` is said in errors. Throws SystemError, and Failure when there
/// are more than `most`.
velum::SecretBytes readAll(int fd, std::size_t most, const std::string& name);
/// The same of a file; "-" is standard input.
velum::SecretBytes readAll(const std::string& path, std::size_t most);

/// Asks on the terminal, which must be standard input and error, for a line that is not shown.
/// Throws Failure on Ctrl-C or the end of the input.
velum::SecretBytes askHidden(const std::string& prompt);

/// Before a secret is shown: asks where standard output is a terminal, unless `isAgreed`. Throws
/// Failure when the user says no, UsageError when there is nobody to ask.
void confirmShowing(const std::string& what, bool isAgreed);

/// Writes all bytes to standard output. Throws Failure instead when they are no text and that is a
/// terminal, which they could command.
void writeSecret(std::string_view bytes);

/// The options that name an item of the keychain.
struct KeychainItem {
  std::string account;
  std::string service;
  std::string group;

  /// Adds --service and --group.
  void addOptions(CLI::App& command);
  /// Throws UsageError when there is no service and this program belongs to no bundle either.
  velum::SecretQuery query() const;
};

/// Throws Failure with the status as text and number, unless it is 0. `what` was not done.
void requireSuccess(velum::SecretStatus status, const std::string& what);

/// The dictionary in a sealed file whose key is in the keychain. Only reads. Throws Failure.
velum::PropertyList::Dictionary readSealedFile(const std::string& path, const KeychainItem& key);

}  // namespace velumctl
