// Bonds: as the bonding driver's status tells them, and as sysfs does.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

// The banner, a blank line and the mode, which sysfs tells better.
constexpr int heading_lines = 3;

// Lines of no interest, by the beginning of their keys: hash policy, 802.3ad, LACP, aggregators.
constexpr const char *skipped_keys[] = {"Tran", "802.", "LACP", "Acti", "Aggr"};

constexpr char log_name[] = "show_bond_status";

int error_reading(const char *path, int error)
{
    return error_errno(log_name, error, "error reading file '%s'", path);
}

/** One line of a bond's status file. A null key: nothing to report. */
struct bond_line_t {
    unique_text key;
    unique_text value;
};

bool is_name_character(char character)
{
    return !isascii(character) || isalnum(character) || strchr("_-.", character);
}

/**
 * Makes an XML name of a key that is none: what must not stand in one becomes "_", and so does the
 * blank before a unit or form.
 */
void name_key(unique_text *key, const char *untrimmed)
{
    char *text = key->get();
    const auto starts_name = [](char first) {
        return !isascii(first) || isalpha(first) || first == '_';
    };
    if (starts_name(*text) && std::all_of(text, text + strlen(text), is_name_character))
        return;
    key->reset(strdup(untrimmed));
    text = key->get();
    if (!text)
        return;
    std::replace_if(text, text + strlen(text), std::not_fn(is_name_character), '_');
    if (!starts_name(*text))
        *text = '_';
}

/** Takes a line apart, "Key (unit): value"; the line is changed. */
bond_line_t parse_bond_line(char *line)
{
    char *colon = strchr(line, ':');
    if (line[0] == '\t' || has_prefix(line, "Slave queue") || !colon)
        return {};
    unique_text value{string_trim(colon[1] ? colon + 2 : "")};
    *colon = '\0';
    line[strcspn(line, "(")] = '\0';
    unique_text key{string_trim(line)};
    if (!key)
        return {};
    constexpr char targets[] = "ARP IP target";
    if (has_prefix(key.get(), "ARP IP target/s"))
        key.get()[sizeof targets - 1] = '\0';
    std::replace(key.get(), key.get() + strlen(key.get()), ' ', '_');
    for (const char *skipped : skipped_keys)
        if (has_prefix(key.get(), skipped))
            return {};
    if (is_asked(CURRENT))
        name_key(&key, line + strspn(line, " "));
    return {std::move(key), std::move(value)};
}

/**
 * Writes what a bond's status file says, the lines about each slave in an element of its own.
 * Returns 0, or the error that ended it.
 */
int send_bond_lines(int indent, FILE *file, const char *path)
{
    bool slave_open = false;
    int status = 0;
    char text[256];
    for (int number = 1; status == 0 && fgets(text, sizeof text, file); number++) {
        if (number <= heading_lines)
            continue;
        const bond_line_t line = parse_bond_line(text);
        if (!line.key)
            continue;
        const char *key = line.key.get();
        const char *value = line.value ? line.value.get() : "";
        if (!has_prefix(key, "Slave")) {
            status = conn_send_lines(1024, slave_open ? indent + 2 : indent, "<%s>%s</%s>\n", key,
                                     value, key);
            continue;
        }
        if (slave_open)
            status = conn_send_lines(1024, indent, "</%s>\n", key);
        if (status == 0)
            status = conn_send_lines(1024, indent, "<%s Name=\"%s\">\n", key, value);
        slave_open = status == 0;
    }
    if (status == 0 && ferror(file))
        status = error_reading(path, errno);
    if (!slave_open)
        return status;
    if (status != 0)
        return conn_close_early("Slave_Interface", indent, status);
    conn_send_lines(1024, indent, "</Slave_Interface>\n");
    return 0;
}

/** Writes one bond, unless it has no slaves. */
int show_bond_status(int indent, const char *name)
{
    if (!name || indent < 0)
        return error_invalid_arguments(__func__);
    const path_t<256> slaves("%s/%s/bonding/slaves", net_class, name);
    unique_fd attribute = open_file(slaves.text);
    if (!attribute)
        return error_errno(log_name, errno, "unable to open '%s'", slaves.text);
    char line[256]; // the slaves, then the mode
    if (read_first_line(attribute.fd, line, sizeof line) < 0)
        return 0;
    const path_t<256> mode("%s/%s/bonding/mode", net_class, name);
    attribute = open_file(mode.text);
    if (!attribute)
        return error_errno(log_name, errno, "unable to open '%s'", mode.text);
    if (read_first_line(attribute.fd, line, sizeof line) < 0)
        return error_reading(mode.text, errno ? errno : EINVAL);
    attribute.reset();
    line[strcspn(line, " ")] = '\0'; // "active-backup 1"
    const path_t<512> path("%s/%s", bonding_directory, name);
    unique_stream file{fopen(path.text, "re")};
    if (!file)
        return error_errno(log_name, errno, "unable to open '%s'", path.text);
    int status = conn_send_lines(1024, indent, "<Device Name=\"%s\">\n", name);
    if (status == 0)
        status = conn_send_lines(1024, indent + 2, "<Bonding_Mode>%s</Bonding_Mode>\n", line);
    if (status == 0)
        status = send_bond_lines(indent + 2, file.get(), path.text);
    if (status != 0)
        return conn_close_early("Device", indent, status);
    file.reset();
    show_addr_info(indent + 2, name, with_mtu);
    conn_send_end("Device", indent);
    return 0;
}

/** What the entries of a bond's slaves begin with, and how long that is with what parts it. */
struct slave_entry_t {
    const char *prefix;
    size_t length;
    source_age age;
};

constexpr slave_entry_t slave_entries[] = {
    {"slave", sizeof "slave_" - 1, CLASSIC},
    {"lower_", sizeof "lower_" - 1, CURRENT},
};

/**
 * Writes the slaves that a bond's directory tells of by one kind of entries. Returns 0, ENODATA when
 * it has none of them, or the errno of a failure.
 */
int send_bond_slaves(int indent, const char *path, const slave_entry_t &kind)
{
    const unique_directory bond{opendir(path)};
    if (!bond)
        return error_errno("bond_config", errno, "unable to open '%s'", path);
    bool open = false;
    while (const char *entry = next_entry(bond.get(), ENTRY_OTHER_THAN_DIRECTORY)) {
        if (!has_prefix(entry, kind.prefix))
            continue;
        if (!open)
            conn_send_lines(128, indent, "<Device Name=\"%s\">\n", path + sizeof net_class - 1);
        open = true;
        const size_t prefix = std::min(strlen(entry), kind.length);
        conn_send_lines(128, indent + 2, "<Interface>%s</Interface>\n", entry + prefix);
    }
    if (open)
        conn_send_lines(128, indent, "</Device>\n");
    return open ? 0 : ENODATA;
}

/** Writes a bond with its slaves, by whichever entries tell of them. Returns 0 or an errno. */
int send_bond(int indent, const char *path)
{
    int status = ENODATA;
    for (const slave_entry_t &kind : slave_entries)
        if (status == ENODATA && is_asked(kind.age))
            status = send_bond_slaves(indent, path, kind);
    return status == ENODATA ? 0 : status;
}

} // namespace

int bonding_discover(int indent)
{
    if (!path_exists(bonding_directory))
        return 0;
    const unique_directory bonds{opendir(bonding_directory)};
    if (!bonds)
        return error_errno(__func__, errno, "unable to open '%s'", bonding_directory);
    conn_send_start("Bonding", indent);
    while (const char *name = next_entry(bonds.get(), ENTRY_OTHER_THAN_DIRECTORY))
        if (const int status = show_bond_status(indent + 2, name))
            return conn_close_early("Bonding", indent, status);
    return conn_send_end("Bonding", indent);
}

int bond_config(int indent)
{
    const unique_directory interfaces{opendir(net_class)};
    if (!interfaces)
        return error_errno(__func__, errno, "unable to open '%s'", net_class);
    conn_send_start("Bonding", indent);
    // As many bonds are looked for as there are interfaces, whatever their names.
    for (int number = 0; next_interface(interfaces.get()); number++) {
        const path_t<128> bond("%sbond%d", net_class, number);
        if (!path_exists(bond.text))
            continue;
        if (const int status = send_bond(indent + 2, bond.text))
            return conn_close_early("Bonding", indent, status);
    }
    return conn_send_end("Bonding", indent);
}

} // namespace zorvik
