#include "escape.h"

#include <cstdio>

namespace bus_escape {

namespace {

const char hex_digits[] = "0123456789abcdef";

bool written_as_itself(unsigned char byte)
{
    return byte >= 0x20 && byte <= 0x7E && byte != '\\';
}

// The letter of a one-letter escape, or 0 when the byte has none.
char short_escape(unsigned char byte)
{
    switch (byte) {
    case '\\':
        return '\\';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    default:
        return 0;
    }
}

int hex_value(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return -1;  // upper case included: the form has exactly one spelling per byte
}

void append_escaped(unsigned char byte, std::string* out)
{
    if (written_as_itself(byte)) {
        out->push_back(static_cast<char>(byte));
    } else if (char letter = short_escape(byte)) {
        out->push_back('\\');
        out->push_back(letter);
    } else {
        out->push_back('\\');
        out->push_back('x');
        out->push_back(hex_digits[byte >> 4]);
        out->push_back(hex_digits[byte & 0x0F]);
    }
}

std::string byte_name(unsigned char byte)
{
    char name[8];
    std::snprintf(name, sizeof name, "0x%02x", byte);
    return name;
}

bool fail(size_t index, const std::string& problem, std::string* error)
{
    *error = "column " + std::to_string(index + 1) + ": " + problem;
    return false;
}

}  // namespace

std::string escape(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (char c : bytes)
        append_escaped(static_cast<unsigned char>(c), &out);
    return out;
}

bool unescape(std::string_view line, std::string* bytes, std::string* error)
{
    bytes->clear();
    bytes->reserve(line.size());
    for (size_t i = 0; i < line.size(); ++i) {
        const auto c = static_cast<unsigned char>(line[i]);
        if (c != '\\') {
            if (!written_as_itself(c))
                return fail(i, "byte " + byte_name(c) + " must be written as " + escape(line.substr(i, 1)),
                            error);
            bytes->push_back(static_cast<char>(c));
            continue;
        }
        if (i + 1 == line.size())
            return fail(i, "the line ends in a lone backslash (a backslash is written \\\\)", error);
        const char letter = line[i + 1];
        switch (letter) {
        case '\\':
            bytes->push_back('\\');
            break;
        case 'n':
            bytes->push_back('\n');
            break;
        case 'r':
            bytes->push_back('\r');
            break;
        case 't':
            bytes->push_back('\t');
            break;
        case 'x': {
            const int high = i + 2 < line.size() ? hex_value(line[i + 2]) : -1;
            const int low = i + 3 < line.size() ? hex_value(line[i + 3]) : -1;
            if (high < 0 || low < 0)
                return fail(i, "\\x needs two lowercase hex digits", error);
            const auto byte = static_cast<unsigned char>(high << 4 | low);
            if (written_as_itself(byte) || short_escape(byte) != 0)
                return fail(i,
                            std::string(line.substr(i, 4)) + " is written as \"" +
                                escape(std::string_view(reinterpret_cast<const char*>(&byte), 1)) + "\"",
                            error);
            bytes->push_back(static_cast<char>(byte));
            i += 2;
            break;
        }
        default:
            if (written_as_itself(static_cast<unsigned char>(letter)))
                return fail(i, std::string("unknown escape \\") + letter, error);
            return fail(i, "a backslash before byte " + byte_name(static_cast<unsigned char>(letter)), error);
        }
        ++i;
    }
    return true;
}

}  // namespace bus_escape
