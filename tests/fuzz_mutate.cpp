// Mutations that know what an input of the targets "memory" and "ipmi" is made of: others mostly
// break what stands behind the place that they change.
#include "fuzz.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "agent_discover_internal.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t most);

namespace
{

using pieces_t = std::vector<std::string>;

std::minstd_rand chance;

size_t below(size_t limit)
{
    return limit ? chance() % limit : 0;
}

std::string mutated(std::string bytes, size_t growth = 32)
{
    const size_t length = bytes.size();
    bytes.resize(length + growth);
    bytes.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t *>(bytes.data()), length, bytes.size()));
    return bytes;
}

/** Drops or doubles a piece, or changes it. */
void change_one(pieces_t *pieces, void (*change)(std::string *piece))
{
    const auto chosen = pieces->begin() + static_cast<long>(below(pieces->size()));
    switch (below(4)) {
    case 0:
        pieces->insert(pieces->begin() + static_cast<long>(below(pieces->size())), *chosen);
        break;
    case 1:
        pieces->erase(chosen);
        break;
    default:
        change(&*chosen);
    }
}

/** Cuts a table into its structures, as its lengths say. */
pieces_t split_structures(const std::string &table)
{
    pieces_t structures;
    for (size_t at = 0; at < table.size(); at += structures.back().size()) {
        const size_t length = at + 1 < table.size() ? static_cast<uint8_t>(table[at + 1]) : 0;
        const size_t end = table.find(std::string(2, '\0'), at + std::max<size_t>(length, 4));
        structures.push_back(table.substr(at, end == std::string::npos ? end : end + 2 - at));
    }
    return structures;
}

void mutate_structure(std::string *structure)
{
    constexpr uint8_t types[] = {0, 1, 2, 3, 4, 4, 127, 255};
    structure->resize(std::max<size_t>(structure->size(), 6));
    char &length = (*structure)[1];
    const size_t formatted = std::min<size_t>(static_cast<uint8_t>(length), structure->size());
    std::string fields = structure->substr(0, formatted), strings = structure->substr(formatted);
    fields.resize(std::max<size_t>(fields.size(), 4));
    switch (below(5)) {
    case 0:
        structure->front() = static_cast<char>(types[below(std::size(types))]);
        return;
    case 1:
        length = static_cast<char>(length + static_cast<int>(below(9)) - 4);
        return;
    case 2: // more or fewer fields, with the length that says so
        fields.resize(4 + below(60), static_cast<char>(below(6)));
        break;
    case 3: // another number in one field: of a string, mostly
        fields.back() = static_cast<char>(below(4));
        fields[below(fields.size())] = static_cast<char>(below(8));
        break;
    default:
        strings = mutated(strings) + std::string(2 * below(2), '\0');
    }
    fields.resize(std::clamp<size_t>(fields.size(), 4, 255));
    fields[1] = static_cast<char>(fields.size());
    *structure = fields + strings;
}

std::string mutate_memory(std::string input)
{
    constexpr size_t entry_bytes = sizeof(smbios_entry_point_t);
    if (input.size() <= entry_bytes || below(4) == 0)
        return mutated(input);
    pieces_t structures = split_structures(input.substr(entry_bytes));
    input.resize(entry_bytes);
    change_one(&structures, mutate_structure);
    std::string table;
    for (const std::string &structure : structures)
        table += structure;
    // What the entry point says of the table: mostly the truth, or nearly that.
    auto &smb = *reinterpret_cast<smbios_entry_point_t *>(input.data());
    auto &dmi = input[1] == 'D' ? *reinterpret_cast<dmi_entry_point_t *>(&smb) : smb.dmi;
    dmi.length = static_cast<uint16_t>(table.size() + below(8) / 7 * (below(5) - 2));
    dmi.items = static_cast<uint16_t>(structures.size() + below(4) / 3 * (below(5) - 2));
    return input + table;
}

void mutate_reply(std::string *reply)
{
    if (below(3) == 0)
        *reply = std::string("\0\1\4\1\x80\xf2\x1b\0\0", 9); // of a channel that is a LAN
    else if (below(2))
        reply->resize(below(24));
    else
        *reply = mutated(*reply);
    reply->resize(std::min<size_t>(reply->size(), 255));
}

std::string mutate_ipmi(const std::string &input)
{
    pieces_t replies = split_replies(input);
    if (replies.empty() || below(8) == 0)
        return mutated(input);
    change_one(&replies, mutate_reply);
    std::string joined;
    for (const std::string &reply : replies)
        joined += static_cast<char>(reply.size()) + reply;
    return joined;
}

} // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t most,
                                          unsigned int seed)
{
    static const std::string target = getenv("FUZZ_TARGET");
    if (target != "memory" && target != "ipmi")
        return LLVMFuzzerMutate(data, size, most);
    chance.seed(seed);
    const std::string input{reinterpret_cast<const char *>(data), size};
    const std::string made = target == "memory" ? mutate_memory(input) : mutate_ipmi(input);
    return made.copy(reinterpret_cast<char *>(data), most);
}
