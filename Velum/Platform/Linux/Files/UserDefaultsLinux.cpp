#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <span>
#include <utility>
#include <vector>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/AtomicFile.h"
#include "Velum/Files/LockedFile.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Bundle.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"
#include "Velum/Platform/UserDefaults.h"
#include "Velum/PropertyList/DefaultsArguments.h"

namespace velum {
namespace {

constexpr std::size_t maximumFileSize = std::size_t{16} << 20U;
constexpr mode_t ownerOnlyFile = 0600;
constexpr mode_t ownerOnlyFolder = 0700;

/// A change takes milliseconds; who keeps the lock for longer is stopped, or means ill.
constexpr std::chrono::seconds longestWait(5);

/// Makes the folder and those above it, closed to other users whatever the process's umask is.
/// What fails shows when something is opened in it.
void makeFolders(const std::string& path) {
  for (std::size_t slash = 0; slash != std::string::npos;) {
    slash = path.find('/', slash + 1);
    ::mkdir(path.substr(0, slash).c_str(), ownerOnlyFolder);
  }
}

std::optional<PropertyList> found(const PropertyList::Dictionary& entries, std::string_view key) {
  const auto entry = entries.find(key);
  if (entry == entries.end()) return std::nullopt;
  return entry->second;
}

/// Registered defaults, the newest first. Without a lock, which a forked child would inherit in
/// whatever state it was.
class RegisteredDefaults {
 public:
  RegisteredDefaults() = default;
  RegisteredDefaults(const RegisteredDefaults&) = delete;
  RegisteredDefaults& operator=(const RegisteredDefaults&) = delete;
  ~RegisteredDefaults() {
    for (std::unique_ptr<Node> node(newest_.load()); node;) node.reset(node->older);
  }

  void add(PropertyList::Dictionary entries) {
    auto node = std::make_unique<Node>(std::move(entries), newest_.load());
    while (!newest_.compare_exchange_weak(node->older, node.get())) continue;
    static_cast<void>(node.release());  // the list's now
  }

  std::optional<PropertyList> object(std::string_view key) const {
    for (const Node* node = newest_.load(); node != nullptr; node = node->older) {
      if (auto value = found(node->entries, key)) return value;
    }
    return std::nullopt;
  }

 private:
  struct Node {
    Node(PropertyList::Dictionary entries_, Node* older_)
        : entries(std::move(entries_)), older(older_) {}
    PropertyList::Dictionary entries;
    Node* older;
  };

  std::atomic<Node*> newest_{nullptr};
};

/// $XDG_CONFIG_HOME/<domain>/defaults.plist (default ~/.config), replaced atomically under a lock.
/// One that is no property list is kept as defaults.plist.damaged.
///
/// The file is the only stored state, and the file lock the only lock: every call opens the lock
/// file anew, which excludes threads as well as processes and leaves nothing behind in a forked
/// child.
class UserDefaultsLinux final : public UserDefaults {
 public:
  explicit UserDefaultsLinux(std::string domain) : domain_(std::move(domain)) {}

  std::optional<PropertyList> object(std::string_view key) override {
    if (auto value = found(argumentDomain(), key)) return value;
    if (const auto entries = persistentDomain()) {
      if (auto value = found(*entries, key)) return value;
    }
    return registeredObject(key);
  }

  bool setObject(std::string_view key, PropertyList value) override {
    return change([&](PropertyList::Dictionary& entries) {
      const auto entry = entries.find(key);
      if (entry != entries.end() && entry->second.isIdentical(value)) return false;
      entries.insert_or_assign(std::string(key), std::move(value));
      return true;
    });
  }

  bool removeObject(std::string_view key) override {
    return change([&](PropertyList::Dictionary& entries) {
      const auto entry = entries.find(key);
      if (entry == entries.end()) return false;
      entries.erase(entry);
      return true;
    });
  }

  void registerDefaults(PropertyList::Dictionary entries) override {
    registered_.add(std::move(entries));
  }

  std::optional<PropertyList> registeredObject(std::string_view key) const override {
    return registered_.object(key);
  }

  std::optional<PropertyList::Dictionary> persistentDomain() override {
    const auto folder = this->folder();
    if (!folder) return std::nullopt;
    return read(*folder + fileName).entries;
  }

  using UserDefaults::change;
  bool change(const Edit& edit, const Afterwards& afterwards) override;

 private:
  static constexpr const char* fileName = "/defaults.plist";

  /// No entries: the file holds something else, or (with isUnreadable) could not be looked at.
  struct Content {
    std::optional<PropertyList::Dictionary> entries;
    bool isUnreadable = false;
  };

  /// Looked up for each call, so that the environment counts as it is.
  std::optional<std::string> folder() const {
    auto configuration = userFolder("XDG_CONFIG_HOME", ".config");
    if (configuration) configuration->append("/").append(domain_);
    return configuration;
  }

  static Content read(const std::string& path) {
    const auto bytes = readRegularFile(path, maximumFileSize);
    if (!bytes) {
      if (errno == ENOENT) return {.entries = PropertyList::Dictionary{}};
      return {.entries = {}, .isUnreadable = errno != EFBIG && errno != EINVAL};
    }
    auto list = PropertyList::read(*bytes);
    auto* const entries = list ? std::get_if<PropertyList::Dictionary>(&list->value) : nullptr;
    if (entries == nullptr) return {};
    return {.entries = std::move(*entries)};
  }

  /// Under the lock; nothing is logged there.
  enum class EditResult : std::uint8_t { done, damageReplaced, failed, locked };
  static EditResult changeUnderLock(const std::string& path, const Edit& edit,
                                    const Afterwards& afterwards);
  static EditResult edited(const std::string& path, const Edit& edit, Content content);

  std::string domain_;
  RegisteredDefaults registered_;
};

UserDefaultsLinux::EditResult UserDefaultsLinux::changeUnderLock(const std::string& path,
                                                                 const Edit& edit,
                                                                 const Afterwards& afterwards) {
  const LockedFile lock(
      [name = path + ".lock"] {
        return UniqueFd(retryInterrupted([&] {
          return ::open(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, ownerOnlyFile);
        }));
      },
      longestWait);
  if (lock.get() < 0) return EditResult::failed;
  if (!lock) return EditResult::locked;

  Content content = read(path);
  if (content.isUnreadable) return EditResult::failed;
  const EditResult result = edited(path, edit, std::move(content));
  if (afterwards) afterwards(result != EditResult::failed);
  return result;
}

UserDefaultsLinux::EditResult UserDefaultsLinux::edited(const std::string& path, const Edit& edit,
                                                        Content content) {
  const bool isDamaged = !content.entries;
  if (isDamaged) content.entries.emplace();
  if (!edit(*content.entries)) return EditResult::done;
  const auto bytes = PropertyList(std::move(*content.entries)).readableBinary();
  if (!bytes) return EditResult::failed;
  const auto old = isDamaged ? AtomicFile::Old::setAside : AtomicFile::Old::replaced;
  try {
    AtomicFile(path).replace(*bytes, "change", old);
  } catch (const SystemError&) {
    return EditResult::failed;
  }
  return isDamaged ? EditResult::damageReplaced : EditResult::done;
}

bool UserDefaultsLinux::change(const Edit& edit, const Afterwards& afterwards) {
  const auto folder = this->folder();
  if (!folder) return false;
  makeFolders(*folder);
  const std::string path = *folder + fileName;
  const EditResult result = changeUnderLock(path, edit, afterwards);
  constexpr LogSite site{"UserDefaults", "change()"};
  if (result == EditResult::locked) {
    logError(site, "{} is kept locked by another process; nothing was changed", path + ".lock");
  } else if (result == EditResult::damageReplaced) {
    logError(site, "{} was not a property list; it is kept as {}{}", path, path,
             AtomicFile::asideSuffix);
  }
  return result == EditResult::done || result == EditResult::damageReplaced;
}

PropertyList::Dictionary readArgumentDomain() {
  const std::string all = readRegularFile("/proc/self/cmdline", maximumFileSize).value_or("");
  std::vector<std::string_view> arguments;
  for (std::string_view rest = all; !rest.empty();) {
    arguments.push_back(rest.substr(0, rest.find('\0')));
    rest.remove_prefix(std::min(arguments.back().size() + 1, rest.size()));
  }
  if (arguments.empty()) return {};
  return defaultsFromArguments(std::span(arguments).subspan(1));  // the program's name is none
}

std::string ownDomain() {
  const auto bundle = Bundle::main();
  if (bundle && bundle->identifier && isFileName(*bundle->identifier)) return *bundle->identifier;
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? program_invocation_short_name : program.filename().string();
}

}  // namespace

const PropertyList::Dictionary& UserDefaults::argumentDomain() {
  static constinit LazyStatic<PropertyList::Dictionary> entries;
  return entries.get(readArgumentDomain);
}

bool UserDefaults::setPersistentDomain(PropertyList::Dictionary entries) {
  return change([&](PropertyList::Dictionary& stored) {
    const PropertyList before(std::exchange(stored, std::move(entries)));
    return !before.isIdentical(PropertyList(stored));
  });
}

UserDefaults& UserDefaults::standard() {
  static constinit LazyStatic<UserDefaultsLinux> instance;
  return instance.get([] { return UserDefaultsLinux(ownDomain()); });
}

std::unique_ptr<UserDefaults> UserDefaults::domain(std::string name) {
  if (!isFileName(name)) return nullptr;
  return std::make_unique<UserDefaultsLinux>(std::move(name));
}

}  // namespace velum
