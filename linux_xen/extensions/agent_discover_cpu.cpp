// The CPUInfo element: the kernel's processors, and the virtual ones it could be given.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_handles.h"
#include "agent_hypervisor.h"
#include "agent_sources.h"
#include "agent_text.h"

namespace zorvik
{

bool is_cpu_to_add(uint32_t vcpus, uint32_t nr_online_vcpus, uint32_t max_vcpu_id)
{
    // The hypervisor gives no domain more; it says ~0 of one that has none at all.
    constexpr uint32_t most_vcpus = 8192;
    return vcpus >= nr_online_vcpus && vcpus <= max_vcpu_id && max_vcpu_id < most_vcpus;
}

namespace
{

constexpr char processor_table[] = "/proc/cpuinfo";
constexpr int line_bytes = 512;

// What differs from one moment or kernel to the next, or is of no use to a reader.
constexpr const char *excluded_keys[] = {
    "cpu_MHz",  "fpu",          "fpu_exception",   "cpuid_level",   "wp",
    "bogomips", "clflush_size", "cache_alignment", "address_sizes",
};

struct remembered_key_t {
    const char *key;
    size_t size; // of the value's buffer, terminator included
};

// What is said of an added processor too, as the first listed one has it.
constexpr remembered_key_t remembered_keys[] = {
    {"vendor_id", 16}, {"cpu_family", 16}, {"model", 16}, {"model_name", 64}, {"flags", 256},
};

struct cpu_list_t {
    int indent; // of CPU elements
    uint32_t vcpus;
    bool saw_processor;
    char remembered[std::size(remembered_keys)][256];
};

void close_processor(const cpu_list_t &list)
{
    if (list.saw_processor)
        conn_send_end("CPU", list.indent);
}

void open_processor(cpu_list_t *list, const char *id)
{
    close_processor(*list);
    conn_send_lines(line_bytes, list->indent, "<CPU ID=\"%s\">\n", id);
    list->saw_processor = true;
    list->vcpus++;
}

void send_key(cpu_list_t *list, const char *name, const char *value)
{
    const auto is_name = [name](const char *key) { return strcmp(key, name) == 0; };
    if (std::none_of(std::begin(excluded_keys), std::end(excluded_keys), is_name))
        conn_send_XML_string(name, list->indent + (list->saw_processor ? 2 : 0), value);
    for (size_t i = 0; i < std::size(remembered_keys); i++)
        if (list->remembered[i][0] == '\0' && is_name(remembered_keys[i].key))
            snprintf(list->remembered[i], remembered_keys[i].size, "%s", value);
}

void send_line(cpu_list_t *list, char *line)
{
    char *colon = strchr(line, ':');
    if (!colon)
        return;
    *colon = '\0';
    const unique_text value{string_trim(colon + 1)};
    if (!value)
        return;
    if (has_prefix(line, "processor")) {
        open_processor(list, value.get());
        return;
    }
    const unique_text name{string_trim(line)};
    if (!name)
        return;
    std::replace(name.get(), name.get() + strlen(name.get()), ' ', '_');
    send_key(list, name.get(), value.get());
}

void add_processor(cpu_list_t *list)
{
    char id[16];
    snprintf(id, sizeof id, "%d", static_cast<int>(list->vcpus));
    open_processor(list, id);
    for (size_t i = 0; i < std::size(remembered_keys); i++)
        if (list->remembered[i][0] != '\0')
            conn_send_XML_string(remembered_keys[i].key, list->indent + 2, list->remembered[i]);
}

// The steps of show_proc_cpuinfo() speak in its name.
constexpr char log_name[] = "show_proc_cpuinfo";

/** Asks for the control domain's record. Returns whether it could be had. */
bool get_control_domain(domain_t *domain)
{
    const unique_hypervisor hypervisor = open_hypervisor(log_name);
    if (!hypervisor)
        return false;
    const int count = get_domain_from(hypervisor.get(), 0, domain);
    if (count < 1)
        error_print("? %s: unable to get domain 0 info, status %d\n", log_name, count);
    return count >= 1;
}

void show_proc_cpuinfo(int indent)
{
    domain_t domain = {};
    const bool known = get_control_domain(&domain);
    if (!known && !is_asked(CURRENT))
        return;
    const unique_stream table{fopen(processor_table, "re")};
    if (!table) {
        error_errno(log_name, errno, "unable to open %s", processor_table);
        return;
    }
    conn_send_start("Proc_Info", indent);
    cpu_list_t list = {};
    list.indent = indent + 2;
    char line[line_bytes];
    while (fgets(line, sizeof line, table.get()))
        send_line(&list, line);
    while (known && is_cpu_to_add(list.vcpus, domain.nr_online_vcpus, domain.max_vcpu_id))
        add_processor(&list);
    if (!feof(table.get()))
        error_print("? %s: %s terminated before eof\n", log_name, processor_table);
    close_processor(list);
    conn_send_end("Proc_Info", indent);
}

} // namespace

void config_send_cpuinfo(int indent)
{
    conn_send_start("CPUInfo", indent);
    show_proc_cpuinfo(indent + 2);
    conn_send_end("CPUInfo", indent);
}

} // namespace zorvik
