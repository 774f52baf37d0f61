#include "operator/printable.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "operator/failure.h"
#include "operator/files.h"

namespace operator_tool {

namespace {

struct Range {
    std::uint32_t first, last;
};

constexpr bool contains(const Range& range, std::uint32_t number) {
    return range.first <= number && number <= range.last;
}

/// A character: its number, and how many bytes it has; no bytes if it is none.
struct Character {
    std::uint32_t number;
    std::size_t bytes;
};

constexpr Character NONE = {.number = 0, .bytes = 0};
constexpr Range SURROGATES = {.first = 0xD800, .last = 0xDFFF};

/// How UTF-8 writes the characters of a range: how many bytes each has, and what the first begins
/// with, under a mask.
struct Form {
    Range range;
    std::size_t bytes;
    unsigned mask, mark;
};

constexpr std::array<Form, 4> FORMS = {{
    {.range = {.first = 0x0, .last = 0x7F}, .bytes = 1, .mask = 0x80, .mark = 0x00},
    {.range = {.first = 0x80, .last = 0x7FF}, .bytes = 2, .mask = 0xE0, .mark = 0xC0},
    {.range = {.first = 0x800, .last = 0xFFFF}, .bytes = 3, .mask = 0xF0, .mark = 0xE0},
    {.range = {.first = 0x10000, .last = 0x10FFFF}, .bytes = 4, .mask = 0xF8, .mark = 0xF0},
}};

Character decode(std::string_view text, const Form& form) {
    const auto first = static_cast<unsigned char>(text.front());
    if ((first & form.mask) != form.mark || text.size() < form.bytes) {
        return NONE;
    }
    std::uint32_t number = first & ~form.mask;
    for (const char next : text.substr(1, form.bytes - 1)) {
        const auto byte = static_cast<unsigned char>(next);
        if ((byte & 0xC0U) != 0x80) {
            return NONE;
        }
        number = (number << 6U) | (byte & 0x3FU);
    }
    if (!contains(form.range, number) || contains(SURROGATES, number)) {
        return NONE;
    }
    return {.number = number, .bytes = form.bytes};
}

/// The first character of a text that is not empty.
Character decode(std::string_view text) {
    for (const Form& form : FORMS) {
        const Character character = decode(text, form);
        if (character.bytes != 0) {
            return character;
        }
    }
    return NONE;
}

/// Control and format characters; line and paragraph separators.
constexpr std::array<Range, 12> HIDDEN = {{
    {.first = 0x00, .last = 0x1F},
    {.first = 0x7F, .last = 0x9F},
    {.first = 0xAD, .last = 0xAD},
    {.first = 0x061C, .last = 0x061C},
    {.first = 0x180E, .last = 0x180E},
    {.first = 0x200B, .last = 0x200F},
    {.first = 0x2028, .last = 0x202E},
    {.first = 0x2060, .last = 0x206F},
    {.first = 0xFEFF, .last = 0xFEFF},
    {.first = 0xFFF0, .last = 0xFFFB},
    {.first = 0x1D173, .last = 0x1D17A},
    {.first = 0xE0000, .last = 0xE0FFF},
}};

bool isHidden(std::uint32_t number) {
    return std::any_of(HIDDEN.begin(), HIDDEN.end(),
                       [number](const Range& range) { return contains(range, number); });
}

std::string byNumber(std::uint32_t number) {
    std::array<char, 16> text{};
    const int size = std::snprintf(text.data(), text.size(), "\\x{%x}", number);
    return {text.data(), static_cast<std::size_t>(size)};
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Character character = decode(text);
        if (character.bytes == 0) {
            result += byNumber(static_cast<unsigned char>(text.front()));
        } else if (isHidden(character.number)) {
            result += byNumber(character.number);
        } else {
            result += text.substr(0, character.bytes);
        }
        text.remove_prefix(std::max<std::size_t>(1, character.bytes));
    }
    return result;
}

void printPrintable() {
    std::string texts;
    std::array<char, 65536> buffer{};
    ssize_t got = 0;
    while ((got = read(STDIN_FILENO, buffer.data(), buffer.size())) != 0) {
        if (got > 0) {
            texts.append(buffer.data(), static_cast<std::size_t>(got));
        } else if (errno != EINTR) {
            throw systemFailure("standard input");
        }
    }
    std::string lines;
    for (std::size_t begin = 0, end = 0; begin < texts.size(); begin = end + 1) {
        end = std::min(texts.find('\0', begin), texts.size());
        lines += printable(std::string_view(texts).substr(begin, end - begin)) + "\n";
    }
    print(lines.data(), lines.size());
}

}  // namespace operator_tool
