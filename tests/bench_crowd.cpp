// A crowd of sleeping processes, and the bare loop that the process list is measured against.
//   bench_crowd COUNT: makes the crowd; for every line of input, times one loop, prints the
//   seconds.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

/** Opens, reads and closes the stat file of every process, and nothing else. */
static double bare_loop()
{
    const auto start = std::chrono::steady_clock::now();
    DIR *proc = opendir("/proc");
    while (const struct dirent *entry = readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
            continue;
        char path[300], line[512];
        snprintf(path, sizeof path, "%s/stat", entry->d_name);
        const int fd = openat(dirfd(proc), path, O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        if (read(fd, line, sizeof line) < 0)
            perror(path);
        close(fd);
    }
    closedir(proc);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int main(int, char **arguments)
{
    for (int left = atoi(arguments[1]); left > 0; left--) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            pause();
            _exit(0);
        }
        if (child < 0) {
            perror("bench_crowd: fork");
            return 1;
        }
    }
    puts("ready");
    fflush(stdout);
    while (getchar() != EOF) {
        printf("%.9f\n", bare_loop());
        fflush(stdout);
    }
    signal(SIGCHLD, SIG_IGN);
}
