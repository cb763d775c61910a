#include "simhost.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <sys/resource.h>

#include "errno_names.h"

namespace simhost
{

host_t &host()
{
    static host_t &the_host = *new host_t;
    return the_host;
}

outcome plan(const char *call, const std::string &path)
{
    return host().loaded && host().plan ? host().plan(call, path) : outcome::normal;
}

bool served(std::string_view path)
{
    if (!host().loaded)
        return false;
    for (const char *own : {"/proc/self", "/proc/thread-self"})
        if (path.rfind(own, 0) == 0)
            return false;
    for (const char *root : {"/proc", "/sys", "/dev/mem", "/dev/ipmi0", "/usr/bin/ovs-vsctl"})
        if (path.rfind(root, 0) == 0)
            return true;
    return false;
}

namespace
{

/** Walks a path through links. With `create`, directories that are missing are made. */
node_t *walk(std::string path, bool follow, bool create, std::string *canonical)
{
    auto &nodes = host().nodes;
    std::string current;
    node_t *node = &nodes[""];
    int links = 0;
    for (size_t at = 0, end; (at = path.find_first_not_of('/', at)) != std::string::npos;
         at = end) {
        end = std::min(path.find('/', at), path.size());
        const std::string_view name = std::string_view(path).substr(at, end - at);
        if (name == ".")
            continue;
        if (node->kind != node_t::directory || name.size() > NAME_MAX) {
            errno = node->kind != node_t::directory ? ENOTDIR : ENAMETOOLONG;
            return nullptr;
        }
        if (name == "..") {
            current.erase(current.empty() ? 0 : current.rfind('/'));
            node = &nodes[current];
            continue;
        }
        const size_t parent = current.size();
        auto next = nodes.find(current.append("/").append(name));
        if (next == nodes.end()) {
            if (!create) {
                errno = ENOENT;
                return nullptr;
            }
            node->names.emplace_back(name);
            next = nodes.try_emplace(current).first;
        }
        node_t *const child = &next->second;
        const bool last = path.find_first_not_of('/', end) == std::string::npos;
        if (child->kind != node_t::link || (last && !follow)) {
            node = child;
            continue;
        }
        if (++links > 16) {
            errno = ELOOP;
            return nullptr;
        }
        path.replace(0, end, child->content);
        end = 0;
        current.resize(parent);
        if (path[0] == '/') {
            current.clear();
            node = &nodes[""];
        }
    }
    if (canonical)
        *canonical = current;
    return node;
}

std::string from_hex(const std::string &text)
{
    std::string bytes;
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) {
        for (size_t at = 0; at < line.size() && line[at] != '#'; at++) {
            if (line[at] == '"') {
                const size_t end = std::min(line.find('"', at + 1), line.size());
                bytes += line.substr(at + 1, end - at - 1);
                at = end;
            } else if (isxdigit(static_cast<unsigned char>(line[at]))) {
                bytes += static_cast<char>(strtoul(line.substr(at, 2).c_str(), nullptr, 16));
                at++;
            }
        }
    }
    return bytes;
}

void add_section(const std::string &name, const std::string &body)
{
    auto &section = host().sections[name];
    std::istringstream lines{body};
    for (std::string line; std::getline(lines, line);) {
        const size_t blank = line.find(' ');
        section[line.substr(0, blank)] = blank == std::string::npos ? "" : line.substr(blank + 1);
    }
}

/** Adds what one heading and the lines below it describe. */
void add(const std::string &heading, std::string body)
{
    if (heading.empty() || heading[0] == '#')
        return;
    if (heading[0] == '[') {
        add_section(heading.substr(1, heading.find(']') - 1), body);
        return;
    }
    std::istringstream words{heading};
    std::string path;
    words >> path;
    node_t *const made = walk(path, !path.empty() && path.back() == '/', true, nullptr);
    if (path.empty() || path[0] != '/' || !made) {
        fprintf(stderr, "simhost: nothing can stand at '%s'\n", heading.c_str());
        return;
    }
    if (path.back() == '/')
        return;
    node_t &node = *made;
    node.kind = node_t::file;
    unsigned long address = 0;
    for (std::string word; words >> word;) {
        if (word == "->") {
            node.kind = node_t::link;
            words >> body;
        } else if (word == "noeol") {
            body.resize(body.size() - !body.empty());
        } else if (word == "hex") {
            body = from_hex(body);
        } else if (word[0] == '@') {
            address = strtoul(word.c_str() + 1, nullptr, 16);
        } else if (word.rfind("open=", 0) == 0) {
            node.open_error = error_number(word.substr(5));
        } else if (word.rfind("read=", 0) == 0) {
            node.read_error = error_number(word.substr(5));
        }
    }
    if (address)
        node.memory[address] = body;
    else
        node.content = body;
}

} // namespace

node_t *find(const std::string &path, bool follow, std::string *canonical)
{
    return walk(path, follow, false, canonical);
}

int error_number(const std::string &name)
{
    for (const auto &[value, known] : errno_names)
        if (name == known)
            return value;
    return EINVAL;
}

const char *answer(const std::string &section, const char *key, int missing)
{
    errno = missing;
    const auto found = host().sections.find(section);
    if (found == host().sections.end())
        return nullptr;
    const auto value = found->second.find(key);
    if (value == found->second.end())
        return nullptr;
    if (value->second[0] != '!')
        return value->second.c_str();
    errno = error_number(value->second.substr(1));
    return nullptr;
}

} // namespace simhost

using namespace simhost;

int simhost_load(const char *recording)
{
    simhost_unload();
    std::ifstream file{recording};
    if (!file)
        return ENOENT;
    std::string heading = "#";
    std::string body;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("=== ", 0) != 0) {
            body += line + "\n";
            continue;
        }
        add(heading, body);
        heading = line.substr(4);
        body.clear();
    }
    add(heading, body);
    host().loaded = true;
    return 0;
}

void simhost_unload()
{
    host() = {};
    forget_nodes();
}

void simhost_put(const char *path, const void *content, size_t size)
{
    node_t &node = *walk(path, true, true, nullptr);
    node.kind = node_t::file;
    node.content.assign(static_cast<const char *>(content), size);
    host().loaded = true;
}

namespace
{

/** The host is no part of what is tried: where address space is limited it takes what it needs. */
void lift_limit()
{
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        std::set_new_handler(nullptr);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_AS, &limit);
}

/** A host named in the environment is there from the start: so it comes under an interpreter. */
__attribute__((constructor)) void load_from_environment()
{
    std::set_new_handler(lift_limit);
    const char *recording = getenv("SIMHOST");
    if (recording && simhost_load(recording) != 0)
        fprintf(stderr, "simhost: cannot read %s\n", recording);
}

} // namespace
