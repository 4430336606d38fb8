// The escaped line form of a bus message used by orvd-bus: any payload as one line of printable
// ASCII, and back.
//
//   0x20..0x7E except the backslash   as themselves
//   0x5C (backslash)                  as \\ (two backslashes)
//   0x0A, 0x0D, 0x09                  as \n, \r, \t
//   every other byte                  as \xHH (two lowercase hex digits)
//
// Every byte sequence has exactly one escaped form, the empty message being the empty line.
// Unescaping accepts exactly these forms and nothing else, so a line that unescapes escapes
// back to itself.
#ifndef ORVD_SIM_BUS_ESCAPE_H
#define ORVD_SIM_BUS_ESCAPE_H

#include <string>
#include <string_view>

namespace bus_escape {

std::string escape(std::string_view bytes);

// Replaces *bytes with the payload of `line` (without its newline). On a malformed line it
// returns false and sets *error to the 1-based column and the problem, e.g.
// "column 4: unknown escape \q"; *bytes then holds a part of the line only.
bool unescape(std::string_view line, std::string* bytes, std::string* error);

}  // namespace bus_escape

#endif
