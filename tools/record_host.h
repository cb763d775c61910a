/**
 * What the files of record-host share. The recording goes to standard output, and what cannot be
 * recorded is told on standard error.
 */
#pragma once

#include <set>
#include <string>
#include <vector>

#include "agent_common.h"

/** Whether addresses and identifiers get stand-ins: equal values the same one. */
extern bool masking;

/** The text with a stand-in for every hardware and IPv4 address, if that is wanted. */
std::string mask_text(const std::string &text);

/** Puts a stand-in in place of an address or identifier, written with the separator "." or ":". */
void mask_bytes(unsigned char *bytes, size_t count, char separator);

/** The same for the digits of a hardware address in a name or path: "enx02005e005310". */
std::string mask_name(const std::string &name);

/** The same for the content of the file at a path, with what else it tells of its host. */
std::string mask_file(const std::string &path, std::string content);

/** The network interfaces that sysfs or the kernel's table has. */
const std::set<std::string> &interface_names();

/** A text built from a printf format, cut at 255 characters. */
std::string format(const char *text, ...) PRINTF_FORMAT(1, 2);

/** An errno value as a recording writes it, "EACCES". */
const char *error_name(int error);

/** The entries of a directory whose names match the pattern, in the order the directory has them.
 */
std::vector<std::string> list_directory(const std::string &path, const std::string &pattern);

/** The parts of a recording that are no files below /proc and /sys. */
void record_interfaces();
void record_switch();
void record_firmware();
void record_controller();
void record_hypervisor();
