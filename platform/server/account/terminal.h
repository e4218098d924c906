#pragma once

#include "base/secret.h"

#include <string>
#include <string_view>

namespace tarvex::server {

/// A line on standard output, where control characters are replaced: names and errors come from elsewhere.
void terminal_say(std::string_view text);
/// The same on standard error, after the program's name.
void terminal_complain(std::string_view text);
/// The same without the name, for what is no error: questions and notes.
void terminal_note(std::string_view text);

/// Whether somebody can be asked: standard input is a terminal.
[[nodiscard]] bool terminal_has_person();

/// Asks on standard error and reads a line from the terminal that standard input is, without echo.
/// \return without the line's end. Throws account_failure when there is none to be had.
[[nodiscard]] secret terminal_ask_secret(std::string_view question);

/// Reads a line of up to 64 KiB from standard input, byte by byte, so that what follows it stays there.
/// \return false: the input has ended, or the line is too long.
[[nodiscard]] bool terminal_read_line(std::string& out);

}  // namespace tarvex::server
