// The emitters: lines, tags and text elements of a document.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent_common.h"
#include "agent_handles.h"

namespace zorvik
{

namespace
{

typedef struct xml_char_s {
    char in;
    const char *out;
    int len;
} xml_char_t;

constexpr xml_char_t xml_char_table[] = {
    {'&', "&amp;", 5},   {'<', "&lt;", 4},   {'>', "&gt;", 4},
    {'\'', "&apos;", 6}, {'"', "&quot;", 6}, {'\0', nullptr, 0},
};

const xml_char_t *find_xml_char(char character)
{
    // Letters, of which almost every text is, stand behind all of them.
    if (character > '>')
        return nullptr;
    for (const xml_char_t *row = xml_char_table; row->out; row++)
        if (row->in == character)
            return row;
    return nullptr;
}

constexpr size_t most_text = 2048;

/** A format of lines with all of their blanks in place. What is cut in any case is left out. */
struct indented_format_t {
    char text[3 * most_text];

    indented_format_t(size_t size, int indent, const char *format)
    {
        char *end = text;
        for (size_t blanks = 0; *format && blanks < size;) {
            const size_t own = strspn(format, " ");
            format += own;
            const size_t line = strcspn(format, "\n") + (strchr(format, '\n') ? 1 : 0);
            const long depth = std::labs(static_cast<long>(indent) + static_cast<long>(own));
            const size_t width = std::min(static_cast<size_t>(depth), size);
            if (width + line >= static_cast<size_t>(text + sizeof text - end))
                break;
            end = std::copy_n(format, line, std::fill_n(end, width, ' '));
            format += line;
            blanks += width;
        }
        *end = '\0';
    }
};

} // namespace

int conn_send_lines(size_t size, int indent, const char *format, ...)
{
    char text[most_text];
    text[0] = '\0';
    size = std::min(size, sizeof text);
    const indented_format_t indented(size, indent, format);
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the format it was made of is checked
    const int written = vsnprintf(text, size, indented.text, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    if (written < 0)
        return EINVAL;
    return conn_send2(text, static_cast<int>(strlen(text)));
}

tag_text_t::tag_text_t(int indent, const char *before, const char *element, const char *behind)
{
    constexpr size_t most = sizeof text - 1;
    length = static_cast<size_t>(std::min(std::labs(indent), static_cast<long>(most)));
    memset(text, ' ', length);
    for (const char *piece : {before, element, behind}) {
        const size_t fits = strnlen(piece, most - length);
        memcpy(text + length, piece, fits);
        length += fits;
    }
    text[length] = '\0';
}

int conn_send_XML_tag(const char *element, int indent, int start)
{
    if (indent < 0 || !element)
        return error_invalid_arguments(__func__);
    const tag_text_t tag(indent, start ? "<" : "</", element, ">\n");
    return conn_send2(tag.text, static_cast<int>(tag.length));
}

int conn_send_start(const char *element, int indent)
{
    return conn_send_XML_tag(element, indent, 1);
}

int conn_send_end(const char *element, int indent)
{
    return conn_send_XML_tag(element, indent, 0);
}

int conn_send_XML_string(const char *element, int indent, const char *string)
{
    if (!string || !element || indent < 0)
        return error_invalid_arguments(__func__);
    size_t size = static_cast<size_t>(indent) + 2 * strlen(element) + 6;
    for (const char *next = string; *next; next++) {
        const xml_char_t *row = find_xml_char(*next);
        size += row ? static_cast<size_t>(row->len) : 1;
    }
    // printf and conn_send2() count in int.
    unique_text text{size < INT_MAX ? static_cast<char *>(calloc(size + 1, 1)) : nullptr};
    if (!text) {
        error_print("? %s: failed to allocate string\n", __func__);
        return ENOMEM;
    }
    char *end = text.get();
    memset(end, ' ', static_cast<size_t>(indent));
    end += indent;
    *end++ = '<';
    end = stpcpy(end, element);
    *end++ = '>';
    for (const char *next = string; *next; next++) {
        if (const xml_char_t *row = find_xml_char(*next))
            end = stpcpy(end, row->out);
        else
            *end++ = *next;
    }
    end = stpcpy(end, "</");
    end = stpcpy(end, element);
    end = stpcpy(end, ">\n");
    return conn_send2(text.get(), static_cast<int>(end - text.get()));
}

} // namespace zorvik
