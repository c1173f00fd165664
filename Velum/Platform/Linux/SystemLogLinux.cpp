#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>

#include "Velum/Platform/ConsoleLog.h"
#include "Velum/Platform/SystemLog.h"

namespace velum {
namespace {

int journalPriority(SystemLog::Type type) noexcept {
  switch (type) {
    case SystemLog::Type::normal:
      return LOG_NOTICE;
    case SystemLog::Type::error:
      return LOG_ERR;
    case SystemLog::Type::fault:
      break;
  }
  return LOG_CRIT;
}

// libsystemd reports success when no journal listens, so that has to be asked separately.
bool hasJournal() noexcept {
  return ::access("/run/systemd/journal/socket", F_OK) == 0;
}

iovec field(const std::string& text) noexcept {
  return {const_cast<char*>(text.data()), text.size()};  // NOLINT(*-pro-type-const-cast): read only
}

class Journal final : public SystemLog {
 public:
  Journal(const std::string& subsystem, const std::string& category)
      : identifier_("SYSLOG_IDENTIFIER=" + subsystem), category_("VELUM_CATEGORY=" + category) {}

  void write(Type type, std::string_view text) noexcept override try {
    if (!send(type, text) && type != Type::normal) consoleLog(text);
  } catch (...) {  // out of memory: the console needs none
    consoleLog(text);
  }

 private:
  bool send(Type type, std::string_view text) const {
    if (!hasJournal()) return false;
    const std::string message = std::string("MESSAGE=").append(text);
    const std::string priority = "PRIORITY=" + std::to_string(journalPriority(type));
    const std::array<iovec, 4> fields{field(message), field(priority), field(identifier_),
                                      field(category_)};
    return ::sd_journal_sendv(fields.data(), static_cast<int>(fields.size())) >= 0;
  }

  std::string identifier_;
  std::string category_;
};

}  // namespace

std::shared_ptr<SystemLog> SystemLog::open(const std::string& subsystem,
                                           const std::string& category) {
  return std::make_shared<Journal>(subsystem, category);
}

}  // namespace velum
