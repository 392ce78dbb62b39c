// Text that others have written (phones, cameras, files), made fit for a person: a terminal, a log, a JSON document.
// Control characters, format characters (those that turn the writing direction among them), and separators of lines and
// paragraphs never pass; Unicode's own categories say which those are.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace desk {

// The text as one line of UTF-8: each such character, and each byte that is not UTF-8, becomes U+FFFD.
std::string printable(std::string_view text);

// The same line by line: newlines stay.
std::string printable_lines(std::string_view text);

// The text as one line: newlines become blanks.
std::string one_line(std::string text);

// "1 preset", "12 presets".
std::string counted(size_t count, const char* what);

// A JSON document with each such character of its texts as an escape sequence, \uXXXX: whoever parses it gets the
// character back. Newlines between its entries stay. `document` is UTF-8.
std::string escaped_json(std::string_view document);

// ---- The room that clean text takes on a terminal -------------------------------------------------------------------

// Columns: two for a wide character (Chinese, Japanese, Korean, most emoji), none for one that joins the one before.
size_t display_width(std::string_view text);

// The longest start of a text that takes at most so many columns. Characters that take none stay with theirs.
std::string_view first_columns(std::string_view text, size_t columns);

// The text, with an ellipsis in the place of what has no room.
std::string shortened(std::string_view text, size_t columns);

} // namespace desk
