/**
 * The numbers of a process, as its stat file tells them.
 */
#pragma once

namespace zorvik
{

// The fields of a stat line are numbered from 1, as proc(5) does.
inline constexpr int last_number = 39;

/**
 * What a stat line says, as far as it is looked at; what is missing is 0. A number is kept as the
 * scanf conversion of its kind leaves it.
 */
struct proc_stat_t {
    char comm[64];
    char state;
    long number[last_number + 1];
};

/**
 * Takes a stat line apart word by word, up to the first field that is none: a blank in the
 * command's name shifts what follows it, unless current sources are asked.
 */
void scan_proc_stat(const char *at, proc_stat_t *stat);

} // namespace zorvik
