// Where the ziputil program gets a password from, besides --password.
#pragma once

#include <string>

namespace ziputil_tool {

/// The environment variable that holds a password.
constexpr char const* kPasswordVariable = "ZIPUTIL_PASSWORD";

/// The first line of `file` ("-": standard input), without its line end.
/// Throws std::runtime_error when it cannot be read.
std::string readPasswordFile(std::string const& file);

/// Asks for the password of `archiveShown` on the terminal when standard
/// input is one: the prompt goes to standard error, the answer is read from
/// standard input with echo off (restored afterwards). "" when standard input
/// is not a terminal or the answer is empty.
std::string promptPassword(std::string const& archiveShown);

} // namespace ziputil_tool
