#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Logger/LogHandler.h"

namespace velum {

/// The format of log files, shared by those who write them and those who read them:
///
///     0x1E 2026-11-16 07:15:17.123 12345:1a03     [subsystem] message 0x0A
///
/// A message may hold line feeds; only the byte 0x1E marks where the next record begins.
inline constexpr char recordSeparator = '\x1E';

/// The separator and the date to the second: what tells the start of a record from a separator
/// inside a message.
inline constexpr std::size_t recordStartSize = 20;

/// Where the date with its milliseconds ends, counted from the separator.
inline constexpr std::size_t recordDateEnd = recordStartSize + 4;

/// True when `text` begins with the start of a record.
bool beginsRecord(std::string_view text) noexcept;

/// The subsystem of the record at the start of `text`: the name in the bracket after date, process
/// and thread. Nothing when the prefix is another one or ends beyond `text`.
std::optional<std::string_view> recordSubsystem(std::string_view text) noexcept;

/// The most bytes `recordSubsystem` looks at.
inline constexpr std::size_t mostPrefixSize = 512;

/// Appends "2026-11-16 07:15:17.123": local time in the zone that was in force when the process
/// first formatted a date, whatever becomes of TZ (for three years; later dates follow the C
/// library). The year is not padded. Thread-safe; a thread pays for the calendar once a second.
void appendLogDate(std::string& out, LogDate date);

/// Appends everything of a record before its message, with the ids of the calling process and
/// thread.
void appendRecordPrefix(std::string& out, LogDate date, std::string_view subsystem);

/// The same as a text of its own.
std::string makeRecordPrefix(LogDate date, std::string_view subsystem);

/// The path of the `index`-th rotated copy of a log file: dir/name.1.log for dir/name.log. An index
/// below 1 gives the path itself. A path without extension keeps the trailing dot: dir/name.1.
std::string rotatedFilePath(std::string_view path, int index);

/// "name" for "dir/name.ext": the last path component without its extension.
std::string_view fileStem(std::string_view path) noexcept;

/// The text of a record before its date is added: the level's letter, the tag in parentheses
/// (file stem, and the function for the levels that name it), the message.
std::string makeRecordText(LogLevel level, std::string_view file, std::string_view function,
                           std::string_view message);

}  // namespace velum
