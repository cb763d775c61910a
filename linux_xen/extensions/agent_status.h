/**
 * The status document: its command language, its driver and its own sections.
 */
#pragma once

#include "agent_common.h"

namespace zorvik
{

/** The sections of the document, one bit each. */
typedef enum sts_flags_s {
    STS_FLAG_PROCS = 1,
    STS_FLAG_CPU = 2,
    STS_FLAG_SCHEDULER = 4,
    STS_FLAG_SCSI = 8,
    STS_FLAG_NETWORK = 16,
    STS_FLAG_MEMORY = 32,
    STS_FLAG_DOMINFO_BRIEF = 64,
    STS_FLAG_BR_CONFIG = 128,
    STS_FLAG_EXCEPT_DOM = STS_FLAG_PROCS | STS_FLAG_CPU | STS_FLAG_SCHEDULER | STS_FLAG_SCSI |
                          STS_FLAG_NETWORK | STS_FLAG_MEMORY
} sts_flags_t;

/**
 * Answers a status command: clauses of the word "Option", any text up to a colon, and option names
 * in the order of their table, letter case ignored. An empty command stands for CPU, Memory,
 * Network, Scheduler and SCSI. Writes a status line, and behind code 200 the document.
 * Returns 0, EINVAL for a command that was rejected, or the error of a failed append.
 */
int agent_status(conn_t *conn, const char *cmdstring);

/**
 * Writes the document with the sections of `flags`. Returns 0, ENOENT, or the error of a failed
 * append.
 */
int generate_status(sts_flags_t flags);

/** Writes CPUTime, the kernel's clock ticks per second; there is only the brief form. */
int send_CPU_time(int indent, int brief);

/** Writes Processes, an element for every process of the host. Returns 0 or an errno. */
int send_ps_info(int indent);

/**
 * Writes one Process from the line of "/proc/PIDNAME/stat" (format: proc(5)).
 * Returns 0, EINVAL, or the errno of the failed open or read.
 */
int send_proc_info(int indent, const char *pidName);

/** Writes Domains, an element for every virtual machine. Returns 0 or an errno. */
int send_Domain_Info(int indent);

/** Writes Scheduler, the hypervisor's scheduler and every domain's share. Returns 0 or an errno. */
int send_scheduler(int indent);

/** The name of a domain's shutdown code. */
const char *shutdown_reason(int reason);

/** Writes Memory, the figures of hypervisor, balloon driver and kernel. Returns 0 or an errno. */
int send_memory_info(int indent);

/** MiB that a new virtual machine can get when `freeMB` MiB are free. */
long available_memory(long freeMB);

} // namespace zorvik
