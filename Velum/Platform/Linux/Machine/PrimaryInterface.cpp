#include "Velum/Platform/Linux/Machine/PrimaryInterface.h"

#include <net/if_arp.h>
#include <net/route.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "Velum/Files/ReadFile.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

// A router's table can be long; a file of the system's own is not.
constexpr std::size_t largestTable = std::size_t{64} << 20U;
constexpr std::size_t largestFile = 65'536;

struct DefaultRoute {
  std::string interface;
  std::uint32_t metric = 0;
};

/// In which columns a kernel's table has what.
struct TableLayout {
  const char* path;
  std::size_t destination, prefix, metric, flags, interface;
};
// The prefix is a mask in one and a length in the other; 0 is the default route's in both.
constexpr TableLayout ipv4Table{"/proc/net/route", 1, 7, 6, 3, 0};
constexpr TableLayout ipv6Table{"/proc/net/ipv6_route", 0, 1, 5, 8, 9};
constexpr int decimal = 10;
constexpr int hexadecimal = 16;

template <class Number>
std::optional<Number> parsed(std::string_view text, int base) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

constexpr std::size_t mostColumns = 11;
using Columns = std::array<std::string_view, mostColumns>;

Columns columnsOf(std::string_view line) {
  constexpr std::string_view blanks = " \t";
  Columns columns;
  for (std::string_view& column : columns) {
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    column = line.substr(0, line.find_first_of(blanks));
    line.remove_prefix(column.size());
  }
  return columns;
}

bool isZero(std::string_view digits) {
  return !digits.empty() && digits.find_first_not_of('0') == std::string_view::npos;
}

/// The route of a line, when it is a default route in use.
std::optional<DefaultRoute> defaultRoute(std::string_view line, const TableLayout& layout) {
  const Columns columns = columnsOf(line);
  if (!isZero(columns.at(layout.destination)) || !isZero(columns.at(layout.prefix))) {
    return std::nullopt;
  }
  const auto flags = parsed<std::uint32_t>(columns.at(layout.flags), hexadecimal);
  // The metric is decimal in IPv4's table.
  const int base = layout.path == ipv4Table.path ? decimal : hexadecimal;
  const auto metric = parsed<std::uint32_t>(columns.at(layout.metric), base);
  if (!flags || !metric || (*flags & RTF_UP) == 0 || (*flags & RTF_REJECT) != 0) {
    return std::nullopt;
  }
  return DefaultRoute{std::string(columns.at(layout.interface)), *metric};
}

/// The default routes of one table, the preferred one first.
std::vector<DefaultRoute> defaultRoutes(const std::string& root, const TableLayout& layout) {
  const std::string table = readRegularFile(root + layout.path, largestTable).value_or("");
  std::vector<DefaultRoute> routes;
  for (std::string_view rest = table; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (auto route = defaultRoute(line, layout)) routes.push_back(std::move(*route));
  }
  std::stable_sort(routes.begin(), routes.end(),
                   [](const auto& a, const auto& b) { return a.metric < b.metric; });
  return routes;
}

/// What the system tells of its interfaces.
class Interfaces {
 public:
  explicit Interfaces(const std::string& root) : folder_(root + "/sys/class/net/") {}

  std::string text(const std::string& interface, const char* file) const {
    auto content = readRegularFile(folder_ + interface + '/' + file, largestFile);
    if (!content) return {};
    content->erase(content->find_last_not_of('\n') + 1);
    return *std::move(content);
  }

  /// Ethernet frames alone do not tell: a tunnel of the bridged kind carries them too.
  bool isEthernet(const std::string& interface) const {
    return isFileName(interface) && parsed<int>(text(interface, "type"), decimal) == ARPHRD_ETHER &&
           !has(interface, "tun_flags");
  }

  /// The interface itself when it is hardware, else the first hardware below it, by name so that
  /// it is the same one after every start.
  std::optional<std::string> hardware(const std::string& interface, int depth = 0) const {
    constexpr int deepest = 8;  // a VLAN on a bridge on a bond: interfaces are not stacked deeper
    constexpr std::string_view prefix = "lower_";
    if (!isEthernet(interface) || depth == deepest) return std::nullopt;
    if (has(interface, "device")) return interface;
    std::vector<std::string> lower;
    std::error_code error;
    for (fs::directory_iterator entry(folder_ + interface, error), end; !error && entry != end;
         entry.increment(error)) {
      const std::string name = entry->path().filename().string();
      if (name.starts_with(prefix)) lower.push_back(name.substr(prefix.size()));
    }
    std::sort(lower.begin(), lower.end());
    for (const std::string& below : lower) {
      if (auto found = hardware(below, depth + 1)) return found;
    }
    return std::nullopt;
  }

 private:
  bool has(const std::string& interface, const char* file) const {
    std::error_code error;
    return fs::exists(folder_ + interface + '/' + file, error);
  }

  std::string folder_;
};

}  // namespace

std::optional<std::string> primaryEthernetInterface(const std::string& root) {
  const Interfaces interfaces(root);
  for (const TableLayout& layout : {ipv4Table, ipv6Table}) {
    for (const DefaultRoute& route : defaultRoutes(root, layout)) {
      if (!interfaces.isEthernet(route.interface)) continue;
      // In a container there is no hardware; its own end of the wire is the nearest to it.
      return interfaces.hardware(route.interface).value_or(route.interface);
    }
  }
  return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> hardwareAddress(const std::string& root,
                                                         const std::string& interface) {
  const std::string text = Interfaces(root).text(interface, "address");
  constexpr std::size_t step = 3;  // "02:fc:00"
  std::vector<std::uint8_t> bytes;
  for (std::size_t at = 0; at < text.size(); at += step) {
    const std::string_view digits = std::string_view(text).substr(at, step - 1);
    const auto byte = parsed<std::uint8_t>(digits, hexadecimal);
    const bool isSeparated = at + step > text.size() || text[at + step - 1] == ':';
    if (!byte || digits.size() != step - 1 || !isSeparated) return std::nullopt;
    bytes.push_back(*byte);
  }
  const bool isUsed = std::any_of(bytes.begin(), bytes.end(), [](auto byte) { return byte != 0; });
  if (!isUsed) return std::nullopt;
  return bytes;
}

}  // namespace velum
