// Text that others have written (phones, cameras, files), made fit for a person: a terminal, a log, a JSON document.
// Control characters, format characters (those that turn the writing direction among them), and separators of lines and
// paragraphs never pass; Unicode's own categories say which those are.
#pragma once

#include <string>
#include <string_view>

namespace desk {

// The text as one line of UTF-8: each such character, and each byte that is not UTF-8, becomes U+FFFD.
std::string printable(std::string_view text);

// The same line by line: newlines stay.
std::string printable_lines(std::string_view text);

// The text as one line: newlines become blanks.
std::string one_line(std::string text);

// A JSON document with each such character of its texts as an escape sequence, \uXXXX: whoever parses it gets the
// character back. Newlines between its entries stay. `document` is UTF-8.
std::string escaped_json(std::string_view document);

} // namespace desk
