// Puts stand-ins in place of what tells which host was recorded.
#include "record_host.h"

#include <algorithm>
#include <map>
#include <regex.h>
#include <set>

#include "agent_text.h"

using namespace zorvik;

bool masking = false;

namespace
{

/** The stand-in of an address or identifier; one that many hosts share stays. */
std::string stand_in(std::string value)
{
    static std::map<std::string, size_t> numbers;
    std::string key = value;
    const bool dotted = key.find('.') != std::string::npos;
    if (!dotted)
        std::erase(key, ':');
    std::transform(key.begin(), key.end(), key.begin(), tolower);
    const auto begins = [&](const char *start) { return has_prefix(key.c_str(), start); };
    if (key.find_first_not_of(key[0]) == std::string::npos || begins("0.") || begins("127.") ||
        begins("255."))
        return value;
    const size_t number = numbers.try_emplace(key, numbers.size() + 1).first->second;
    if (dotted)
        return format("198.18.%zu.%zu", number / 256 % 256, number % 256);
    // Locally administered, and for a UUID no pattern that counts as none.
    const std::string digits = format("da%0*zx", static_cast<int>(key.size()) - 2, number);
    size_t at = 0;
    for (char &digit : value)
        if (digit != ':')
            digit = digits[at++];
    return value;
}

/** The text with what `replace` makes of the hardware addresses written as 12 digits alone: such an
 * address is what the digits end with, for a name may have letters before it that count as some. */
template <typename Replace> std::string replace_digits(std::string text, Replace replace)
{
    constexpr char hex[] = "0123456789abcdefABCDEF";
    constexpr size_t length = 12;
    size_t end = 0;
    for (size_t at = 0; (at = text.find_first_of(hex, end)) != std::string::npos;) {
        end = std::min(text.find_first_not_of(hex, at), text.size());
        if (end - at >= length)
            text.replace(end - length, length, replace(text.substr(end - length, length)));
    }
    return text;
}

/** The text with stand-ins for the addresses that have separators. */
std::string mask_addresses(const std::string &text)
{
    static const regex_t addresses = [] {
        regex_t compiled;
        regcomp(&compiled,
                "\\b(([0-9]{1,3}\\.){3}[0-9]{1,3}|([0-9a-f]{4}:){7}[0-9a-f]{4}|"
                "([0-9a-f]{2}:){3,}[0-9a-f]{2})\\b",
                REG_EXTENDED | REG_ICASE);
        return compiled;
    }();
    std::string masked;
    const char *start = text.c_str();
    const auto size = static_cast<regoff_t>(text.size());
    regoff_t at = 0;
    for (regmatch_t match = {0, size}; regexec(&addresses, start, 1, &match, REG_STARTEND) == 0;
         match = {at, size}) {
        masked.append(start + at, start + match.rm_so);
        masked += stand_in(std::string(start + match.rm_so, start + match.rm_eo));
        at = match.rm_eo;
    }
    return masked.append(text, static_cast<size_t>(at));
}

/** A process's stat line without its addresses: of its code, data, stack, arguments and
 * environment, where it stands and where it waits. */
std::string mask_stat(const std::string &line)
{
    const auto is_address = [](int field) { // numbered as in proc(5)
        return (field >= 26 && field <= 30) || field == 35 || (field >= 45 && field <= 51);
    };
    int field = 2; // the name, which may have blanks and parentheses in it
    size_t end = line.rfind(')') + 1;
    std::string masked = line.substr(0, end);
    for (size_t at = end; at < line.size(); at = end) {
        end = std::min(line.find_first_of(" \n", at + 1), line.size());
        masked += line[at] == ' ' && is_address(++field) ? " 0" : line.substr(at, end - at);
    }
    return masked;
}

} // namespace

std::string mask_name(const std::string &name)
{
    return masking ? replace_digits(name, stand_in) : name;
}

std::string mask_text(const std::string &text)
{
    if (!masking)
        return text;
    // Among the numbers of a text only those are addresses that stand in an interface's name.
    static const std::set<std::string> named = [] {
        std::set<std::string> found;
        for (const std::string &name : interface_names())
            replace_digits(name,
                           [&](const std::string &digits) { return *found.insert(digits).first; });
        return found;
    }();
    return replace_digits(mask_addresses(text), [](const std::string &digits) {
        return named.contains(digits) ? stand_in(digits) : digits;
    });
}

std::string mask_file(const std::string &path, std::string content)
{
    if (!masking)
        return content;
    if (path.find("/phys_") != std::string::npos) // an address without its colons
        std::replace_if(content.begin(), content.end(), isxdigit, '0');
    if (path.ends_with("/ifalias")) // what the operator likes to write
        std::fill(content.begin(), content.end() - content.ends_with('\n'), 'X');
    if (path.starts_with("/proc/") && path.ends_with("/stat"))
        content = mask_stat(content);
    return mask_text(content);
}

void mask_bytes(unsigned char *bytes, size_t count, char separator)
{
    std::string text;
    for (size_t i = 0; i < count; i++)
        text += format(separator == '.' ? "%d." : "%02x:", bytes[i]);
    text = mask_text(text.substr(0, text.size() - 1));
    char *at = text.data();
    for (size_t i = 0; i < count; i++, at++)
        bytes[i] = static_cast<unsigned char>(strtoul(at, &at, separator == '.' ? 10 : 16));
}
